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

class EngineThread {
public:
    std::shared_future<void> add(std::function<void()> work) {
        auto task = std::make_shared<std::packaged_task<void()>>(std::move(work));
        const std::lock_guard lock(mutex_);
        works_.emplace_back([task] { (*task)(); });
        changed_.notify_one();
        return task->get_future().share();
    }

private:
    void run(const std::stop_token &stop) {
        sigset_t all; // as in an engine: its signals are the main thread's or the console's
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::unique_lock lock(mutex_);
        while (changed_.wait(lock, stop, [&] { return !works_.empty(); })) {
            const auto work = std::move(works_.front());
            works_.pop_front();
            lock.unlock();
            work();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<std::function<void()>> works_;
    std::jthread thread_{[this](const std::stop_token &stop) { run(stop); }};
};

std::mutex threadsMutex;
auto &engineThreads = *new std::map<int32_t, std::unique_ptr<EngineThread>>;

} // namespace

void *addRegistration(Kind kind, Callback callback, void *user, int callsInside) {
    const auto registration = std::make_shared<Registration>(Registration{kind, callback, user});
    {
        const std::lock_guard lock(mutex);
        registrations.push_back(registration);
    }
    const auto calls = [registration, times = std::abs(callsInside)] {
        const EngineList list(nullptr);
        for (int i = 0; i < times; ++i)
            call(registration, list.get());
    };
    if (callsInside < 0) {
        calls();
    } else if (callsInside > 0) {
        std::promise<void> through;
        auto future = through.get_future();
        std::thread([calls, promise = std::move(through)]() mutable {
            calls();
            promise.set_value();
        }).detach();
        future.wait_for(std::chrono::milliseconds(100));
    }
    return registration.get();
}

void removeRegistration(void *handle) {
    std::unique_lock lock(mutex);
    const auto found =
        std::ranges::find_if(registrations, [&](const auto &registration) { return registration.get() == handle; });
    if (found == registrations.end())
        return;
    const std::shared_ptr<Registration> registration = *found;
    registrations.erase(found);
    registration->removed = true;
    const auto self = std::this_thread::get_id();
    callEnded.wait(
        lock, [&] { return std::ranges::all_of(registration->callers, [&](auto id) { return id == self; }); });
}

int32_t countRegistrations(Kind kind) {
    const std::lock_guard lock(mutex);
    return static_cast<int32_t>(
        std::ranges::count_if(registrations, [&](const auto &registration) { return registration->kind == kind; }));
}

void callAll(Kind kind, sonetrix_cListKeyValue_t *list, int32_t times) {
    for (int32_t i = 0; i < times; ++i) {
        std::unique_lock lock(mutex);
        const auto snapshot = registrations;
        lock.unlock();
        for (const auto &registration : snapshot) {
            if (registration->kind == kind)
                call(registration, list);
        }
    }
}

void onEngineThread(int32_t number, std::function<void()> work, bool wait) {
    std::shared_future<void> through;
    {
        const std::lock_guard lock(threadsMutex);
        auto &thread = engineThreads[number];
        if (!thread)
            thread = std::make_unique<EngineThread>();
        through = thread->add(std::move(work));
    }
    if (wait)
        through.wait();
}

void joinEngineThread(int32_t number) {
    std::unique_ptr<EngineThread> thread;
    {
        const std::lock_guard lock(threadsMutex);
        if (const auto found = engineThreads.find(number); found != engineThreads.end())
            thread = std::move(found->second);
        engineThreads.erase(number);
    }
}

} // namespace sonetrix::record
