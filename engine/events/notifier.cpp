#include "events/notifier.h"

namespace sonetrix::dev {

void Notifier::parameterWritten(const char *key) {
    if (callbacks_.empty())
        return;
    const std::lock_guard lock(mutex_);
    keys_.emplace(key);
    written_.notify_one();
}

void Notifier::round(const std::stop_token &stop) {
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

} // namespace sonetrix::dev
