#include "events/timer_service.h"

#include "thread.h"

#include <algorithm>
#include <utility>

namespace sonetrix::dev {

void TimerService::start() {
    thread_ = engineThread("sonetrix-timer", [this](const std::stop_token &stop) { threadMain(stop); });
}

void TimerService::join() {
    requestEnd();
    if (thread_.joinable())
        thread_.join();
}

void *TimerService::add(int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    if (milliseconds < 0 || callback == nullptr)
        return nullptr;
    const Clock::duration period = std::chrono::milliseconds(std::max(milliseconds, 1));
    const auto registration = callbacks_.add(callback, user);
    try {
        const std::lock_guard lock(mutex_);
        schedule(Clock::now() + period, {registration, period});
    } catch (...) {
        callbacks_.remove(registration.get());
        throw;
    }
    changed_.notify_one();
    return registration.get();
}

void TimerService::remove(const void *handle) {
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = scheduled_.find(handle); found != scheduled_.end()) {
            schedule_.erase(found->second);
            scheduled_.erase(found);
        }
    }
    callbacks_.remove(handle);
}

void TimerService::schedule(Clock::time_point due, Timer timer) {
    const void *handle = timer.registration.get();
    const auto position = schedule_.emplace(due, std::move(timer));
    try {
        scheduled_.insert_or_assign(handle, position);
    } catch (...) {
        schedule_.erase(position);
        throw;
    }
}

void TimerService::threadMain(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        if (schedule_.empty()) {
            changed_.wait(lock, stop, [this] { return !schedule_.empty(); });
            continue;
        }
        const auto due = schedule_.begin()->first;
        if (Clock::now() < due) {
            changed_.wait_until(lock, stop, due, [&] { return schedule_.empty() || schedule_.begin()->first < due; });
            continue;
        }
        const Timer timer = std::move(schedule_.extract(schedule_.begin()).mapped());
        scheduled_.erase(timer.registration.get());
        lock.unlock();
        callbacks_.call(*timer.registration);
        const bool goesOn = callbacks_.contains(timer.registration.get());
        lock.lock();
        // One that is removed just now stays in the schedule until it is due, and is not called then.
        if (goesOn)
            schedule(due + timer.period * ((Clock::now() - due) / timer.period + 1), timer);
    }
}

} // namespace sonetrix::dev
