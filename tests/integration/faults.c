/* An engine with a fault: loaded in front of a sound one, it breaks the rule that the environment's FAULT names. */
#define _GNU_SOURCE
#include <sonetrix/engine_api.h>

#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#define FAULT(name) (getenv("FAULT") != NULL && strcmp(getenv("FAULT"), name) == 0)
#define NEXT(function) ((__typeof__(&(function)))dlsym(RTLD_NEXT, #function))

int32_t sonetrix_valueListAddI32(sonetrix_cListValue_t *list, int32_t number) {
    return FAULT("type") ? sonetrix_valueListAddU32(list, (uint32_t)number)
                         : NEXT(sonetrix_valueListAddI32)(list, number);
}

sonetrix_cListKeyValue_t *sonetrix_keyValueListDeepCopy(const sonetrix_cListKeyValue_t *list) {
    return FAULT("copy") ? (sonetrix_cListKeyValue_t *)list : NEXT(sonetrix_keyValueListDeepCopy)(list);
}

int32_t sonetrix_keyValueListMerge(sonetrix_cListKeyValue_t *list, sonetrix_cListKeyValue_t *other) {
    sonetrix_cListKeyValue_t *moved = FAULT("merge") && other ? sonetrix_keyValueListDeepCopy(other) : other;
    return NEXT(sonetrix_keyValueListMerge)(list, moved);
}

int32_t sonetrix_valueListForEach(sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user) {
    return NEXT(sonetrix_valueListForEach)(list, callback, FAULT("user") ? list : user);
}

int32_t sonetrix_engine_DriverGetName(sonetrix_engine_t *engine, char **name) {
    static char text[] = "kept";
    *name = text;
    return FAULT("name") ? 0 : NEXT(sonetrix_engine_DriverGetName)(engine, name);
}

int32_t sonetrix_engine_SetParamsFull(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    int32_t status = NEXT(sonetrix_engine_SetParamsFull)(engine, parameters, written);
    if (FAULT("taken"))
        sonetrix_keyValueListRemoveKey((sonetrix_cListKeyValue_t *)parameters, "check.nowhere");
    return status;
}

void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *handle) {
    if (!FAULT("timer"))
        NEXT(sonetrix_engine_delTimer)(engine, handle);
}

static struct removal {
    sonetrix_engine_t *engine;
    void *handle;
} later;

static void *removeLater(void *user) {
    struct removal *removal = user;
    NEXT(sonetrix_engine_notify_changes_rmCallback)(removal->engine, removal->handle);
    return NULL;
}

void sonetrix_engine_notify_changes_rmCallback(sonetrix_engine_t *engine, void *handle) {
    pthread_t thread;
    later = (struct removal){engine, handle};
    if (!FAULT("removal") || pthread_create(&thread, NULL, removeLater, &later) != 0)
        removeLater(&later);
}

static pthread_mutex_t editing = PTHREAD_MUTEX_INITIALIZER;

int32_t sonetrix_engine_ForEachModuleSafe(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
    if (FAULT("iteration"))
        pthread_mutex_lock(&editing);
    int32_t status = NEXT(sonetrix_engine_ForEachModuleSafe)(engine, callback, user);
    if (FAULT("iteration"))
        pthread_mutex_unlock(&editing);
    return status;
}

int32_t sonetrix_engine_ModuleDelete(sonetrix_engine_t *engine, const char *name) {
    if (FAULT("iteration"))
        pthread_mutex_lock(&editing);
    int32_t status = NEXT(sonetrix_engine_ModuleDelete)(engine, name);
    if (FAULT("iteration"))
        pthread_mutex_unlock(&editing);
    return status;
}

void sonetrix_engine_RequestStop(sonetrix_engine_t *engine) {
    if (!FAULT("stop"))
        NEXT(sonetrix_engine_RequestStop)(engine);
}
