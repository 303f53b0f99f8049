#pragma once

#include "sonetrix/engine_api.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

namespace spdlog::sinks {
class sink;
}

namespace sonetrix::dev {

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
    struct Message;

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

} // namespace sonetrix::dev
