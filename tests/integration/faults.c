/* An engine with faults: loaded in front of a sound one, it breaks the one rule that the environment's FAULT names. */
#define _GNU_SOURCE
#include <sonetrix/engine_api.h>

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#define SOUND(function) ((__typeof__(&(function)))dlsym(RTLD_NEXT, #function))
#define FAULTY(fault, Result, function, parameters, arguments, wrong)                                                  \
    Result function parameters {                                                                                       \
        const char *asked = getenv("FAULT");                                                                           \
        return asked != NULL && strcmp(asked, fault) == 0 ? wrong : SOUND(function) arguments;                         \
    }
typedef sonetrix_engine_t Engine;
typedef sonetrix_cListValue_t Values;
typedef sonetrix_cListKeyValue_t List;
static char text[] = "kept";
static List *kept;

FAULTY("type",
    int32_t,
    sonetrix_valueListAddI32,
    (Values * list, int32_t number),
    (list, number),
    sonetrix_valueListAddU32(list, (uint32_t)number))
FAULTY("copy", List *, sonetrix_keyValueListDeepCopy, (const List *list), (list), (List *)list)
FAULTY("merge",
    int32_t,
    sonetrix_keyValueListMerge,
    (List * list, List *other),
    (list, other),
    SOUND(sonetrix_keyValueListMerge)(list, other != NULL ? sonetrix_keyValueListDeepCopy(other) : NULL))
FAULTY("user",
    int32_t,
    sonetrix_valueListForEach,
    (Values * list, sonetrix_valueCallback_t callback, void *user),
    (list, callback, user),
    SOUND(sonetrix_valueListForEach)(list, callback, list))
FAULTY(
    "name", int32_t, sonetrix_engine_DriverGetName, (Engine * engine, char **name), (engine, name), (*name = text, 0))
FAULTY("given",
    List *,
    sonetrix_engine_GetParams,
    (Engine * engine, const Values *keys),
    (engine, keys),
    (kept = kept != NULL ? kept : SOUND(sonetrix_engine_GetParams)(engine, keys)))
FAULTY("taken",
    int32_t,
    sonetrix_engine_SetParamsFull,
    (Engine * engine, const List *given, List *written),
    (engine, given, written),
    (SOUND(sonetrix_engine_SetParamsFull)(engine, given, written),
        sonetrix_keyValueListRemoveKey((List *)given, "check.nowhere")))
FAULTY("iteration",
    int32_t,
    sonetrix_engine_ForEachModuleSafe,
    (Engine * engine, sonetrix_moduleCallback_t callback, void *user),
    (engine, callback, user),
    (SOUND(sonetrix_engine_ForEachModuleSafe)(engine, callback, user),
        SOUND(sonetrix_engine_ForEachModuleSafe)(engine, callback, user)))
FAULTY("early",
    void *,
    sonetrix_engine_addTimer,
    (Engine * engine, int32_t milliseconds, sonetrix_timerCallback_t callback, void *user),
    (engine, milliseconds, callback, user),
    SOUND(sonetrix_engine_addTimer)(engine, 1, callback, user))
FAULTY("timer", void, sonetrix_engine_delTimer, (Engine * engine, void *handle), (engine, handle), (void)0)
FAULTY("removal",
    void,
    sonetrix_engine_notify_changes_rmCallback,
    (Engine * engine, void *handle),
    (engine, handle),
    (void)0)
FAULTY("stop", void, sonetrix_engine_RequestStop, (Engine * engine), (engine), (void)0)
