/* The typed lists, for an engine that has none of its own: to be taken as it is. */
#include <sonetrix/engine_api.h>

#include <stdbool.h>
#include <stdlib.h>
#include <string.h>

typedef sonetrix_cListKeyValue_t List;

struct sonetrix_cListKeyValue {
    sonetrix_keyValue_t *entries;
    size_t count;
};

struct sonetrix_cListValue {
    List list; /* of entries that nobody sees the keys of */
};

/* ------------------------------------------------------------------------------------------------------- values */

static bool isAllocated(uint32_t type) { return type >= SONETRIX_VALUE_STRING && type <= SONETRIX_VALUE_AFLOAT; }

static sonetrix_value_t copyOf(sonetrix_value_t value) {
    if (isAllocated(value.type)) {
        size_t size = value.type == SONETRIX_VALUE_STRING ? strlen(value.as.string) + 1 : value.count * 4;
        value.as.array = memcpy(malloc(size + 1), value.as.array, size);
    }
    return value;
}

void sonetrix_valueDeinit(sonetrix_value_t *value) {
    if (isAllocated(value->type))
        free((void *)value->as.array);
}

void sonetrix_valueInitUInt32(sonetrix_value_t *value, uint32_t number) {
    *value = (sonetrix_value_t){SONETRIX_VALUE_UINT32, {.uint32 = number}, 1};
}

void sonetrix_valueInitInt32(sonetrix_value_t *value, int32_t number) {
    *value = (sonetrix_value_t){SONETRIX_VALUE_INT32, {.int32 = number}, 1};
}

void sonetrix_valueInitFloat(sonetrix_value_t *value, float number) {
    *value = (sonetrix_value_t){SONETRIX_VALUE_FLOAT, {.float32 = number}, 1};
}

void sonetrix_valueInitS(sonetrix_value_t *value, const char *text) {
    *value = copyOf((sonetrix_value_t){SONETRIX_VALUE_STRING, {.string = text}, 1});
}

/* ----------------------------------------------------------------------------------------------- key/value list */

static void add(List *list, const char *key, sonetrix_value_t value) {
    list->entries = realloc(list->entries, (list->count + 1) * sizeof *list->entries);
    list->entries[list->count++] = (sonetrix_keyValue_t){strdup(key), 0, copyOf(value)};
}

static void release(sonetrix_keyValue_t *entry) {
    free((void *)entry->key);
    sonetrix_valueDeinit(&entry->value);
}

static const sonetrix_value_t *find(const List *list, const char *key, uint32_t type) {
    for (size_t i = 0; i < list->count; ++i)
        if (strcmp(list->entries[i].key, key) == 0 && list->entries[i].value.type == type)
            return &list->entries[i].value;
    return NULL;
}

List *sonetrix_keyValueListNew(void) { return calloc(1, sizeof(List)); }

void sonetrix_keyValueListDestroy(List *list) {
    for (size_t i = 0; i < list->count; ++i)
        release(&list->entries[i]);
    free(list->entries);
    free(list);
}

List *sonetrix_keyValueListDeepCopy(const List *list) {
    List *copy = sonetrix_keyValueListNew();
    for (size_t i = 0; i < list->count; ++i)
        add(copy, list->entries[i].key, list->entries[i].value);
    return copy;
}

int32_t sonetrix_keyValueListMerge(List *list, List *other) {
    while (other != NULL && other->count > 0) {
        List moved = {other->entries, other->count};
        *other = (List){NULL, 0};
        for (size_t i = 0; i < moved.count; ++i) {
            add(list, moved.entries[i].key, moved.entries[i].value);
            release(&moved.entries[i]);
        }
        free(moved.entries);
    }
    return 0;
}

int32_t sonetrix_keyValueListRemoveKey(List *list, const char *key) {
    size_t kept = 0;
    for (size_t i = 0; i < list->count; ++i) {
        if (strcmp(list->entries[i].key, key) == 0)
            release(&list->entries[i]);
        else
            list->entries[kept++] = list->entries[i];
    }
    list->count = kept;
    return 0;
}

