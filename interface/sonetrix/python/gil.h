// The interpreter lock: held, released, and taken by an engine thread that may be turned away. All lock calls of this
// library are in this header and its source.
#pragma once

#include "python.h"
#include "version.h"

#include <chrono>
#include <utility>

namespace sonetrix {

// Blocks the calling thread for ever.
[[noreturn]] void parkThread() noexcept;

// The interpreter ends a thread that asks for the lock during finalisation by unwinding it. The frames above hold
// references that may not be dropped without the lock, so such a thread stays where it is instead. `takeLock` calls the
// interpreter directly.
template <class TakeLock> [[gnu::always_inline]] inline auto takeLockOrPark(TakeLock &&takeLock) noexcept {
    try {
        return std::forward<TakeLock>(takeLock)();
    } catch (...) {
        parkThread();
    }
}

// A frame of this library that may run Python code. If the interpreter ended a thread somewhere below, it would be
// unwound through frames that hold references, so the end waits for such threads to come out and lets no more in. All
// of it is guarded by the interpreter lock.
class LibraryFrame {
public:
    LibraryFrame() noexcept : outer_(counted_) {
        if (!outer_) {
            enter();
        }
    }
    ~LibraryFrame() {
        if (!outer_) {
            leave();
        }
    }
    LibraryFrame(const LibraryFrame &) = delete;
    LibraryFrame &operator=(const LibraryFrame &) = delete;

    // From now on, blocks all threads but the calling one that enter such a frame. Waits, with the lock given up in
    // between, for those that are in one; false when some still are after `limit`.
    static bool close(std::chrono::milliseconds limit) noexcept;
    // For an interpreter that is started after another one's end.
    static void open() noexcept { closed_ = false; }

private:
    friend class GilReleased;

    static void enter() noexcept {
        if (closed_) [[unlikely]] {
            parkUnlessEnding();
        }
        ++threads_;
        counted_ = true;
    }
    static void leave() noexcept {
        --threads_;
        counted_ = false;
    }
    static void parkUnlessEnding() noexcept;

    inline static constinit int threads_ = 0; // in such frames; without those that have given the lock up
    inline static constinit bool closed_ = false;
    [[gnu::tls_model("initial-exec")]] inline static constinit thread_local bool counted_ = false;

    bool outer_;
};

// Holds the interpreter lock, whether or not the thread held it before. For threads that belong to the interpreter's
// life: the console thread and the caller of a module function. Engine threads use EngineThreadEntry.
class GilHeld {
public:
    GilHeld() noexcept = default;
    GilHeld(const GilHeld &) = delete;
    GilHeld &operator=(const GilHeld &) = delete;

private:
    struct Lock {
        Lock() noexcept : state(takeLockOrPark(PyGILState_Ensure)) {}
        ~Lock() { PyGILState_Release(state); }
        Lock(const Lock &) = delete;
        Lock &operator=(const Lock &) = delete;
        PyGILState_STATE state;
    };

    Lock lock_;
    LibraryFrame frame_;
};

// Gives the interpreter lock up, for an engine call. No Python object may be touched meanwhile.
class GilReleased {
public:
    // Here a thread can be parked, so the end need not wait for it.
    GilReleased() noexcept : counted_(LibraryFrame::counted_) {
        if (counted_) {
            LibraryFrame::leave();
        }
        state_ = PyEval_SaveThread();
    }
    ~GilReleased() {
        takeLockOrPark([this] { PyEval_RestoreThread(state_); });
        if (counted_) {
            LibraryFrame::enter();
        }
    }
    GilReleased(const GilReleased &) = delete;
    GilReleased &operator=(const GilReleased &) = delete;

private:
    bool counted_;
    PyThreadState *state_;
};

// Calls the engine with the interpreter lock released.
template <class Call> decltype(auto) unlocked(Call &&call) {
    GilReleased released;
    return std::forward<Call>(call)();
}

// For the console thread, at the interpreter's end: takes the lock, or gives it up, without a scope.
inline void keepGil() noexcept { PyGILState_Ensure(); }
inline void giveGilUp() noexcept { PyEval_SaveThread(); }

// Whether the calling thread holds the interpreter lock.
inline bool holdsGil() noexcept { return version::holdsLock(); }

// The entry of an engine thread into Python: passes the gate, then takes the lock. The thread's interpreter state is
// kept until the thread ends, since making one for each call costs ten times the call.
class EngineThreadEntry {
public:
    // With LockOrder::check, a thread that holds the lock already is refused.
    enum class LockOrder { check, ignore };
    explicit EngineThreadEntry(LockOrder order) noexcept;
    ~EngineThreadEntry();
    EngineThreadEntry(const EngineThreadEntry &) = delete;
    EngineThreadEntry &operator=(const EngineThreadEntry &) = delete;

    // False when the interpreter is ending, or when the thread held the lock already; nothing was taken then.
    explicit operator bool() const noexcept { return outcome_ == Outcome::entered; }
    bool heldAlready() const noexcept { return outcome_ == Outcome::heldAlready; }

private:
    enum class Outcome { refused, heldAlready, entered };

    Outcome outcome_ = Outcome::refused;
    PyGILState_STATE state_ = PyGILState_UNLOCKED;
};

} // namespace sonetrix
