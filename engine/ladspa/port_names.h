#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sonetrix::dev {

/// Turns what plugins call their ports into names for scripts: lower-case letters, digits and single underscores
/// ("Delay (Seconds)" becomes "delay_seconds"), at most `maximum` long, a number appended where one is taken.
class PortNames {
public:
    explicit PortNames(size_t maximum) : maximum_(maximum) {}

    std::string add(std::string_view pluginsName);

private:
    const size_t maximum_;
    std::vector<std::string> taken_;
};

/// Whether a module may be called that: letters, digits, '_' and '-', and not too many of them.
bool isModuleName(std::string_view name) noexcept;

} // namespace sonetrix::dev
