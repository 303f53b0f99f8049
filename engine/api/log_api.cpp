#include "log/log.h"

#include "api/status.h"

#include <cstdarg>
#include <cstdio>
#include <string>

using namespace sonetrix::dev;

namespace {

const char *tagOr(const char *tag) noexcept { return tag != nullptr ? tag : "?"; }

std::string formatted(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    std::string text(240, '\0');
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
    int length = std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    if (length > 0 && static_cast<size_t>(length) > text.size()) {
        text.resize(static_cast<size_t>(length));
        length = std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    if (length < 0)
        return format;
    text.resize(static_cast<size_t>(length));
    return text;
}

/// These settings have no result to report a failure with.
template <class Change> void apply(Change change) noexcept {
    guarded([&] {
        change(Log::instance());
        return statusOk;
    });
}

} // namespace

void sonetrix_log(
    sonetrix_log_level_t level, const char *file, int32_t line, int32_t /*flag*/, const char *format, ...) {
    Log &log = Log::instance();
    if (!log.wants(level) || format == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    try {
        log.write(level, tagOr(file), line, formatted(format, arguments));
    } catch (...) {
        log.write(level, tagOr(file), line, format);
    }
    va_end(arguments);
}

void sonetrix_log_LogString(
    sonetrix_log_level_t level, const char *tag, int32_t line, int32_t /*flag*/, const char *message) {
    Log &log = Log::instance();
    if (log.wants(level) && message != nullptr)
        log.write(level, tagOr(tag), line, message);
}

sonetrix_log_level_t sonetrix_log_GetLogLevel() { return Log::instance().sessionLevel(); }
void sonetrix_log_SetLogLevel(sonetrix_log_level_t level) { Log::instance().setSessionLevel(level); }
sonetrix_log_level_t sonetrix_log_GetLogLevelJournal() { return Log::instance().journalLevel(); }
void sonetrix_log_SetLogLevelJournal(sonetrix_log_level_t level) { Log::instance().setJournalLevel(level); }

void sonetrix_log_time(int32_t on) {
    apply([on](Log &log) { log.setTimeStamps(Log::Target::console, on != 0); });
}
void sonetrix_log_file_time(int32_t on) {
    apply([on](Log &log) { log.setTimeStamps(Log::Target::file, on != 0); });
}
void sonetrix_log_filename(const char *path) {
    apply([path](Log &log) { log.setFile(path); });
}
void sonetrix_log_syslog(int32_t on) {
    apply([on](Log &log) { log.setDaemon(Log::Target::syslog, on != 0); });
}
void sonetrix_log_journald(int32_t on) {
    apply([on](Log &log) { log.setDaemon(Log::Target::journal, on != 0); });
}
