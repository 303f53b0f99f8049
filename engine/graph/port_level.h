#pragma once

#include <cmath>
#include <span>

namespace sonetrix::dev {

/// What went through a port in a block: the highest magnitude, and the mean of the squares. Full scale is 1. A sample
/// that is not a number makes both such.
struct PortLevel {
    float peak = 0;
    float meanSquare = 0;
};

inline float higherPeak(float left, float right) noexcept { return left > right || std::isnan(left) ? left : right; }

inline PortLevel levelOf(std::span<const float> samples) noexcept {
    PortLevel level;
    for (const float sample : samples) {
        level.peak = higherPeak(level.peak, std::abs(sample));
        level.meanSquare += sample * sample;
    }
    if (!samples.empty())
        level.meanSquare /= static_cast<float>(samples.size());
    return level;
}

} // namespace sonetrix::dev
