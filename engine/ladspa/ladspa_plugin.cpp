#include "ladspa_plugin.h"

#include "graph/module.h"

#include <array>
#include <cctype>
#include <cmath>
#include <set>

namespace sonetrix::dev {

namespace {

/// Room is left for the longest module name.
constexpr size_t portNameMaximum = Module::portNameMaximum - Module::nameMaximum - 1;

/// What plugins write behind a control's name, in parentheses and in lower case, and the unit that it is.
constexpr std::array<std::pair<std::string_view, const char *>, 13> units{{{"(hz)", "Hz"}, {"(db)", "dB"}, {"(s)", "s"},
    {"(seconds)", "s"}, {"(secs)", "s"}, {"(ms)", "ms"}, {"(in ms)", "ms"}, {"(%)", "%"}, {"(percent)", "%"},
    {"(octaves)", "octaves"}, {"(samples)", "samples"}, {"(inches)", "inches"}, {"(m)", "m"}}};

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

std::string unitOf(std::string_view portName, bool isRatedFrequency) {
    const std::string name = lowered(portName);
    for (const auto &[written, unit] : units)
        if (name.find(written) != std::string::npos)
            return unit;
    return isRatedFrequency ? "Hz" : "";
}

Domain domainOf(const LADSPA_PortRangeHint &hint, std::string_view portName, uint32_t rate) {
    const LADSPA_PortRangeHintDescriptor flags = hint.HintDescriptor;
    Domain domain;
    domain.unit = unitOf(portName, LADSPA_IS_HINT_SAMPLE_RATE(flags));
    const float scale = LADSPA_IS_HINT_SAMPLE_RATE(flags) ? static_cast<float>(rate) : 1.0F;
    if (LADSPA_IS_HINT_TOGGLED(flags) || LADSPA_IS_HINT_BOUNDED_BELOW(flags))
        domain.minimum = LADSPA_IS_HINT_TOGGLED(flags) ? 0.0F : hint.LowerBound * scale;
    if (LADSPA_IS_HINT_TOGGLED(flags) || LADSPA_IS_HINT_BOUNDED_ABOVE(flags))
        domain.maximum = LADSPA_IS_HINT_TOGGLED(flags) ? 1.0F : hint.UpperBound * scale;
    return domain;
}

/// A point between the bounds: 0 the lower, 1 the upper.
double between(const Domain &domain, double position, bool logarithmic) noexcept {
    if (logarithmic && domain.minimum > 0)
        return std::exp(std::lerp(std::log(domain.minimum), std::log(domain.maximum), position));
    return std::lerp(domain.minimum, domain.maximum, position);
}

double hintedDefault(LADSPA_PortRangeHintDescriptor flags, const Domain &domain) noexcept {
    constexpr std::array<std::pair<int, double>, 3> positions{
        {{LADSPA_HINT_DEFAULT_LOW, 0.25}, {LADSPA_HINT_DEFAULT_MIDDLE, 0.5}, {LADSPA_HINT_DEFAULT_HIGH, 0.75}}};
    constexpr std::array<std::pair<int, double>, 3> numbers{
        {{LADSPA_HINT_DEFAULT_1, 1}, {LADSPA_HINT_DEFAULT_100, 100}, {LADSPA_HINT_DEFAULT_440, 440}}};
    const int hint = flags & LADSPA_HINT_DEFAULT_MASK;
    if (hint == LADSPA_HINT_DEFAULT_MINIMUM)
        return domain.minimum;
    if (hint == LADSPA_HINT_DEFAULT_MAXIMUM)
        return domain.maximum;
    for (const auto &[known, position] : positions)
        if (hint == known)
            return between(domain, position, LADSPA_IS_HINT_LOGARITHMIC(flags));
    for (const auto &[known, number] : numbers)
        if (hint == known)
            return number;
    return 0;
}

/// Lower-case letters, digits and single underscores: "Delay (Seconds)" becomes "delay_seconds".
std::string sanitised(std::string_view name) {
    std::string result;
    for (const char character : lowered(name)) {
        if ((character >= 'a' && character <= 'z') || (character >= '0' && character <= '9'))
            result += character;
        else if (!result.empty() && result.back() != '_')
            result += '_';
    }
    result.resize(std::min(result.size(), portNameMaximum));
    result.erase(result.find_last_not_of('_') + 1);
    return result.empty() ? "port" : result;
}

/// What a plugin calls a port as a name for scripts, with a number appended where that is taken.
std::string uniqueName(std::set<std::string> &taken, std::string_view pluginsName) {
    const std::string base = sanitised(pluginsName);
    std::string name = base;
    for (size_t number = 2; !taken.insert(name).second; ++number) {
        const std::string suffix = '_' + std::to_string(number);
        name = base.substr(0, portNameMaximum - suffix.size()) + suffix;
    }
    return name;
}

float initialOf(const LADSPA_PortRangeHint &hint, const Domain &domain) noexcept {
    const double value = hintedDefault(hint.HintDescriptor, domain);
    const double finite = std::isfinite(value) ? value : 0;
    const double rounded = LADSPA_IS_HINT_INTEGER(hint.HintDescriptor) ? std::round(finite) : finite;
    return static_cast<float>(std::min(std::max(rounded, domain.minimum), domain.maximum));
}

} // namespace

LadspaPlugin::LadspaPlugin(std::filesystem::path file, const LADSPA_Descriptor &plugin, uint32_t rate)
    : library(std::move(file)), descriptor(&plugin) {
    std::set<std::string> audioNames;
    std::set<std::string> controlNames;
    for (unsigned long port = 0; port < plugin.PortCount; ++port) {
        const LADSPA_PortDescriptor kind = plugin.PortDescriptors[port];
        const char *name = plugin.PortNames[port];
        const LADSPA_PortRangeHint &hint = plugin.PortRangeHints[port];
        if (LADSPA_IS_PORT_AUDIO(kind)) {
            (LADSPA_IS_PORT_INPUT(kind) ? sinks : sources).push_back(port);
            (LADSPA_IS_PORT_INPUT(kind) ? sinkNames : sourceNames).push_back(uniqueName(audioNames, name));
        } else if (LADSPA_IS_PORT_INPUT(kind)) {
            const Domain domain = domainOf(hint, name, rate);
            const bool isWhole =
                LADSPA_IS_HINT_INTEGER(hint.HintDescriptor) || LADSPA_IS_HINT_TOGGLED(hint.HintDescriptor);
            controls.push_back({uniqueName(controlNames, name), port, domain, initialOf(hint, domain), !isWhole});
        } else {
            outputs.push_back(port);
            outputNames.push_back(uniqueName(controlNames, name));
        }
    }
}

} // namespace sonetrix::dev
