#include "driver/clock_driver.h"

#include <cerrno>
#include <pthread.h>

namespace sonetrix::dev {

namespace {

void sleepUntil(int64_t monotonic) noexcept {
    const timespec deadline = timespecOf(monotonic);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

} // namespace

void ClockDriver::askForRealtimeScheduling() noexcept {
    constexpr int priority = 60;
    sched_param parameters{};
    parameters.sched_priority = priority;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
}

void ClockDriver::run(const std::stop_token &stop) noexcept {
    askForRealtimeScheduling();
    const int64_t block = format().block;
    const int64_t origin = nanosecondsOf(CLOCK_MONOTONIC); // every boundary is computed from it: exact for ever
    int64_t boundary = origin;
    for (int64_t frames = block; !stop.stop_requested(); frames += block) {
        const int64_t end = processBlock(format().block, boundary);
        boundary = origin + format().nanoseconds(frames);
        if (end > boundary) {
            countXrun();
            frames = (format().frames(end - origin) / block + 1) * block; // the first boundary after that
            boundary = origin + format().nanoseconds(frames);
        }
        sleepUntil(boundary);
    }
}

} // namespace sonetrix::dev
