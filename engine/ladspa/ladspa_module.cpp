#include "ladspa/ladspa_module.h"

#include "api/status.h"
#include "graph/refusal.h"
#include "ladspa/port_names.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <utility>

namespace sonetrix::dev {

namespace {

constexpr float unbounded = std::numeric_limits<float>::max();

struct Range {
    float minimum;
    float maximum;
};

Range rangeOf(const LADSPA_PortRangeHint &hint, uint32_t rate) noexcept {
    const LADSPA_PortRangeHintDescriptor flags = hint.HintDescriptor;
    if (LADSPA_IS_HINT_TOGGLED(flags))
        return {0.0F, 1.0F};
    const float scale = LADSPA_IS_HINT_SAMPLE_RATE(flags) ? static_cast<float>(rate) : 1.0F;
    return {LADSPA_IS_HINT_BOUNDED_BELOW(flags) ? hint.LowerBound * scale : -unbounded,
        LADSPA_IS_HINT_BOUNDED_ABOVE(flags) ? hint.UpperBound * scale : unbounded};
}

/// A point between the bounds: 0 the lower, 1 the upper.
float between(const Range &range, float position, bool logarithmic) noexcept {
    if (logarithmic && range.minimum > 0)
        return std::exp(std::lerp(std::log(range.minimum), std::log(range.maximum), position));
    return std::lerp(range.minimum, range.maximum, position);
}

float initialOf(const LADSPA_PortRangeHint &hint, const Range &range) noexcept {
    const bool logarithmic = LADSPA_IS_HINT_LOGARITHMIC(hint.HintDescriptor);
    float value = 0;
    switch (hint.HintDescriptor & LADSPA_HINT_DEFAULT_MASK) {
    case LADSPA_HINT_DEFAULT_MINIMUM:
        value = range.minimum;
        break;
    case LADSPA_HINT_DEFAULT_LOW:
        value = between(range, 0.25F, logarithmic);
        break;
    case LADSPA_HINT_DEFAULT_MIDDLE:
        value = between(range, 0.5F, logarithmic);
        break;
    case LADSPA_HINT_DEFAULT_HIGH:
        value = between(range, 0.75F, logarithmic);
        break;
    case LADSPA_HINT_DEFAULT_MAXIMUM:
        value = range.maximum;
        break;
    case LADSPA_HINT_DEFAULT_1:
        value = 1;
        break;
    case LADSPA_HINT_DEFAULT_100:
        value = 100;
        break;
    case LADSPA_HINT_DEFAULT_440:
        value = 440;
        break;
    default:
        break;
    }
    if (LADSPA_IS_HINT_INTEGER(hint.HintDescriptor))
        value = std::round(value);
    return std::min(std::max(value, range.minimum), range.maximum);
}

} // namespace

LadspaModule::Layout::Layout(const LADSPA_Descriptor &descriptor, uint32_t rate, size_t portNameMaximum) {
    PortNames audioNames(portNameMaximum);
    PortNames controlNames(portNameMaximum);
    for (unsigned long port = 0; port < descriptor.PortCount; ++port) {
        const LADSPA_PortDescriptor kind = descriptor.PortDescriptors[port];
        const char *name = descriptor.PortNames[port];
        if (LADSPA_IS_PORT_AUDIO(kind)) {
            (LADSPA_IS_PORT_INPUT(kind) ? sinks : sources).push_back(port);
            (LADSPA_IS_PORT_INPUT(kind) ? sinkNames : sourceNames).push_back(audioNames.add(name));
        } else if (LADSPA_IS_PORT_INPUT(kind)) {
            const LADSPA_PortRangeHint &hint = descriptor.PortRangeHints[port];
            const Range range = rangeOf(hint, rate);
            controls.push_back({controlNames.add(name), port, range.minimum, range.maximum, initialOf(hint, range)});
        } else {
            outputs.push_back(port);
            outputNames.push_back(controlNames.add(name));
        }
    }
}

std::shared_ptr<LadspaModule> LadspaModule::create(std::string name,
    const std::filesystem::path &path,
    unsigned long index,
    uint32_t rate,
    uint32_t block,
    const ListKeyValue *configuration) {
    LadspaLibrary library(path);
    const LADSPA_Descriptor *descriptor = library.descriptor(index);
    if (descriptor == nullptr)
        throw std::runtime_error(path.string() + ": has changed since it was looked through");
    Layout layout(*descriptor, rate, portNameMaximum - name.size() - 1);
    std::shared_ptr<LadspaModule> module(
        new LadspaModule(std::move(name), std::move(library), *descriptor, rate, block, std::move(layout)));
    if (configuration != nullptr)
        module->configure(*configuration);
    return module;
}

LadspaModule::LadspaModule(std::string name,
    LadspaLibrary library,
    const LADSPA_Descriptor &descriptor,
    uint32_t rate,
    uint32_t block,
    Layout layout)
    : Module(std::move(name), Type::plugin, layout.sourceNames, layout.sinkNames, block),
      library_(std::move(library)),
      descriptor_(descriptor),
      layout_(std::move(layout)),
      controlOutputs_(layout_.outputs.size()),
      connected_(layout_.sinks.size(), nullptr) {
    const std::lock_guard lock(pluginMutex());
    handle_ = descriptor_.instantiate(&descriptor_, rate);
    if (handle_ == nullptr)
        throw Refusal(statusFailed, "the plugin gives no instance");
    for (const ControlInput &control : layout_.controls) {
        Control &added = controls_.emplace_back(control.initial);
        descriptor_.connect_port(handle_, control.port, &added.current);
    }
    for (size_t i = 0; i < layout_.outputs.size(); ++i)
        descriptor_.connect_port(handle_, layout_.outputs[i], &controlOutputs_[i].current);
    for (size_t i = 0; i < layout_.sources.size(); ++i)
        descriptor_.connect_port(handle_, layout_.sources[i], output(i));
    if (descriptor_.activate != nullptr)
        descriptor_.activate(handle_);
}

LadspaModule::~LadspaModule() {
    const std::lock_guard lock(pluginMutex());
    if (descriptor_.deactivate != nullptr)
        descriptor_.deactivate(handle_);
    descriptor_.cleanup(handle_);
}

std::string LadspaModule::controlNames() const {
    std::string names;
    for (const ControlInput &control : layout_.controls)
        names += (names.empty() ? "" : ", ") + control.name;
    return names.empty() ? "none at all" : names;
}

void LadspaModule::configure(const ListKeyValue &configuration) {
    for (const sonetrix_keyValue_t &entry : configuration) {
        const auto found = std::ranges::find(layout_.controls, std::string_view(entry.key), &ControlInput::name);
        if (found == layout_.controls.end())
            throw Refusal(
                statusNotFound, std::string("there is no control input \"") + entry.key + "\", only " + controlNames());
        if (!writeControl(static_cast<size_t>(found - layout_.controls.begin()), entry.value))
            throw Refusal(statusRange, std::string("\"") + entry.key + "\" takes a float from " +
                                           std::to_string(found->minimum) + " to " + std::to_string(found->maximum));
    }
}

bool LadspaModule::writeControl(size_t control, const sonetrix_value_t &value) noexcept {
    const ControlInput &input = layout_.controls[control];
    if (value.type != SONETRIX_VALUE_FLOAT || !(value.as.float32 >= input.minimum && value.as.float32 <= input.maximum))
        return false;
    controls_[control].value.store(value.as.float32, std::memory_order_relaxed);
    return true;
}

void LadspaModule::process(const float *const *inputs, uint32_t frames) noexcept {
    for (Control &control : controls_)
        control.current = control.value.load(std::memory_order_relaxed);
    for (size_t i = 0; i < connected_.size(); ++i) {
        if (connected_[i] == inputs[i])
            continue;
        connected_[i] = inputs[i];
        descriptor_.connect_port(handle_, layout_.sinks[i], const_cast<float *>(inputs[i]));
    }
    descriptor_.run(handle_, frames);
    for (ControlOutput &output : controlOutputs_)
        output.value.store(output.current, std::memory_order_relaxed);
}

std::vector<Parameter> LadspaModule::parameters(const std::shared_ptr<LadspaModule> &module) {
    std::vector<Parameter> parameters;
    for (size_t i = 0; i < module->controls_.size(); ++i)
        parameters.push_back({module->layout_.controls[i].name,
            [module, i] { return valueRecord(module->controls_[i].value.load(std::memory_order_relaxed)); },
            [module, i](const sonetrix_value_t &value) { return module->writeControl(i, value); }});
    return parameters;
}

} // namespace sonetrix::dev
