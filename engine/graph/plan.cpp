#include "graph/plan.h"

#include "clock.h"

#include <cmath>

namespace sonetrix::dev {

namespace {

constexpr double meanSeconds = 0.5; // time constant of the running means

/// Indices into `modules`, the first excepted, so that sources come before what they feed wherever there is no circle.
std::vector<size_t> dependencyOrder(std::span<const WiredModule> modules) {
    std::unordered_map<const Module *, size_t> unseen;
    for (size_t i = 1; i < modules.size(); ++i) // the first one's sources are ready when the block begins
        unseen.emplace(modules[i].module.get(), i);
    std::vector<size_t> order;
    std::vector<std::pair<size_t, size_t>> path; // modules, with how many of their inputs have been looked at
    const auto enter = [&](const Module *module) {
        if (const auto entered = unseen.extract(module))
            path.emplace_back(entered.mapped(), 0);
    };
    for (const WiredModule &root : modules) {
        enter(root.module.get());
        while (!path.empty()) {
            auto &[module, looked] = path.back();
            const auto &inputs = modules[module].inputs;
            if (looked == inputs.size()) {
                order.push_back(module);
                path.pop_back();
            } else if (const auto &source = inputs[looked++]) {
                enter(source->module);
            }
        }
    }
    return order;
}

} // namespace

Plan::Plan(std::span<const WiredModule> modules, const AudioFormat &format)
    : block_(format.block),
      weight_(1.0 - std::exp(-(static_cast<double>(format.block) / format.rate) / meanSeconds)),
      system_(dynamic_cast<SystemModule *>(modules.front().module.get())),
      silence_(format.block) {
    for (const size_t index : dependencyOrder(modules))
        addStep(modules[index]);
    addStep(modules.front());
}

void Plan::addStep(const WiredModule &wired) {
    const size_t firstInput = inputs_.size();
    const size_t firstHeld = held_.size();
    const bool isSystem = wired.module.get() == system_;
    for (const auto &source : wired.inputs) {
        if (!source) {
            inputs_.push_back(silence_.data());
        } else if (source->module == wired.module.get() && !isSystem) {
            held_.push_back({source->module->output(source->index), AudioBuffer(block_)});
            inputs_.push_back(held_.back().buffer.data());
        } else {
            inputs_.push_back(source->module->output(source->index));
        }
    }
    steps_.push_back({wired.module, firstInput, firstHeld, held_.size()});
}

double Plan::run(int64_t &time) noexcept {
    const int64_t began = time;
    system_->capture(block_);
    time = nanosecondsOf(CLOCK_MONOTONIC);
    const int64_t captureTime = time - began;
    double total = 0;
    for (const Step &step : steps_) {
        for (size_t i = step.firstHeld; i < step.endHeld; ++i)
            std::copy_n(held_[i].from, block_, held_[i].buffer.data());
        step.module->process(inputs_.data() + step.firstInput, block_);
        const int64_t before = std::exchange(time, nanosecondsOf(CLOCK_MONOTONIC));
        const int64_t taken = time - before + (step.module.get() == system_ ? captureTime : 0);
        total += step.module->addTime(secondsOf(taken), weight_);
    }
    return total;
}

} // namespace sonetrix::dev
