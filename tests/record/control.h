// What tests and the console host steer the layer with: tests/support/record.py says what each does.
#pragma once

#include "sonetrix/engine_api.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <tuple>
#include <vector>

extern "C" {

void record_begin();
void record_reset();
void record_noting(int32_t on);
const char *record_calls(int32_t clear);
const char *record_violations();
int64_t record_lists();
int64_t record_blocks();
int32_t record_exitCode();
void record_onStopRequest(void (*hook)());

// A number for one of the settings, whose order is in record.h.
void record_set(const char *name, int32_t setting, int64_t value);
void record_text(const char *name, const char *text);
void record_numbers(const char *name, const double *numbers, size_t count);
void record_modules(const sonetrix_module_t *const *records, size_t count);

// Lists of the test's own, which are not noted; entries go to one of them, or without a key to a value list.
void *record_listNew();
void record_listAdd(void *list, const char *key, const sonetrix_value_t *value);
int32_t record_readAgain(const void *list, void *user, int32_t onNativeThread);

int32_t record_registrations(int32_t kind);
void record_fire(int32_t kind, const void *list, int32_t threads, int32_t times);
void record_fireOn(int32_t thread, int32_t kind, const void *list, int32_t times, int32_t wait);
void record_join(int32_t thread);

} // extern "C"

namespace sonetrix::record {

// The read callback of this thread's last for-each; the other is null.
extern thread_local std::tuple<sonetrix_valueCallback_t, sonetrix_keyValueCallback_t> lastReading;
extern std::optional<std::vector<const sonetrix_module_t *>> scriptedModules;
extern std::atomic<void (*)()> stopRequestHook;
extern std::atomic<int64_t> blockCount; // of the engine's allocator

} // namespace sonetrix::record
