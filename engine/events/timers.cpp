#include "events/timers.h"

#include <algorithm>
#include <utility>

namespace sonetrix::dev {

namespace {

constexpr std::chrono::milliseconds slow{500};

double secondsOf(std::chrono::nanoseconds time) { return std::chrono::duration<double>(time).count(); }

} // namespace

Timers::Time Timers::now() const noexcept {
    return byRenderedTime_ ? rendered_ : Time(Thread::Clock::now().time_since_epoch());
}

void *Timers::add(int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    const Time period = std::chrono::milliseconds(std::max(milliseconds, 1));
    std::multiset<Timer> added{{now(), nullptr, period, slow}};
    void *const handle = callbacks_.add(callback, user);
    auto timer = added.extract(added.begin()); // from here on nothing asks for memory
    const std::lock_guard lock(mutex_);
    timer.value().handle = handle;
    timer.value().due = now() + period;
    timers_.insert(std::move(timer));
    changed_.notify_all();
    return handle;
}

void Timers::remove(const void *handle) {
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(timers_, [handle](const Timer &timer) { return timer.handle == handle; });
    }
    callbacks_.remove(handle);
}

bool Timers::advanceTo(Time rendered) {
    std::unique_lock lock(mutex_);
    const uint64_t before = calls_;
    rendered_ = rendered;
    if (!calling_ && !isDue())
        return false; // as after almost every block: nobody is woken
    changed_.notify_all();
    changed_.wait(lock, thread_.stopToken(), [this] { return !calling_ && !isDue(); });
    return calls_ != before;
}

void Timers::round(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    if (isDue()) {
        callFirst(lock);
        changed_.notify_all();
    } else if (timers_.empty() || byRenderedTime_) {
        changed_.wait(lock, stop, [this] { return isDue() || (!byRenderedTime_ && !timers_.empty()); });
    } else {
        const Time first = timers_.begin()->due;
        changed_.wait_until(lock, stop, Thread::Clock::time_point(first),
            [this, first] { return timers_.empty() || timers_.begin()->due < first; });
    }
}

void Timers::callFirst(std::unique_lock<std::mutex> &lock) {
    auto first = timers_.extract(timers_.begin()); // a node that goes back without asking for memory
    Timer &timer = first.value();
    calling_ = true;
    ++calls_;
    lock.unlock();
    const auto began = Thread::Clock::now();
    const bool remains = callbacks_.call(timer.handle);
    const Time taken = Thread::Clock::now() - began;
    lock.lock();
    calling_ = false;
    if (!remains) // one that is removed from here on goes when it is due
        return;
    timer.due += timer.period * (std::max(now() - timer.due, Time(0)) / timer.period + 1);
    reportIfSlow(timer, taken);
    timers_.insert(std::move(first));
}

// Once, and again when it has become twice as slow.
void Timers::reportIfSlow(Timer &timer, Time taken) const {
    if (taken < timer.longest)
        return;
    timer.longest = 2 * taken;
    const auto waited = std::ranges::count_if(timers_, [limit = now()](const auto &one) { return one.due <= limit; });
    sonetrix_log(SONETRIX_LOG_WARN, __FILE__, __LINE__, 1,
        "the callback of a timer of %g s has taken %.1f s; other timers that waited for it: %td",
        secondsOf(timer.period), secondsOf(taken), waited);
}

} // namespace sonetrix::dev
