#pragma once

#include "clock.h"
#include "events/callback_registry.h"
#include "sonetrix/engine_api.h"
#include "thread.h"

#include <set>

namespace sonetrix::dev {

/// Repeating timers, called back on one thread of their own. Expiries that a slow callback makes impossible are left
/// out; a slow callback is told of in the log. The timers go by the monotonic clock, or by rendered time, which comes
/// in steps and waits for them.
class Timers {
public:
    using Time = std::chrono::nanoseconds;

    explicit Timers(bool byRenderedTime) : byRenderedTime_(byRenderedTime) {}

    Thread &thread() noexcept { return thread_; }

    /// A handle. The shortest period is a millisecond.
    void *add(int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
        const Time period = std::chrono::milliseconds(std::max(milliseconds, 1));
        const std::lock_guard lock(mutex_);
        const auto timer = timers_.insert({now() + period, nullptr, period, slow});
        timer->handle = callbacks_.add(callback, user); // without one it would go when it is due
        changed_.notify_all();
        return timer->handle;
    }
    /// Returns when no call is in progress on another thread.
    void remove(const void *handle) {
        std::unique_lock lock(mutex_);
        std::erase_if(timers_, [handle](const Timer &timer) { return timer.handle == handle; });
        lock.unlock();
        callbacks_.remove(handle);
    }

    /// So much has been rendered: returns when all that is due by then has been called, or the timers are to end.
    /// Whether there was anything.
    bool advanceTo(Time rendered) {
        std::unique_lock lock(mutex_);
        const uint64_t before = calls_;
        rendered_ = rendered;
        if (!calling_ && !isDue())
            return false; // as after almost every block: nobody is woken
        changed_.notify_all();
        changed_.wait(lock, thread_.stopToken(), [this] { return !calling_ && !isDue(); });
        return calls_ != before;
    }
    /// Whether the calling thread is in a timer's callback.
    [[nodiscard]] bool isCalling() const noexcept { return thread_.isThisThread(); }

private:
    static constexpr std::chrono::milliseconds slow{500};

    struct Timer {
        Time due;
        mutable void *handle;
        Time period;
        Time longest; // of the calls, as far as the log knows

        bool operator<(const Timer &other) const noexcept { return due < other.due; }
    };

    [[nodiscard]] Time now() const noexcept {
        return byRenderedTime_ ? rendered_ : Time(Thread::Clock::now().time_since_epoch());
    }
    [[nodiscard]] bool isDue() const noexcept { return !timers_.empty() && timers_.begin()->due <= now(); }
    void round(const std::stop_token &stop) {
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
    void callFirst(std::unique_lock<std::mutex> &lock) {
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
    void reportIfSlow(Timer &timer, Time taken) const {
        if (taken < timer.longest)
            return;
        timer.longest = 2 * taken;
        const auto waited =
            std::ranges::count_if(timers_, [limit = now()](const auto &one) { return one.due <= limit; });
        sonetrix_log(SONETRIX_LOG_WARN, __FILE__, __LINE__, 1,
            "the callback of a timer of %g s has taken %.1f s; other timers that waited for it: %td",
            secondsOf(timer.period.count()), secondsOf(taken.count()), waited);
    }

    const bool byRenderedTime_;
    CallbackRegistry<sonetrix_timerCallback_t> callbacks_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::multiset<Timer> timers_; // without the one that is being called
    Time rendered_{0};
    uint64_t calls_ = 0;
    bool calling_ = false;
    Thread thread_{"sonetrix-timer", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev
