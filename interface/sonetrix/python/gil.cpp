#include "gil.h"

#include "gate.h"

#include <thread>
#include <unistd.h>

namespace sonetrix {

void parkThread() noexcept {
    for (;;) {
        pause();
    }
}

namespace {

thread_local bool endsInterpreter = false;

} // namespace

bool LibraryFrame::close(std::chrono::milliseconds limit) noexcept {
    closed_ = true;
    endsInterpreter = true;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (threads_ != (counted_ ? 1 : 0)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        unlocked([] { std::this_thread::sleep_for(std::chrono::microseconds(200)); });
    }
    return true;
}

void LibraryFrame::parkUnlessEnding() noexcept {
    if (!endsInterpreter) {
        PyEval_SaveThread();
        parkThread();
    }
}

namespace {

// Keeps an engine thread's interpreter state from its first call on. It is dropped by this object's destructor, not by
// a pthread key's: those run when the interpreter's own key is being cleared.
class KeptThreadState {
public:
    KeptThreadState() noexcept {
        if (PyGILState_GetThisThreadState() != nullptr) {
            return; // a thread of Python's own, which looks after its state itself
        }
        PyGILState_Ensure();
        state_ = PyEval_SaveThread();
    }

    ~KeptThreadState() {
        // With the gate closed, the interpreter has dropped the state, or will.
        if (state_ == nullptr || !interpreterGate().enter()) {
            return;
        }
        PyEval_RestoreThread(state_);
        PyGILState_Release(PyGILState_UNLOCKED);
        interpreterGate().leave();
    }

    KeptThreadState(const KeptThreadState &) = delete;
    KeptThreadState &operator=(const KeptThreadState &) = delete;

private:
    PyThreadState *state_ = nullptr;
};

} // namespace

EngineThreadEntry::EngineThreadEntry(LockOrder order) noexcept {
    if (!interpreterGate().enter()) {
        return;
    }
    if (order == LockOrder::check && holdsGil()) {
        interpreterGate().leave();
        outcome_ = Outcome::heldAlready;
        return;
    }
    static thread_local KeptThreadState kept;
    state_ = takeLockOrPark(PyGILState_Ensure);
    outcome_ = Outcome::entered;
}

EngineThreadEntry::~EngineThreadEntry() {
    if (outcome_ == Outcome::entered) {
        PyGILState_Release(state_);
        interpreterGate().leave();
    }
}

} // namespace sonetrix
