#pragma once

#include "driver/seqlock.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace sonetrix::dev {

/// The driver's load over the last second (the last ten finished spans of a tenth of a second each). Zero, but for the
/// budget, until the first span is finished.
struct CpuFigures {
    float usageMean = 0;     ///< mean time per block, in percent of the budget
    float usagePeakMean = 0; ///< mean of the spans' longest blocks, in percent of the budget
    float timeMean = 0;      ///< mean time per block, in seconds
    float timePeak = 0;      ///< the longest block, in seconds
    float budget = 0;        ///< the time that a block may take at most: its duration, in seconds
    float latenessPeak = 0;  ///< how late a block began at worst, in seconds
};

/// Collects the figures. `add` belongs to the audio thread, `figures` to everybody.
class CpuLoad {
public:
    explicit CpuLoad(double budget);

    void add(double processing, double lateness) noexcept;
    [[nodiscard]] CpuFigures figures() const noexcept { return published_.load(); }

private:
    struct Span {
        uint32_t blocks = 0;
        double sum = 0;
        double peak = 0;
        double lateness = 0;
    };

    void publish() noexcept;

    const double budget_;
    const uint32_t blocksPerSpan_;
    Span current_;
    std::array<Span, 10> finished_;
    size_t next_ = 0;
    Seqlock<CpuFigures> published_;
};

} // namespace sonetrix::dev
