#include "registrations.h"

#include "record.h"

#include <algorithm>
#include <csignal>
#include <future>
#include <memory>
#include <thread>

namespace sonetrix::record {

namespace {

struct Registration {
    Kind kind;
    Callback callback;
    void *user;
    bool removed = false;
    std::vector<std::thread::id> callers{}; // calls in progress
};

std::mutex mutex;
std::condition_variable callEnded;
auto &registrations = *new std::vector<std::shared_ptr<Registration>>; // outlives all threads

void call(const std::shared_ptr<Registration> &registration, sonetrix_cListKeyValue_t *list) {
    const auto self = std::this_thread::get_id();
    {
        const std::lock_guard lock(mutex);
        if (registration->removed)
            return;
        registration->callers.push_back(self);
    }
    if (const auto *function = std::get_if<sonetrix_listCallback_t>(&registration->callback)) {
        (*function)(list, registration->user);
    } else {
        std::get<sonetrix_timerCallback_t>(registration->callback)(registration->user);
    }
    const std::lock_guard lock(mutex);
    registration->callers.erase(std::ranges::find(registration->callers, self));
    callEnded.notify_all();
}

void callEach(const std::vector<std::shared_ptr<Registration>> &all, const sonetrix_cListKeyValue_t *source) {
    const std::unique_ptr<sonetrix_cListKeyValue_t, void (*)(sonetrix_cListKeyValue_t *)> list(
        newList<sonetrix_cListKeyValue_t>(source), deleteList);
    Recorder::instance().began(list.get(), true);
    for (const auto &registration : all)
        call(registration, list.get());
    Recorder::instance().forget(list.get());
}

struct EngineThread {
    std::promise<void> joined;
    std::jthread thread;
};
std::mutex threadsMutex;
auto &engineThreads = *new std::map<int32_t, EngineThread>;

} // namespace

void *addRegistration(Kind kind, Callback callback, void *user, int64_t callsInside) {
    const auto registration = std::make_shared<Registration>(Registration{kind, callback, user});
    {
        const std::lock_guard lock(mutex);
        registrations.push_back(registration);
    }
    const auto calls = std::vector(static_cast<size_t>(std::abs(callsInside)), registration);
    if (callsInside < 0) {
        callEach(calls, nullptr);
    } else if (callsInside > 0) {
        std::packaged_task<void()> work([calls] { callEach(calls, nullptr); });
        auto through = work.get_future();
        std::thread(std::move(work)).detach();
        through.wait_for(std::chrono::milliseconds(100));
    }
    return registration.get();
}

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

namespace {

std::vector<std::shared_ptr<Registration>> ofKind(Kind kind) {
    std::vector<std::shared_ptr<Registration>> found;
    const std::lock_guard lock(mutex);
    std::ranges::copy_if(registrations, std::back_inserter(found), [&](const auto &one) { return one->kind == kind; });
    return found;
}

} // namespace

int32_t countRegistrations(Kind kind) { return static_cast<int32_t>(ofKind(kind).size()); }

void callAll(Kind kind, const sonetrix_cListKeyValue_t *list, int32_t times) {
    for (int32_t i = 0; i < times; ++i)
        callEach(ofKind(kind), list);
}

void beginEngineThread(int32_t number, std::function<void()> work, bool wait) {
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
    if (wait)
        through.wait();
}

void joinEngineThread(int32_t number) {
    std::unique_lock lock(threadsMutex);
    auto ending = engineThreads.extract(number);
    lock.unlock();
    if (ending)
        ending.mapped().joined.set_value();
}

} // namespace sonetrix::record
