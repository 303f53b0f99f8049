#include "log/local_datagram.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>

namespace sonetrix::dev {

namespace {

constexpr timeval sendTimeout{0, 100'000};

[[noreturn]] void fail(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

FileDescriptor sealedFileWith(std::string_view bytes) {
    FileDescriptor file(memfd_create("sonetrix-log", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    while (file && !bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written < 0)
            fail(errno, "memory file");
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    if (!file || ::fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) != 0)
        fail(errno, "memory file");
    return file;
}

} // namespace

void LocalDatagram::connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path)
        fail(ENAMETOOLONG, path_);
    std::memcpy(address.sun_path, path_.data(), path_.size());
    FileDescriptor fresh(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fresh || ::connect(fresh.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(errno, path_);
    ::setsockopt(fresh.get(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    socket_ = std::move(fresh);
}

int LocalDatagram::trySend(const msghdr &message) {
    return ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL) >= 0 ? 0 : errno;
}

void LocalDatagram::sendMessage(const msghdr &message) {
    int error = socket_ ? trySend(message) : ENOTCONN;
    if (error == ENOTCONN || error == ECONNREFUSED || error == ECONNRESET) {
        connect();
        error = trySend(message);
    }
    if (error != 0)
        fail(error, path_);
}

void LocalDatagram::send(std::string_view bytes) {
    iovec part{const_cast<char *>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    sendMessage(message);
}

void LocalDatagram::sendAnySize(std::string_view bytes) {
    try {
        send(bytes);
        return;
    } catch (const std::system_error &error) {
        if (error.code() != std::errc::message_size && error.code() != std::errc::no_buffer_space)
            throw;
    }
    const FileDescriptor file = sealedFileWith(bytes);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec nothing{}; // without any part at all, qemu's user emulation reports success and sends nothing
    msghdr message{};
    message.msg_iov = &nothing;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = file.get();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    sendMessage(message);
}

} // namespace sonetrix::dev
