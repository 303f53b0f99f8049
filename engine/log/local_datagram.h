#pragma once

#include "program/file_descriptor.h"

#include <string>
#include <string_view>
#include <sys/socket.h>

namespace sonetrix::dev {

/// Sends datagrams to a named local socket; connects when needed, and anew when the receiver was restarted.
class LocalDatagram {
public:
    explicit LocalDatagram(std::string path) : path_(std::move(path)) {}

    /// Throws std::system_error. Waits a moment at most for a receiver that does not keep up.
    void send(std::string_view bytes);
    /// The same for data of any size: what no datagram can hold goes as a sealed memory file.
    void sendAnySize(std::string_view bytes);

private:
    void connect();
    int trySend(const msghdr &message);
    void sendMessage(const msghdr &message);

    std::string path_;
    FileDescriptor socket_;
};

} // namespace sonetrix::dev
