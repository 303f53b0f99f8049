#pragma once

#include <memory>
#include <spdlog/sinks/sink.h>

namespace sonetrix::dev {

/// "WARN  python: text", after a time stamp if asked for. Source files are shown by name and line.
std::unique_ptr<spdlog::formatter> makeLineFormatter(bool timeStamps);

/// Sinks that send one datagram per message to a local daemon; newlines in the message stay. They throw
/// std::system_error when the daemon cannot be reached, and try again with the next message.
std::shared_ptr<spdlog::sinks::sink> makeSyslogSink();
std::shared_ptr<spdlog::sinks::sink> makeJournalSink();

} // namespace sonetrix::dev
