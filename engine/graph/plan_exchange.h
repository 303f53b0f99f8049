#pragma once

#include "graph/plan.h"

#include <atomic>
#include <memory>

namespace sonetrix::dev {

/// Hands plans to the audio thread and takes back those it has left. Nobody waits for anybody: a plan that the audio
/// thread has not taken up yet is simply replaced.
class PlanExchange {
public:
    PlanExchange() = default;
    PlanExchange(const PlanExchange &) = delete;
    PlanExchange &operator=(const PlanExchange &) = delete;
    /// Once there is no audio thread.
    ~PlanExchange() {
        collect();
        delete current_;
        delete next_.load();
    }

    /// One thread at a time; frees what the audio thread will never see.
    void publish(std::unique_ptr<Plan> plan) {
        const std::unique_ptr<Plan> superseded(next_.exchange(plan.release(), std::memory_order_acq_rel));
    }

    /// Frees the plans that the audio thread has left. The same thread as `publish`.
    void collect() {
        std::unique_ptr<Plan> plan(retired_.exchange(nullptr, std::memory_order_acquire));
        while (plan)
            plan.reset(plan->nextRetired_);
    }

    /// Audio thread, at the beginning of a block: the plan to go by, null before the first.
    Plan *acquire() noexcept {
        Plan *next = next_.exchange(nullptr, std::memory_order_acq_rel);
        if (next == nullptr)
            return current_;
        if (current_ != nullptr) {
            current_->nextRetired_ = retired_.load(std::memory_order_relaxed);
            while (!retired_.compare_exchange_weak(
                current_->nextRetired_, current_, std::memory_order_release, std::memory_order_relaxed)) {
            }
        }
        current_ = next;
        return current_;
    }

    /// Whether the audio thread has taken up what was published last.
    [[nodiscard]] bool isTaken() const noexcept { return next_.load(std::memory_order_acquire) == nullptr; }

private:
    std::atomic<Plan *> next_{nullptr};
    std::atomic<Plan *> retired_{nullptr};
    Plan *current_ = nullptr; // the audio thread's
};

} // namespace sonetrix::dev
