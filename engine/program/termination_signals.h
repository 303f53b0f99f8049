#pragma once

#include "program/file_descriptor.h"

#include <atomic>
#include <functional>
#include <thread>

namespace sonetrix::dev {

/// Turns SIGTERM and SIGHUP, and SIGINT if wanted, into a call of `requested` on a thread of its own. After the first,
/// another one from outside ends the process at once with the usual status. The handlers stay for the life of the
/// process; there is one object at a time.
class TerminationSignals {
public:
    TerminationSignals(bool withInterrupt, std::function<void()> requested);
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;
    ~TerminationSignals();

    /// Whether such a signal has come.
    [[nodiscard]] bool received() const noexcept { return received_; }
    /// Whether this is a process that a script has forked: signals end it in their usual way, and it has no thread but
    /// the one that forked it.
    [[nodiscard]] static bool isForked() noexcept;

private:
    void threadMain();

    std::function<void()> requested_;
    std::atomic<bool> received_{false};
    FileDescriptor readEnd_;
    FileDescriptor writeEnd_;
    std::thread thread_;
};

} // namespace sonetrix::dev
