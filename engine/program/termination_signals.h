#pragma once

#include "program/file_descriptor.h"

#include <atomic>
#include <functional>
#include <optional>
#include <thread>

namespace sonetrix::dev {

/// Turns SIGTERM and SIGHUP, and SIGINT if wanted, into a call of `requested` on a thread of its own. After the first,
/// another one from outside ends the process at once. The handlers stay for the life of the process; there is one
/// object at a time.
class TerminationSignals {
public:
    TerminationSignals(bool withInterrupt, std::function<void()> requested);
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;
    ~TerminationSignals();

    /// The status to end with, in place of the usual one of a signal.
    void setStatus(int status) noexcept { status_ = status; }
    /// Nothing is left to do but to wait: any of the signals, SIGINT among them, ends the process at once from now on.
    void endAtOnce();
    /// Whether such a signal has come.
    [[nodiscard]] bool received() const noexcept { return received_; }

private:
    void threadMain();

    std::function<void()> requested_;
    std::atomic<bool> received_{false};
    std::atomic<std::optional<int>> status_{std::nullopt};
    FileDescriptor readEnd_;
    FileDescriptor writeEnd_;
    std::thread thread_;
};

} // namespace sonetrix::dev
