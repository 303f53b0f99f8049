#include "log/log.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <pthread.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <string>
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

} // namespace

struct Log::Message {
    sonetrix_log_level_t level;
    const char *tag;
    int32_t line;
    std::string_view text;
    std::optional<Target> except = std::nullopt;
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

} // namespace sonetrix::dev
