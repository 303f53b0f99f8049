// Registered callbacks and timers. Nothing fires by itself: the test says when and on which thread.
#pragma once

#include "sonetrix/engine_api.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <variant>
#include <vector>

namespace sonetrix::testing {

enum class CallbackKind : int32_t { Changes, SlowMeters, FastMeters, Timer };

class Callbacks {
public:
    using Function = std::variant<sonetrix_listCallback_t, sonetrix_timerCallback_t>;

    static Callbacks &instance();

    void *add(CallbackKind kind, Function function, void *user);
    // Waits for calls in progress on other threads.
    void remove(void *handle);
    int32_t count(CallbackKind kind);
    // Calls all registered of that kind: on the calling thread (threads 0), or on native threads that are joined.
    void fire(CallbackKind kind, sonetrix_cListKeyValue_t *list, int32_t threads, int32_t times);

private:
    struct Registration {
        CallbackKind kind;
        Function function;
        void *user;
        bool removed = false;
        std::vector<std::thread::id> callers; // calls in progress
    };

    void callAll(CallbackKind kind, sonetrix_cListKeyValue_t *list);

    std::mutex mutex_;
    std::condition_variable callEnded_;
    std::vector<std::shared_ptr<Registration>> registrations_;
};

} // namespace sonetrix::testing
