// Who may enter Python, and until when: the interpreter guard. (The terms are PEP 788's. CPython 3.15 has such guards
// itself; it waits for them without limit, so that a callable that never returns would keep the process from ending.)
//
//   engine threads     An engine thread that asked for the interpreter lock during finalisation would be unwound or
//                      blocked by the interpreter, and after finalisation it would crash. So each entry is counted in
//                      first. Finalisation begins when the guard is closed and the count is zero; whoever comes later
//                      is refused without having touched Python. One atomic holds both, so no entry slips between.
//   thread states      Making one costs ten times a callable's call, so an engine thread keeps its own from its first
//                      entry on. The end of the thread takes no lock, whatever the host is waiting for: the state goes
//                      to a list, and the next thread that enters for the first time wakes one of ours (registration.h
//                      has it), which disposes of those on it. Disposing may run finalizers, of what is local to a
//                      thread, so it is no engine thread's business. A thread with a state of its own could not:
//                      deleting a state takes the caller's binding to its own along.
//   a forked child     has the forking thread only: the count there is of its own entries.
#pragma once

#include "gil.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace sonetrix {

class InterpreterGuard {
public:
    // Whether the caller may enter Python; if so, it must leave() afterwards.
    bool tryEnter() noexcept {
        if ((state_.fetch_add(1, std::memory_order_acquire) & closedBit) == 0) {
            return true;
        }
        leave();
        return false;
    }

    void leave() noexcept { state_.fetch_sub(1, std::memory_order_release); }

    // Refuses all that come from now on and waits for those inside; false when some are still inside after `limit`.
    // The caller must not hold the interpreter lock, which those inside may be waiting for.
    bool close(std::chrono::milliseconds limit) noexcept;

    // In a forked child, whose one thread has entered so often.
    void resetAfterFork(std::uint32_t entries) noexcept;

private:
    static constexpr std::uint32_t closedBit = 1U << 31;

    std::atomic<std::uint32_t> state_ = 0;
};

// The guard of the process's one interpreter.
extern InterpreterGuard interpreterGuard;

// The entry of an engine thread into Python: passes the guard, then takes the lock.
class EngineThreadEntry : NonCopyable {
public:
    // With LockOrder::check, a thread that holds the lock already is refused.
    enum class LockOrder { check, ignore };
    explicit EngineThreadEntry(LockOrder order) noexcept;
    ~EngineThreadEntry();

    // False when the interpreter is ending, or when the thread held the lock already; nothing was taken then.
    explicit operator bool() const noexcept { return outcome_ == Outcome::entered; }
    bool heldAlready() const noexcept { return outcome_ == Outcome::heldAlready; }

private:
    enum class Outcome { refused, heldAlready, entered };

    Outcome outcome_ = Outcome::refused;
    PyGILState_STATE state_ = PyGILState_UNLOCKED;
};

// Whether there are states to be disposed of.
bool threadsHaveEnded() noexcept;
// Disposes of them, on a thread that keeps no state. Runs finalizers.
void disposeOfEndedThreads() noexcept;
// From now on, the calling thread keeps no state between its entries.
void keepNoThreadState() noexcept;

// To be called once, before there are entries: forked children start with the guard as said above, and `wake`, which
// needs no lock, has a thread dispose of what ended ones have left.
void watchThreads(void (*wake)() noexcept) noexcept;

} // namespace sonetrix
