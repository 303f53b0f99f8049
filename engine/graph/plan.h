#pragma once

#include "graph/system_module.h"

namespace sonetrix::dev {

/// A source port of a module.
struct Source {
    const Module *module = nullptr;
    size_t index = 0;

    bool operator==(const Source &) const = default;
};

/// A module and what feeds its sinks; a sink without a source is silent.
struct WiredModule {
    explicit WiredModule(std::shared_ptr<Module> one) : module(std::move(one)), inputs(module->sinks().size()) {}

    std::shared_ptr<Module> module;
    std::vector<std::optional<Source>> inputs;
};

/// What the audio thread does in a block: which modules run, in which order, on which buffers. Made off the audio
/// thread and never changed. Keeps its modules alive.
///
/// Every module runs after those that feed it, the system module's playback at the end. Where modules feed each other
/// in a circle, the one that comes first in creation order waits for the others, and the link that closes the circle
/// carries the block before: its source's buffer still holds that when the sink's module runs.
class Plan {
public:
    /// The system module is the first.
    Plan(std::span<const WiredModule> modules, const AudioFormat &format);

    /// Audio thread: runs one block, which begins at that time on CLOCK_MONOTONIC. The modules' mean time per block, in
    /// seconds; `time` is then that of the end.
    double run(int64_t &time) noexcept;

private:
    friend class PlanExchange;

    struct Step {
        std::shared_ptr<Module> module;
        size_t firstInput;
        size_t firstHeld;
        size_t endHeld;
    };
    /// An output that its own module reads: kept from the block before, since plugins may not work in place.
    struct Held {
        const float *from;
        AudioBuffer buffer;
    };

    void addStep(const WiredModule &wired);

    const uint32_t block_;
    const double weight_; // of a block in the running means
    SystemModule *system_;
    AudioBuffer silence_;
    std::vector<Step> steps_;
    std::vector<const float *> inputs_;
    std::vector<Held> held_;
    Plan *nextRetired_ = nullptr;
};

/// Hands plans to the audio thread and takes back those it has left. Nobody waits for anybody: a plan that the audio
/// thread has not taken up yet is simply replaced.
class PlanExchange {
public:
    /// Once there is no audio thread.
    ~PlanExchange() {
        collect();
        delete current_;
        delete next_.load();
    }

    /// One thread at a time; frees what the audio thread will never see.
    void publish(std::unique_ptr<Plan> plan) {
        const std::unique_ptr<Plan> superseded(next_.exchange(plan.release(), std::memory_order_acq_rel));
        out_ += superseded ? 0 : 1;
    }

    /// Frees the plans that the audio thread has left: all but one, once it has taken up the newest. Whether it has.
    /// The same thread as `publish`.
    bool collect() {
        std::unique_ptr<Plan> plan(retired_.exchange(nullptr, std::memory_order_acquire));
        for (; plan; plan.reset(plan->nextRetired_))
            --out_;
        return out_ <= 1;
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

private:
    std::atomic<Plan *> next_{nullptr};
    std::atomic<Plan *> retired_{nullptr};
    Plan *current_ = nullptr; // the audio thread's
    size_t out_ = 0;          // plans that are the audio thread's, or will be
};

} // namespace sonetrix::dev
