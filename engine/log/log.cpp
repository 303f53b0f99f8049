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
#include <vector>

namespace sonetrix::dev {

namespace {

constexpr std::array levelNames{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
constexpr std::array targetNames{"console", "log file", "syslog", "journal"};
constexpr const char *identity = "sonetrix";

/// The process's log. A message goes to the session's targets (console, file, syslog) and to the journal, each group
/// with its own threshold; one that no target wants costs one comparison. A target that fails is reported once on the
/// others. Safe from any thread but the audio thread, which must not wait, and in a forked child.
class Log {
public:
    enum Target : size_t { console, file, syslog, journal };
    using Sink = std::shared_ptr<spdlog::sinks::sink>;

    /// Never destroyed, so that threads may log to the very end of the process.
    static Log &instance() {
        static Log *const log = std::unique_ptr<Log>(new Log).release();
        return *log;
    }

    [[nodiscard]] bool wants(sonetrix_log_level_t level) const noexcept {
        return effective(level) >= lowest_.load(std::memory_order_relaxed);
    }
    /// `line` 0: `tag` is no source file.
    void write(sonetrix_log_level_t level, const char *tag, int32_t line, std::string_view text) noexcept {
        if (!wants(level))
            return;
        const int kept = errno; // belongs to the code that logs
        try {
            const std::lock_guard lock(mutex_);
            distribute(effective(level), tag != nullptr ? tag : "?", line, text);
        } catch (...) { // NOLINT(bugprone-empty-catch): no memory left, not even for a report
        }
        errno = kept;
    }

    /// The threshold of the target's group; what is above FATAL silences it.
    [[nodiscard]] sonetrix_log_level_t threshold(Target target) const noexcept {
        return target == journal ? journalThreshold_ : sessionThreshold_;
    }
    void setThreshold(Target target, sonetrix_log_level_t level) noexcept {
        const std::lock_guard lock(mutex_);
        (target == journal ? journalThreshold_ : sessionThreshold_) = level;
        updateLowest();
    }

    // The targets' settings may throw std::bad_alloc, nothing else.
    void setTimeStamps(Target target, bool on) {
        const std::lock_guard lock(mutex_);
        targets_[target].timeStamps = on;
        format(targets_[target]);
    }
    /// Does nothing while a file is open; null closes it.
    void setFile(const char *path) {
        const std::lock_guard lock(mutex_);
        const int kept = errno;
        const auto folder = std::filesystem::path(path != nullptr ? path : "").parent_path();
        std::error_code unreadable;
        if (path == nullptr)
            install(file, nullptr);
        else if (!folder.empty() && !std::filesystem::is_directory(folder, unreadable)) // the sink would make it
            report(file, "there is no folder " + folder.string());
        else if (targets_[file].sink == nullptr)
            try {
                install(file, std::make_shared<spdlog::sinks::basic_file_sink_st>(path));
            } catch (const spdlog::spdlog_ex &error) {
                report(file, error.what());
            }
        errno = kept;
    }
    void setDaemon(Target target, bool on) {
        const std::lock_guard lock(mutex_);
        if (on == (targets_[target].sink != nullptr))
            return;
        Sink sink;
        if (on && target == syslog)
            sink = std::make_shared<spdlog::sinks::syslog_sink_st>(identity, LOG_PID, LOG_USER, false);
        else if (on)
            sink = std::make_shared<spdlog::sinks::systemd_sink_st>(identity);
        install(target, std::move(sink));
    }

private:
    struct State {
        Sink sink; // null: off
        bool timeStamps = false;
        bool failing = false;
    };

    Log() {
        targets_[file].timeStamps = true;
        install(console, std::make_shared<spdlog::sinks::stderr_sink_st>());
        // Nobody is in the middle of a line when the process forks, so that the child may write its own.
        ::pthread_atfork(
            [] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); }, [] { instance().mutex_.unlock(); });
    }

    static sonetrix_log_level_t effective(sonetrix_log_level_t level) noexcept {
        return level < SONETRIX_LOG_FATAL ? level : sonetrix_log_level_t{SONETRIX_LOG_FATAL};
    }

