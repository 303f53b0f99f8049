#include "log/log.h"

#include "log/log_sinks.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fmt/format.h>
#include <optional>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <string>
#include <utility>
#include <vector>

namespace sonetrix::dev {

namespace {

constexpr sonetrix_log_level_t nobody = UINT32_MAX;
constexpr std::array targetNames{"console", "log file", "syslog", "journald"};

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

} // namespace

struct Log::Message {
    sonetrix_log_level_t level;
    const char *tag;
    int32_t line;
    std::string_view text;
    std::optional<Target> except = std::nullopt;
};

struct Log::Failure {
    Target target;
    std::string reason;
};

Log &Log::instance() {
    static Log *const log = std::make_unique<Log>().release();
    return *log;
}

Log::Log() {
    state(Target::file).timeStamps = true;
    install(Target::console, std::make_shared<spdlog::sinks::stderr_sink_st>());
}

Log::~Log() = default;

void Log::install(Target target, std::shared_ptr<spdlog::sinks::sink> sink) {
    State &one = state(target);
    if (sink != nullptr)
        sink->set_formatter(makeLineFormatter(one.timeStamps));
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

void Log::distribute(const Message &message) {
    const auto level = static_cast<spdlog::level::level_enum>(message.level);
    const spdlog::source_loc source(message.tag, message.line, "");
    const spdlog::details::log_msg record(
        spdlog::log_clock::now(), source, "", level, {message.text.data(), message.text.size()});
    std::vector<Failure> failures;
    for (const auto target : {Target::console, Target::file, Target::syslog, Target::journal}) {
        State &one = state(target);
        const auto threshold = target == Target::journal ? journalLevel_.load() : sessionLevel_.load();
        if (one.sink == nullptr || message.level < threshold || message.except == target)
            continue;
        try {
            one.sink->log(record);
            one.sink->flush();
            one.failing = false;
        } catch (const std::exception &error) {
            if (!std::exchange(one.failing, true))
                failures.push_back({target, error.what()});
        }
    }
    for (const Failure &failure : failures)
        report(failure);
}

void Log::report(const Failure &failure) {
    const std::string text = fmt::format("{}: {}", targetNames.at(static_cast<size_t>(failure.target)), failure.reason);
    distribute({SONETRIX_LOG_WARN, "log", 0, text, failure.target});
}

void Log::setTimeStamps(Target target, bool on) {
    const std::lock_guard lock(mutex_);
    State &one = state(target);
    one.timeStamps = on;
    if (one.sink != nullptr)
        one.sink->set_formatter(makeLineFormatter(on));
}

void Log::openFile(const char *path) {
    const KeepErrno keepErrno;
    const std::lock_guard lock(mutex_);
    State &file = state(Target::file);
    if (file.sink != nullptr)
        return;
    try {
        install(Target::file, std::make_shared<spdlog::sinks::basic_file_sink_st>(path));
    } catch (const std::exception &error) {
        report({Target::file, error.what()});
    }
}

void Log::closeFile() {
    const std::lock_guard lock(mutex_);
    install(Target::file, nullptr);
}

void Log::setSyslog(bool on) {
    const std::lock_guard lock(mutex_);
    if (on != (state(Target::syslog).sink != nullptr))
        install(Target::syslog, on ? makeSyslogSink() : nullptr);
}

void Log::setJournal(bool on) {
    const std::lock_guard lock(mutex_);
    if (on != (state(Target::journal).sink != nullptr))
        install(Target::journal, on ? makeJournalSink() : nullptr);
}

} // namespace sonetrix::dev
