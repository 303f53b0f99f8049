/*
 * The engine's C function interface: everything the scripting layer calls, and everything an engine must provide.
 *
 * This header is the binary contract between `sonetrix.so` and any engine. A process that exports the functions below
 * (C linkage, default visibility) can load the library without rebuilding it; the two symbols at the end are what the
 * library exports in return. Plain C11, usable from C++; LP64 only (x86-64 and 64-bit Arm).
 *
 * Conventions
 *   status    int32_t results are status codes, 0 on success, unless a comment says otherwise.
 *   strings   NUL-terminated bytes; no length ever crosses this border. Names and keys are ASCII, string values UTF-8.
 *   lists     add functions copy the strings and arrays they are given; a list is not safe for concurrent use.
 *   ownership a function that returns a list hands it over, unless a comment says that the engine keeps it.
 *   threads   every function may be called from any thread, the lists with the restriction above. A Python thread that
 *             a script has left behind may still be inside one when the console's `destroy` returns.
 */
#ifndef SONETRIX_ENGINE_API_H
#define SONETRIX_ENGINE_API_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#define SONETRIX_STATIC_ASSERT static_assert
#else
#define SONETRIX_STATIC_ASSERT _Static_assert
#endif

SONETRIX_STATIC_ASSERT(sizeof(void *) == 8 && sizeof(long) == 8, "the interface is defined for LP64 only");

/* ------------------------------------------------------------------------------------------------------- version */

/* Of this interface, of the library and of the module (`sonetrix.__version__`). With the same first number, what was
 * built against one version goes with the library of another, as long as the functions are there that it calls.
 * SONETRIX_API_VERSION is the text, "1.0.0". */
#define SONETRIX_API_VERSION_MAJOR 1
#define SONETRIX_API_VERSION_MINOR 0
#define SONETRIX_API_VERSION_PATCH 0
#define SONETRIX_API_JOIN_LITERALLY(major, minor, patch) #major "." #minor "." #patch
#define SONETRIX_API_JOIN(major, minor, patch) SONETRIX_API_JOIN_LITERALLY(major, minor, patch)
#define SONETRIX_API_VERSION                                                                                           \
    SONETRIX_API_JOIN(SONETRIX_API_VERSION_MAJOR, SONETRIX_API_VERSION_MINOR, SONETRIX_API_VERSION_PATCH)

/*
 * Optional, at file scope (and outside any namespace) in one source file of an engine:
 *
 *     SONETRIX_ENGINE_BUILT_WITH_THIS_API;
 *
 * The library then refuses an engine that was built with another first number, instead of misreading its records.
 */
#define SONETRIX_ENGINE_BUILT_WITH_THIS_API                                                                            \
    extern __attribute__((visibility("default"))) const uint32_t sonetrix_engineApiVersion;                            \
    const uint32_t sonetrix_engineApiVersion = SONETRIX_API_VERSION_MAJOR

/* ------------------------------------------------------------------------------------------------ opaque handles */

typedef struct sonetrix_engine sonetrix_engine_t;
typedef struct sonetrix_cListValue sonetrix_cListValue_t;       /* ordered list of typed values */
typedef struct sonetrix_cListKeyValue sonetrix_cListKeyValue_t; /* ordered list of keys, each with a typed value */

/* ------------------------------------------------------------------------------------------------------ records */

/* What a value holds, and with it which member of the union is valid. */
typedef enum sonetrix_value_type {
    SONETRIX_VALUE_UINT32 = 0,
    SONETRIX_VALUE_INT32 = 1,
    SONETRIX_VALUE_FLOAT = 2,   /* 32-bit */
    SONETRIX_VALUE_STRING = 3,  /* NUL-terminated bytes */
    SONETRIX_VALUE_AUINT32 = 4, /* array of uint32_t */
    SONETRIX_VALUE_AINT32 = 5,  /* array of int32_t */
    SONETRIX_VALUE_AFLOAT = 6,  /* array of 32-bit float */
    SONETRIX_VALUE_DOUBLE = 7
} sonetrix_value_type_t;

typedef struct sonetrix_value {
    uint32_t type; /* a sonetrix_value_type_t; unsigned and fixed in width, so that an unknown code stays readable */
    union {
        uint32_t uint32;
        int32_t int32;
        float float32;
        double float64;
        const char *string;
        const void *array; /* the first element */
    } as;
    uint64_t count; /* elements, arrays only */
} sonetrix_value_t;

SONETRIX_STATIC_ASSERT(offsetof(sonetrix_value_t, type) == 0, "value.type");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_value_t, as) == 8, "value.as");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_value_t, count) == 16, "value.count");
SONETRIX_STATIC_ASSERT(sizeof(sonetrix_value_t) == 24, "value");

