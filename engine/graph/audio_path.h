#pragma once

#include "driver/driver.h"
#include "graph/plan_exchange.h"
#include "graph/system_module.h"

#include <atomic>
#include <memory>

namespace sonetrix::dev {

/// Sees every block after it is processed, on the audio thread: must not wait, allocate or log.
class BlockObserver {
public:
    virtual ~BlockObserver() = default;
    virtual void blockProcessed(const Plan &plan) noexcept = 0;
};

/// What happens in a block: the newest plan is run.
class AudioPath final : public BlockProcessor {
public:
    /// A plan is published before the first block.
    AudioPath(std::shared_ptr<SystemModule> system, PlanExchange &plans) : system_(std::move(system)), plans_(plans) {}

    void processBlock(uint32_t wanted) noexcept override {
        Plan &plan = *plans_.acquire();
        system_->setWanted(wanted);
        meanTime_.store(static_cast<float>(plan.run()), std::memory_order_relaxed);
        if (BlockObserver *observer = observer_)
            observer->blockProcessed(plan);
    }

    /// Mean time that all modules together take per block, in seconds.
    [[nodiscard]] float meanTime() const noexcept { return meanTime_.load(std::memory_order_relaxed); }
    /// Null: nobody observes. The observer must outlive the audio thread.
    void setObserver(BlockObserver *observer) noexcept { observer_ = observer; }

private:
    const std::shared_ptr<SystemModule> system_;
    PlanExchange &plans_;
    std::atomic<float> meanTime_{0};
    std::atomic<BlockObserver *> observer_{nullptr};
};

} // namespace sonetrix::dev
