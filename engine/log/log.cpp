#include "refusal.h"
#include "sonetrix/engine_api.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <string>
#include <string_view>
#include <utility>

namespace sonetrix::dev {

namespace {

constexpr sonetrix_log_level_t nobody = UINT32_MAX;
constexpr std::array targetNames{"console", "log file", "syslog", "journal"};
constexpr std::array levelNames{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
constexpr const char *identity = "sonetrix";

/// errno belongs to the code that logs.
class KeepErrno {
public:
    KeepErrno() noexcept = default;
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;
    ~KeepErrno() { errno = saved_; }

private:
    int saved_ = errno;
};

std::unique_ptr<spdlog::formatter> formatter(bool timeStamps) {
    return std::make_unique<spdlog::pattern_formatter>(timeStamps ? "%Y-%m-%d %H:%M:%S.%f %v" : "%v");
}

/// The process's log. A message goes to the session's targets (console, file, syslog) and to the journal, each group
/// with its own threshold; one that no target wants costs one comparison. A target that fails is reported once on the
/// others. Safe from any thread but the audio thread, which must not wait, and in a forked child.
class Log {
public:
    enum class Target { console, file, syslog, journal };

    /// Never destroyed, so that threads may log to the very end of the process.
    static Log &instance();

    [[nodiscard]] bool wants(sonetrix_log_level_t level) const noexcept {
        return effective(level) >= lowest_.load(std::memory_order_relaxed);
    }
    /// `line` 0: `tag` is no source file.
    void write(sonetrix_log_level_t level, const char *tag, int32_t line, std::string_view message) noexcept;

    [[nodiscard]] sonetrix_log_level_t sessionLevel() const noexcept { return sessionLevel_; }
    [[nodiscard]] sonetrix_log_level_t journalLevel() const noexcept { return journalLevel_; }
    /// Values above FATAL silence the targets.
    void setSessionLevel(sonetrix_log_level_t level) noexcept;
    void setJournalLevel(sonetrix_log_level_t level) noexcept;

    // The targets' settings throw std::bad_alloc only.
    void setTimeStamps(Target target, bool on);
    /// Does nothing while a file is open; null closes it.
    void setFile(const char *path);
    /// For syslog and journal.
    void setDaemon(Target target, bool on);

private:
    struct State {
        std::shared_ptr<spdlog::sinks::sink> sink; // null: off
        bool timeStamps = false;
        bool failing = false;
    };
    struct Message {
        sonetrix_log_level_t level;
        const char *tag;
        int32_t line;
        std::string_view text;
        std::optional<Target> except = std::nullopt;
    };

    Log();

    static sonetrix_log_level_t effective(sonetrix_log_level_t level) noexcept {
        return level < SONETRIX_LOG_FATAL ? level : sonetrix_log_level_t{SONETRIX_LOG_FATAL};
    }
    State &state(Target target) noexcept { return targets_[static_cast<size_t>(target)]; }
    // The functions below are called with the mutex held.
    void install(Target target, std::shared_ptr<spdlog::sinks::sink> sink);
    void distribute(const Message &message);
    void report(Target failed, std::string_view reason);
    void updateLowest() noexcept;

    std::mutex mutex_;
    std::array<State, 4> targets_;
    std::atomic<sonetrix_log_level_t> sessionLevel_ = SONETRIX_LOG_WARN;
    std::atomic<sonetrix_log_level_t> journalLevel_ = SONETRIX_LOG_WARN;
    std::atomic<sonetrix_log_level_t> lowest_ = SONETRIX_LOG_WARN;
};

Log &Log::instance() {
    static Log *const log = std::unique_ptr<Log>(new Log).release();
    return *log;
}

Log::Log() {
    state(Target::file).timeStamps = true;
    install(Target::console, std::make_shared<spdlog::sinks::stderr_sink_st>());
    // Nobody is in the middle of a line when the process forks, so that the child may write its own.
    ::pthread_atfork(
        [] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); }, [] { instance().mutex_.unlock(); });
}

void Log::install(Target target, std::shared_ptr<spdlog::sinks::sink> sink) {
    State &one = state(target);
    if (sink != nullptr)
        sink->set_formatter(formatter(one.timeStamps));
    one.sink = std::move(sink);
    one.failing = false;
    updateLowest();
}

void Log::updateLowest() noexcept {
    const sonetrix_log_level_t journal = state(Target::journal).sink != nullptr ? journalLevel_.load() : nobody;
    lowest_ = std::min(sessionLevel_.load(), journal);
}

void Log::setSessionLevel(sonetrix_log_level_t level) noexcept {
    const std::lock_guard lock(mutex_);
    sessionLevel_ = level;
    updateLowest();
}

void Log::setJournalLevel(sonetrix_log_level_t level) noexcept {
    const std::lock_guard lock(mutex_);
    journalLevel_ = level;
    updateLowest();
}

void Log::write(sonetrix_log_level_t level, const char *tag, int32_t line, std::string_view message) noexcept {
    if (!wants(level))
        return;
    const KeepErrno keepErrno;
    const std::lock_guard lock(mutex_);
    try {
        distribute({effective(level), tag, line, message});
    } catch (...) { // NOLINT(bugprone-empty-catch): no memory left, not even for a report
    }
}

// "WARN  python: text" or "WARN  file.cpp:12: text"; the journal has fields for level, file and line.
void Log::distribute(const Message &message) {
    const std::string_view path = message.tag;
    const std::string_view name = path.substr(message.line == 0 ? 0 : path.rfind('/') + 1);
    const std::string place =
        message.line == 0 ? fmt::format("{}: ", name) : fmt::format("{}:{}: ", name, message.line);
    const std::string line = fmt::format("{:<5} {}{}", levelNames.at(message.level), place, message.text);
    const std::string_view entry = std::string_view(line).substr(message.line == 0 ? 6 : 6 + place.size());
    spdlog::details::log_msg record(spdlog::source_loc(message.tag, message.line, ""), identity,
        static_cast<spdlog::level::level_enum>(message.level), "");

    std::array<std::string, 4> failures;
    for (size_t index = 0; index < targets_.size(); ++index) {
        const auto target = static_cast<Target>(index);
        State &one = targets_[index];
        const auto threshold = target == Target::journal ? journalLevel_.load() : sessionLevel_.load();
        if (one.sink == nullptr || message.level < threshold || message.except == target)
            continue;
        const std::string_view payload = target == Target::journal ? entry : line;
        record.payload = {payload.data(), payload.size()};
        try {
            one.sink->log(record);
            one.sink->flush();
            one.failing = false;
        } catch (const std::exception &error) {
            if (!std::exchange(one.failing, true))
                failures[index] = error.what();
        }
    }
    for (size_t index = 0; index < failures.size(); ++index)
        if (!failures[index].empty())
            report(static_cast<Target>(index), failures[index]);
}

void Log::report(Target failed, std::string_view reason) {
    const std::string text = fmt::format("{}: {}", targetNames.at(static_cast<size_t>(failed)), reason);
    distribute({SONETRIX_LOG_WARN, "log", 0, text, failed});
}

void Log::setTimeStamps(Target target, bool on) {
    const std::lock_guard lock(mutex_);
    State &one = state(target);
    one.timeStamps = on;
    if (one.sink != nullptr)
        one.sink->set_formatter(formatter(on));
}

void Log::setFile(const char *path) {
    const KeepErrno keepErrno;
    const std::lock_guard lock(mutex_);
    if (path == nullptr)
        return install(Target::file, nullptr);
    if (state(Target::file).sink != nullptr)
        return;
    try {
        std::error_code unreadable;
        const auto folder = std::filesystem::path(path).parent_path();
        if (!folder.empty() && !std::filesystem::is_directory(folder, unreadable))
            throw spdlog::spdlog_ex("there is no folder " + folder.string()); // the sink would make it
        install(Target::file, std::make_shared<spdlog::sinks::basic_file_sink_st>(path));
    } catch (const spdlog::spdlog_ex &error) {
        report(Target::file, error.what());
    }
}

void Log::setDaemon(Target target, bool on) {
    const std::lock_guard lock(mutex_);
    if (on == (state(target).sink != nullptr))
        return;
    std::shared_ptr<spdlog::sinks::sink> sink;
    if (on && target == Target::syslog)
        sink = std::make_shared<spdlog::sinks::syslog_sink_st>(identity, LOG_PID, LOG_USER, false);
    else if (on)
        sink = std::make_shared<spdlog::sinks::systemd_sink_st>(identity);
    install(target, std::move(sink));
}

const char *tagOr(const char *tag) noexcept { return tag != nullptr ? tag : "?"; }

/// These settings have no result to report a failure with.
template <class Change> void apply(Change change) noexcept {
    guarded([&] { change(Log::instance()); });
}

} // namespace

} // namespace sonetrix::dev

using namespace sonetrix::dev;

void sonetrix_log(
    sonetrix_log_level_t level, const char *file, int32_t line, int32_t /*flag*/, const char *format, ...) {
    Log &log = Log::instance();
    if (!log.wants(level) || format == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = ::vasprintf(&text, format, arguments);
    va_end(arguments);
    log.write(level, tagOr(file), line, length < 0 ? format : text);
    if (length >= 0)
        std::free(text);
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