typedef struct sonetrix_keyValue {
    const char *key;
    uint64_t engineReserved; /* the engine's own */
    sonetrix_value_t value;
} sonetrix_keyValue_t;

SONETRIX_STATIC_ASSERT(offsetof(sonetrix_keyValue_t, key) == 0, "keyValue.key");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_keyValue_t, value) == 16, "keyValue.value");
SONETRIX_STATIC_ASSERT(sizeof(sonetrix_keyValue_t) == 40, "keyValue");

/* A port as the module iteration shows it. Sizes beyond the last named member are the engine's. */
typedef struct sonetrix_port {
    char name[132];             /* engine-wide name */
    uint32_t type;              /* the engine's port type code */
    uint8_t engineReserved[16]; /* the engine's own */
    const char *link;           /* name of the source port that feeds this sink, or null */
} sonetrix_port_t;

SONETRIX_STATIC_ASSERT(offsetof(sonetrix_port_t, name) == 0, "port.name");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_port_t, type) == 132, "port.type");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_port_t, link) == 152, "port.link");
SONETRIX_STATIC_ASSERT(sizeof(sonetrix_port_t) == 160, "port");

/* A module as the module iteration shows it; valid during the callback only. */
typedef struct sonetrix_module {
    char name[40];
    void *reference; /* ask sonetrix_engine_DriverIsLoaded; null for anything but a driver */
    uint8_t engineReserved0[20];
    uint32_t type; /* 0 the driver, 1 a module with a library and a start configuration */
    uint8_t engineReserved1[128];
    sonetrix_port_t **sources;
    uint32_t sourceCount;
    uint8_t engineReserved2[8];
    sonetrix_port_t **sinks;
    uint32_t sinkCount;
} sonetrix_module_t;

SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, name) == 0, "module.name");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, reference) == 40, "module.reference");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, type) == 68, "module.type");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, sources) == 200, "module.sources");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, sourceCount) == 208, "module.sourceCount");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, sinks) == 224, "module.sinks");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_module_t, sinkCount) == 232, "module.sinkCount");
SONETRIX_STATIC_ASSERT(sizeof(sonetrix_module_t) == 240, "module");

/* Unsigned 32-bit enumerations. The types are plain integers, so that any value a script passes is well defined. */
typedef uint32_t sonetrix_log_level_t;
enum {
    SONETRIX_LOG_TRACE = 0,
    SONETRIX_LOG_DEBUG = 1,
    SONETRIX_LOG_INFO = 2,
    SONETRIX_LOG_WARN = 3,
    SONETRIX_LOG_ERROR = 4,
    SONETRIX_LOG_FATAL = 5
};

typedef uint32_t sonetrix_module_meters_type;
enum { SONETRIX_METERS_SLOW = 0, SONETRIX_METERS_FAST = 1 };

/* ------------------------------------------------------------------------------------------------- typed values */

void sonetrix_valueInitUInt32(sonetrix_value_t *value, uint32_t number);
void sonetrix_valueInitInt32(sonetrix_value_t *value, int32_t number);
void sonetrix_valueInitFloat(sonetrix_value_t *value, float number);
void sonetrix_valueInitS(sonetrix_value_t *value, const char *text); /* copies the text */
void sonetrix_valueDeinit(sonetrix_value_t *value);

/* --------------------------------------------------------------------------------------------------- value list */

/* A for-each callback returns 0, or -1 when it could not use the element. Whether the iteration then stops is the
 * engine's choice. The record is valid during the callback only. */
typedef int32_t (*sonetrix_valueCallback_t)(const sonetrix_value_t *value, void *user);
typedef int32_t (*sonetrix_keyValueCallback_t)(const sonetrix_keyValue_t *keyValue, void *user);

sonetrix_cListValue_t *sonetrix_valueListNew(void);
void sonetrix_valueListDestroy(sonetrix_cListValue_t *list);
sonetrix_cListValue_t *sonetrix_valueListDeepCopy(const sonetrix_cListValue_t *list);
/* Moves all values of `other` (null: none) to the end of `list`. */
int32_t sonetrix_valueListMerge(sonetrix_cListValue_t *list, sonetrix_cListValue_t *other);
int32_t sonetrix_valueListAddS(sonetrix_cListValue_t *list, const char *text);
int32_t sonetrix_valueListAddI32(sonetrix_cListValue_t *list, int32_t number);
int32_t sonetrix_valueListAddU32(sonetrix_cListValue_t *list, uint32_t number);
int32_t sonetrix_valueListAddF(sonetrix_cListValue_t *list, float number);
int32_t sonetrix_valueListAddD(sonetrix_cListValue_t *list, double number);
int32_t sonetrix_valueListAddAi32(sonetrix_cListValue_t *list, const int32_t *elements, size_t count);
int32_t sonetrix_valueListAddAfloat(sonetrix_cListValue_t *list, const float *elements, size_t count);
int32_t sonetrix_valueListForEach(sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user);

