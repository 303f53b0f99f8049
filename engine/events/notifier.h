#pragma once

#include "events/callback_registry.h"
#include "graph/parameters.h"
#include "thread.h"

#include <set>

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
    void parameterWritten(const char *key) {
        if (callbacks_.size() == 0)
            return;
        const std::lock_guard lock(mutex_);
        keys_.emplace(key);
        written_.notify_one();
    }

private:
    void round(const std::stop_token &stop) {
        std::unique_lock lock(mutex_);
        if (!written_.wait(lock, stop, [this] { return !keys_.empty(); }))
            return;
        written_.wait_for(lock, stop, gathering_, [] { return false; });
        ListValue keys;
        for (const std::string &key : keys_)
            keys.add(key);
        keys_.clear();
        lock.unlock();
        ListKeyValue changes = parameters_.read(keys);
        if (!changes.empty() && !stop.stop_requested())
            callbacks_.callAll(&changes);
    }

    const Parameters &parameters_;
    const std::chrono::nanoseconds gathering_;
    CallbackRegistry<sonetrix_listCallback_t> callbacks_;
    std::mutex mutex_;
    std::condition_variable_any written_;
    std::set<std::string> keys_;
    Thread thread_{"sonetrix-notify", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev
