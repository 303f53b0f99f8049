#include "log/log_sinks.h"

#include "log/local_datagram.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <iterator>
#include <spdlog/details/null_mutex.h>
#include <spdlog/formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <string>
#include <sys/syslog.h>
#include <unistd.h>

namespace sonetrix::dev {

namespace {

using Sink = spdlog::sinks::base_sink<spdlog::details::null_mutex>;

struct LevelNames {
    const char *name;
    int priority;
};
constexpr std::array<LevelNames, 6> levels{{{"TRACE", LOG_DEBUG}, {"DEBUG", LOG_DEBUG}, {"INFO", LOG_INFO},
    {"WARN", LOG_WARNING}, {"ERROR", LOG_ERR}, {"FATAL", LOG_CRIT}}};

const LevelNames &namesOf(const spdlog::details::log_msg &message) { return levels.at(size_t(message.level)); }

const char *fileName(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

/// "python: text" or "file.cpp:12: text"
template <class Buffer> void appendSourceAndText(Buffer &out, const spdlog::details::log_msg &message) {
    const std::string_view text(message.payload.data(), message.payload.size());
    if (message.source.line == 0) {
        fmt::format_to(std::back_inserter(out), "{}: {}", message.source.filename, text);
    } else {
        const char *file = fileName(message.source.filename);
        fmt::format_to(std::back_inserter(out), "{}:{}: {}", file, message.source.line, text);
    }
}

std::tm localTime(const spdlog::details::log_msg &message) {
    const std::time_t seconds = spdlog::log_clock::to_time_t(message.time);
    std::tm broken{};
    ::localtime_r(&seconds, &broken);
    return broken;
}

class LineFormatter : public spdlog::formatter {
public:
    explicit LineFormatter(bool timeStamps) : timeStamps_(timeStamps) {}

    void format(const spdlog::details::log_msg &message, spdlog::memory_buf_t &out) override {
        if (timeStamps_) {
            const auto sinceEpoch = message.time.time_since_epoch();
            const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count() % 1'000'000;
            fmt::format_to(std::back_inserter(out), "{:%Y-%m-%d %H:%M:%S}.{:06} ", localTime(message), micros);
        }
        fmt::format_to(std::back_inserter(out), "{:<5} ", namesOf(message).name);
        appendSourceAndText(out, message);
        out.push_back('\n');
    }
    [[nodiscard]] std::unique_ptr<formatter> clone() const override {
        return std::make_unique<LineFormatter>(timeStamps_);
    }

private:
    bool timeStamps_;
};

std::string socketPath(const char *variable, const char *standard) {
    const char *path = std::getenv(variable);
    return path != nullptr ? path : standard;
}

class SyslogSink : public Sink {
public:
    SyslogSink() : daemon_(socketPath("SONETRIX_SYSLOG_SOCKET", "/dev/log")) {}

protected:
    void sink_it_(const spdlog::details::log_msg &message) override {
        const std::tm time = localTime(message);
        static constexpr const char *months[] = {
            "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        const LevelNames &level = namesOf(message);
        std::string text = fmt::format("<{}>{} {:2} {:02}:{:02}:{:02} sonetrix[{}]: {} ", LOG_USER | level.priority,
            months[time.tm_mon], time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec, ::getpid(), level.name);
        appendSourceAndText(text, message);
        daemon_.send(text);
    }
    void flush_() override {}

private:
    LocalDatagram daemon_;
};

/// journald's own protocol: NAME=value lines; a value with newlines has its length in front instead.
class JournalSink : public Sink {
public:
    JournalSink() : daemon_(socketPath("SONETRIX_JOURNAL_SOCKET", "/run/systemd/journal/socket")) {}

protected:
    void sink_it_(const spdlog::details::log_msg &message) override {
        std::string fields = fmt::format("PRIORITY={}\nSYSLOG_IDENTIFIER=sonetrix\n", namesOf(message).priority);
        appendField(fields, "CODE_FILE", message.source.filename);
        if (message.source.line != 0)
            appendField(fields, "CODE_LINE", std::to_string(message.source.line));
        appendField(fields, "MESSAGE", {message.payload.data(), message.payload.size()});
        daemon_.sendAnySize(fields);
    }
    void flush_() override {}

private:
    static void appendField(std::string &fields, std::string_view name, std::string_view value) {
        fields += name;
        if (value.find('\n') == std::string_view::npos) {
            fields += '=';
        } else {
            fields += '\n';
            for (uint64_t rest = value.size(), byte = 0; byte < sizeof rest; ++byte, rest >>= 8)
                fields += static_cast<char>(rest & 0xff);
        }
        fields += value;
        fields += '\n';
    }

    LocalDatagram daemon_;
};

} // namespace

std::unique_ptr<spdlog::formatter> makeLineFormatter(bool timeStamps) {
    return std::make_unique<LineFormatter>(timeStamps);
}

std::shared_ptr<spdlog::sinks::sink> makeSyslogSink() { return std::make_shared<SyslogSink>(); }
std::shared_ptr<spdlog::sinks::sink> makeJournalSink() { return std::make_shared<JournalSink>(); }

} // namespace sonetrix::dev
