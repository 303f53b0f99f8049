#pragma once

#include <cstdint>
#include <ctime>

namespace sonetrix::dev {

constexpr int64_t nanosecondsPerSecond = 1'000'000'000;

inline int64_t nanosecondsOf(clockid_t clock) noexcept {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
}

inline timespec timespecOf(int64_t nanoseconds) noexcept {
    return {nanoseconds / nanosecondsPerSecond, nanoseconds % nanosecondsPerSecond};
}

inline double secondsOf(int64_t nanoseconds) noexcept {
    return static_cast<double>(nanoseconds) / static_cast<double>(nanosecondsPerSecond);
}

} // namespace sonetrix::dev
