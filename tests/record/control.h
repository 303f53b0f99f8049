// What tests and the console host steer the layer with: see tests/support/record.py for what each does.
#pragma once

#include "sonetrix/engine_api.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <vector>

extern "C" {

void record_begin();
void record_reset();
const char *record_calls(int32_t clear);
const char *record_violations();
void record_noting(int32_t on);
int64_t record_count(int32_t what);
int32_t record_exitCode();
void record_onStopRequest(void (*hook)());

void record_result(const char *name, int64_t value, int32_t lasting);
void record_null(const char *name, int32_t times);
void record_delay(const char *name, int32_t milliseconds);
void record_text(const char *name, const char *text);
void record_numbers(const char *name, const double *numbers, size_t count);
void record_user(const char *name, void *user);
void record_givesLockUp(const char *name, int32_t does);
void record_stopOnError(const char *name, int32_t stops);
void record_callsInside(const char *name, int32_t times);
void record_modules(const sonetrix_module_t *const *records, size_t count);

// Lists of the test's own: neither noted nor counted.
void *record_listNew();
void record_listAdd(void *list, const char *key, const sonetrix_value_t *value);
void record_listExtend(void *list, const sonetrix_value_t *value);
void record_list(const char *name, const void *list);
int32_t record_readAgain(const void *list, void *user, int32_t onNativeThread);

int32_t record_registrations(int32_t kind);
void record_fire(int32_t kind, const void *list, int32_t threads, int32_t times);
void record_fireOn(int32_t thread, int32_t kind, const void *list, int32_t times, int32_t wait);
void record_join(int32_t thread);

} // extern "C"

namespace sonetrix::record {

// The read callbacks of this thread's last for-each.
struct LastReading {
    sonetrix_valueCallback_t value;
    sonetrix_keyValueCallback_t keyValue;
};
extern thread_local LastReading lastReading;
extern std::optional<std::vector<const sonetrix_module_t *>> scriptedModules;
extern std::atomic<void (*)()> stopRequestHook;

} // namespace sonetrix::record
