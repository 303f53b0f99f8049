#pragma once

#include "thread.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

namespace sonetrix::dev {

/// Callbacks with their user pointers, which any thread adds, removes and calls. No lock is held during a call, so a
/// callback may do all of that, to its own registration as well.
template <class Callback> class CallbackRegistry {
public:
    /// The handle of a new registration, never null and no other's of its kind.
    void *add(Callback callback, void *user) {
        const std::lock_guard lock(mutex_);
        // call() asks for no memory then.
        calls_.reserve(1);
        void *const handle = reinterpret_cast<void *>(++newestHandle); // NOLINT(performance-no-int-to-ptr)
        registrations_.emplace(handle, std::pair(callback, user));
        return handle;
    }

    /// Returns when no call is in progress on another thread; one on this thread is the last.
    void remove(const void *handle) {
        std::unique_lock lock(mutex_);
        registrations_.erase(handle);
        finished_.wait(lock, [this, handle, self = std::this_thread::get_id()] {
            return std::ranges::none_of(
                calls_, [&](const Call &call) { return call.first == handle && call.second != self; });
        });
    }

    [[nodiscard]] size_t size() const {
        const std::lock_guard lock(mutex_);
        return registrations_.size();
    }

    /// Calls back unless the registration has been removed. Whether it is still there afterwards.
    template <class... Arguments> bool call(const void *handle, Arguments... arguments) {
        std::unique_lock lock(mutex_);
        const auto found = registrations_.find(handle);
        if (found == registrations_.end())
            return false;
        const auto [callback, user] = found->second;
        calls_.emplace_back(handle, std::this_thread::get_id());
        lock.unlock();
        {
            const Finish finish{*this, handle};
            callback(arguments..., user);
            endForkedChild(); // a callback that has forked has come back in two processes
        }
        lock.lock();
        return registrations_.contains(handle);
    }

    /// Calls those that are registered now, in the order of registration.
    template <class... Arguments> void callAll(Arguments... arguments) {
        std::vector<const void *> handles;
        std::unique_lock lock(mutex_);
        for (const auto &[handle, registration] : registrations_)
            handles.push_back(handle);
        lock.unlock();
        for (const void *handle : handles)
            call(handle, arguments...);
    }

private:
    using Call = std::pair<const void *, std::thread::id>;

    /// Also when a callback ends its thread.
    struct Finish {
        CallbackRegistry &registry;
        const void *handle;

        ~Finish() {
            const std::lock_guard lock(registry.mutex_);
            registry.calls_.erase(std::ranges::find(registry.calls_, Call(handle, std::this_thread::get_id())));
            registry.finished_.notify_all();
        }
    };

    static inline std::atomic<uintptr_t> newestHandle{0};

    mutable std::mutex mutex_;
    std::condition_variable finished_;
    std::map<const void *, std::pair<Callback, void *>> registrations_; // by handle: in the order of registration
    std::vector<Call> calls_;                                           // in progress
};

} // namespace sonetrix::dev
