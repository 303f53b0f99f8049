/*
 * An engine that costs next to nothing, so that a benchmark measures the binding. Lists and registrations are real;
 * what no benchmark needs is in stub_rest.c.
 */
#include "stub_engine.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---------------------------------------------------------------------------------------------------------- lists */

/* Both kinds of list are this; a value list leaves the keys null. Texts and arrays lie in chunks. */
typedef struct Chunk {
    struct Chunk *next;
    size_t used, size;
    _Alignas(8) char bytes[];
} Chunk;

typedef struct List {
    sonetrix_keyValue_t *entries;
    size_t count, capacity;
    Chunk *chunks;
} List;

struct sonetrix_cListValue {
    List list;
};
struct sonetrix_cListKeyValue {
    List list;
};

sonetrix_cListKeyValue_t *stub_newestKeyValueList;
sonetrix_cListValue_t *stub_newestValueList;

static const void *copyBytes(List *list, const void *bytes, size_t size) {
    const size_t rounded = (size + 7) & ~(size_t)7;
    Chunk *chunk = list->chunks;
    if (chunk == NULL || chunk->size - chunk->used < rounded) {
        size_t room = chunk == NULL ? 512 : chunk->size < 65536 ? 2 * chunk->size : chunk->size;
        room = room < rounded ? rounded : room;
        chunk = malloc(sizeof *chunk + room);
        *chunk = (Chunk){list->chunks, 0, room};
        list->chunks = chunk;
    }
    void *copy = memcpy(chunk->bytes + chunk->used, bytes, size);
    chunk->used += rounded;
    return copy;
}

static const char *copyText(List *list, const char *text) { return copyBytes(list, text, strlen(text) + 1); }

static sonetrix_value_t *add(List *list, const char *key, uint32_t type) {
    if (list->count == list->capacity) {
        list->capacity = list->capacity == 0 ? 8 : 2 * list->capacity;
        list->entries = realloc(list->entries, list->capacity * sizeof *list->entries);
    }
    sonetrix_keyValue_t *entry = &list->entries[list->count++];
    entry->key = key == NULL ? NULL : copyText(list, key);
    entry->value.type = type;
    return &entry->value;
}

static void addArray(List *list, const char *key, uint32_t type, const void *elements, size_t count) {
    sonetrix_value_t *value = add(list, key, type);
    value->as.array = copyBytes(list, elements, 4 * count);
    value->count = count;
}

static void clear(List *list) {
    for (Chunk *chunk = list->chunks; chunk != NULL;) {
        Chunk *next = chunk->next;
        free(chunk);
        chunk = next;
    }
    free(list->entries);
    *list = (List){0};
}

static void addCopies(List *list, const List *other) {
    for (size_t index = 0; index < other->count; ++index) {
        const sonetrix_keyValue_t *entry = &other->entries[index];
        sonetrix_value_t *value = add(list, entry->key, entry->value.type);
        *value = entry->value;
        switch (value->type) {
        case SONETRIX_VALUE_STRING:
            value->as.string = copyText(list, value->as.string);
            break;
        case SONETRIX_VALUE_AUINT32:
        case SONETRIX_VALUE_AINT32:
        case SONETRIX_VALUE_AFLOAT:
            value->as.array = copyBytes(list, value->as.array, 4 * value->count);
            break;
        default:
            break;
        }
    }
}

#define ADD(function, handle, KEY, key, member, type, value, Value)                                                    \
    int32_t function(handle list, KEY Value value) {                                                                   \
        add(&list->list, key, type)->as.member = value;                                                                \
        return 0;                                                                                                      \
    }
#define ADD_ARRAY(function, handle, KEY, key, type, Element)                                                           \
    int32_t function(handle list, KEY const Element *elements, size_t count) {                                         \
        addArray(&list->list, key, type, elements, count);                                                             \
        return 0;                                                                                                      \
    }
