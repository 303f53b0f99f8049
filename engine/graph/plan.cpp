#include "graph/plan.h"

#include "clock.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace sonetrix::dev {

namespace {

constexpr double meanSeconds = 0.5; // time constant of the running means

/// Indices into `modules`, the first excepted, so that sources come before what they feed wherever there is no circle.
std::vector<size_t> dependencyOrder(std::span<const WiredModule> modules) {
    std::unordered_map<const Module *, size_t> indices;
    indices.reserve(modules.size());
    for (size_t i = 0; i < modules.size(); ++i)
        indices.emplace(modules[i].module.get(), i);

    struct Visit {
        size_t module;
        size_t nextInput;
    };
    std::vector<bool> seen(modules.size(), false);
    seen[0] = true; // its sources are ready when the block begins
    std::vector<size_t> order;
    order.reserve(modules.size());
    std::vector<Visit> path;
    for (size_t root = 1; root < modules.size(); ++root) {
        if (seen[root])
            continue;
        seen[root] = true;
        path.push_back({root, 0});
        while (!path.empty()) {
            Visit &visit = path.back();
            const auto &inputs = modules[visit.module].inputs;
            if (visit.nextInput == inputs.size()) {
                order.push_back(visit.module);
                path.pop_back();
                continue;
            }
            const auto &source = inputs[visit.nextInput++];
            if (!source)
                continue;
            const size_t feeding = indices.at(source->module);
            if (!seen[feeding]) {
                seen[feeding] = true;
                path.push_back({feeding, 0});
            }
        }
    }
    return order;
}

} // namespace

Plan::Plan(std::span<const WiredModule> modules, uint32_t rate, uint32_t block)
    : block_(block),
      weight_(1.0 - std::exp(-(static_cast<double>(block) / rate) / meanSeconds)),
      system_(dynamic_cast<SystemModule *>(modules.front().module.get())),
      silence_(block) {
    steps_.reserve(modules.size());
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

double Plan::run() noexcept {
    const int64_t began = nanosecondsOf(CLOCK_MONOTONIC);
    system_->capture(block_);
    int64_t before = nanosecondsOf(CLOCK_MONOTONIC);
    const int64_t captureTime = before - began;
    double total = 0;
    for (const Step &step : steps_) {
        for (size_t i = step.firstHeld; i < step.endHeld; ++i)
            std::copy_n(held_[i].from, block_, held_[i].buffer.data());
        step.module->process(inputs_.data() + step.firstInput, block_);
        const int64_t after = nanosecondsOf(CLOCK_MONOTONIC);
        const int64_t taken = after - before + (step.module.get() == system_ ? captureTime : 0);
        total += step.module->addTime(secondsOf(taken), weight_);
        before = after;
    }
    return total;
}

} // namespace sonetrix::dev
