#pragma once

#include "events/callback_registry.h"
#include "graph/parameters.h"
#include "thread.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace sonetrix::dev {

/// Tells of changed parameters, on a thread of its own. The changes of about one block's time come together, a
/// parameter that was written repeatedly once and with its newest value.
class Notifier {
public:
    /// `parameters` must outlive the thread.
    Notifier(const Parameters &parameters, std::chrono::nanoseconds gathering)
        : parameters_(parameters), gathering_(gathering) {}

    Thread &thread() noexcept { return thread_; }

    CallbackRegistry<sonetrix_listCallback_t> &callbacks() noexcept { return callbacks_; }
    void parameterWritten(const char *key);

private:
    void round(const std::stop_token &stop);

    const Parameters &parameters_;
    const std::chrono::nanoseconds gathering_;
    CallbackRegistry<sonetrix_listCallback_t> callbacks_;
    std::mutex mutex_;
    std::condition_variable_any written_;
    std::set<std::string> keys_;
    Thread thread_{"sonetrix-notify", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev
