#include "parameters.h"

#include "refusal.h"

#include <array>
#include <cmath>
#include <fmt/format.h>

namespace sonetrix::dev {

namespace {

/// By type code.
constexpr std::array typeNames{"uint32", "int32", "float", "string", "auint32", "aint32", "afloat", "double"};

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

} // namespace

std::optional<sonetrix_value_t> Domain::converted(const sonetrix_value_t &value) const noexcept {
    if (type == SONETRIX_VALUE_STRING && value.type == type && value.as.string != nullptr)
        return value;
    const auto number = numberOf(value);
    if (!number || type == SONETRIX_VALUE_STRING || (isInteger(type) && !isInteger(value.type)))
        return std::nullopt;
    // What is compared is the number that would be written: 0.1 is less than the float next to it.
    const bool held = std::abs(*number) <= static_cast<double>(std::numeric_limits<float>::max());
    const double written = held && !isInteger(type) ? static_cast<float>(*number) : *number;
    if (!held || !(written >= minimum && written <= maximum))
        return std::nullopt;
    return isInteger(type) ? valueRecord(static_cast<int32_t>(written)) : valueRecord(static_cast<float>(written));
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

void Parameters::add(const std::string &module, std::vector<Parameter> parameters, Reader reader) {
    auto added = std::make_shared<const Module>(Module{std::move(parameters), std::move(reader)});
    const std::lock_guard lock(mutex_);
    modules_[module].swap(added); // what was there ends after the lock
}

void Parameters::removeModule(const std::string &module) {
    std::unique_lock lock(mutex_);
    const auto removed = modules_.extract(module);
    lock.unlock();
}

Parameters::Place Parameters::find(std::string_view key) const {
    const size_t dot = key.find('.');
    if (dot == std::string_view::npos)
        return {};
    Place place{nullptr, key.substr(dot + 1)};
    std::unique_lock lock(mutex_);
    if (const auto module = modules_.find(std::string(key.substr(0, dot))); module != modules_.end())
        place.module = module->second;
    lock.unlock();
    if (place.module)
        for (const Parameter &parameter : place.module->parameters)
            if (parameter.name == place.name)
                place.parameter = &parameter;
    return place;
}

ListKeyValue Parameters::read(const ListValue &keys) const {
    ListKeyValue result;
    for (const sonetrix_value_t &key : keys) {
        if (key.type != SONETRIX_VALUE_STRING || key.as.string == nullptr)
            continue;
        const auto [module, name, one] = find(key.as.string);
        if (one != nullptr)
            result.add(key.as.string, one->read().record());
        else if (module && module->reader)
            module->reader(name, result);
        else if (module && name.empty())
            for (const Parameter &parameter : module->parameters)
                result.add(key.as.string + parameter.name, parameter.read().record());
    }
    return result;
}

bool Parameters::write(const ListKeyValue &parameters, ListKeyValue &written) {
    bool all = true;
    for (const sonetrix_keyValue_t &entry : parameters)
        all &= guarded([&] { writeOne(entry, written); },
                   [&] { return "cannot set " + inQuotes(entry.key) + " to " + valueText(entry.value); }) == statusOk;
    return all;
}

void Parameters::writeOne(const sonetrix_keyValue_t &entry, ListKeyValue &written) {
    const auto [module, name, parameter] = find(entry.key);
    if (parameter == nullptr && !(module && module->reader))
        throw Refusal(
            statusNotFound, "there is no parameter " + inQuotes(entry.key) + suggestion(entry.key, this->keys()));
    if (parameter == nullptr || !parameter->write)
        throw Refusal(statusInvalid, "it can only be read");
    const auto value = parameter->domain.converted(entry.value);
    if (!value)
        throw Refusal(statusRange, "takes " + parameter->domain.text());
    parameter->write(*value);
    if (listener_)
        listener_(entry.key);
    written.add(entry.key, *value);
}

std::vector<std::string> Parameters::keys() const {
    std::vector<std::string> keys;
    const std::lock_guard lock(mutex_);
    for (const auto &[name, module] : modules_)
        for (const Parameter &parameter : module->parameters)
            keys.push_back(name + '.' + parameter.name);
    return keys;
}

} // namespace sonetrix::dev
