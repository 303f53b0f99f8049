#include "registration.h"

#include "log.h"
#include "module.h"
#include "python/interpreter_guard.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <list>
#include <memory>
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
};

using RegistrationList = std::list<std::shared_ptr<Registration>>;

struct Registration {
    enum class State { registering, live, removing, gone };

    RemoveFunction remove;
    Ref callable;
    State state = State::registering;
    bool isBeingRemoved = false; // by the engine's function
    int generation = 0;          // of the process that made it
    sonetrix_engine_t *engine = nullptr;
    void *handle = nullptr;
    CallableUse *use = nullptr;
    RegistrationList::iterator place;
};

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds waitLimit = 5s;
constexpr auto workerEndLimit = 100ms;

thread_local bool isWorker = false;
thread_local CallScope *innermostCall = nullptr;
std::thread::id collector; // the thread that a collection is on

// The monitor: everything in it is guarded by its mutex, and every change that somebody may wait for is notified.
struct Registry {
    std::mutex mutex;
    std::condition_variable changed;
    RegistrationList live; // and registering; oldest first
    RegistrationList removing;
    RegistrationList abandoned; // a forked child's, of what its parent was making or removing
    std::unordered_map<const void *, CallableUse> uses;
    bool ending = false;
    int generation = 0;
    std::thread worker;
    bool workerRuns = false;
    bool workerEnds = false;
};

// Never destroyed: when the process ends without the interpreter's end, the worker is still at it.
Registry &registry = *std::make_unique<Registry>().release();

bool mustNotWait() noexcept {
    return innermostCall != nullptr || isDisposing() || collector == std::this_thread::get_id() || isWorker;
}

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
            logString(SONETRIX_LOG_WARN, message);
        }
    }
    PyErr_SetRaisedException(Py_XNewRef(raised.get()));
}

// ------------------------------------------------------------------------------------- changes, with the mutex held

std::shared_ptr<Registration> takeOver(Registration &registration) noexcept {
    registration.state = Registration::State::removing;
    --registration.use->live;
    ++registration.use->removing;
    registry.removing.splice(registry.removing.end(), registry.live, registration.place);
    return *registration.place;
}

void forgetIfIdle(const CallableUse &use) noexcept {
    if (use.live == 0 && use.removing == 0 && use.calls == 0) {
        registry.uses.erase(use.callable);
    }
}

void settleLocked(Registration &registration) noexcept {
    CallableUse &use = *registration.use;
    registration.state = Registration::State::gone;
    --use.removing;
    use.isBeingRemoved = false;
    registry.removing.erase(registration.place);
    forgetIfIdle(use);
    registry.changed.notify_all();
}

std::shared_ptr<Registration> oldestLive() noexcept {
    const auto found = std::find_if(registry.live.begin(), registry.live.end(),
        [](const auto &registration) { return registration->state == Registration::State::live; });
    return found == registry.live.end() ? nullptr : *found;
}

// ------------------------------------------------------------------------------------------ with the interpreter lock

void waitUntilGone(const Registration &registration) noexcept {
    const bool isGone = unlocked([&] {
        std::unique_lock lock(registry.mutex);
        return registry.changed.wait_for(
            lock, waitLimit, [&] { return registration.state == Registration::State::gone; });
    });
    if (!isGone && registration.callable) {
        warnOfCallable(Ref(registration.callable).get());
    }
}

void settle(Registration &registration) noexcept {
    // Released lastly: a finalizer may come back here, fork, or take long.
    const Ref released = std::move(registration.callable);
    const std::lock_guard guard(registry.mutex);
    settleLocked(registration);
}

// ----------------------------------------------------------------------------------------------- the removal worker

