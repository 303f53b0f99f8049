#pragma once

#include "clock.h"
#include "graph/module.h"
#include "ladspa_plugin.h"
#include "lists/lists.h"

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace sonetrix::dev {

/// A plugin instance. Its audio ports are the module's ports, its control inputs the module's parameters: 32-bit floats
/// whose ranges and initial values come from the plugin's hints.
///
/// A control that is written takes its new value at the next block; where `smoothing` (seconds) is not 0, it goes there
/// in a straight line, in steps of a few frames, in that time. Whole numbers and switches jump.
class LadspaModule final : public Module {
public:
    /// `configuration` (or null) gives control inputs other initial values: they are there when the plugin is
    /// activated. Throws Refusal when it names an unknown one or has a value that cannot be written, or when the plugin
    /// gives no instance.
    LadspaModule(std::string name,
        const LadspaPlugin &plugin,
        const AudioFormat &format,
        const std::atomic<float> &smoothing,
        const ListKeyValue *configuration);
    ~LadspaModule() override;

    void process(const float *const *inputs, uint32_t frames) noexcept override;

    /// The parameters keep the module alive.
    static std::vector<Parameter> parameters(const std::shared_ptr<LadspaModule> &module);

    [[nodiscard]] const Origin *origin() const noexcept override { return &origin_; }
    [[nodiscard]] const Names &controlOutputNames() const noexcept override { return plugin_.outputNames; }
    [[nodiscard]] float controlOutput(size_t index) const noexcept override {
        return controlOutputs_[index].value.load(std::memory_order_relaxed);
    }

private:
    struct Control {
        explicit Control(float initial) : value(initial), current(initial), goal(initial) {}

        std::atomic<float> value; // what scripts write
        // The audio thread's:
        float current; // what the plugin reads
        float goal;
        uint32_t left = 0; // frames until it is there
    };
    struct ControlOutput {
        float current = 0;            // what the plugin writes
        std::atomic<float> value = 0; // what others read
    };

    void configure(const ListKeyValue &configuration);
    /// Audio thread. Whether a control is on its way.
    bool aim() noexcept;
    void move(uint32_t frames) noexcept;
    void connectAudio(const float *const *inputs, uint32_t offset) noexcept;

    const LadspaPlugin &plugin_;
    const LADSPA_Descriptor &descriptor_;
    const Origin origin_;
    const std::atomic<float> &smoothing_;
    const float rate_;
    std::deque<Control> controls_;
    std::deque<ControlOutput> controlOutputs_;
    std::vector<const float *> connected_; // what the plugin's audio inputs point to
    LADSPA_Handle handle_ = nullptr;
};

} // namespace sonetrix::dev
