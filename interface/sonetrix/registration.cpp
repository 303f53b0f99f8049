#include "registration.h"

#include "log.h"
#include "module.h"
#include "python/interpreter_guard.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

namespace sonetrix {

// What the rules ask of a callable.
struct CallableUse {
    const void *callable;
    int live = 0; // registering, or live
    int removing = 0;
    int calls = 0;
    bool isBeingRemoved = false; // its only registration, by the thread that dropped it

    bool isIdle() const noexcept { return live == 0 && removing == 0 && calls == 0; }
};

namespace {

using namespace std::chrono_literals;

constexpr auto waitLimit = 5s;
constexpr auto workerEndLimit = 100ms;

thread_local bool isCollecting = false;
thread_local bool isWorker = false;
thread_local CallScope *innermostCall = nullptr;

// Names the callable without running code of a script's.
void warnOfCallable(PyObject *callable) noexcept {
    const Ref raised = Ref::steal(PyErr_GetRaisedException());
    PyObject *function = PyMethod_Check(callable) ? PyMethod_GET_FUNCTION(callable) : callable;
    const Ref name = PyFunction_Check(function)
                         ? Ref::borrow(reinterpret_cast<PyFunctionObject *>(function)->func_qualname)
                         : Ref::steal(PyUnicode_FromString(Py_TYPE(callable)->tp_name));
    if (name) {
        const Ref text = Ref::steal(PyUnicode_FromFormat(
            "the callable '%U' does not return: its registration is removed when it has", name.get()));
        if (const char *message = text ? PyUnicode_AsUTF8(text.get()) : nullptr) {
            logFromBridge(SONETRIX_LOG_WARN, message);
        }
    }
    PyErr_SetRaisedException(Py_XNewRef(raised.get()));
}

} // namespace

// The monitor: everything in it is guarded by its mutex, and every change that somebody may wait for is notified.
class Registry {
public:
    static Registry &instance() noexcept {
        // Never destroyed: when the process ends without the interpreter's end, the worker is still in here.
        alignas(Registry) static std::byte memory[sizeof(Registry)];
        static Registry &registry = *new (memory) Registry;
        return registry;
    }

    bool add(const std::shared_ptr<Registration> &registration);
    void complete(Registration &registration, void *handle) noexcept;
    void drop(Registration &registration) noexcept;
    bool removeAll() noexcept;

    CallableUse *beginCall(const void *callable) noexcept;
    void endCall(CallableUse &use) noexcept;

    void lockForFork() noexcept { mutex_.lock(); }
    void unlockAfterFork() noexcept { mutex_.unlock(); }
    void resetInChild() noexcept;

private:
    using State = Registration::State;

    static int callsOfThisThread(const CallableUse &use) noexcept;
    static bool mustNotWait() noexcept { return innermostCall != nullptr || isCollecting || isWorker; }

    // With the mutex held.
    std::shared_ptr<Registration> takeOver(Registration &registration) noexcept;
    void startWorker() noexcept;
    std::shared_ptr<Registration> oldestLive() const noexcept;
    void forgetIfIdle(const CallableUse &use) noexcept;
    void settleLocked(Registration &registration) noexcept;

    // With the interpreter lock held.
    void settle(Registration &registration) noexcept;
    void waitUntilGone(const Registration &registration) noexcept;
    void warnOfRemaining() noexcept;

    void work() noexcept;
    void endWorker(std::unique_lock<std::mutex> &lock) noexcept;