void work() noexcept {
    pthread_setname_np(pthread_self(), "sonetrix-remove"); // else it bears the name of the thread that made it
    isWorker = true;
    std::unique_lock lock(registry.mutex);
    while (registry.workerRuns && !registry.workerEnds) { // in a child that a finalizer has forked, there is none
        const auto ready =
            std::find_if(registry.removing.begin(), registry.removing.end(), [](const auto &registration) {
                const CallableUse &use = *registration->use;
                return !registration->isBeingRemoved && (use.calls == 0 || use.live > 0);
            });
        if (ready == registry.removing.end()) {
            registry.changed.wait(lock);
            continue;
        }
        const std::shared_ptr<Registration> registration = *ready;
        registration->isBeingRemoved = true;
        lock.unlock();
        registration->remove(registration->engine, registration->handle);
        if (const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore); entry) {
            settle(*registration);
            lock.lock();
        } else {
            lock.lock();
            static_cast<void>(registration->callable.release()); // the interpreter's by now
            settleLocked(*registration);
        }
    }
    registry.workerRuns = false;
    registry.changed.notify_all();
}

void startWorker() noexcept {
    if (registry.workerRuns || registry.workerEnds) {
        return;
    }
    // Signals are for the console thread.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        registry.worker = std::thread([] { work(); });
        registry.workerRuns = true;
    } catch (const std::system_error &) {
        // Without a thread now, the next drop tries again; this one is told to the log.
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// It makes no engine call after this, but may still be in one that does not return, or in a finalizer: then false.
bool endWorker(std::unique_lock<std::mutex> &lock, std::chrono::milliseconds limit) noexcept {
    registry.workerEnds = true;
    registry.changed.notify_all();
    const bool ended = registry.changed.wait_for(lock, limit, [] { return !registry.workerRuns; });
    if (registry.worker.joinable()) {
        lock.unlock();
        ended ? registry.worker.join() : registry.worker.detach();
        lock.lock();
    }
    return ended;
}

void warnOfRemaining() noexcept {
    RegistrationList remaining;
    try {
        const std::lock_guard guard(registry.mutex);
        remaining = registry.removing;
    } catch (const std::bad_alloc &) {
        return;
    }
    for (const std::shared_ptr<Registration> &registration : remaining) {
        if (const Ref callable = registration->callable) {
            warnOfCallable(callable.get());
        }
    }
}

bool add(const std::shared_ptr<Registration> &registration) {
    RegistrationList node{registration};
    const void *callable = registration->callable.get();
    const auto isBeingRemoved = [callable] {
        const auto found = registry.uses.find(callable);
        return found != registry.uses.end() && found->second.isBeingRemoved;
    };
    std::unique_lock lock(registry.mutex);
    while (isBeingRemoved() && !registry.ending) { // again by another thread, perhaps, once this one has the lock
        lock.unlock();
        unlocked([&] {
            std::unique_lock waiting(registry.mutex);
            registry.changed.wait(waiting, [&] { return !isBeingRemoved() || registry.ending; });
        });
        lock.lock();
    }
    if (registry.ending) {
        return false;
    }
    CallableUse &use = registry.uses.try_emplace(callable, CallableUse{.callable = callable}).first->second;
    ++use.live;
    registration->use = &use;
    registration->generation = registry.generation;
    registration->place = node.begin();
    registry.live.splice(registry.live.end(), node);
    return true;
}

} // namespace

// ------------------------------------------------------------------------------------------------------------ calls

int callsOfThisThread(const CallableUse &use) noexcept {
    int calls = 0;
    for (const CallScope *call = innermostCall; call != nullptr; call = call->outer_) {
        calls += call->use_ == &use ? 1 : 0;
    }
    return calls;
}

CallScope::CallScope(void *user) noexcept {
    {
        const std::lock_guard guard(registry.mutex);
        const auto found = registry.uses.find(user);
        if (found == registry.uses.end() || found->second.live == 0) {
            return;
        }
        use_ = &found->second;
        ++use_->calls;
    }
    callable_ = Ref::borrow(static_cast<PyObject *>(user));
    outer_ = std::exchange(innermostCall, this);
}

CallScope::~CallScope() {
    if (use_ == nullptr) {
        return;
    }
    callable_.reset(); // with the last reference go other objects, from inside the call
    innermostCall = outer_;
    const std::lock_guard guard(registry.mutex);
    --use_->calls;
    if (use_->removing != 0) {
        registry.changed.notify_all();
    }
    forgetIfIdle(*use_);
}

void setCollecting(bool collecting) noexcept {
    collector = collecting ? std::this_thread::get_id() : std::thread::id();
}

