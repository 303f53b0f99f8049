#pragma once

#include "driver/driver.h"

namespace sonetrix::dev {

/// Real time without a sound card: blocks begin on a fixed grid of the monotonic clock, each due when the next begins.
/// A block that is not finished by then is an xrun; what was missed is left out, and the next block waits for its place
/// on the grid, so that a graph that is always too slow leaves the processor some time. The audio thread runs under
/// SCHED_FIFO where that is permitted.
class ClockDriver : public Driver {
public:
    using Driver::Driver;
    ~ClockDriver() override { stop(); }

    [[nodiscard]] const char *name() const noexcept override { return "clock"; }

protected:
    void run(const std::stop_token &stop) noexcept override;
    static void askForRealtimeScheduling() noexcept;
};

} // namespace sonetrix::dev
