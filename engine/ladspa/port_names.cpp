#include "ladspa/port_names.h"

#include "graph/module.h"

#include <algorithm>

namespace sonetrix::dev {

namespace {

bool isDigit(char character) noexcept { return character >= '0' && character <= '9'; }

bool isLower(char character) noexcept { return character >= 'a' && character <= 'z'; }

char lower(char character) noexcept {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

std::string sanitised(std::string_view name, size_t maximum) {
    std::string result;
    for (const char character : name) {
        const char lowered = lower(character);
        if (isLower(lowered) || isDigit(lowered))
            result += lowered;
        else if (!result.empty() && result.back() != '_')
            result += '_';
    }
    result.resize(std::min(result.size(), maximum));
    while (!result.empty() && result.back() == '_')
        result.pop_back();
    return result.empty() ? "port" : result;
}

} // namespace

std::string PortNames::add(std::string_view pluginsName) {
    const std::string base = sanitised(pluginsName, maximum_);
    std::string name = base;
    for (size_t number = 2; std::ranges::find(taken_, name) != taken_.end(); ++number) {
        const std::string suffix = '_' + std::to_string(number);
        name = base.substr(0, std::min(base.size(), maximum_ - suffix.size())) + suffix;
    }
    taken_.push_back(name);
    return name;
}

bool isModuleName(std::string_view name) noexcept {
    return !name.empty() && name.size() <= Module::nameMaximum && std::ranges::all_of(name, [](char character) {
        return isLower(lower(character)) || isDigit(character) || character == '_' || character == '-';
    });
}

} // namespace sonetrix::dev
