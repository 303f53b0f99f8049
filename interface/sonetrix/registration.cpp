#include "registration.h"

#include "log.h"
#include "module.h"
#include "python/interpreter_guard.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <list>
#include <mutex>
#include <new>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <unistd.h>
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
    std::condition_variable workComes; // for the worker
    RegistrationList live;             // and registering; oldest first
    RegistrationList removing;
    RegistrationList abandoned; // a forked child's, of what its parent was making or removing
    std::unordered_map<const void *, CallableUse> uses;
    bool ending = false;
    int generation = 0;
    std::thread worker;
    bool workerRuns = false;
    bool workerEnds = false;
    std::shared_ptr<Registration> atWork; // what the worker removes at present
    bool workerIsOverdue = false;         // somebody has waited for what it does at present to the limit
};

// Never destroyed: when the process ends without the interpreter's end, the worker is still at it.
Registry &registry = *std::make_unique<Registry>().release();

// Names the callable, if there is one, without running code of a script's.
void warnOf(const std::shared_ptr<Registration> &registration) noexcept {
    const RaisedException raised;
    PyObject *callable = registration ? registration->callable.get() : nullptr;
    if (callable == nullptr) {
        return logString(SONETRIX_LOG_WARN, "registrations cannot be removed at present: a finalizer does not return");
    }
    PyObject *function = PyMethod_Check(callable) ? PyMethod_GET_FUNCTION(callable) : callable;
    const char *name = PyFunction_Check(function)
                           ? PyUnicode_AsUTF8(reinterpret_cast<PyFunctionObject *>(function)->func_qualname)
                           : Py_TYPE(callable)->tp_name;
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(),
        "the callable '%.150s' does not return: its registration is removed when it has", name == nullptr ? "" : name);
    logString(SONETRIX_LOG_WARN, text.data());
}

// ------------------------------------------------------------------------------------- changes, with the mutex held

void forgetIfIdle(const CallableUse &use) noexcept {
    if (use.live == 0 && use.removing == 0 && use.calls == 0) {
        registry.uses.erase(use.callable);
    }
}

// Whether the worker can remove it.
bool isReady(const std::shared_ptr<Registration> &registration) noexcept {
    return !registration->isBeingRemoved && (registration->use->calls == 0 || registration->use->live > 0);
}

std::shared_ptr<Registration> oldestLive() noexcept {
    const auto found = std::find_if(registry.live.begin(), registry.live.end(),
        [](const auto &registration) { return registration->state == Registration::State::live; });
    return found == registry.live.end() ? nullptr : *found;
}

// ------------------------------------------------------------------------------------------ with the interpreter lock

void waitUntilGone(const std::shared_ptr<Registration> &registration) noexcept {
    bool inTime = true;
    std::shared_ptr<Registration> culprit;
    unlocked([&] {
        std::unique_lock lock(registry.mutex);
        inTime = registry.changed.wait_for(lock, waitLimit,
            [&] { return registration->state == Registration::State::gone || registry.workerIsOverdue; });
        if (!inTime) {
            registry.workerIsOverdue = registration->isBeingRemoved || isReady(registration);
            culprit = registry.workerIsOverdue ? registry.atWork : registration;
        }
    });
    if (!inTime) {
        warnOf(culprit);
    }
}

void settle(Registration &registration) noexcept {
    // Released lastly: a finalizer may come back here, fork, or take long.
    const Ref released = std::move(registration.callable);
    const std::lock_guard guard(registry.mutex);
    CallableUse &use = *registration.use;
    registration.state = Registration::State::gone;
    --use.removing;
    use.isBeingRemoved = false;
    registry.removing.erase(registration.place);
    forgetIfIdle(use);
    registry.changed.notify_all();
}

// ----------------------------------------------------------------------------------------------- the removal worker

void removeByWorker(Registration &registration) noexcept {
    registration.remove(registration.engine, registration.handle);
    if (const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore); entry) {
        settle(registration);
    } else {
        static_cast<void>(registration.callable.release()); // the interpreter's by now, which is past its end
    }
}