#define COMMON(name, Handle, newest)                                                                                   \
    Handle *name##New(void) { return newest = calloc(1, sizeof(Handle)); }                                             \
    void name##Destroy(Handle *list) {                                                                                 \
        clear(&list->list);                                                                                            \
        free(list);                                                                                                    \
    }                                                                                                                  \
    Handle *name##DeepCopy(const Handle *list) {                                                                       \
        Handle *copy = calloc(1, sizeof(Handle));                                                                      \
        addCopies(&copy->list, &list->list);                                                                           \
        return copy;                                                                                                   \
    }                                                                                                                  \
    int32_t name##Merge(Handle *list, Handle *other) {                                                                 \
        if (other != NULL) {                                                                                           \
            addCopies(&list->list, &other->list);                                                                      \
            clear(&other->list);                                                                                       \
        }                                                                                                              \
        return 0;                                                                                                      \
    }
#define NO_KEY
#define WITH_KEY const char *key,

COMMON(sonetrix_valueList, sonetrix_cListValue_t, stub_newestValueList)
COMMON(sonetrix_keyValueList, sonetrix_cListKeyValue_t, stub_newestKeyValueList)

#define VALUE_LIST sonetrix_cListValue_t *
ADD(sonetrix_valueListAddI32, VALUE_LIST, NO_KEY, NULL, int32, SONETRIX_VALUE_INT32, number, int32_t)
ADD(sonetrix_valueListAddU32, VALUE_LIST, NO_KEY, NULL, uint32, SONETRIX_VALUE_UINT32, number, uint32_t)
ADD(sonetrix_valueListAddF, VALUE_LIST, NO_KEY, NULL, float32, SONETRIX_VALUE_FLOAT, number, float)
ADD(sonetrix_valueListAddD, VALUE_LIST, NO_KEY, NULL, float64, SONETRIX_VALUE_DOUBLE, number, double)
ADD_ARRAY(sonetrix_valueListAddAi32, VALUE_LIST, NO_KEY, NULL, SONETRIX_VALUE_AINT32, int32_t)
ADD_ARRAY(sonetrix_valueListAddAfloat, VALUE_LIST, NO_KEY, NULL, SONETRIX_VALUE_AFLOAT, float)
int32_t sonetrix_valueListAddS(sonetrix_cListValue_t *list, const char *text) {
    add(&list->list, NULL, SONETRIX_VALUE_STRING)->as.string = copyText(&list->list, text);
    return 0;
}

#define KEY_VALUE_LIST sonetrix_cListKeyValue_t *
ADD(sonetrix_keyValueListAddSI32, KEY_VALUE_LIST, WITH_KEY, key, int32, SONETRIX_VALUE_INT32, number, int32_t)
ADD(sonetrix_keyValueListAddSU32, KEY_VALUE_LIST, WITH_KEY, key, uint32, SONETRIX_VALUE_UINT32, number, uint32_t)
ADD(sonetrix_keyValueListAddSF, KEY_VALUE_LIST, WITH_KEY, key, float32, SONETRIX_VALUE_FLOAT, number, float)
ADD(sonetrix_keyValueListAddSD, KEY_VALUE_LIST, WITH_KEY, key, float64, SONETRIX_VALUE_DOUBLE, number, double)
ADD_ARRAY(sonetrix_keyValueListAddSAi32, KEY_VALUE_LIST, WITH_KEY, key, SONETRIX_VALUE_AINT32, int32_t)
ADD_ARRAY(sonetrix_keyValueListAddSAu32, KEY_VALUE_LIST, WITH_KEY, key, SONETRIX_VALUE_AUINT32, uint32_t)
ADD_ARRAY(sonetrix_keyValueListAddSAfloat, KEY_VALUE_LIST, WITH_KEY, key, SONETRIX_VALUE_AFLOAT, float)
int32_t sonetrix_keyValueListAddSS(sonetrix_cListKeyValue_t *list, const char *key, const char *text) {
    const char *copy = copyText(&list->list, text);
    add(&list->list, key, SONETRIX_VALUE_STRING)->as.string = copy;
    return 0;
}
int32_t sonetrix_keyValueListRemoveKey(sonetrix_cListKeyValue_t *handle, const char *key) {
    List *list = &handle->list;
    size_t kept = 0;
    for (size_t index = 0; index < list->count; ++index) {
        if (strcmp(list->entries[index].key, key) != 0) {
            list->entries[kept++] = list->entries[index];
        }
    }
    list->count = kept;
    return 0;
}

