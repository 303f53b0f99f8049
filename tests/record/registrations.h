// Registered callbacks and timers. Nothing fires by itself: the test says when, how often and on which thread.
#pragma once

#include "sonetrix/engine_api.h"

#include <functional>
#include <variant>

namespace sonetrix::record {

enum class Kind : int32_t { Changes, SlowMeters, FastMeters, Timer };

using Callback = std::variant<sonetrix_listCallback_t, sonetrix_timerCallback_t>;

// Calls back `callsInside` times before it returns: on an engine thread, which may go on after that, or on the calling
// thread where the number is negative.
void *addRegistration(Kind kind, Callback callback, void *user, int callsInside);
// Waits for calls in progress on other threads.
void removeRegistration(void *handle);
int32_t countRegistrations(Kind kind);

// Calls all of a kind, on this thread.
void callAll(Kind kind, sonetrix_cListKeyValue_t *list, int32_t times);

// Engine threads with numbers of their own; each begins with its first work and ends when it is joined.
void onEngineThread(int32_t number, std::function<void()> work, bool wait);
void joinEngineThread(int32_t number);

} // namespace sonetrix::record
