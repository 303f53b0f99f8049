#pragma once

#include <sonetrix/engine_api.h>

#include <source_location>
#include <string_view>

namespace sonetrix::cli {

// A log format, with the place in the source where it stands.
struct LogFormat {
    // NOLINTNEXTLINE(google-explicit-constructor): made from plain text at each call
    constexpr LogFormat(const char *format, std::source_location place = std::source_location::current()) noexcept
        : text(format), where(place) {}

    const char *file() const noexcept {
        const std::string_view path = where.file_name();
        return path.data() + path.rfind('/') + 1;
    }

    const char *text;
    std::source_location where;
};

// Writes to the engine's log.
template <class... Arguments>
void log(sonetrix_log_level_t level, const LogFormat &format, Arguments... arguments) noexcept {
    sonetrix_log(level, format.file(), static_cast<std::int32_t>(format.where.line()), 1, format.text, arguments...);
}

} // namespace sonetrix::cli