int32_t sonetrix_valueListForEach(sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user) {
    for (size_t index = 0; index < list->list.count; ++index) {
        callback(&list->list.entries[index].value, user);
    }
    return 0;
}
int32_t sonetrix_keyValueListForEach(sonetrix_cListKeyValue_t *list, sonetrix_keyValueCallback_t callback, void *user) {
    for (size_t index = 0; index < list->list.count; ++index) {
        callback(&list->list.entries[index], user);
    }
    return 0;
}

/* --------------------------------------------------------------------------------------------------------- modules */

static sonetrix_module_t *modules;
static uint32_t moduleCount;

static sonetrix_port_t **newPorts(uint32_t module, uint32_t count, const char *kind, sonetrix_port_t **feeding) {
    sonetrix_port_t *ports = calloc(count, sizeof *ports);
    sonetrix_port_t **table = calloc(count, sizeof(sonetrix_port_t *));
    for (uint32_t index = 0; index < count; ++index) {
        snprintf(ports[index].name, sizeof ports->name, "module%u:%s_%u", module, kind, index);
        ports[index].link = feeding == NULL ? NULL : feeding[index]->name;
        table[index] = &ports[index];
    }
    return table;
}

static void deletePorts(sonetrix_port_t **table) {
    free(table[0]);
    free(table);
}

void stub_setModules(uint32_t count, uint32_t ports) {
    for (uint32_t index = 0; index < moduleCount; ++index) {
        deletePorts(modules[index].sources);
        deletePorts(modules[index].sinks);
    }
    free(modules);
    modules = calloc(count, sizeof *modules);
    moduleCount = count;
    for (uint32_t index = 0; index < count; ++index) {
        sonetrix_module_t *module = &modules[index];
        snprintf(module->name, sizeof module->name, "module%u", index);
        module->type = 1;
        module->sources = newPorts(index, ports, "out", NULL);
        module->sinks = newPorts(index, ports, "in", index == 0 ? NULL : modules[index - 1].sources);
        module->sourceCount = module->sinkCount = ports;
    }
}

int32_t sonetrix_engine_ForEachModuleSafe(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
    (void)engine;
    for (uint32_t index = 0; index < moduleCount; ++index) {
        callback(&modules[index], user);
    }
    return 0;
}
int32_t sonetrix_engine_ModuleGetStartParameter(sonetrix_engine_t *engine,
    const sonetrix_module_t *module,
    char **library,
    sonetrix_cListKeyValue_t **configuration) {
    (void)engine, (void)module;
    *library = strdup("modules/gain.so");
    *configuration = sonetrix_keyValueListNew();
    return sonetrix_keyValueListAddSI32(*configuration, "channels", 2);
}
sonetrix_cListKeyValue_t *sonetrix_engine_GetParams(sonetrix_engine_t *engine, const sonetrix_cListValue_t *keys) {
    (void)engine;
    sonetrix_cListKeyValue_t *list = sonetrix_keyValueListNew();
    for (size_t index = 0; index < keys->list.count; ++index) {
        sonetrix_keyValueListAddSF(list, keys->list.entries[index].value.as.string, 0.5F);
    }
    return list;
}
int32_t sonetrix_engine_SetParamsFull(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    (void)engine;
    addCopies(&written->list, &parameters->list);
    return 0;
}

/* --------------------------------------------------------------------------------------------------- registrations */

typedef struct Registration {
    struct Registration *previous, *next;
    sonetrix_listCallback_t callback;
    sonetrix_timerCallback_t timer; /* or this */
    void *user;
} Registration;

static pthread_mutex_t registrationMutex = PTHREAD_MUTEX_INITIALIZER;
static Registration registrations = {&registrations, &registrations, NULL, NULL, NULL};