/* ----------------------------------------------------------------------------------------------- key/value list */

sonetrix_cListKeyValue_t *sonetrix_keyValueListNew(void);
void sonetrix_keyValueListDestroy(sonetrix_cListKeyValue_t *list);
sonetrix_cListKeyValue_t *sonetrix_keyValueListDeepCopy(const sonetrix_cListKeyValue_t *list);
/* Moves all entries of `other` (null: none) to the end of `list`. */
int32_t sonetrix_keyValueListMerge(sonetrix_cListKeyValue_t *list, sonetrix_cListKeyValue_t *other);
int32_t sonetrix_keyValueListRemoveKey(sonetrix_cListKeyValue_t *list, const char *key);
int32_t sonetrix_keyValueListAddSS(sonetrix_cListKeyValue_t *list, const char *key, const char *text);
int32_t sonetrix_keyValueListAddSI32(sonetrix_cListKeyValue_t *list, const char *key, int32_t number);
int32_t sonetrix_keyValueListAddSU32(sonetrix_cListKeyValue_t *list, const char *key, uint32_t number);
int32_t sonetrix_keyValueListAddSF(sonetrix_cListKeyValue_t *list, const char *key, float number);
int32_t sonetrix_keyValueListAddSD(sonetrix_cListKeyValue_t *list, const char *key, double number);
int32_t sonetrix_keyValueListAddSAi32(
    sonetrix_cListKeyValue_t *list, const char *key, const int32_t *elements, size_t count);
int32_t sonetrix_keyValueListAddSAu32(
    sonetrix_cListKeyValue_t *list, const char *key, const uint32_t *elements, size_t count);
int32_t sonetrix_keyValueListAddSAfloat(
    sonetrix_cListKeyValue_t *list, const char *key, const float *elements, size_t count);
int32_t sonetrix_keyValueListForEach(sonetrix_cListKeyValue_t *list, sonetrix_keyValueCallback_t callback, void *user);
/* 0 when found. The list keeps the string. */
int32_t sonetrix_keyValueListGetS(sonetrix_cListKeyValue_t *list, const char *key, const char **text);
/* 0 when found and unsigned. */
int32_t sonetrix_keyValueListGetIU(sonetrix_cListKeyValue_t *list, const char *key, uint32_t *number);

/* ---------------------------------------------------------------------------------------- life cycle and driver */

/* The process's engine, or null when there is none. */
sonetrix_engine_t *sonetrix_engineGet(void);
/* Asks the engine to stop and returns at once. As it stops, the engine calls the command-line module's `stop`. */
void sonetrix_engine_RequestStop(sonetrix_engine_t *engine);
void sonetrix_engine_SetExitCode(sonetrix_engine_t *engine, int32_t code);
/* Non-zero while the engine runs. */
int32_t sonetrix_engine_IsRunning(sonetrix_engine_t *engine);
/* The engine keeps the list. */
sonetrix_cListKeyValue_t *sonetrix_engine_getStartParameter(sonetrix_engine_t *engine);

int32_t sonetrix_engine_DriverGetXRun(sonetrix_engine_t *engine);       /* the number of xruns, not a status */
uint32_t sonetrix_engine_DriverGetFrameRate(sonetrix_engine_t *engine); /* frames per second */
/* Usages in percent of the block's time, times in seconds. */
int32_t sonetrix_engine_DriverGetCpuUsage(sonetrix_engine_t *engine,
    float *cpuUsageMean,
    float *cpuUsagePeakMean,
    float *timeUsage,
    float *timeUsagePeak,
    float *maxCpuTime,
    float *maxCpuTimeErr);
/* Non-zero when loaded. Takes the engine handle, or a module record's reference (null there: 0). */
int32_t sonetrix_engine_DriverIsLoaded(const void *reference);
/* On success *name is malloc'ed ASCII text that the caller frees. */
int32_t sonetrix_engine_DriverGetName(sonetrix_engine_t *engine, char **name);
/* When the current audio block began, on the realtime clock. Never blocks. */
int32_t sonetrix_clock_sample_timestamp(sonetrix_engine_t *engine, struct timespec *time);
/* The realtime clock. Never blocks. */
int32_t sonetrix_clock_gettime(struct timespec *time);

