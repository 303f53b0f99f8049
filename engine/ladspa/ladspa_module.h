#pragma once

#include "clock.h"
#include "graph/module.h"
#include "ladspa_plugin.h"
#include "refusal.h"

#include <fmt/ranges.h>

namespace sonetrix::dev {

/// A plugin instance. Its audio ports are the module's ports, its control inputs the module's parameters: 32-bit floats
/// whose ranges and initial values come from the plugin's hints.
///
/// A control that is written takes its new value at the next block; where `smoothing` (seconds) is not 0, it goes there
/// in a straight line, in steps of a few frames, in that time. Whole numbers and switches jump.
class LadspaModule final : public Module, public std::enable_shared_from_this<LadspaModule> {
public:
    /// `configuration` (or null) gives control inputs other initial values: they are there when the plugin is
    /// activated. Throws Refusal when it names an unknown one or has a value that cannot be written, or when the plugin
    /// gives no instance.
    LadspaModule(const std::string &name,
        const LadspaPlugin &plugin,
        const AudioFormat &format,
        const std::atomic<float> &smoothing,
        const ListKeyValue *configuration)
        : Module(name, plugin.sourceNames, plugin.sinkNames, format.block),
          plugin_(plugin),
          descriptor_(*plugin.descriptor),
          origin_{plugin.library, configuration != nullptr ? *configuration : ListKeyValue()},
          smoothing_(smoothing),
          rate_(static_cast<float>(format.rate)),
          controls_(plugin.controls.size()),
          controlOutputs_(plugin.outputs.size()),
          connected_(plugin.sinks.size(), nullptr) {
        for (size_t i = 0; i < controls_.size(); ++i)
            initialise(i, plugin.controls[i].initial);
        for (const sonetrix_keyValue_t &entry : origin_.configuration)
            configure(entry);

        const std::lock_guard lock(pluginMutex);
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
    ~LadspaModule() override {
        const std::lock_guard lock(pluginMutex);
        if (descriptor_.deactivate != nullptr)
            descriptor_.deactivate(handle_);
        descriptor_.cleanup(handle_);
    }

    void process(const float *const *inputs, uint32_t frames) noexcept override {
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

    [[nodiscard]] std::vector<Parameter> parameters() override {
        const auto self = shared_from_this();
        std::vector<Parameter> parameters;
        for (size_t i = 0; i < controls_.size(); ++i) {
            Parameter parameter{plugin_.controls[i].name, {}, plugin_.controls[i].domain};
            parameter.read = reader([self, i] { return self->controls_[i].value.load(std::memory_order_relaxed); });
            parameter.write = [self, i](const sonetrix_value_t &value) {
                self->controls_[i].value.store(value.as.float32, std::memory_order_relaxed);
            };
            parameters.push_back(std::move(parameter));
        }
        parameters.push_back({"plugin", reader([self] { return self->plugin_.identifier; })});
        return parameters;
    }

    [[nodiscard]] const Origin *origin() const noexcept override { return &origin_; }
    [[nodiscard]] std::vector<std::pair<std::string, float>> controlOutputs() const override {
        std::vector<std::pair<std::string, float>> outputs;
        for (size_t i = 0; i < controlOutputs_.size(); ++i)
            outputs.emplace_back(plugin_.outputNames[i], controlOutputs_[i].value.load(std::memory_order_relaxed));
        return outputs;
    }

private:
    struct Control {
        std::atomic<float> value; // what scripts write
        // The audio thread's:
        float current = 0; // what the plugin reads
        float goal = 0;
        uint32_t left = 0; // frames until it is there
    };
    struct ControlOutput {
        float current = 0;            // what the plugin writes
        std::atomic<float> value = 0; // what others read
    };

    void configure(const sonetrix_keyValue_t &entry) {
        const auto &known = plugin_.controls;
        const auto found = std::ranges::find(known, std::string_view(entry.key), &LadspaPlugin::Control::name);
        if (found == known.end()) {
            std::vector<std::string_view> names;
            std::ranges::transform(known, std::back_inserter(names), &LadspaPlugin::Control::name);
            throw Refusal(statusNotFound, fmt::format("there is no control input \"{}\", {}{}", entry.key,
                                              names.empty() ? "none at all" : "only ", fmt::join(names, ", ")));
        }
        const auto value = found->domain.converted(entry.value);
        if (!value)
            throw Refusal(statusRange,
                inQuotes(entry.key) + " takes " + found->domain.text() + ", not " + valueText(entry.value));
        initialise(static_cast<size_t>(found - known.begin()), value->as.float32);
    }
    void initialise(size_t index, float value) noexcept {
        Control &control = controls_[index];
        control.value = control.current = control.goal = value;
    }

    /// Audio thread. Whether a control is on its way.
    bool aim() noexcept {
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

    void move(uint32_t frames) noexcept {
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

    void connectAudio(const float *const *inputs, uint32_t offset) noexcept {
        for (size_t i = 0; i < connected_.size(); ++i) {
            connected_[i] = inputs[i];
            descriptor_.connect_port(handle_, plugin_.sinks[i], const_cast<float *>(inputs[i]) + offset);
        }
        for (size_t i = 0; i < plugin_.sources.size(); ++i)
            descriptor_.connect_port(handle_, plugin_.sources[i], output(i) + offset);
    }

    const LadspaPlugin &plugin_;
    const LADSPA_Descriptor &descriptor_;
    const Origin origin_;
    const std::atomic<float> &smoothing_;
    const float rate_;
    std::vector<Control> controls_;
    std::vector<ControlOutput> controlOutputs_;
    std::vector<const float *> connected_; // what the plugin's audio inputs point to
    LADSPA_Handle handle_ = nullptr;
};

} // namespace sonetrix::dev
