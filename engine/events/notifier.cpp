#include "events/notifier.h"

#include "lists/lists.h"
#include "thread.h"

#include <utility>

namespace sonetrix::dev {

void Notifier::start() {
    thread_ = engineThread("sonetrix-notify", [this](const std::stop_token &stop) { threadMain(stop); });
}

void Notifier::join() {
    requestEnd();
    if (thread_.joinable())
        thread_.join();
}

void Notifier::parameterWritten(std::string_view key) noexcept {
    if (callbacks_.empty())
        return;
    try {
        const std::lock_guard lock(mutex_);
        const auto [name, isNew] = seen_.emplace(key);
        if (isNew)
            keys_.add(*name);
    } catch (const std::bad_alloc &) {
        sonetrix_log(SONETRIX_LOG_ERROR, __FILE__, __LINE__, 1, "no memory to tell of a changed parameter");
    }
    written_.notify_one();
}

void Notifier::threadMain(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (written_.wait(lock, stop, [this] { return !keys_.empty(); })) {
        written_.wait_for(lock, stop, gathering_, [] { return false; });
        const ListValue keys = std::exchange(keys_, {});
        seen_.clear();
        lock.unlock();
        ListKeyValue changes = parameters_.read(keys);
        if (!changes.empty() && !stop.stop_requested())
            callbacks_.callAll(&changes);
        lock.lock();
    }
}

} // namespace sonetrix::dev
