#pragma once

#include "thread.h"

#include <atomic>
#include <functional>
#include <optional>

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
    void round(const std::stop_token &stop);

    std::function<void()> requested_;
    std::atomic<bool> received_{false};
    std::atomic<std::optional<int>> status_{std::nullopt};
    Thread thread_{"sonetrix-signal", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev
