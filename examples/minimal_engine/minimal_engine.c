/*
 * The least that an engine has to be for its Python console: minimal_engine [SCRIPT]
 *
 * It has one parameter, "system.gain", and a log. What it does not have is stubs. lists.c has the typed lists.
 */
#include <sonetrix/engine_api.h>

#include <dlfcn.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

SONETRIX_ENGINE_BUILT_WITH_THIS_API;

typedef sonetrix_engine_t Engine;
typedef sonetrix_cListValue_t Values;
typedef sonetrix_cListKeyValue_t Parameters;
typedef sonetrix_module_meters_type Meters;

struct sonetrix_engine {
    Parameters *start;
    _Atomic float gain;
    atomic_int running, exitCode;
    pthread_mutex_t mutex; /* keeps the console's `stop`, which any thread may ask for, apart from its `destroy` */
    sonetrix_cliModule_t *console;
} theEngine = {.gain = 1, .running = 1, .mutex = PTHREAD_MUTEX_INITIALIZER};

/* ------------------------------------------------------------------------------------------------------- status */

Engine *sonetrix_engineGet(void) { return &theEngine; }
int32_t sonetrix_engine_IsRunning(Engine *engine) { return engine->running; }
void sonetrix_engine_SetExitCode(Engine *engine, int32_t code) { engine->exitCode = code; }
Parameters *sonetrix_engine_getStartParameter(Engine *engine) { return engine->start; }
int32_t sonetrix_clock_gettime(struct timespec *time) { return clock_gettime(CLOCK_REALTIME, time); }

void sonetrix_engine_RequestStop(Engine *engine) {
    engine->running = 0;
    pthread_mutex_lock(&engine->mutex);
    if (engine->console != NULL)
        engine->console->stop(engine->console);
    pthread_mutex_unlock(&engine->mutex);
}

/* --------------------------------------------------------------------------------------------------- parameters */

static int32_t readOne(const sonetrix_value_t *key, void *found) {
    if (key->type == SONETRIX_VALUE_STRING && strncmp("system.gain", key->as.string, strlen("system.")) == 0 &&
        (key->as.string[strlen("system.")] == '\0' || strcmp("system.gain", key->as.string) == 0))
        sonetrix_keyValueListAddSF(found, "system.gain", theEngine.gain);
    return 0;
}

Parameters *sonetrix_engine_GetParams(Engine *engine, const Values *keys) {
    Parameters *found = sonetrix_keyValueListNew();
    sonetrix_valueListForEach((Values *)keys, readOne, found);
    return found;
}

static int32_t writeOne(const sonetrix_keyValue_t *entry, void *written) {
    if (strcmp("system.gain", entry->key) == 0 && entry->value.type == SONETRIX_VALUE_FLOAT) {
        theEngine.gain = entry->value.as.float32;
        sonetrix_keyValueListAddSF(written, entry->key, entry->value.as.float32);
    }
    return 0;
}

int32_t sonetrix_engine_SetParamsFull(Engine *engine, const Parameters *parameters, Parameters *written) {
    return sonetrix_keyValueListForEach((Parameters *)parameters, writeOne, written);
}

int32_t sonetrix_engine_SetParamsFullCli(Engine *engine, const Parameters *parameters, Parameters *written) {
    return sonetrix_engine_SetParamsFull(engine, parameters, written);
}

int32_t sonetrix_engine_ForEachModuleSafe(Engine *engine, sonetrix_moduleCallback_t callback, void *user) {
    sonetrix_module_t driver = {.name = "system"};
    return callback(&driver, user);
}

/* --------------------------------------------------------------------------------------------------- log, memory */

static atomic_uint threshold = SONETRIX_LOG_INFO;

sonetrix_log_level_t sonetrix_log_GetLogLevel(void) { return threshold; }
void sonetrix_log_SetLogLevel(sonetrix_log_level_t level) { threshold = level; }
sonetrix_log_level_t sonetrix_log_GetLogLevelJournal(void) { return threshold; }
void sonetrix_log_SetLogLevelJournal(sonetrix_log_level_t level) { threshold = level; }

void sonetrix_log_LogString(sonetrix_log_level_t level, const char *tag, int32_t line, int32_t flag, const char *text) {
    if (level >= threshold)
        fprintf(stderr, "[%u] %s:%d: %s\n", level, tag, line, text);
}

void sonetrix_log(sonetrix_log_level_t level, const char *file, int32_t line, int32_t flag, const char *format, ...) {
    char text[1000];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    sonetrix_log_LogString(level, file, line, flag, text);
}

void *sonetrix_malloc(size_t size) { return malloc(size); }
void sonetrix_free(void *memory) { free(memory); }

/* --------------------------------------------------------------------------------------------------------- stubs */

#define STUB(Result, name, parameters, result)                                                                         \
    Result sonetrix_##name parameters { return result; }
STUB(int32_t, engine_DriverGetXRun, (Engine * engine), 0)
STUB(uint32_t, engine_DriverGetFrameRate, (Engine * engine), 48000)
STUB(int32_t, engine_DriverGetCpuUsage, (Engine * e, float *a, float *b, float *c, float *d, float *f, float *g), -1)
STUB(int32_t, engine_DriverIsLoaded, (const void *reference), 0)
STUB(int32_t, engine_DriverGetName, (Engine * engine, char **name), -1)
STUB(int32_t, clock_sample_timestamp, (Engine * engine, struct timespec *time), -1)
STUB(Values *, engine_GetModulesList, (Engine * engine), NULL)
STUB(Values *, engine_GetAllPortNames, (Engine * engine), NULL)
STUB(Values *, engine_GetLinkPort, (Engine * engine, const char *port), NULL)
STUB(int32_t, engine_ModuleNew, (Engine * engine, const char *name, const char *identifier, const Parameters *info), -1)
STUB(int32_t, engine_ModuleDelete, (Engine * engine, const char *name), -1)
STUB(int32_t, engine_LinkPort, (Engine * engine, const char *p1, const char *p2), -1)
STUB(int32_t, engine_ModuleUsage, (Engine * engine, const char *name, float *a, float *r, uint32_t *id), -1)
STUB(int32_t, engine_ModuleGetStartParameter, (Engine * e, const sonetrix_module_t *m, char **l, Parameters **c), -1)
STUB(int32_t, engine_addDebugMeter, (Engine * e, Meters type, const char *key, const sonetrix_value_t *value), -1)
STUB(int32_t, engine_delDebugMeter, (Engine * engine, Meters type, const char *key), -1)
STUB(Parameters *, engine_GetLastMeters, (Engine * engine, const char *module, Meters type), NULL)
STUB(int32_t, engine_registerMeterManager, (Engine * engine, sonetrix_readMeters_t *read), -1)
STUB(int32_t, engine_unregisterMeterManager, (Engine * engine), -1)
STUB(Parameters *, engine_meterInfoList, (Engine * engine, Meters type), NULL)
STUB(void *, engine_notify_changes_addCallback, (Engine * e, sonetrix_listCallback_t callback, void *user), NULL)
STUB(void, engine_notify_changes_rmCallback, (Engine * engine, void *handle), )
STUB(void *, engine_addCallbackMeterManager, (Engine * e, Meters type, sonetrix_listCallback_t c, void *user), NULL)
STUB(void, engine_rmCallbackMeterManager, (Engine * engine, void *handle), )
STUB(void *, engine_addTimer, (Engine * e, int32_t milliseconds, sonetrix_timerCallback_t c, void *user), NULL)
STUB(void, engine_delTimer, (Engine * engine, void *handle), )
STUB(void, log_time, (int32_t on), )
STUB(void, log_file_time, (int32_t on), )
STUB(void, log_filename, (const char *path), )
STUB(void, log_syslog, (int32_t on), )
STUB(void, log_journald, (int32_t on), )
STUB(void, memory_rt_inspect, (void), )

/* --------------------------------------------------------------------------------------------------- the console */

int main(int argc, char **argv) {
    theEngine.start = sonetrix_keyValueListNew();
    sonetrix_keyValueListAddSS(theEngine.start, "python.start", "import sonetrix_console; sonetrix_console.install()");
    if (argc > 1)
        sonetrix_keyValueListAddSS(theEngine.start, "python.file", argv[1]);

    void *library = dlopen(SONETRIX_MODULE, RTLD_NOW | RTLD_LOCAL);
    sonetrix_cliModule_t *(*construct)(Parameters *, void *) = NULL;
    if (library != NULL)
        *(void **)&construct = dlsym(library, "sonetrix_engineCliCostructor");
    sonetrix_cliModule_t *console = construct != NULL ? construct(theEngine.start, NULL) : NULL;
    if (console == NULL) {
        fprintf(stderr, "minimal_engine: no console: %s\n", library == NULL ? dlerror() : SONETRIX_MODULE);
        return 69;
    }
    theEngine.console = console; /* from here on it may be stopped */
    console->start(console);
    console->run(console);

    theEngine.running = 0;
    pthread_mutex_lock(&theEngine.mutex);
    theEngine.console = NULL;
    pthread_mutex_unlock(&theEngine.mutex);
    console->destroy(console);
    sonetrix_keyValueListDestroy(theEngine.start);
    return theEngine.exitCode;
}
