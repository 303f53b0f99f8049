#pragma once

#include "graph/system_module.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

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
    /// The system module is the first; `block` is the block's length in frames.
    Plan(std::span<const WiredModule> modules, uint32_t rate, uint32_t block);

    /// Audio thread: runs one block. The modules' mean time per block, in seconds.
    double run() noexcept;

    /// Calls `visit(module, inputs)` for every module in the order in which they run; `inputs` as `process` gets them.
    template <class Visit> void forEach(Visit visit) const {
        for (const Step &step : steps_)
            visit(*step.module, inputs_.data() + step.firstInput);
    }

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

} // namespace sonetrix::dev
