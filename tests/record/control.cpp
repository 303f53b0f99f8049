#include "control.h"

#include "engine.h"
#include "lists/lists.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <thread>

namespace sonetrix::record {

namespace {

struct Registration {
    Kind kind;
    Callback callback;
    void *user;
    bool removed = false;
    std::vector<std::thread::id> callers{}; // with a call in progress
};

std::mutex mutex;
std::condition_variable callEnded;
auto &registrations = *new std::vector<std::shared_ptr<Registration>>; // outlives all threads
std::atomic<int64_t> callsInside = 0;

std::vector<std::shared_ptr<Registration>> ofKind(Kind kind) {
    std::vector<std::shared_ptr<Registration>> found;
    const std::lock_guard lock(mutex);
    std::ranges::copy_if(registrations, std::back_inserter(found), [&](const auto &one) { return one->kind == kind; });
    return found;
}

// Shows each a copy of the list.
void callBack(const std::vector<std::shared_ptr<Registration>> &some, const sonetrix_cListKeyValue_t *source) {
    sonetrix_cListKeyValue list = source ? *source : sonetrix_cListKeyValue();
    Recorder::instance().began(&list, true);
    for (const auto &registration : some) {
        std::unique_lock lock(mutex);
        if (registration->removed)
            continue;
        registration->callers.push_back(std::this_thread::get_id());
        lock.unlock();
        registration->callback(&list, registration->user);
        lock.lock();
        registration->callers.erase(std::ranges::find(registration->callers, std::this_thread::get_id()));
        callEnded.notify_all();
    }
    Recorder::instance().forget(&list);
}

struct EngineThread {
    std::promise<void> joined;
    std::jthread thread;
};
std::mutex threadsMutex;
auto &engineThreads = *new std::map<int32_t, EngineThread>;

// Waits for the work to be done, for `longest` milliseconds.
void beginEngineThread(int32_t number, std::function<void()> work, int32_t longest) {
    std::packaged_task<void()> task(std::move(work));
    auto through = task.get_future();
    std::promise<void> joined;
    auto end = joined.get_future();
    std::jthread thread([task = std::move(task), end = std::move(end)]() mutable {
        sigset_t all; // as in an engine: signals are the main thread's or the console's
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        task();
        end.wait();
    });
    {
        const std::lock_guard lock(threadsMutex);
        engineThreads.insert_or_assign(number, EngineThread{std::move(joined), std::move(thread)});
    }
    if (longest)
        through.wait_for(std::chrono::milliseconds(longest));
}

} // namespace

void *addRegistration(Kind kind, Callback callback, void *user) {
    const auto registration = std::make_shared<Registration>(Registration{kind, std::move(callback), user});
    {
        const std::lock_guard lock(mutex);
        registrations.push_back(registration);
    }
    const int64_t times = callsInside.exchange(0);
    const auto calls = std::vector(static_cast<size_t>(std::abs(times)), registration);
    if (times < 0)
        callBack(calls, nullptr);
    if (times > 0)
        beginEngineThread(
            -1, [calls] { callBack(calls, nullptr); }, 100); // it may have to wait for us
    return registration.get();
}

// Waits for calls in progress on other threads.
void removeRegistration(void *handle) {
    std::unique_lock lock(mutex);
    const auto found = std::ranges::find(registrations, handle, &std::shared_ptr<Registration>::get);
    if (found == registrations.end())
        return;
    const std::shared_ptr<Registration> registration = *found;
    registrations.erase(found);
    registration->removed = true;
    const auto self = std::this_thread::get_id();
    callEnded.wait(
        lock, [&] { return std::ranges::all_of(registration->callers, [&](auto id) { return id == self; }); });
}

} // namespace sonetrix::record

using namespace sonetrix::record;

// An engine that is never started.
void record_begin() {
    static const auto *const engine =
        sonetrix::dev::Engine::create({.offlineSeconds = 1}, sonetrix_cListKeyValue()).release();
    static_cast<void>(engine);
}

void record_reset() { Recorder::instance().reset(); }
void record_noting(int32_t on) { Recorder::instance().noting = on != 0; }
// The text stays valid until the same thread asks again; also the next.
const char *record_calls(int32_t clear) {
    thread_local std::string text;
    text = Recorder::instance().calls(clear != 0);
    return text.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer): as said above
}
const char *record_violations() {
    thread_local std::string text;
    text = Recorder::instance().violations();
    return text.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer)
}
int64_t record_lists() { return Recorder::instance().listCount(); }
void record_hook(const char *name, Hook hook) { Recorder::instance().hook(name) = hook; }

// As odd as the value may be; without a key, to a list of values.
void record_add(void *list, const char *key, const sonetrix_value_t *value) {
    if (key) {
        static_cast<sonetrix_cListKeyValue_t *>(list)->add(key, *value);
    } else {
        static_cast<sonetrix_cListValue_t *>(list)->addRecord(*value);
    }
}

int64_t record_registrations(int32_t kind) { return std::ssize(ofKind(static_cast<Kind>(kind))); }
void record_callInside(int64_t times) { callsInside = times; }
void record_fire(int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t threads, int32_t times) {
    const auto work = [=] {
        for (int32_t i = 0; i < times; ++i)
            callBack(ofKind(static_cast<Kind>(kind)), list);
    };
    if (threads == 0) {
        comesInHolding = lockHeld() == 1;
        work();
        comesInHolding = false;
        return;
    }
    std::vector<std::jthread> workers;
    workers.reserve(static_cast<size_t>(threads));
    for (int32_t i = 0; i < threads; ++i)
        workers.emplace_back(work);
}
void record_fireOn(int32_t thread, int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t times, int32_t wait) {
    beginEngineThread(
        thread, [=] { record_fire(kind, list, 0, times); }, wait ? 60'000 : 0);
}
void record_join(int32_t thread) {
    std::unique_lock lock(threadsMutex);
    auto ending = engineThreads.extract(thread);
    lock.unlock();
    if (ending)
        ending.mapped().joined.set_value();
}
int32_t record_elsewhere(int32_t (*function)(const void *, void *), const void *first, void *second) {
    int32_t result = 0;
    std::thread([&] { result = function(first, second); }).join();
    return result;
}
