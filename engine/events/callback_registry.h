#pragma once

#include "forked.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace sonetrix::dev {

inline std::atomic<uintptr_t> newestHandle{0};

/// C callbacks with their user pointers. No lock is held during a call, so a callback may add and remove registrations,
/// its own among them.
template <class Callback> class CallbackRegistry {
public:
    /// The handle of a new registration, never null and no other's in this process.
    void *add(Callback callback, void *user) {
        const auto registration = std::make_shared<Registration>(callback, user);
        const std::lock_guard lock(mutex_);
        void *const handle = reinterpret_cast<void *>(++newestHandle); // NOLINT(performance-no-int-to-ptr)
        registrations_.emplace(handle, registration);
        return handle;
    }

    /// Returns when no call is in progress on another thread; one on this thread is the last. False when there is no
    /// such registration.
    bool remove(const void *handle) {
        std::unique_lock lock(mutex_);
        const auto found = registrations_.find(handle);
        if (found == registrations_.end())
            return false;
        const auto registration = found->second;
        registration->removed = true;
        finished_.wait(lock, [&registration, self = std::this_thread::get_id()] {
            return std::ranges::all_of(
                registration->callers, [self](std::thread::id caller) { return caller == self; });
        });
        registrations_.erase(handle); // unless another removal has
        return true;
    }

    [[nodiscard]] bool empty() const {
        const std::lock_guard lock(mutex_);
        return registrations_.empty();
    }

    /// Calls back unless the registration has been removed. Whether it is still there afterwards.
    template <class... Arguments> bool call(const void *handle, Arguments... arguments) {
        std::shared_ptr<Registration> registration;
        {
            const std::lock_guard lock(mutex_);
            const auto found = registrations_.find(handle);
            if (found == registrations_.end() || found->second->removed)
                return false;
            registration = found->second;
            registration->callers.push_back(std::this_thread::get_id());
        }
        const Finish finish{*this, *registration};
        registration->callback(arguments..., registration->user);
        endForkedChild(); // a callback that has forked has come back in two processes
        return !registration->removed;
    }

    /// Calls those that are registered now, in the order of registration.
    template <class... Arguments> void callAll(Arguments... arguments) {
        for (const void *handle : handles())
            call(handle, arguments...);
    }

private:
    struct Registration {
        Registration(Callback function, void *itsUser) : callback(function), user(itsUser) { callers.reserve(1); }

        const Callback callback;
        void *const user;
        std::atomic<bool> removed{false};
        std::vector<std::thread::id> callers; // threads with a call in progress
    };
    struct Finish {
        CallbackRegistry &registry;
        Registration &registration;

        ~Finish() {
            {
                const std::lock_guard lock(registry.mutex_);
                registration.callers.erase(std::ranges::find(registration.callers, std::this_thread::get_id()));
            }
            registry.finished_.notify_all();
        }
    };

    std::vector<const void *> handles() const {
        std::vector<const void *> handles;
        const std::lock_guard lock(mutex_);
        handles.reserve(registrations_.size());
        for (const auto &[handle, registration] : registrations_)
            handles.push_back(handle);
        return handles;
    }

    mutable std::mutex mutex_;
    std::condition_variable finished_;
    std::map<const void *, std::shared_ptr<Registration>> registrations_; // by handle: in the order of registration
};

} // namespace sonetrix::dev
