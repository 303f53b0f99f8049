#include "ladspa_module.h"

#include "refusal.h"

#include <algorithm>
#include <fmt/ranges.h>
#include <mutex>
#include <utility>

namespace sonetrix::dev {

namespace {

std::string controlNames(const LadspaPlugin &plugin) {
    std::vector<std::string_view> names;
    for (const auto &control : plugin.controls)
        names.push_back(control.name);
    return names.empty() ? "none at all" : fmt::format("only {}", fmt::join(names, ", "));
}

} // namespace

LadspaModule::LadspaModule(std::string name,
    const LadspaPlugin &plugin,
    const AudioFormat &format,
    const std::atomic<float> &smoothing,
    const ListKeyValue *configuration)
    : Module(std::move(name), Type::plugin, plugin.sourceNames, plugin.sinkNames, format.block),
      plugin_(plugin),
      descriptor_(*plugin.descriptor),
      origin_{plugin.library, configuration != nullptr ? *configuration : ListKeyValue()},
      smoothing_(smoothing),
      rate_(static_cast<float>(format.rate)),
      controlOutputs_(plugin.outputs.size()),
      connected_(plugin.sinks.size(), nullptr) {
    for (const auto &control : plugin.controls)
        controls_.emplace_back(control.initial);
    configure(origin_.configuration);

    const std::lock_guard lock(pluginMutex());
    handle_ = descriptor_.instantiate(&descriptor_, format.rate);
    if (handle_ == nullptr)
        throw Refusal(statusFailed, "the plugin gives no instance");
    for (size_t i = 0; i < controls_.size(); ++i)
        descriptor_.connect_port(handle_, plugin.controls[i].port, &controls_[i].current);
    for (size_t i = 0; i < controlOutputs_.size(); ++i)
        descriptor_.connect_port(handle_, plugin.outputs[i], &controlOutputs_[i].current);
    for (size_t i = 0; i < plugin.sources.size(); ++i)
        descriptor_.connect_port(handle_, plugin.sources[i], output(i));
    if (descriptor_.activate != nullptr)
        descriptor_.activate(handle_);
}

LadspaModule::~LadspaModule() {
    const std::lock_guard lock(pluginMutex());
    if (descriptor_.deactivate != nullptr)
        descriptor_.deactivate(handle_);
    descriptor_.cleanup(handle_);
}

void LadspaModule::configure(const ListKeyValue &configuration) {
    for (const sonetrix_keyValue_t &entry : configuration) {
        const auto found =
            std::ranges::find(plugin_.controls, std::string_view(entry.key), &LadspaPlugin::Control::name);
        if (found == plugin_.controls.end())
            throw Refusal(
                statusNotFound, "there is no control input " + inQuotes(entry.key) + ", " + controlNames(plugin_));
        const auto value = found->domain.converted(entry.value);
        if (!value)
            throw Refusal(statusRange,
                inQuotes(entry.key) + " takes " + found->domain.text() + ", not " + valueText(entry.value));
        Control &control = controls_[static_cast<size_t>(found - plugin_.controls.begin())];
        control.value = control.current = control.goal = value->as.float32;
    }
}

bool LadspaModule::aim() noexcept {
    bool moving = false;
    const float smoothing = smoothing_.load(std::memory_order_relaxed);
    for (size_t i = 0; i < controls_.size(); ++i) {
        Control &control = controls_[i];
        const float value = control.value.load(std::memory_order_relaxed);
        if (value != control.goal)
            control.left = plugin_.controls[i].isContinuous ? static_cast<uint32_t>(smoothing * rate_) : 0;
        control.goal = value;
        if (control.left == 0)
            control.current = value;
        moving |= control.left != 0;
    }
    return moving;
}

void LadspaModule::move(uint32_t frames) noexcept {
    for (Control &control : controls_) {
        if (control.left == 0)
            continue;
        const uint32_t taken = std::min(frames, control.left);
        control.current +=
            (control.goal - control.current) * static_cast<float>(taken) / static_cast<float>(control.left);
        control.left -= taken;
        if (control.left == 0)
            control.current = control.goal;
    }
}

void LadspaModule::connectAudio(const float *const *inputs, uint32_t offset) noexcept {
    for (size_t i = 0; i < connected_.size(); ++i) {
        connected_[i] = inputs[i];
        descriptor_.connect_port(handle_, plugin_.sinks[i], const_cast<float *>(inputs[i]) + offset);
    }
    for (size_t i = 0; i < plugin_.sources.size(); ++i)
        descriptor_.connect_port(handle_, plugin_.sources[i], output(i) + offset);
}

void LadspaModule::process(const float *const *inputs, uint32_t frames) noexcept {
    constexpr uint32_t step = 8; // frames: short enough not to be heard as a staircase
    const bool moving = aim();
    for (uint32_t offset = 0; moving && offset < frames; offset += step) {
        const uint32_t count = std::min(step, frames - offset);
        move(count);
        connectAudio(inputs, offset);
        descriptor_.run(handle_, count);
    }
    if (moving || !std::equal(connected_.begin(), connected_.end(), inputs))
        connectAudio(inputs, 0);
    if (!moving)
        descriptor_.run(handle_, frames);
    for (ControlOutput &output : controlOutputs_)
        output.value.store(output.current, std::memory_order_relaxed);
}

std::vector<Parameter> LadspaModule::parameters(const std::shared_ptr<LadspaModule> &module) {
    std::vector<Parameter> parameters;
    for (size_t i = 0; i < module->controls_.size(); ++i) {
        const auto &control = module->plugin_.controls[i];
        parameters.push_back(
            {control.name, reader([module, i] { return module->controls_[i].value.load(std::memory_order_relaxed); }),
                control.domain, [module, i](const sonetrix_value_t &value) {
                    module->controls_[i].value.store(value.as.float32, std::memory_order_relaxed);
                }});
    }
    parameters.push_back({"plugin", reader([module] { return module->plugin_.identifier; })});
    return parameters;
}

} // namespace sonetrix::dev
