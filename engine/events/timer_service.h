#pragma once

#include "events/callback_registry.h"
#include "sonetrix/engine_api.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace sonetrix::dev {

/// Repeating timers on the monotonic clock, called back on one thread of their own. Expiries that a slow callback makes
/// impossible are left out.
class TimerService {
public:
    void start();
    /// Returns at once; nothing is called back any more once the call in progress has ended.
    void requestEnd() noexcept { thread_.request_stop(); }
    void join();

    /// A handle; null for a negative period. The shortest period is a millisecond.
    void *add(int32_t milliseconds, sonetrix_timerCallback_t callback, void *user);
    /// Returns when no call is in progress on another thread.
    void remove(const void *handle);

private:
    using Clock = std::chrono::steady_clock;
    using Callbacks = CallbackRegistry<sonetrix_timerCallback_t>;
    struct Timer {
        Callbacks::Pointer registration;
        Clock::duration period;
    };
    using Schedule = std::multimap<Clock::time_point, Timer>;

    void threadMain(const std::stop_token &stop);
    void schedule(Clock::time_point due, Timer timer);

    Callbacks callbacks_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    Schedule schedule_; // without the timer that is being called
    std::unordered_map<const void *, Schedule::iterator> scheduled_;
    std::jthread thread_;
};

} // namespace sonetrix::dev
