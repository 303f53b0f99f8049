#include "gate.h"

#include <thread>

namespace sonetrix {

bool Gate::close(std::chrono::milliseconds limit) noexcept {
    state_.fetch_or(closedBit, std::memory_order_acq_rel);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // Late comers count themselves in for an instant, hence the mask-free comparison in a loop rather than a wait.
    while (state_.load(std::memory_order_acquire) != closedBit) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

Gate &interpreterGate() noexcept {
    static constinit Gate gate;
    return gate;
}

} // namespace sonetrix
