#pragma once

#include "clock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>

namespace sonetrix::dev {

/// The driver's load over the last second (the last ten finished spans of a tenth of a second each). Zero, but for the
/// budget, until the first span is finished.
struct CpuFigures {
    float usageMean;     ///< mean time per block, in percent of the budget
    float usagePeakMean; ///< mean of the spans' longest blocks, in percent of the budget
    float timeMean;      ///< mean time per block, in seconds
    float timePeak;      ///< the longest block, in seconds
    float latenessPeak;  ///< how late a block began at worst, in seconds
    float budget;        ///< the time that a block may take at most: its duration, in seconds
};

/// Collects the figures. `add` belongs to the audio thread, `figures` to everybody.
class CpuLoad {
public:
    explicit CpuLoad(const AudioFormat &format)
        : budget_(static_cast<double>(format.block) / format.rate),
          blocksPerSpan_(std::max(1U, format.rate / format.block / 10)) {}

    void add(double processing, double lateness) noexcept {
        Span &span = spans_[current_];
        span.sum += processing;
        span.peak = std::max(span.peak, processing);
        span.lateness = std::max(span.lateness, lateness);
        if (++span.blocks < blocksPerSpan_)
            return;
        publish();
        current_ = (current_ + 1) % spans_.size();
        spans_[current_] = {};
    }
    /// Each is the newest, though one may be a tenth of a second newer than another.
    [[nodiscard]] CpuFigures figures() const noexcept {
        const auto &[usage, usagePeak, time, timePeak, lateness] = published_;
        return {usage, usagePeak, time, timePeak, lateness, static_cast<float>(budget_)};
    }

private:
    struct Span {
        uint32_t blocks = 0;
        double sum = 0;
        double peak = 0;
        double lateness = 0;
    };

    void publish() noexcept {
        Span all;
        double peaks = 0;
        double spans = 0;
        for (const Span &span : spans_) {
            all.blocks += span.blocks;
            all.sum += span.sum;
            all.peak = std::max(all.peak, span.peak);
            all.lateness = std::max(all.lateness, span.lateness);
            peaks += span.peak;
            spans += span.blocks == 0 ? 0 : 1;
        }
        const double mean = all.sum / all.blocks;
        const std::array values{100 * mean / budget_, 100 * peaks / spans / budget_, mean, all.peak, all.lateness};
        for (size_t i = 0; i < values.size(); ++i)
            published_[i].store(static_cast<float>(values[i]), std::memory_order_relaxed);
    }

    const double budget_;
    const uint32_t blocksPerSpan_;
    std::array<Span, 10> spans_;
    size_t current_ = 0;
    std::array<std::atomic<float>, 5> published_{};
};

} // namespace sonetrix::dev