    // The functions below are called with the mutex held.
    static void format(const State &state) {
        const auto *pattern = state.timeStamps ? "%Y-%m-%d %H:%M:%S.%f %v" : "%v";
        if (state.sink != nullptr)
            state.sink->set_formatter(std::make_unique<spdlog::pattern_formatter>(pattern));
    }
    void install(Target target, Sink sink) {
        targets_[target].sink = std::move(sink);
        targets_[target].failing = false;
        format(targets_[target]);
        updateLowest();
    }
    void updateLowest() noexcept {
        lowest_ = targets_[journal].sink != nullptr ? std::min(sessionThreshold_.load(), journalThreshold_.load())
                                                    : sessionThreshold_.load();
    }
    // "WARN  python: text" or "WARN  file.cpp:12: text"; the journal has fields for level, file and line.
    void distribute(sonetrix_log_level_t level, const char *tag, int32_t line, std::string_view text) {
        const std::string_view path = tag;
        const std::string_view name = path.substr(line == 0 ? 0 : path.rfind('/') + 1);
        const std::string place = line == 0 ? fmt::format("{}: ", name) : fmt::format("{}:{}: ", name, line);
        const std::string whole = fmt::format("{:<5} {}{}", levelNames.at(level), place, text);
        const size_t entry = whole.size() - text.size() - (line == 0 ? place.size() : 0);
        spdlog::details::log_msg message(
            spdlog::source_loc(tag, line, ""), identity, static_cast<spdlog::level::level_enum>(level), "");
        std::vector<std::pair<Target, std::string>> failures;
        for (const Target target : {console, file, syslog, journal}) {
            State &state = targets_[target];
            if (state.sink == nullptr || level < threshold(target) || (reporting_ && state.failing))
                continue;
            message.payload = {
                whole.data() + (target == journal ? entry : 0), whole.size() - (target == journal ? entry : 0)};
            try {
                state.sink->log(message);
                state.sink->flush();
                state.failing = false;
            } catch (const std::exception &error) {
                if (!std::exchange(state.failing, true))
                    failures.emplace_back(target, error.what());
            }
        }
        for (const auto &[target, reason] : failures)
            report(target, reason);
    }
    void report(Target failed, const std::string &reason) {
        reporting_ = true;
        distribute(SONETRIX_LOG_WARN, "log", 0, fmt::format("{}: {}", targetNames.at(failed), reason));
        reporting_ = false;
    }

    std::mutex mutex_;
    std::array<State, targetNames.size()> targets_;
    bool reporting_ = false; // to those that work
    std::atomic<sonetrix_log_level_t> sessionThreshold_ = SONETRIX_LOG_WARN;
    std::atomic<sonetrix_log_level_t> journalThreshold_ = SONETRIX_LOG_WARN;
    std::atomic<sonetrix_log_level_t> lowest_ = SONETRIX_LOG_WARN;
};

/// These settings have no result to report a failure with.
template <class... Parameters, class... Arguments>
void apply(void (Log::*change)(Parameters...), Arguments... arguments) noexcept {
    guarded([&] { (Log::instance().*change)(arguments...); });
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
    log.write(level, file, line, length < 0 ? format : text);
    if (length >= 0)
        std::free(text);
}

void sonetrix_log_LogString(
    sonetrix_log_level_t level, const char *tag, int32_t line, int32_t /*flag*/, const char *message) {
    if (message != nullptr)
        Log::instance().write(level, tag, line, message);
}

sonetrix_log_level_t sonetrix_log_GetLogLevel() { return Log::instance().threshold(Log::console); }
void sonetrix_log_SetLogLevel(sonetrix_log_level_t level) { Log::instance().setThreshold(Log::console, level); }
sonetrix_log_level_t sonetrix_log_GetLogLevelJournal() { return Log::instance().threshold(Log::journal); }
void sonetrix_log_SetLogLevelJournal(sonetrix_log_level_t level) { Log::instance().setThreshold(Log::journal, level); }

void sonetrix_log_time(int32_t on) { apply(&Log::setTimeStamps, Log::console, on != 0); }
void sonetrix_log_file_time(int32_t on) { apply(&Log::setTimeStamps, Log::file, on != 0); }
void sonetrix_log_filename(const char *path) { apply(&Log::setFile, path); }
void sonetrix_log_syslog(int32_t on) { apply(&Log::setDaemon, Log::syslog, on != 0); }
void sonetrix_log_journald(int32_t on) { apply(&Log::setDaemon, Log::journal, on != 0); }
