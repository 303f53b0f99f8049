#include "program/options.h"

#include <charconv>
#include <stdexcept>

namespace sonetrix::dev {

namespace {

template <class Number> std::optional<Number> parsed(std::string_view text) {
    if (text.starts_with('+'))
        text.remove_prefix(1);
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

template <class Number> bool addIf(ListKeyValue &parameters, const std::string &key, const std::string &text) {
    const auto number = parsed<Number>(text);
    if (number)
        parameters.add(key, *number);
    return number.has_value();
}

/// Words such as "inf" and "nan" stay text.
bool looksLikeNumber(const std::string &text) { return text.find_first_not_of("+-.0123456789eE") == std::string::npos; }

bool addDeduced(ListKeyValue &parameters, const std::string &key, const std::string &text) {
    if (addIf<int32_t>(parameters, key, text) || addIf<uint32_t>(parameters, key, text))
        return true;
    const bool real = looksLikeNumber(text) && text.find('.') != std::string::npos;
    if (!real || !addIf<float>(parameters, key, text))
        parameters.add(key, text);
    return true;
}

bool addTyped(ListKeyValue &parameters, const std::string &key, std::string_view type, const std::string &text) {
    if (type == "int32")
        return addIf<int32_t>(parameters, key, text);
    if (type == "uint32")
        return addIf<uint32_t>(parameters, key, text);
    if (type == "float")
        return addIf<float>(parameters, key, text);
    if (type == "double")
        return addIf<double>(parameters, key, text);
    if (type != "string")
        throw std::invalid_argument("--set: unknown type " + std::string(type));
    parameters.add(key, text);
    return true;
}

} // namespace

void addStartParameter(ListKeyValue &parameters, const std::string &description) {
    const size_t equals = description.find('=');
    if (equals == 0 || equals == std::string::npos)
        throw std::invalid_argument("--set " + description + ": not KEY=VALUE");
    std::string key = description.substr(0, equals);
    const std::string text = description.substr(equals + 1);
    const size_t colon = key.rfind(':');
    bool added = false;
    if (colon == std::string::npos) {
        added = addDeduced(parameters, key, text);
    } else {
        const std::string type = key.substr(colon + 1);
        key.resize(colon);
        added = !key.empty() && addTyped(parameters, key, type, text);
    }
    if (!added)
        throw std::invalid_argument("--set " + description + ": the value does not fit the type");
}

} // namespace sonetrix::dev
