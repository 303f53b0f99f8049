#pragma once

#include <chrono>
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

/// Of all audio in an engine.
struct AudioFormat {
    uint32_t rate = 48000; ///< frames per second
    uint32_t block = 256;  ///< frames per block

    // Rounded down, but otherwise exact for longer than any engine runs.
    [[nodiscard]] int64_t nanoseconds(int64_t frames) const noexcept {
        return frames / rate * nanosecondsPerSecond + frames % rate * nanosecondsPerSecond / rate;
    }
    [[nodiscard]] int64_t frames(int64_t nanoseconds) const noexcept {
        const int64_t rest = nanoseconds % nanosecondsPerSecond;
        return nanoseconds / nanosecondsPerSecond * rate + rest * rate / nanosecondsPerSecond;
    }
    [[nodiscard]] std::chrono::nanoseconds blockTime() const noexcept {
        return std::chrono::nanoseconds(nanoseconds(block));
    }
};

} // namespace sonetrix::dev
