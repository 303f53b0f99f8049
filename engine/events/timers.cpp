#include "events/timers.h"

#include <algorithm>

namespace sonetrix::dev {

namespace {

constexpr std::chrono::milliseconds slow{500};

double secondsOf(std::chrono::nanoseconds time) { return std::chrono::duration<double>(time).count(); }

} // namespace

Timers::Time Timers::now() const noexcept {
    return byRenderedTime_ ? rendered_ : Time(Thread::Clock::now().time_since_epoch());
}

void *Timers::add(int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    if (milliseconds < 0 || callback == nullptr)
        return nullptr;
    const Time period = std::chrono::milliseconds(std::max(milliseconds, 1));
    void *const handle = callbacks_.add(callback, user);
    try {
        const std::lock_guard lock(mutex_);
        const Time due = now() + period;
        timers_.emplace(handle, Timer{due, period, slow});
        due_.emplace(due, handle);
    } catch (...) {
        remove(handle);
        throw;
    }
    changed_.notify_all();
    return handle;
}

void Timers::remove(const void *handle) {
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = timers_.find(handle); found != timers_.end()) {
            due_.erase({found->second.due, handle});
            timers_.erase(found);
        }
    }
    callbacks_.remove(handle);
}

bool Timers::advanceTo(Time rendered) {
    std::unique_lock lock(mutex_);
    const uint64_t before = calls_;
    rendered_ = rendered;
    changed_.notify_all();
    changed_.wait(lock, thread_.stopToken(), [this] { return !calling_ && !isDue(); });
    return calls_ != before;
}

void Timers::round(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    if (isDue()) {
        callFirst(lock);
        changed_.notify_all();
    } else if (due_.empty() || byRenderedTime_) {
        changed_.wait(lock, stop, [this] { return isDue() || (!byRenderedTime_ && !due_.empty()); });
    } else {
        const Time first = due_.begin()->first;
        changed_.wait_until(lock, stop, Thread::Clock::time_point(first),
            [this, first] { return due_.empty() || due_.begin()->first < first; });
    }
}

void Timers::callFirst(std::unique_lock<std::mutex> &lock) {
    auto first = due_.extract(due_.begin()); // a node that goes back without asking for memory
    const void *const handle = first.value().second;
    calling_ = true;
    ++calls_;
    lock.unlock();
    const auto began = Thread::Clock::now();
    callbacks_.call(handle);
    const Time taken = Thread::Clock::now() - began;
    lock.lock();
    calling_ = false;
    const auto found = timers_.find(handle);
    if (found == timers_.end())
        return;
    Timer &timer = found->second;
    timer.due += timer.period * (std::max(now() - timer.due, Time(0)) / timer.period + 1);
    first.value().first = timer.due;
    due_.insert(std::move(first));
    reportIfSlow(timer, taken);
}

// Once, and again when it has become twice as slow.
void Timers::reportIfSlow(Timer &timer, Time taken) const {
    if (taken < timer.longest)
        return;
    timer.longest = 2 * taken;
    const auto waited = std::ranges::count_if(due_, [limit = now()](const auto &one) { return one.first <= limit; });
    sonetrix_log(SONETRIX_LOG_WARN, __FILE__, __LINE__, 1,
        "the callback of a timer of %g s has taken %.1f s; other timers that waited for it: %td",
        secondsOf(timer.period), secondsOf(taken), waited);
}

} // namespace sonetrix::dev
