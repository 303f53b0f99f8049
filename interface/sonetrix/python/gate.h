// The gate that every engine thread passes on its way into Python.
//
// An engine thread that asked for the interpreter lock while the interpreter is being finalised would be ended by the
// interpreter, and after that it would crash. So each entry first counts itself in here; before finalisation the gate
// is closed, those inside are waited for, and whoever comes later is turned away without having touched Python.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace sonetrix {

class Gate {
public:
    // Whether the caller may go on into Python; if so, it must leave() afterwards.
    bool enter() noexcept {
        if ((state_.fetch_add(1, std::memory_order_acquire) & closedBit) == 0) {
            return true;
        }
        leave();
        return false;
    }

    void leave() noexcept { state_.fetch_sub(1, std::memory_order_release); }

    bool isClosed() const noexcept { return (state_.load(std::memory_order_acquire) & closedBit) != 0; }

    // Turns away all that come from now on and waits for those inside; false when some are still inside after `limit`.
    // The caller must not hold the interpreter lock, which those inside may be waiting for.
    bool close(std::chrono::milliseconds limit) noexcept;

private:
    static constexpr std::uint32_t closedBit = 1U << 31;

    std::atomic<std::uint32_t> state_ = 0;
};

// The gate of the process's one interpreter.
Gate &interpreterGate() noexcept;

} // namespace sonetrix
