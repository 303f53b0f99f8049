#pragma once

#include "graph/module.h"
#include "ladspa/ladspa_library.h"
#include "lists/lists.h"

#include <atomic>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace sonetrix::dev {

/// A plugin instance. Its audio ports are the module's ports, its control inputs the module's parameters: 32-bit floats
/// whose ranges and initial values come from the plugin's hints.
class LadspaModule final : public Module {
public:
    /// `configuration` (or null) gives control inputs other initial values. Throws Refusal when it names an unknown one
    /// or has a value that cannot be written, or when the plugin gives no instance; std::runtime_error when the library
    /// cannot be loaded.
    static std::shared_ptr<LadspaModule> create(std::string name,
        const std::filesystem::path &path,
        unsigned long index,
        uint32_t rate,
        uint32_t block,
        const ListKeyValue *configuration);
    ~LadspaModule() override;

    void process(const float *const *inputs, uint32_t frames) noexcept override;

    /// The parameters keep the module alive.
    static std::vector<Parameter> parameters(const std::shared_ptr<LadspaModule> &module);

    [[nodiscard]] const std::vector<std::string> &controlOutputNames() const noexcept override {
        return layout_.outputNames;
    }
    [[nodiscard]] float controlOutput(size_t index) const noexcept override {
        return controlOutputs_[index].value.load(std::memory_order_relaxed);
    }

private:
    struct ControlInput {
        std::string name;
        unsigned long port;
        float minimum;
        float maximum;
        float initial;
    };
    /// The plugin's ports by their roles.
    struct Layout {
        Layout(const LADSPA_Descriptor &descriptor, uint32_t rate, size_t portNameMaximum);

        std::vector<std::string> sourceNames;
        std::vector<std::string> sinkNames;
        std::vector<unsigned long> sources;
        std::vector<unsigned long> sinks;
        std::vector<ControlInput> controls;
        std::vector<std::string> outputNames;
        std::vector<unsigned long> outputs;
    };
    struct Control {
        explicit Control(float initial) : value(initial), current(initial) {}

        std::atomic<float> value; // what scripts write
        float current;            // what the plugin reads
    };
    struct ControlOutput {
        float current = 0;            // what the plugin writes
        std::atomic<float> value = 0; // what others read
    };

    LadspaModule(std::string name,
        LadspaLibrary library,
        const LADSPA_Descriptor &descriptor,
        uint32_t rate,
        uint32_t block,
        Layout layout);

    [[nodiscard]] std::string controlNames() const;
    void configure(const ListKeyValue &configuration);
    bool writeControl(size_t control, const sonetrix_value_t &value) noexcept;

    const LadspaLibrary library_;
    const LADSPA_Descriptor &descriptor_;
    const Layout layout_;
    std::deque<Control> controls_;
    std::deque<ControlOutput> controlOutputs_;
    std::vector<const float *> connected_; // what the plugin's audio inputs point to
    LADSPA_Handle handle_ = nullptr;
};

} // namespace sonetrix::dev
