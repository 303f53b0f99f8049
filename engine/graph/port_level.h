#pragma once

#include <algorithm>
#include <cmath>
#include <span>

namespace sonetrix::dev {

/// What went through a port in a block: the highest magnitude, and the mean of the squares. Full scale is 1. A sample
/// that is not a number makes both such.
struct PortLevel {
    float peak = 0;
    float meanSquare = 0;
};

inline PortLevel levelOf(std::span<const float> samples) noexcept {
    PortLevel level;
    for (const float sample : samples) {
        level.peak = std::max(level.peak, std::abs(sample)); // passes over what is no number
        level.meanSquare += sample * sample;
    }
    if (!samples.empty())
        level.meanSquare /= static_cast<float>(samples.size());
    if (std::isnan(level.meanSquare))
        level.peak = level.meanSquare;
    return level;
}

} // namespace sonetrix::dev