    std::mutex mutex_;
    std::condition_variable changed_;
    RegistrationList live_; // and registering; oldest first
    RegistrationList removing_;
    RegistrationList abandoned_;                         // a forked child's, of what its parent was removing
    std::unordered_map<const void *, CallableUse> uses_; // by callable
    bool ending_ = false;
    int generation_ = 0;
    std::thread worker_;
    bool workerRuns_ = false;
    bool workerEnds_ = false;
};

// --------------------------------------------------------------------------------------------------- registrations

bool Registry::add(const std::shared_ptr<Registration> &registration) {
    RegistrationList node{registration};
    const void *callable = registration->callable_.get();
    const auto isBeingRemoved = [this, callable] {
        const auto found = uses_.find(callable);
        return found != uses_.end() && found->second.isBeingRemoved;
    };
    std::unique_lock lock(mutex_);
    while (isBeingRemoved() && !ending_) { // again by another thread, perhaps, once this one has the lock
        lock.unlock();
        unlocked([&] {
            std::unique_lock waiting(mutex_);
            changed_.wait(waiting, [&] { return !isBeingRemoved() || ending_; });
        });
        lock.lock();
    }
    if (ending_) {
        return false;
    }
    CallableUse &use = uses_.try_emplace(callable, CallableUse{.callable = callable}).first->second;
    ++use.live;
    registration->use_ = &use;
    registration->generation_ = generation_;
    registration->place_ = node.begin();
    live_.splice(live_.end(), node);
    return true;
}

void Registry::complete(Registration &registration, void *handle) noexcept {
    bool dropNow = false;
    {
        const std::lock_guard guard(mutex_);
        registration.handle_ = handle;
        registration.state_ = State::live;
        dropNow = handle == nullptr || ending_;
    }
    if (dropNow) {
        drop(registration);
    }
}

std::shared_ptr<Registration> Registry::takeOver(Registration &registration) noexcept {
    registration.state_ = State::removing;
    --registration.use_->live;
    ++registration.use_->removing;
    removing_.splice(removing_.end(), live_, registration.place_);
    return *registration.place_;
}

void Registry::drop(Registration &registration) noexcept {
    std::shared_ptr<Registration> taken;
    bool callsEngine = false;
    bool removesHere = false;
    {
        const std::lock_guard guard(mutex_);
        if (registration.state_ != State::live) {
            return;
        }
        taken = takeOver(registration);
        CallableUse &use = *taken->use_;
        taken->engine_ = engineHandle();
        callsEngine = taken->handle_ != nullptr && taken->engine_ != nullptr && taken->generation_ == generation_;
        const bool nobodyInside = use.live == 0 && use.removing == 1 && use.calls == callsOfThisThread(use);
        removesHere = !callsEngine || (nobodyInside && putDisposalOff());
        taken->isBeingRemoved_ = removesHere;
        use.isBeingRemoved = callsEngine && removesHere;
        if (!removesHere) {
            startWorker();
        }
    }
    if (!removesHere) {
        changed_.notify_all();
        if (!mustNotWait()) {
            waitUntilGone(*taken);
        }
        return;
    }
    if (callsEngine) {
        unlocked([&taken] { taken->remove_(taken->engine_, taken->handle_); });
        allowDisposal();
    }
    settle(*taken);
}

void Registry::waitUntilGone(const Registration &registration) noexcept {
    const bool isGone = unlocked([&] {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, waitLimit, [&] { return registration.state_ == State::gone; });
    });
    if (!isGone && registration.callable_) {
        warnOfCallable(Ref(registration.callable_).get());
    }
}

void Registry::settle(Registration &registration) noexcept {
    // Released lastly: a finalizer may come back here, fork, or take long.
    const Ref released = std::move(registration.callable_);
    const std::lock_guard guard(mutex_);
    settleLocked(registration);
}

void Registry::settleLocked(Registration &registration) noexcept {
    CallableUse &use = *registration.use_;
    registration.state_ = State::gone;
    --use.removing;
    use.isBeingRemoved = false;
    removing_.erase(registration.place_);
    forgetIfIdle(use);
    changed_.notify_all();
}

void Registry::forgetIfIdle(const CallableUse &use) noexcept {
    if (use.isIdle()) {
        uses_.erase(use.callable);
    }
}

// ------------------------------------------------------------------------------------------------------------ calls

CallableUse *Registry::beginCall(const void *callable) noexcept {
    const std::lock_guard guard(mutex_);
    const auto found = uses_.find(callable);
    if (found == uses_.end() || found->second.live == 0) {
        return nullptr;
    }
    ++found->second.calls;
    return &found->second;
}

void Registry::endCall(CallableUse &use) noexcept {
    const std::lock_guard guard(mutex_);
    --use.calls;
    if (use.removing != 0) {
        changed_.notify_all();
    }
    forgetIfIdle(use);
}

int Registry::callsOfThisThread(const CallableUse &use) noexcept {
    int calls = 0;
    for (const CallScope *call = innermostCall; call != nullptr; call = call->outer_) {
        calls += call->use_ == &use ? 1 : 0;
    }
    return calls;
}

// ----------------------------------------------------------------------------------------------- the removal worker

