#pragma once

#include "events/callback_registry.h"
#include "sonetrix/engine_api.h"
#include "thread.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
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
    void *add(int32_t milliseconds, sonetrix_timerCallback_t callback, void *user);
    /// Returns when no call is in progress on another thread.
    void remove(const void *handle);

    /// So much has been rendered: returns when all that is due by then has been called, or the timers are to end.
    /// Whether there was anything.
    bool advanceTo(Time rendered);
    /// Whether the calling thread is in a timer's callback.
    [[nodiscard]] bool isCalling() const noexcept { return thread_.isThisThread(); }

private:
    struct Timer {
        Time due;
        const void *handle;
        Time period;
        Time longest; // of the calls, as far as the log knows

        bool operator<(const Timer &other) const noexcept { return due < other.due; }
    };

    [[nodiscard]] Time now() const noexcept;
    [[nodiscard]] bool isDue() const noexcept { return !timers_.empty() && timers_.begin()->due <= now(); }
    void round(const std::stop_token &stop);
    void callFirst(std::unique_lock<std::mutex> &lock);
    void reportIfSlow(Timer &timer, Time taken) const;

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
