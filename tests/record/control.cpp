#include "record.h"

#include "engine.h"
#include "lists/lists.h"
#include "thread.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <malloc.h>
#include <map>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

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
std::atomic<int32_t> callsInside = 0;

std::vector<std::shared_ptr<Registration>> ofKind(Kind kind) {
    std::vector<std::shared_ptr<Registration>> found;
    const std::lock_guard lock(mutex);
    std::ranges::copy_if(registrations, std::back_inserter(found), [&](const auto &one) { return one->kind == kind; });
    return found;
}

void call(Registration &registration, sonetrix_cListKeyValue_t *list) {
    const auto self = std::this_thread::get_id();
    std::unique_lock lock(mutex);
    if (registration.removed)
        return;
    registration.callers.push_back(self);
    lock.unlock();
    registration.callback(list, registration.user);
    lock.lock();
    registration.callers.erase(std::ranges::find(registration.callers, self));
    callEnded.notify_all();
}

// Shows each registration a copy of the list.
void callBack(int32_t kind, const sonetrix_cListKeyValue_t *source, int32_t times) {
    const bool outer = std::exchange(comesInHolding, lockHeld() == 1);
    for (; times > 0; --times) {
        sonetrix_cListKeyValue_t list = source ? *source : sonetrix_cListKeyValue_t();
        began(&list, true);
        for (const auto &registration : ofKind(static_cast<Kind>(kind)))
            call(*registration, &list);
        ended(&list, [] {});
    }
    comesInHolding = outer;
}

// Stays when its work is through, until it is destroyed.
struct EngineThread {
    std::binary_semaphore through{0};
    std::binary_semaphore ending{0};
    std::jthread thread;

    explicit EngineThread(std::function<void()> work)
        : thread([this, work = std::move(work)] {
              dev::blockTerminationSignals();
              work();
              through.release();
              ending.acquire();
          }) {}
    ~EngineThread() { ending.release(); }
};
std::mutex threadsMutex;
auto &engineThreads = *new std::map<int32_t, std::unique_ptr<EngineThread>>;

} // namespace

void *addRegistration(Kind kind, Callback callback, void *user) {
    const auto registration = std::make_shared<Registration>(Registration{kind, std::move(callback), user});
    {
        const std::lock_guard lock(mutex);
        registrations.push_back(registration);
    }
    const auto number = static_cast<int32_t>(kind);
    const int32_t times = callsInside.exchange(0);
    callBack(number, nullptr, -times);
    if (times > 0)
        record_fireOn(-1, number, nullptr, times, 100); // it may have to wait for us
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
    callEnded.wait(lock, [&, self = std::this_thread::get_id()] {
        return std::ranges::all_of(registration->callers, [&](auto caller) { return caller == self; });
    });
}

} // namespace sonetrix::record

using namespace sonetrix::record;

// An engine that is never started.
void record_begin() {
    using sonetrix::dev::Engine;
    static const auto *const engine =
        std::make_unique<Engine>(Engine::Options{.offlineSeconds = 1}, sonetrix_cListKeyValue()).release();
    static_cast<void>(engine);
}

// As odd as the value may be; without a key, to a list of values.
void record_add(void *list, const char *key, const sonetrix_value_t *value) {
    if (key)
        static_cast<sonetrix_cListKeyValue_t *>(list)->add(key, *value);
    else
        static_cast<sonetrix_cListValue_t *>(list)->addRecord(*value);
}

// What is allocated with malloc.
int64_t record_nativeBytes() {
    const auto now = mallinfo2();
    return static_cast<int64_t>(now.uordblks + now.hblkhd);
}

int64_t record_registrations(int32_t kind) { return std::ssize(ofKind(static_cast<Kind>(kind))); }
void record_callInside(int32_t times) { callsInside = times; }
void record_fire(int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t threads, int32_t times) {
    if (threads == 0)
        callBack(kind, list, times);
    std::vector<std::jthread> workers(static_cast<size_t>(threads));
    for (std::jthread &worker : workers)
        worker = std::jthread(callBack, kind, list, times);
}
void record_fireOn(int32_t thread, int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t times, int32_t wait) {
    auto made = std::make_unique<EngineThread>([=] { callBack(kind, list, times); });
    EngineThread &one = *made;
    std::unique_lock lock(threadsMutex);
    engineThreads[thread].swap(made);
    lock.unlock();
    static_cast<void>(one.through.try_acquire_for(std::chrono::milliseconds(wait)));
}
void record_join(int32_t thread) {
    std::unique_lock lock(threadsMutex);
    const auto ending = engineThreads.extract(thread);
    lock.unlock();
}
