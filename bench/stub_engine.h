/* What a benchmark tells the stub engine beyond the engine's interface. */
#pragma once

#include <sonetrix/engine_api.h>

/* The lists made last: a floor reads the very list that the library's object holds. */
extern sonetrix_cListKeyValue_t *stub_newestKeyValueList;
extern sonetrix_cListValue_t *stub_newestValueList;

/* Fills the graph with this many modules; every one but the driver has `ports` sources and as many linked sinks. */
void stub_setModules(uint32_t count, uint32_t ports);

/* Calls the callback, a change's or a timer's, of the registration that stands at place `index` from a thread of its
 * own: a few times to warm up, then `calls` times with `list`, and notes how many nanoseconds each took. In between it
 * pauses. */
void stub_notifyStart(
    uint32_t index, sonetrix_cListKeyValue_t *list, uint32_t calls, uint32_t pauseMicroseconds, double *nanoseconds);
/* Waits for the end of that. */
void stub_notifyJoin(void);
/* Whether it is still going on. A variable, since asking must not give the interpreter lock up. */
extern volatile int32_t stub_notifying;
