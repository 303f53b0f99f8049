#include "callbacks.h"

#include <algorithm>

namespace sonetrix::testing {

Callbacks &Callbacks::instance() {
    static Callbacks callbacks;
    return callbacks;
}

void *Callbacks::add(CallbackKind kind, Function function, void *user) {
    const std::lock_guard lock(mutex_);
    registrations_.push_back(std::make_shared<Registration>(Registration{kind, function, user, false, {}}));
    return registrations_.back().get();
}

void Callbacks::remove(void *handle) {
    std::unique_lock lock(mutex_);
    const auto found = std::find_if(
        registrations_.begin(), registrations_.end(), [&](const auto &item) { return item.get() == handle; });
    if (found == registrations_.end()) {
        return;
    }
    const std::shared_ptr<Registration> registration = *found;
    registrations_.erase(found);
    registration->removed = true;
    const auto self = std::this_thread::get_id();
    callEnded_.wait(
        lock, [&] { return std::ranges::all_of(registration->callers, [&](auto id) { return id == self; }); });
}

int32_t Callbacks::count(CallbackKind kind) {
    const std::lock_guard lock(mutex_);
    return static_cast<int32_t>(
        std::ranges::count_if(registrations_, [&](const auto &item) { return item->kind == kind; }));
}

void Callbacks::callAll(CallbackKind kind, sonetrix_cListKeyValue_t *list) {
    std::unique_lock lock(mutex_);
    const auto snapshot = registrations_;
    const auto self = std::this_thread::get_id();
    for (const auto &registration : snapshot) {
        if (registration->kind != kind || registration->removed) {
            continue;
        }
        registration->callers.push_back(self);
        lock.unlock();
        if (const auto *function = std::get_if<sonetrix_listCallback_t>(&registration->function)) {
            (*function)(list, registration->user);
        } else {
            std::get<sonetrix_timerCallback_t>(registration->function)(registration->user);
        }
        lock.lock();
        registration->callers.erase(std::ranges::find(registration->callers, self));
        callEnded_.notify_all();
    }
}

void Callbacks::fire(CallbackKind kind, sonetrix_cListKeyValue_t *list, int32_t threads, int32_t times) {
    const auto work = [&] {
        for (int32_t i = 0; i < times; ++i) {
            callAll(kind, list);
        }
    };
    if (threads == 0) {
        work();
        return;
    }
    std::vector<std::jthread> workers;
    workers.reserve(static_cast<size_t>(threads));
    for (int32_t i = 0; i < threads; ++i) {
        workers.emplace_back(work);
    }
}

} // namespace sonetrix::testing