void Registry::startWorker() noexcept {
    if (workerRuns_ || workerEnds_) {
        return;
    }
    // Signals are for the console thread.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        worker_ = std::thread([this] { work(); });
        workerRuns_ = true;
    } catch (const std::system_error &) {
        // Without a thread now, the next drop tries again; this one is told to the log.
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void Registry::work() noexcept {
    pthread_setname_np(pthread_self(), "sonetrix-remove"); // else it bears the name of the thread that made it
    isWorker = true;
    std::unique_lock lock(mutex_);
    while (!workerEnds_) {
        const auto ready = std::find_if(removing_.begin(), removing_.end(), [](const auto &registration) {
            const CallableUse &use = *registration->use_;
            return !registration->isBeingRemoved_ && (use.calls == 0 || use.live > 0);
        });
        if (ready == removing_.end()) {
            changed_.wait(lock);
            continue;
        }
        const std::shared_ptr<Registration> registration = *ready;
        registration->isBeingRemoved_ = true;
        lock.unlock();
        registration->remove_(registration->engine_, registration->handle_);
        if (const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore); entry) {
            settle(*registration);
            lock.lock();
        } else {
            lock.lock();
            static_cast<void>(registration->callable_.release()); // the interpreter's by now
            settleLocked(*registration);
        }
    }
    workerRuns_ = false;
    changed_.notify_all();
}

// ---------------------------------------------------------------------------------------------------------- the end

std::shared_ptr<Registration> Registry::oldestLive() const noexcept {
    const auto found = std::find_if(
        live_.begin(), live_.end(), [](const auto &registration) { return registration->state_ == State::live; });
    return found == live_.end() ? nullptr : *found;
}

bool Registry::removeAll() noexcept {
    const bool wasWorker = std::exchange(isWorker, true); // no drop waits by itself
    std::unique_lock lock(mutex_);
    ending_ = true;
    changed_.notify_all();
    while (const std::shared_ptr<Registration> oldest = oldestLive()) {
        lock.unlock();
        drop(*oldest);
        lock.lock();
    }
    lock.unlock();
    isWorker = wasWorker;
    const bool complete = unlocked([this] {
        std::unique_lock waiting(mutex_);
        const bool all = changed_.wait_for(waiting, waitLimit, [this] { return live_.empty() && removing_.empty(); });
        endWorker(waiting);
        return all;
    });
    if (!complete) {
        warnOfRemaining();
    }
    return complete;
}

// It makes no engine call after this, but may still be in one that does not return.
void Registry::endWorker(std::unique_lock<std::mutex> &lock) noexcept {
    workerEnds_ = true;
    changed_.notify_all();
    const bool ended = changed_.wait_for(lock, workerEndLimit, [this] { return !workerRuns_; });
    if (worker_.joinable()) {
        lock.unlock();
        ended ? worker_.join() : worker_.detach();
        lock.lock();
    }
}

void Registry::warnOfRemaining() noexcept {
    RegistrationList remaining;
    try {
        const std::lock_guard guard(mutex_);
        remaining = removing_;
    } catch (const std::bad_alloc &) {
        return;
    }
    for (const std::shared_ptr<Registration> &registration : remaining) {
        if (const Ref callable = registration->callable_) {
            warnOfCallable(callable.get());
        }
    }
}

void Registry::resetInChild() noexcept {
    new (&changed_) std::condition_variable; // those who waited are the parent's
    new (&worker_) std::thread;
    workerRuns_ = false;
    ++generation_;
    abandoned_.splice(abandoned_.end(), removing_);
    for (auto &[callable, use] : uses_) {
        use.removing = 0;
        use.calls = callsOfThisThread(use);
        use.isBeingRemoved = false;
    }
    mutex_.unlock();
}

// --------------------------------------------------------------------------------------------------- the interface

Registration::Registration(RemoveFunction remove, PyObject *callable) noexcept
    : remove_(remove), callable_(Ref::borrow(callable)) {}

std::shared_ptr<Registration> Registration::make(RemoveFunction remove, PyObject *callable) {
    auto registration = std::make_shared<Registration>(remove, callable);
    return Registry::instance().add(registration) ? registration : nullptr;
}

void Registration::complete(void *handle) noexcept { Registry::instance().complete(*this, handle); }

void Registration::drop() noexcept { Registry::instance().drop(*this); }

CallScope::CallScope(void *user) noexcept : use_(Registry::instance().beginCall(user)) {
    if (use_ != nullptr) {
        callable_ = Ref::borrow(static_cast<PyObject *>(user));
        outer_ = std::exchange(innermostCall, this);
    }
}

CallScope::~CallScope() {
    if (use_ != nullptr) {
        callable_.reset(); // with the last reference go other objects, from inside the call
        innermostCall = outer_;
        Registry::instance().endCall(*use_);
    }
}

void setCollecting(bool collecting) noexcept { isCollecting = collecting; }

bool removeAllRegistrations() noexcept { return Registry::instance().removeAll(); }

void watchForksOfRegistrations() noexcept {
    Registry::instance();
    pthread_atfork([] { Registry::instance().lockForFork(); }, [] { Registry::instance().unlockAfterFork(); },
        [] { Registry::instance().resetInChild(); });
}

} // namespace sonetrix