/* --------------------------------------------------------------------------------------------------- parameters */

/* Reads the parameters named by the string values of `keys`; a key that ends in "." asks for all parameters of that
 * module. A new list of those found, or null. */
sonetrix_cListKeyValue_t *sonetrix_engine_GetParams(sonetrix_engine_t *engine, const sonetrix_cListValue_t *keys);
/* Writes the parameters and appends every entry that was written to `written`. */
int32_t sonetrix_engine_SetParamsFull(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written);
/* The same for requests that come from the command-line interface. */
int32_t sonetrix_engine_SetParamsFullCli(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written);

/* ---------------------------------------------------------------------------------------------------- the graph */

/* New lists of strings, or null when there is nothing. */
sonetrix_cListValue_t *sonetrix_engine_GetModulesList(sonetrix_engine_t *engine);
sonetrix_cListValue_t *sonetrix_engine_GetAllPortNames(sonetrix_engine_t *engine);
sonetrix_cListValue_t *sonetrix_engine_GetLinkPort(sonetrix_engine_t *engine, const char *port);

/* `info` is the start configuration, or null; the caller keeps it. */
int32_t sonetrix_engine_ModuleNew(
    sonetrix_engine_t *engine, const char *name, const char *identifier, const sonetrix_cListKeyValue_t *info);
int32_t sonetrix_engine_ModuleDelete(sonetrix_engine_t *engine, const char *name);
/* Links source p1 to sink p2; an empty or null p2 removes every link of p1. */
int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2);

/* Calls back once per module, on the calling thread; safe against modules being created and deleted meanwhile. The
 * callback may call any function of this interface. */
typedef int32_t (*sonetrix_moduleCallback_t)(const sonetrix_module_t *module, void *user);
int32_t sonetrix_engine_ForEachModuleSafe(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user);
/* Usages in percent: absolute of the block's time, relative of the time that all modules took. */
int32_t sonetrix_engine_ModuleUsage(
    sonetrix_engine_t *engine, const char *name, float *absolute, float *relative, uint32_t *processId);
/* On success *library is malloc'ed text that the caller frees, and *configuration a list that the caller owns, or null.
 */
int32_t sonetrix_engine_ModuleGetStartParameter(sonetrix_engine_t *engine,
    const sonetrix_module_t *module,
    char **library,
    sonetrix_cListKeyValue_t **configuration);

/* ------------------------------------------------------------------------------------------------------- meters */

int32_t sonetrix_engine_addDebugMeter(
    sonetrix_engine_t *engine, sonetrix_module_meters_type type, const char *key, const sonetrix_value_t *value);
int32_t sonetrix_engine_delDebugMeter(sonetrix_engine_t *engine, sonetrix_module_meters_type type, const char *key);
/* The meters that the module emitted last: a new list, or null. */
sonetrix_cListKeyValue_t *sonetrix_engine_GetLastMeters(
    sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type);
/* Reads the current meters of a module, of all modules when the name is empty: a new list, or null. */
typedef sonetrix_cListKeyValue_t *(*sonetrix_readMeters_t)(
    sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type);
/* Makes the caller the engine's one meter manager and hands it the read function. */
int32_t sonetrix_engine_registerMeterManager(sonetrix_engine_t *engine, sonetrix_readMeters_t *read);
int32_t sonetrix_engine_unregisterMeterManager(sonetrix_engine_t *engine);
/* Descriptions by meter key: a new list, or null. */
sonetrix_cListKeyValue_t *sonetrix_engine_meterInfoList(sonetrix_engine_t *engine, sonetrix_module_meters_type type);

/* ------------------------------------------------------------------------------------- notifications and timers */

/*
 * Callbacks run on threads of the engine, never on its audio thread. Removing one returns only when no call of it is in
 * progress on another thread, so that the user pointer may be released right after; called from inside that very
 * callback, removal returns at once and the running call is the last. The list passed to a callback stays the engine's.
 */
typedef void (*sonetrix_listCallback_t)(sonetrix_cListKeyValue_t *list, void *user);
typedef void (*sonetrix_timerCallback_t)(void *user);

/* Handles, or null on failure. */
void *sonetrix_engine_notify_changes_addCallback(
    sonetrix_engine_t *engine, sonetrix_listCallback_t callback, void *user);
void sonetrix_engine_notify_changes_rmCallback(sonetrix_engine_t *engine, void *handle);
void *sonetrix_engine_addCallbackMeterManager(
    sonetrix_engine_t *engine, sonetrix_module_meters_type type, sonetrix_listCallback_t callback, void *user);
