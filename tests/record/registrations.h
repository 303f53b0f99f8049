// Registered callbacks and timers. Nothing fires by itself: the test says when, how often and on which thread.
#pragma once

#include "sonetrix/engine_api.h"

#include <functional>
#include <variant>

namespace sonetrix::record {

enum class Kind : int32_t { Changes, SlowMeters, FastMeters, Timer };

using Callback = std::variant<sonetrix_listCallback_t, sonetrix_timerCallback_t>;

// Calls back `callsInside` times before it returns, see CallsInside. An engine thread may go on after that.
void *addRegistration(Kind kind, Callback callback, void *user, int64_t callsInside);
// Waits for calls in progress on other threads.
void removeRegistration(void *handle);
int32_t countRegistrations(Kind kind);
// Calls all of a kind, on this thread, and shows them a copy of the list.
void callAll(Kind kind, const sonetrix_cListKeyValue_t *list, int32_t times);

// Engine threads by number. One does its work, if so said before this returns, and then stays until it is joined.
void beginEngineThread(int32_t number, std::function<void()> work, bool wait);
void joinEngineThread(int32_t number);

} // namespace sonetrix::record
