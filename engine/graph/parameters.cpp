#include "parameters.h"

#include "refusal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>

namespace sonetrix::dev {

namespace {

struct SplitKey {
    std::string_view module;
    std::string_view name;
};

/// A key without a dot names no parameter: its module part is empty.
SplitKey split(std::string_view key) noexcept {
    const size_t dot = key.find('.');
    return dot == std::string_view::npos ? SplitKey{} : SplitKey{key.substr(0, dot), key.substr(dot + 1)};
}

/// By type code.
constexpr std::array typeNames{"uint32", "int32", "float", "string", "auint32", "aint32", "afloat", "double"};

template <class Number> bool holds(double number) noexcept {
    return number >= static_cast<double>(std::numeric_limits<Number>::lowest()) &&
           number <= static_cast<double>(std::numeric_limits<Number>::max());
}

bool isInteger(uint32_t type) noexcept { return type == SONETRIX_VALUE_UINT32 || type == SONETRIX_VALUE_INT32; }

std::optional<double> numberOf(const sonetrix_value_t &value) noexcept {
    switch (value.type) {
    case SONETRIX_VALUE_UINT32:
        return value.as.uint32;
    case SONETRIX_VALUE_INT32:
        return value.as.int32;
    case SONETRIX_VALUE_FLOAT:
        return value.as.float32;
    case SONETRIX_VALUE_DOUBLE:
        return value.as.float64;
    default:
        return std::nullopt;
    }
}

/// None where the type does not hold the number.
std::optional<sonetrix_value_t> numberAs(sonetrix_value_type_t type, double number) noexcept {
    if (type == SONETRIX_VALUE_UINT32 && holds<uint32_t>(number))
        return valueRecord(static_cast<uint32_t>(number));
    if (type == SONETRIX_VALUE_INT32 && holds<int32_t>(number))
        return valueRecord(static_cast<int32_t>(number));
    if (type == SONETRIX_VALUE_FLOAT && holds<float>(number))
        return valueRecord(static_cast<float>(number));
    if (type == SONETRIX_VALUE_DOUBLE)
        return valueRecord(number);
    return std::nullopt;
}

} // namespace

std::optional<sonetrix_value_t> Domain::converted(const sonetrix_value_t &value) const noexcept {
    if (value.type == type && type == SONETRIX_VALUE_STRING)
        return value.as.string != nullptr ? std::optional(value) : std::nullopt;
    const auto number = numberOf(value);
    if (!number || (isInteger(type) && !isInteger(value.type)))
        return std::nullopt;
    const auto result = numberAs(type, *number);
    // What is compared is the number that would be written: 0.1 is less than the float next to it.
    const bool inRange = result && *numberOf(*result) >= minimum && *numberOf(*result) <= maximum;
    return inRange ? result : std::nullopt;
}

std::string Domain::text() const {
    std::string text = std::string(type == SONETRIX_VALUE_INT32 ? "an " : "a ") + typeNames.at(type);
    if (std::isfinite(minimum) && std::isfinite(maximum))
        text += fmt::format(" from {:g} to {:g}", minimum, maximum);
    else if (std::isfinite(minimum))
        text += fmt::format(" of at least {:g}", minimum);
    else if (std::isfinite(maximum))
        text += fmt::format(" of at most {:g}", maximum);
    return unit.empty() ? text : text + ' ' + unit;
}

std::string valueText(const sonetrix_value_t &value) {
    const char *type = value.type < typeNames.size() ? typeNames.at(value.type) : "of no type";
    if (const auto number = numberOf(value))
        return fmt::format("{:g} ({})", *number, type);
    if (value.type == SONETRIX_VALUE_STRING && value.as.string != nullptr)
        return fmt::format("\"{}\" ({})", value.as.string, type);
    return fmt::format("{} elements ({})", value.count, type);
}

const Parameter *Parameters::Module::find(std::string_view name) const noexcept {
    const auto found = std::ranges::find(parameters, name, &Parameter::name);
    return found == parameters.end() ? nullptr : &*found;
}

void Parameters::add(const std::string &module, std::vector<Parameter> parameters) {
    const std::lock_guard lock(mutex_);
    if (const auto found = modules_.find(module); found != modules_.end())
        parameters.insert(parameters.begin(), found->second->parameters.begin(), found->second->parameters.end());
    modules_.insert_or_assign(module, std::make_shared<const Module>(Module{std::move(parameters), nullptr}));
}

void Parameters::addReader(const std::string &module, Reader reader) {
    const std::lock_guard lock(mutex_);
    modules_.insert_or_assign(module, std::make_shared<const Module>(Module{{}, std::move(reader)}));
}

void Parameters::removeModule(const std::string &module) {
    std::shared_ptr<const Module> removed; // ends after the lock
    const std::lock_guard lock(mutex_);
    if (const auto found = modules_.find(module); found != modules_.end()) {
        removed = std::move(found->second);
        modules_.erase(found);
    }
}

std::shared_ptr<const Parameters::Module> Parameters::find(std::string_view module) const {
    const std::lock_guard lock(mutex_);
    const auto found = modules_.find(std::string(module));
    return found == modules_.end() ? nullptr : found->second;
}

ListKeyValue Parameters::read(const ListValue &keys) const {
    ListKeyValue result;
    for (const sonetrix_value_t &key : keys) {
        if (key.type != SONETRIX_VALUE_STRING || key.as.string == nullptr)
            continue;
        const auto [moduleName, name] = split(key.as.string);
        const auto module = find(moduleName);
        if (!module)
            continue;
        if (module->reader) {
            module->reader(name, result);
        } else if (name.empty()) {
            for (const Parameter &parameter : module->parameters)
                result.add(std::string(moduleName) + '.' + parameter.name, parameter.read().record());
        } else if (const Parameter *parameter = module->find(name)) {
            result.add(key.as.string, parameter->read().record());
        }
    }
    return result;
}

bool Parameters::write(const ListKeyValue &parameters, ListKeyValue &written) {
    bool all = true;
    for (const sonetrix_keyValue_t &entry : parameters) {
        const auto what = [&] { return "cannot set " + inQuotes(entry.key) + " to " + valueText(entry.value); };
        all &= attempt(what, [&] { writeOne(entry, written); }) == statusOk;
    }
    return all;
}

void Parameters::writeOne(const sonetrix_keyValue_t &entry, ListKeyValue &written) {
    const auto [moduleName, name] = split(entry.key);
    const auto module = find(moduleName);
    const Parameter *parameter = module ? module->find(name) : nullptr;
    if (parameter == nullptr && !(module && module->reader))
        throw Refusal(statusNotFound, "there is no parameter " + inQuotes(entry.key) + suggestion(entry.key));
    if (parameter == nullptr || !parameter->write)
        throw Refusal(statusInvalid, "it can only be read");
    const auto value = parameter->domain.converted(entry.value);
    if (!value)
        throw Refusal(statusRange, "takes " + parameter->domain.text());
    parameter->write(*value);
    written.add(entry.key, *value);
    if (listener_)
        listener_(entry.key);
}

std::string Parameters::suggestion(std::string_view key) const {
    Suggestion suggestion(key);
    const std::lock_guard lock(mutex_);
    for (const auto &[name, module] : modules_)
        for (const Parameter &parameter : module->parameters)
            suggestion.consider(name + '.' + parameter.name);
    return suggestion.text();
}

} // namespace sonetrix::dev