void work() noexcept {
    pthread_setname_np(pthread_self(), "sonetrix-remove"); // else it bears the name of the thread that made it
    isWorker = true;
    keepNoThreadState();
    std::unique_lock lock(registry.mutex);
    const int generation = registry.generation;
    while (!registry.workerEnds) {
        const auto ready = std::find_if(registry.removing.begin(), registry.removing.end(), isReady);
        registry.workerIsOverdue = false;
        registry.atWork = ready == registry.removing.end() ? nullptr : *ready;
        const std::shared_ptr<Registration> registration = registry.atWork;
        if (registration == nullptr && !threadsHaveEnded()) {
            registry.workComes.wait(lock);
            continue;
        }
        if (registration != nullptr) {
            registration->isBeingRemoved = true;
        }
        lock.unlock();
        registration != nullptr ? removeByWorker(*registration) : disposeOfEndedThreads();
        lock.lock();
        if (registry.generation != generation) {
            _exit(0); // a finalizer has forked, and comes back in the child, where there is nothing to come back to
        }
    }
    registry.workerRuns = false;
    registry.changed.notify_all();
}

// Not on an engine thread, whose priority it would inherit.
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
        // Without a thread now, the next registration tries again.
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
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
        registry.workComes.notify_one();
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
    RegistrationList node{registration};
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
        return nullptr;
    }
    CallableUse &use = registry.uses.try_emplace(callable, CallableUse{.callable = callable}).first->second;
    ++use.live;
    registration->use = &use;
    registration->generation = registry.generation;
    registration->place = node.begin();
    registry.live.splice(registry.live.end(), node);
    startWorker();
    return registration;
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
        CallableUse &use = *registration.use;
        registration.state = Registration::State::removing;
        --use.live;
        ++use.removing;
        registry.removing.splice(registry.removing.end(), registry.live, registration.place);
        taken = *registration.place;
        taken->engine = engineHandle();
        callsEngine = taken->handle != nullptr && taken->engine != nullptr && taken->generation == registry.generation;
        const bool nobodyInside = use.live == 0 && use.removing == 1 && use.calls == callsOfThisThread(use);
        removesHere = !callsEngine || nobodyInside;
        taken->isBeingRemoved = removesHere;
        use.isBeingRemoved = callsEngine && removesHere;
        if (!removesHere) {
            registry.workComes.notify_one();
        }
    }
    if (!removesHere) {
        const bool isCollecting = collector == std::this_thread::get_id();
        if (innermostCall == nullptr && !isCollecting && !isWorker) {
            waitUntilGone(taken);
        }
        return;
    }
    if (callsEngine) {
        unlocked(taken->remove, taken->engine, taken->handle);
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
    std::shared_ptr<Registration> culprit;
    const bool complete = unlocked([&culprit] {
        std::unique_lock waiting(registry.mutex);
        const bool all = registry.changed.wait_for(
            waiting, waitLimit, [] { return registry.live.empty() && registry.removing.empty(); });
        const auto stuck = std::find_if_not(registry.removing.begin(), registry.removing.end(), isReady);
        culprit = stuck == registry.removing.end() ? nullptr : *stuck;
        // After this it makes no engine call, but may still be in one that does not return, or in a finalizer.
        registry.workerEnds = true;
        registry.workComes.notify_one();
        const bool ended =
            registry.changed.wait_for(waiting, all ? waitLimit : workerEndLimit, [] { return !registry.workerRuns; });
        waiting.unlock();
        if (registry.worker.joinable()) {
            ended ? registry.worker.join() : registry.worker.detach();
        }
        return all && ended;
    });
    if (!complete) {
        warnOf(culprit);
    }
    return complete;
}

void wakeRemovalWorker() noexcept {
    const std::lock_guard guard(registry.mutex);
    registry.workComes.notify_one();
}

void watchForksOfRegistrations() noexcept {
    const auto resetInChild = [] {
        new (&registry.changed) std::condition_variable; // those who waited are the parent's
        new (&registry.workComes) std::condition_variable;
        new (&registry.worker) std::thread;
        registry.workerRuns = false;
        registry.workerIsOverdue = false;
        registry.atWork = nullptr;
        collector = collector == std::this_thread::get_id() ? collector : std::thread::id();
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
