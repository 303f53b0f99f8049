// The interpreter lock: held, released, and taken by an engine thread that may be turned away. All lock calls of this
// library are in this header and its source.
#pragma once

#include "python.h"

#include <utility>

namespace sonetrix {

// Blocks the calling thread for ever.
[[noreturn]] void parkThread() noexcept;

// The interpreter ends a thread that asks for the lock during finalisation by unwinding it. The frames above hold
// references that may not be dropped without the lock, so such a thread stays where it is instead.
template <class TakeLock> auto takeLockOrPark(TakeLock &&takeLock) noexcept {
    try {
        return std::forward<TakeLock>(takeLock)();
    } catch (...) {
        parkThread();
    }
}

// Holds the interpreter lock, whether or not the thread held it before. For threads that belong to the interpreter's
// life: the console thread and the caller of a module function. Engine threads use EngineThreadEntry.
class GilHeld {
public:
    GilHeld() noexcept : state_(takeLockOrPark(PyGILState_Ensure)) {}
    ~GilHeld() { PyGILState_Release(state_); }
    GilHeld(const GilHeld &) = delete;
    GilHeld &operator=(const GilHeld &) = delete;

private:
    PyGILState_STATE state_;
};

// Gives the interpreter lock up, for an engine call. No Python object may be touched meanwhile.
class GilReleased {
public:
    GilReleased() noexcept : state_(PyEval_SaveThread()) {}
    ~GilReleased() {
        takeLockOrPark([this] { PyEval_RestoreThread(state_); });
    }
    GilReleased(const GilReleased &) = delete;
    GilReleased &operator=(const GilReleased &) = delete;

private:
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
inline bool holdsGil() noexcept { return PyGILState_Check() != 0; }

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
