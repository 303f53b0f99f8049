#include "driver/clock_driver.h"

#include "clock.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>

namespace sonetrix::dev {

namespace {

void sleepUntil(int64_t monotonic) noexcept {
    const timespec deadline = timespecOf(monotonic);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

/// Block boundaries, exact for ever: every one is computed from the grid's origin.
class Grid {
public:
    Grid(uint32_t rate, uint32_t block) noexcept : rate_(rate), block_(block) {}

    void advance() noexcept { frames_ += block_; }
    /// To the first boundary after that time.
    void advancePast(int64_t monotonic) noexcept {
        const int64_t seconds = (monotonic - origin_) / nanosecondsPerSecond;
        const int64_t rest = (monotonic - origin_) % nanosecondsPerSecond;
        const int64_t frames = seconds * rate_ + rest * rate_ / nanosecondsPerSecond;
        frames_ = std::max(frames_, frames / block_ * block_);
        while (boundary() <= monotonic)
            advance();
    }
    [[nodiscard]] int64_t boundary() const noexcept {
        return origin_ + frames_ / rate_ * nanosecondsPerSecond + frames_ % rate_ * nanosecondsPerSecond / rate_;
    }

private:
    const int64_t rate_;
    const int64_t block_;
    const int64_t origin_ = nanosecondsOf(CLOCK_MONOTONIC);
    int64_t frames_ = 0;
};

} // namespace

void ClockDriver::askForRealtimeScheduling() noexcept {
    constexpr int priority = 60;
    sched_param parameters{};
    parameters.sched_priority = priority;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
}

void ClockDriver::run(const std::stop_token &stop) noexcept {
    askForRealtimeScheduling();
    Grid grid(rate(), block());
    while (!stop.stop_requested()) {
        const int64_t lateness = nanosecondsOf(CLOCK_MONOTONIC) - grid.boundary();
        processBlock(block(), secondsOf(std::max<int64_t>(lateness, 0)));
        grid.advance();
        if (const int64_t now = nanosecondsOf(CLOCK_MONOTONIC); now > grid.boundary()) {
            countXrun();
            grid.advancePast(now);
        }
        sleepUntil(grid.boundary());
    }
}

} // namespace sonetrix::dev
