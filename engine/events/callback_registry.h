#pragma once

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace sonetrix::dev {

/// C callbacks with their user pointers. Every registration is called by one thread at a time; no lock is held
/// meanwhile, so a callback may add and remove registrations, its own among them.
template <class Callback> class CallbackRegistry {
public:
    /// The registry's own; others keep pointers to it.
    struct Registration {
        Callback callback;
        void *user;
        bool removed = false;
        std::thread::id caller{}; // none: no call in progress
    };
    using Pointer = std::shared_ptr<Registration>;
    using Registrations = std::vector<Pointer>;

    /// The registration's address is its handle.
    Pointer add(Callback callback, void *user) {
        auto registration = std::make_shared<Registration>(Registration{callback, user});
        const std::lock_guard lock(mutex_);
        const auto position = order_.insert(order_.end(), registration);
        try {
            positions_.emplace(registration.get(), position);
        } catch (...) {
            order_.erase(position);
            throw;
        }
        changed();
        return registration;
    }

    /// Returns when no call is in progress on another thread; a call on this thread is the last. False when there is
    /// no such registration.
    bool remove(const void *handle) {
        std::unique_lock lock(mutex_);
        const auto found = positions_.find(handle);
        if (found == positions_.end())
            return false;
        const Pointer registration = *found->second;
        order_.erase(found->second);
        positions_.erase(found);
        changed();
        registration->removed = true;
        if (registration->caller != std::this_thread::get_id())
            finished_.wait(lock, [&] { return registration->caller == std::thread::id(); });
        return true;
    }

    [[nodiscard]] bool contains(const void *handle) const {
        const std::lock_guard lock(mutex_);
        return positions_.contains(handle);
    }
    [[nodiscard]] bool empty() const noexcept { return count_ == 0; }

    /// Calls back unless the registration has been removed.
    template <class... Arguments> void call(Registration &registration, Arguments... arguments) {
        {
            const std::lock_guard lock(mutex_);
            if (registration.removed)
                return;
            registration.caller = std::this_thread::get_id();
        }
        const Finish finish{*this, registration};
        registration.callback(arguments..., registration.user);
    }

    /// Calls those that are registered now, in the order of registration.
    template <class... Arguments> void callAll(Arguments... arguments) {
        const auto registrations = all();
        for (const Pointer &registration : *registrations)
            call(*registration, arguments...);
    }

private:
    struct Finish {
        CallbackRegistry &registry;
        Registration &registration;

        ~Finish() {
            {
                const std::lock_guard lock(registry.mutex_);
                registration.caller = {};
            }
            registry.finished_.notify_all();
        }
    };

    std::shared_ptr<const Registrations> all() {
        const std::lock_guard lock(mutex_);
        if (!all_)
            all_ = std::make_shared<const Registrations>(order_.begin(), order_.end());
        return all_;
    }
    void changed() noexcept {
        all_.reset();
        count_ = order_.size();
    }

    mutable std::mutex mutex_;
    std::condition_variable finished_;
    std::list<Pointer> order_;
    std::unordered_map<const void *, typename std::list<Pointer>::iterator> positions_;
    std::shared_ptr<const Registrations> all_; // null: has to be made anew
    std::atomic<size_t> count_{0};
};

} // namespace sonetrix::dev
