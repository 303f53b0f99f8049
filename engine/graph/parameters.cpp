#include "graph/parameters.h"

#include <algorithm>

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

const Parameter *find(const std::vector<Parameter> &parameters, std::string_view name) noexcept {
    const auto found = std::ranges::find(parameters, name, &Parameter::name);
    return found == parameters.end() ? nullptr : &*found;
}

} // namespace

void Parameters::add(const std::string &module, std::vector<Parameter> parameters) {
    const std::lock_guard lock(mutex_);
    auto &present = modules_[module];
    if (present)
        parameters.insert(parameters.begin(), present->begin(), present->end());
    present = std::make_shared<const Module>(std::move(parameters));
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
        if (name.empty()) {
            for (const Parameter &parameter : *module)
                result.add(std::string(moduleName) + '.' + parameter.name, parameter.read());
        } else if (const Parameter *parameter = dev::find(*module, name)) {
            result.add(key.as.string, parameter->read());
        }
    }
    return result;
}

bool Parameters::write(const ListKeyValue &parameters, ListKeyValue &written) {
    bool all = true;
    for (const sonetrix_keyValue_t &entry : parameters) {
        const auto [moduleName, name] = split(entry.key);
        const auto module = find(moduleName);
        const Parameter *parameter = module ? dev::find(*module, name) : nullptr;
        if (parameter == nullptr || !parameter->write || !parameter->write(entry.value)) {
            all = false;
            continue;
        }
        written.add(entry.key, entry.value);
        if (ParameterListener *listener = listener_)
            listener->parameterWritten(entry.key);
    }
    return all;
}

} // namespace sonetrix::dev
