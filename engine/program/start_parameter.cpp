#include "program/options.h"

#include <charconv>
#include <map>
#include <stdexcept>

namespace sonetrix::dev {

namespace {

template <class Number> bool addNumber(ListKeyValue &parameters, const std::string &key, std::string_view text) {
    text.remove_prefix(text.starts_with('+') ? 1 : 0);
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber)
        parameters.add(key, number);
    return isNumber;
}

bool addText(ListKeyValue &parameters, const std::string &key, std::string_view text) {
    parameters.add(key, std::string(text));
    return true;
}

/// Words such as "inf" and "nan" stay text.
bool addDeduced(ListKeyValue &parameters, const std::string &key, std::string_view text) {
    const bool isReal =
        text.find('.') != std::string_view::npos && text.find_first_not_of("+-.0123456789eE") == std::string_view::npos;
    return addNumber<int32_t>(parameters, key, text) || addNumber<uint32_t>(parameters, key, text) ||
           (isReal && addNumber<float>(parameters, key, text)) || addText(parameters, key, text);
}

const std::map<std::string, bool (*)(ListKeyValue &, const std::string &, std::string_view)> adders{
    {"int32", addNumber<int32_t>}, {"uint32", addNumber<uint32_t>}, {"float", addNumber<float>},
    {"double", addNumber<double>}, {"string", addText}};

} // namespace

void addStartParameter(ListKeyValue &parameters, const std::string &description) {
    const size_t equals = description.find('=');
    if (equals == 0 || equals == std::string::npos)
        throw std::invalid_argument("--set " + description + ": not KEY=VALUE");
    const std::string typedKey = description.substr(0, equals);
    const std::string text = description.substr(equals + 1);
    const size_t colon = typedKey.rfind(':');
    const std::string key = typedKey.substr(0, colon);
    auto add = addDeduced;
    if (colon != std::string::npos) {
        const std::string type = typedKey.substr(colon + 1);
        if (!adders.contains(type))
            throw std::invalid_argument("--set: unknown type " + type);
        add = adders.at(type);
    }
    if (key.empty() || !add(parameters, key, text))
        throw std::invalid_argument("--set " + description + ": the value does not fit the type");
}

} // namespace sonetrix::dev