// --------------------------------------------------------------------------------------------------- registrations

std::shared_ptr<Registration> beginRegistration(RemoveFunction remove, PyObject *callable) {
    auto registration = std::make_shared<Registration>();
    registration->remove = remove;
    registration->callable = Ref::borrow(callable);
    return add(registration) ? registration : nullptr;
}

void completeRegistration(Registration &registration, void *handle) noexcept {
    bool dropNow = false;
    {
        const std::lock_guard guard(registry.mutex);
        if (registration.generation != registry.generation) {
            return; // begun in the parent of this process
        }
        registration.handle = handle;
        registration.state = Registration::State::live;
        dropNow = handle == nullptr || registry.ending;
    }
    if (dropNow) {
        dropRegistration(registration);
    }
}

void dropRegistration(Registration &registration) noexcept {
    std::shared_ptr<Registration> taken;
    bool callsEngine = false;
    bool removesHere = false;
    {
        const std::lock_guard guard(registry.mutex);
        if (registration.state != Registration::State::live) {
            return;
        }
        taken = takeOver(registration);
        CallableUse &use = *taken->use;
        taken->engine = engineHandle();
        callsEngine = taken->handle != nullptr && taken->engine != nullptr && taken->generation == registry.generation;
        const bool nobodyInside = use.live == 0 && use.removing == 1 && use.calls == callsOfThisThread(use);
        removesHere = !callsEngine || (nobodyInside && putDisposalOff());
        taken->isBeingRemoved = removesHere;
        use.isBeingRemoved = callsEngine && removesHere;
        if (!removesHere) {
            startWorker();
        }
    }
    if (!removesHere) {
        registry.changed.notify_all();
        if (!mustNotWait()) {
            waitUntilGone(*taken);
        }
        return;
    }
    if (callsEngine) {
        unlocked([&taken] { taken->remove(taken->engine, taken->handle); });
        allowDisposal();
    }
    settle(*taken);
}

PyObject *ownedCallable(const Registration &registration) noexcept {
    return registration.state <= Registration::State::live ? registration.callable.get() : nullptr;
}

bool isRegistered(const Registration &registration) noexcept { return registration.handle != nullptr; }

// ---------------------------------------------------------------------------------------------------------- the end

bool removeAllRegistrations() noexcept {
    const bool wasWorker = std::exchange(isWorker, true); // no drop waits by itself
    std::unique_lock lock(registry.mutex);
    registry.ending = true;
    registry.changed.notify_all();
    while (const std::shared_ptr<Registration> oldest = oldestLive()) {
        lock.unlock();
        dropRegistration(*oldest);
        lock.lock();
    }
    lock.unlock();
    isWorker = wasWorker;
    const bool complete = unlocked([] {
        std::unique_lock waiting(registry.mutex);
        const bool all = registry.changed.wait_for(
            waiting, waitLimit, [] { return registry.live.empty() && registry.removing.empty(); });
        return endWorker(waiting, all ? waitLimit : workerEndLimit) && all;
    });
    if (!complete) {
        warnOfRemaining();
    }
    return complete;
}

void watchForksOfRegistrations() noexcept {
    const auto resetInChild = [] {
        new (&registry.changed) std::condition_variable; // those who waited are the parent's
        new (&registry.worker) std::thread;
        registry.workerRuns = false;
        ++registry.generation;
        registry.abandoned.splice(registry.abandoned.end(), registry.removing);
        for (auto next = registry.live.begin(); next != registry.live.end();) {
            const auto place = next++;
            if ((*place)->state == Registration::State::registering) { // on a thread that is the parent's
                --(*place)->use->live;
                registry.abandoned.splice(registry.abandoned.end(), registry.live, place);
            }
        }
        for (auto &[callable, use] : registry.uses) {
            use.removing = 0;
            use.calls = callsOfThisThread(use);
            use.isBeingRemoved = false;
        }
        registry.mutex.unlock();
    };
    pthread_atfork([] { registry.mutex.lock(); }, [] { registry.mutex.unlock(); }, resetInChild);
}

} // namespace sonetrix
