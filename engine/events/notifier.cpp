#include "events/notifier.h"

#include <utility>

namespace sonetrix::dev {

void Notifier::parameterWritten(std::string_view key) noexcept {
    if (callbacks_.empty())
        return;
    try {
        std::string name(key);
        const std::lock_guard lock(mutex_);
        if (!seen_.contains(name)) {
            keys_.add(name);
            seen_.insert(std::move(name));
        }
    } catch (const std::bad_alloc &) {
        sonetrix_log(SONETRIX_LOG_ERROR, __FILE__, __LINE__, 1, "no memory to tell of a changed parameter");
    }
    written_.notify_one();
}

void Notifier::round(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    if (!written_.wait(lock, stop, [this] { return !keys_.empty(); }))
        return;
    written_.wait_for(lock, stop, gathering_, [] { return false; });
    const ListValue keys = std::exchange(keys_, {});
    seen_.clear();
    lock.unlock();
    ListKeyValue changes = parameters_.read(keys);
    if (!changes.empty() && !stop.stop_requested())
        callbacks_.callAll(&changes);
}

} // namespace sonetrix::dev
