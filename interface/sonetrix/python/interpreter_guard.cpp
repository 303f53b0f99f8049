#include "interpreter_guard.h"

#include <memory>
#include <new>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace sonetrix {

constinit InterpreterGuard interpreterGuard;

namespace {

thread_local std::uint32_t entriesOfThread = 0;

thread_local bool forked = false; // in the child, since this thread began to dispose of ended threads' states
void (*wakeDisposer)() noexcept = nullptr;

// The state that an engine thread keeps.
struct KeptState {
    PyThreadState *state;
    KeptState *next = nullptr;
};

// Of threads that have ended. Taken as a whole, so pushing needs no more than a compare-and-swap.
constinit std::atomic<KeptState *> endedThreads = nullptr;

// From a destructor, not from a pthread key's: those run when the interpreter's own key is being cleared.
class StateKeeper : NonCopyable {
public:
    constexpr StateKeeper() noexcept = default;
    ~StateKeeper() {
        if (kept_ != nullptr) {
            kept_->next = endedThreads.load(std::memory_order_relaxed);
            while (!endedThreads.compare_exchange_weak(kept_->next, kept_, std::memory_order_release)) {
            }
        }
    }

    void enter() noexcept {
        if (std::exchange(entered_, true) || PyGILState_GetThisThreadState() != nullptr) {
            return; // once is enough; and a thread of Python's own looks after its state itself
        }
        if (threadsHaveEnded()) {
            wakeDisposer();
        }
        kept_ = new (std::nothrow) KeptState{nullptr};
        if (kept_ == nullptr) {
            return; // it works without, at a price
        }
        hangingAtFinalisation(PyGILState_Ensure);
        kept_->state = PyEval_SaveThread();
    }

    void refrain() noexcept { entered_ = true; }

private:
    bool entered_ = false;
    KeptState *kept_ = nullptr;
};

constinit thread_local StateKeeper keeper;

} // namespace

void hangThread() noexcept {
    for (;;) {
        pause();
    }
}

bool InterpreterGuard::close(std::chrono::milliseconds limit) noexcept {
    state_.fetch_or(closedBit, std::memory_order_acq_rel);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // Late comers count themselves in for an instant, hence a loop rather than a wait.
    while (state_.load(std::memory_order_acquire) != closedBit) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

void InterpreterGuard::resetAfterFork(std::uint32_t entries) noexcept {
    state_ = (state_ & closedBit) | entries;
    endedThreads = nullptr; // the interpreter itself deletes the other threads' states
    forked = true;
}

EngineThreadEntry::EngineThreadEntry(LockOrder order) noexcept {
    if (!interpreterGuard.tryEnter()) {
        return;
    }
    if (order == LockOrder::check && holdsGil()) {
        interpreterGuard.leave();
        outcome_ = Outcome::heldAlready;
        return;
    }
    ++entriesOfThread;
    keeper.enter();
    state_ = hangingAtFinalisation(PyGILState_Ensure);
    outcome_ = Outcome::entered;
}

EngineThreadEntry::~EngineThreadEntry() {
    if (outcome_ == Outcome::entered) {
        --entriesOfThread;
        PyGILState_Release(state_);
        interpreterGuard.leave();
    }
}

void keepNoThreadState() noexcept { keeper.refrain(); }

bool threadsHaveEnded() noexcept {
// Debug builds from 3.12 on assert that no thread disposes of another's state: there they stay until finalisation.
#if !defined(Py_DEBUG) || PY_VERSION_HEX < 0x030C0000
    return endedThreads.load(std::memory_order_relaxed) != nullptr;
#else
    return false;
#endif
}

// Clearing a state may run Python code, hence the one that is made for it, and hence all are cleared before the first
// deletion takes the binding to that away.
void disposeOfEndedThreads() noexcept {
    if (!interpreterGuard.tryEnter()) {
        return;
    }
    ++entriesOfThread;
    hangingAtFinalisation(PyGILState_Ensure);
    KeptState *ended = endedThreads.exchange(nullptr, std::memory_order_acquire);
    forked = false;
    const auto clear = [](PyThreadState *state) {
        hangingAtFinalisation([state] { PyThreadState_Clear(state); });
        if (forked) {
            _exit(0); // a finalizer has, and comes back in the child, where the interpreter has deleted the states
        }
    };
    for (const KeptState *cleared = ended; cleared != nullptr; cleared = cleared->next) {
        clear(cleared->state);
    }
    clear(PyThreadState_Get());
    while (ended != nullptr) {
        const std::unique_ptr<KeptState> disposed(std::exchange(ended, ended->next));
        PyThreadState_Delete(disposed->state);
    }
    PyThreadState_DeleteCurrent();
    --entriesOfThread;
    interpreterGuard.leave();
}

void watchThreads(void (*wake)() noexcept) noexcept {
    wakeDisposer = wake;
    pthread_atfork(nullptr, nullptr, [] { interpreterGuard.resetAfterFork(entriesOfThread); });
}

} // namespace sonetrix
