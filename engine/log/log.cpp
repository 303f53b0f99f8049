#include "refusal.h"
#include "sonetrix/engine_api.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
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
#include <utility>

namespace sonetrix::dev {

namespace {

constexpr std::array levelNames{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
constexpr std::array targetNames{"console", "log file", "syslog", "journal"};
constexpr const char *identity = "sonetrix";

/// The process's log. A message goes to the session's targets (console, file, syslog) and to the journal, each group
/// with its own threshold; one that neither group wants costs next to nothing. A target that fails is reported once on
/// the others. Safe from any thread but the audio thread, which must not wait, and in a forked child.
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
        return effective(level) >= std::min(sessionThreshold_.load(), journalThreshold_.load());
    }
    /// `line` 0: `tag` is no source file.
    void write(sonetrix_log_level_t level, const char *tag, int32_t line, std::string_view text) noexcept {
        if (!wants(level))
            return;
        const int kept = errno; // belongs to the code that logs
        guarded([&] {
            const std::lock_guard lock(mutex_);
            distribute(effective(level), tag != nullptr ? tag : "?", line, text);
        });
        errno = kept;
    }

    /// The threshold of the target's group; what is above FATAL silences it.
    [[nodiscard]] sonetrix_log_level_t threshold(Target target) const noexcept {
        return target == journal ? journalThreshold_ : sessionThreshold_;
    }
    void setThreshold(Target target, sonetrix_log_level_t level) noexcept {
        (target == journal ? journalThreshold_ : sessionThreshold_) = level;
    }

    void setTimeStamps(Target target, bool on) noexcept {
        guarded([&] {
            const std::lock_guard lock(mutex_);
            targets_[target].timeStamps = on;
            format(targets_[target]);
        });
    }
    /// Opens the target with that function, which may throw, or closes it; nothing if it is so already.
    void turn(Target target, bool on, const std::function<Sink()> &open) noexcept {
        const int kept = errno;
        guarded([&] {
            const std::lock_guard lock(mutex_);
            if (on == (targets_[target].sink != nullptr))
                return;
            try {
                install(target, on ? open() : nullptr);
            } catch (const std::exception &error) {
                report(target, error.what());
            }
        });
        errno = kept;
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
    }
    // "WARN  python: text" or "WARN  file.cpp:12: text"; the journal has fields for level, file and line.
    void distribute(sonetrix_log_level_t level, const char *tag, int32_t line, std::string_view text) {
        const std::string_view path = tag;
        const std::string_view name = path.substr(line == 0 ? 0 : path.rfind('/') + 1);
        const std::string place = line == 0 ? fmt::format("{}: ", name) : fmt::format("{}:{}: ", name, line);
        const std::string whole = fmt::format("{:<5} {}{}", levelNames.at(level), place, text);
        const auto entry = std::string_view(whole).substr(whole.size() - text.size() - (line == 0 ? place.size() : 0));
        spdlog::details::log_msg message(
            spdlog::source_loc(tag, line, ""), identity, static_cast<spdlog::level::level_enum>(level), "");
        for (const Target target : {console, file, syslog, journal}) {
            State &state = targets_[target];
            if (state.sink == nullptr || level < threshold(target))
                continue;
            message.payload = target == journal ? entry : whole;
            try {
                state.sink->log(message);
                state.sink->flush();
                state.failing = false;
            } catch (const std::exception &error) {
                if (!std::exchange(state.failing, true))
                    report(target, error.what());
            }
        }
    }
    void report(Target failed, const std::string &reason) {
        distribute(SONETRIX_LOG_WARN, "log", 0, fmt::format("{}: {}", targetNames.at(failed), reason));
    }

    std::mutex mutex_;
    std::array<State, targetNames.size()> targets_;
    std::atomic<sonetrix_log_level_t> sessionThreshold_ = SONETRIX_LOG_WARN;
    std::atomic<sonetrix_log_level_t> journalThreshold_ = SONETRIX_LOG_WARN;
};

Log::Sink openFile(const std::filesystem::path &path) {
    std::error_code unreadable;
    if (const auto folder = path.parent_path(); !folder.empty() && !std::filesystem::is_directory(folder, unreadable))
        throw std::runtime_error("there is no folder " + folder.string()); // which the sink would make
    return std::make_shared<spdlog::sinks::basic_file_sink_st>(path);
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

void sonetrix_log_time(int32_t on) { Log::instance().setTimeStamps(Log::console, on != 0); }
void sonetrix_log_file_time(int32_t on) { Log::instance().setTimeStamps(Log::file, on != 0); }
void sonetrix_log_filename(const char *path) {
    Log::instance().turn(Log::file, path != nullptr, [path] { return openFile(path); });
}
void sonetrix_log_syslog(int32_t on) {
    Log::instance().turn(Log::syslog, on != 0,
        [] { return std::make_shared<spdlog::sinks::syslog_sink_st>(identity, LOG_PID, LOG_USER, false); });
}
void sonetrix_log_journald(int32_t on) {
    Log::instance().turn(
        Log::journal, on != 0, [] { return std::make_shared<spdlog::sinks::systemd_sink_st>(identity); });
}
