#include "driver/cpu_load.h"

#include <algorithm>
#include <cmath>

namespace sonetrix::dev {

namespace {
constexpr double spanSeconds = 0.1;
}

CpuLoad::CpuLoad(double budget)
    : budget_(budget), blocksPerSpan_(static_cast<uint32_t>(std::max(1.0, std::round(spanSeconds / budget)))) {
    CpuFigures empty;
    empty.budget = static_cast<float>(budget);
    published_.store(empty);
}

void CpuLoad::add(double processing, double lateness) noexcept {
    current_.sum += processing;
    current_.peak = std::max(current_.peak, processing);
    current_.lateness = std::max(current_.lateness, lateness);
    if (++current_.blocks < blocksPerSpan_)
        return;
    finished_[next_] = current_;
    next_ = (next_ + 1) % finished_.size();
    current_ = Span{};
    publish();
}

void CpuLoad::publish() noexcept {
    Span all;
    double peaks = 0;
    double spans = 0;
    for (const Span &span : finished_) {
        if (span.blocks == 0)
            continue;
        all.blocks += span.blocks;
        all.sum += span.sum;
        all.peak = std::max(all.peak, span.peak);
        all.lateness = std::max(all.lateness, span.lateness);
        peaks += span.peak;
        spans += 1;
    }
    const double mean = all.sum / all.blocks;
    CpuFigures figures;
    figures.usageMean = static_cast<float>(100.0 * mean / budget_);
    figures.usagePeakMean = static_cast<float>(100.0 * peaks / spans / budget_);
    figures.timeMean = static_cast<float>(mean);
    figures.timePeak = static_cast<float>(all.peak);
    figures.budget = static_cast<float>(budget_);
    figures.latenessPeak = static_cast<float>(all.lateness);
    published_.store(figures);
}

} // namespace sonetrix::dev
