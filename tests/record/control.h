// What tests and the console host steer the layer with: tests/support/record.py says what each does.
#pragma once

#include "sonetrix/engine_api.h"

// Answers a call from its arguments, a word each; when it does not, things go on as if it were not there.
using Hook = bool (*)(const int64_t *arguments, int64_t *result);

extern "C" {

void record_begin();
void record_reset();
// The texts stay valid until the same thread asks again.
const char *record_calls(int32_t clear);
const char *record_violations();
int64_t record_lists();
void record_hook(const char *name, Hook hook);
void record_add(void *list, const char *key, const sonetrix_value_t *value);

int64_t record_registrations(int32_t kind);
void record_callInside(int32_t times);
void record_fire(int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t threads, int32_t times);
void record_fireOn(int32_t thread, int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t times, int32_t wait);
void record_join(int32_t thread);

} // extern "C"