static void *addRegistration(sonetrix_listCallback_t callback, sonetrix_timerCallback_t timer, void *user) {
    Registration *registration = malloc(sizeof *registration);
    pthread_mutex_lock(&registrationMutex);
    *registration = (Registration){registrations.previous, &registrations, callback, timer, user};
    registration->previous->next = registration;
    registrations.previous = registration;
    pthread_mutex_unlock(&registrationMutex);
    return registration;
}

static void removeRegistration(Registration *registration) {
    pthread_mutex_lock(&registrationMutex);
    registration->previous->next = registration->next;
    registration->next->previous = registration->previous;
    pthread_mutex_unlock(&registrationMutex);
    free(registration);
}

void *sonetrix_engine_notify_changes_addCallback(
    sonetrix_engine_t *engine, sonetrix_listCallback_t callback, void *user) {
    (void)engine;
    return addRegistration(callback, NULL, user);
}
void sonetrix_engine_notify_changes_rmCallback(sonetrix_engine_t *engine, void *handle) {
    (void)engine;
    removeRegistration(handle);
}
/* A timer elapses when stub_notifyStart() says so. */
void *sonetrix_engine_addTimer(
    sonetrix_engine_t *engine, int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    (void)engine, (void)milliseconds;
    return addRegistration(NULL, callback, user);
}
void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *handle) {
    (void)engine;
    removeRegistration(handle);
}

static void fire(const Registration *registration, sonetrix_cListKeyValue_t *list) {
    if (registration->timer != NULL) {
        registration->timer(registration->user);
    } else {
        registration->callback(list, registration->user);
    }
}

static struct {
    uint32_t index;
    sonetrix_cListKeyValue_t *list;
    uint32_t calls;
    struct timespec pause;
    double *nanoseconds;
} order;
static pthread_t notifier;
volatile int32_t stub_notifying;

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return 1e9 * (double)time.tv_sec + (double)time.tv_nsec;
}

static void *notify(void *unused) {
    (void)unused;
    enum { warmUp = 3 };
    const Registration *registration = registrations.next;
    for (uint32_t index = 0; index < order.index; ++index) {
        registration = registration->next;
    }
    for (uint32_t index = 0; index < warmUp; ++index) {
        fire(registration, order.list);
    }
    for (uint32_t index = 0; index < order.calls; ++index) {
        if (order.pause.tv_nsec != 0) {
            nanosleep(&order.pause, NULL);
        }
        const double began = now();
        fire(registration, order.list);
        order.nanoseconds[index] = now() - began;
    }
    stub_notifying = 0;
    return NULL;
}

void stub_notifyStart(
    uint32_t index, sonetrix_cListKeyValue_t *list, uint32_t calls, uint32_t pauseMicroseconds, double *nanoseconds) {
    order.index = index;
    order.list = list;
    order.calls = calls;
    order.pause.tv_nsec = 1000L * (long)pauseMicroseconds;
    order.nanoseconds = nanoseconds;
    stub_notifying = 1;
    pthread_create(&notifier, NULL, notify, NULL);
}

void stub_notifyJoin(void) { pthread_join(notifier, NULL); }

/* -------------------------------------------------------------------------------------------------- single results */

static int handle;

sonetrix_engine_t *sonetrix_engineGet(void) { return (sonetrix_engine_t *)&handle; }
int32_t sonetrix_clock_gettime(struct timespec *time) { return clock_gettime(CLOCK_REALTIME, time); }
void *sonetrix_malloc(size_t size) { return malloc(size); }
void sonetrix_free(void *memory) { free(memory); }

#pragma GCC diagnostic ignored "-Wunused-parameter"

int32_t sonetrix_engine_IsRunning(sonetrix_engine_t *engine) { return 1; }
int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2) { return 0; }
/* A driver, so that dot() writes; its module records have none, so that they show their ports. */
int32_t sonetrix_engine_DriverIsLoaded(const void *reference) { return reference != NULL; }
int32_t sonetrix_keyValueListGetS(sonetrix_cListKeyValue_t *list, const char *key, const char **text) { return -1; }
int32_t sonetrix_keyValueListGetIU(sonetrix_cListKeyValue_t *list, const char *key, uint32_t *number) { return -1; }