void sonetrix_engine_rmCallbackMeterManager(sonetrix_engine_t *engine, void *handle);
void *sonetrix_engine_addTimer(
    sonetrix_engine_t *engine, int32_t milliseconds, sonetrix_timerCallback_t callback, void *user);
void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *handle);

/* ---------------------------------------------------------------------------------------------- log and memory */

/* `file` and `line` are the source position, `flag` is 1. */
void sonetrix_log(sonetrix_log_level_t level, const char *file, int32_t line, int32_t flag, const char *format, ...)
    __attribute__((format(printf, 5, 6)));
void sonetrix_log_LogString(
    sonetrix_log_level_t level, const char *tag, int32_t line, int32_t flag, const char *message);
/* Two thresholds: the session's, and journald's. */
sonetrix_log_level_t sonetrix_log_GetLogLevel(void);
void sonetrix_log_SetLogLevel(sonetrix_log_level_t level);
sonetrix_log_level_t sonetrix_log_GetLogLevelJournal(void);
void sonetrix_log_SetLogLevelJournal(sonetrix_log_level_t level);
void sonetrix_log_time(int32_t on);           /* time stamps on the console */
void sonetrix_log_file_time(int32_t on);      /* time stamps in the log file */
void sonetrix_log_filename(const char *path); /* opens the log file unless one is open; null closes it */
void sonetrix_log_syslog(int32_t on);
void sonetrix_log_journald(int32_t on);

void *sonetrix_malloc(size_t size);
void sonetrix_free(void *memory);
void sonetrix_memory_rt_inspect(void); /* prints the real-time memory accounting on standard output */

/* -------------------------------------------------------------------------------------- the command-line module */

/*
 * The record of the command-line module. The engine calls the constructor, `start`, `run` and `destroy` on one thread,
 * the console thread, which keeps the interpreter lock from construction on. `stop` may be called from any thread at
 * any time between construction and `destroy`; keeping it apart from `destroy` itself is the engine's duty. During
 * `run` it sends SIGINT to the console thread, once: engine functions that are called there must stand EINTR. During
 * `start` it sets the flag, and no more.
 *
 * Engine threads end whenever they like, and may be joined before, between or after `run` and `destroy`: the end of one
 * that has called back takes no lock. When `destroy` has had to leave the interpreter as it is (the log says so), a
 * registration and a thread of the library's inside its removal may outlive it; callbacks then return at once.
 */
typedef struct sonetrix_cliModule sonetrix_cliModule_t;
struct sonetrix_cliModule {
    void *context;                          /* the constructor's second argument */
    int32_t (*run)(sonetrix_cliModule_t *); /* -1: the console ended or the script failed; -2: the script succeeded */
    void (*start)(sonetrix_cliModule_t *);
    void (*stop)(sonetrix_cliModule_t *);
    void (*destroy)(sonetrix_cliModule_t *); /* accepts null */
    char *startCode;                         /* "python.start", until it has run */
    char *scriptPath;                        /* "python.file", until it has run */
    uint32_t sigintMode;                     /* "python.sigint"; 1 when absent */
    int32_t stopRequested;                   /* accessed atomically: 0, then 1 for ever */
    int32_t interactive;                     /* 1 when standard input is a terminal */
    void (*savedSigintHandler)(int);         /* the replaced SIGINT disposition, or null */
};

SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, context) == 0, "cliModule.context");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, run) == 8, "cliModule.run");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, start) == 16, "cliModule.start");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, stop) == 24, "cliModule.stop");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, destroy) == 32, "cliModule.destroy");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, startCode) == 40, "cliModule.startCode");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, scriptPath) == 48, "cliModule.scriptPath");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, sigintMode) == 56, "cliModule.sigintMode");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, stopRequested) == 60, "cliModule.stopRequested");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, interactive) == 64, "cliModule.interactive");
SONETRIX_STATIC_ASSERT(offsetof(sonetrix_cliModule_t, savedSigintHandler) == 72, "cliModule.savedSigintHandler");
SONETRIX_STATIC_ASSERT(sizeof(sonetrix_cliModule_t) == 80, "cliModule");

/*
 * Exported by the library, with PyInit_sonetrix. `parameters` may be null; the keys read are "python.start" (source
 * text), "python.file" (a script's path) and "python.sigint" (0 keeps the engine's SIGINT disposition). Null when the
 * module could not be created.
 */
#ifdef SONETRIX_LIBRARY
__attribute__((visibility("default")))
#endif
sonetrix_cliModule_t *
sonetrix_engineCliCostructor(sonetrix_cListKeyValue_t *parameters, void *context);

#ifdef __cplusplus
}
#endif

#endif
