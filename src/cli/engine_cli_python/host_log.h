#pragma once

#include <sonetrix/engine_api.h>

#include <cstdint>
#include <string_view>

namespace sonetrix::cli {

// A log format, with the place in the source where it stands.
struct LogFormat {
    // Made from plain text at each call, whose place the builtins give.
    constexpr LogFormat(const char *format, // NOLINT(google-explicit-constructor)
        const char *sourceFile = __builtin_FILE(),
        std::int32_t sourceLine = __builtin_LINE()) noexcept
        : text(format), file(baseName(sourceFile)), line(sourceLine) {}

    const char *text;
    const char *file;
    std::int32_t line;

private:
    static constexpr const char *baseName(const char *path) noexcept {
        return path + std::string_view(path).rfind('/') + 1;
    }
};

// Writes to the engine's log.
template <class... Arguments>
void log(sonetrix_log_level_t level, const LogFormat &format, Arguments... arguments) noexcept {
    sonetrix_log(level, format.file, format.line, 1, format.text, arguments...);
}

} // namespace sonetrix::cli