int32_t sonetrix_keyValueListForEach(List *list, sonetrix_keyValueCallback_t callback, void *user) {
    for (size_t i = 0; i < list->count; ++i)
        callback(&list->entries[i], user);
    return 0;
}

int32_t sonetrix_keyValueListGetS(List *list, const char *key, const char **text) {
    const sonetrix_value_t *found = find(list, key, SONETRIX_VALUE_STRING);
    *text = found != NULL ? found->as.string : NULL;
    return found != NULL ? 0 : -1;
}

int32_t sonetrix_keyValueListGetIU(List *list, const char *key, uint32_t *number) {
    const sonetrix_value_t *found = find(list, key, SONETRIX_VALUE_UINT32);
    *number = found != NULL ? found->as.uint32 : 0;
    return found != NULL ? 0 : -1;
}

/* --------------------------------------------------------------------------------------------------- value list */

sonetrix_cListValue_t *sonetrix_valueListNew(void) { return calloc(1, sizeof(sonetrix_cListValue_t)); }

void sonetrix_valueListDestroy(sonetrix_cListValue_t *list) { sonetrix_keyValueListDestroy(&list->list); }

sonetrix_cListValue_t *sonetrix_valueListDeepCopy(const sonetrix_cListValue_t *list) {
    return (sonetrix_cListValue_t *)sonetrix_keyValueListDeepCopy(&list->list);
}

int32_t sonetrix_valueListMerge(sonetrix_cListValue_t *list, sonetrix_cListValue_t *other) {
    return sonetrix_keyValueListMerge(&list->list, other != NULL ? &other->list : NULL);
}

int32_t sonetrix_valueListForEach(sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user) {
    for (size_t i = 0; i < list->list.count; ++i)
        callback(&list->list.entries[i].value, user);
    return 0;
}

/* ----------------------------------------------------------------------------- what both can be given, by its type */

#define VALUE(suffix, Type, member, code)                                                                              \
    int32_t sonetrix_keyValueListAddS##suffix(List *list, const char *key, Type given) {                               \
        add(list, key, (sonetrix_value_t){code, {.member = given}, 1});                                                \
        return 0;                                                                                                      \
    }                                                                                                                  \
    int32_t sonetrix_valueListAdd##suffix(sonetrix_cListValue_t *list, Type given) {                                   \
        return sonetrix_keyValueListAddS##suffix(&list->list, "", given);                                              \
    }
VALUE(S, const char *, string, SONETRIX_VALUE_STRING)
VALUE(I32, int32_t, int32, SONETRIX_VALUE_INT32)
VALUE(U32, uint32_t, uint32, SONETRIX_VALUE_UINT32)
VALUE(F, float, float32, SONETRIX_VALUE_FLOAT)
VALUE(D, double, float64, SONETRIX_VALUE_DOUBLE)

#define ARRAY(suffix, Element, code)                                                                                   \
    int32_t sonetrix_keyValueListAddS##suffix(List *list, const char *key, const Element *elements, size_t count) {    \
        add(list, key, (sonetrix_value_t){code, {.array = elements}, count});                                          \
        return 0;                                                                                                      \
    }
ARRAY(Ai32, int32_t, SONETRIX_VALUE_AINT32)
ARRAY(Au32, uint32_t, SONETRIX_VALUE_AUINT32)
ARRAY(Afloat, float, SONETRIX_VALUE_AFLOAT)

int32_t sonetrix_valueListAddAi32(sonetrix_cListValue_t *list, const int32_t *elements, size_t count) {
    return sonetrix_keyValueListAddSAi32(&list->list, "", elements, count);
}

int32_t sonetrix_valueListAddAfloat(sonetrix_cListValue_t *list, const float *elements, size_t count) {
    return sonetrix_keyValueListAddSAfloat(&list->list, "", elements, count);
}
