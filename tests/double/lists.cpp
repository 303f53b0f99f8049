#include "lists.h"

#include "recorder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace sonetrix::testing {

namespace {

std::mutex mutex;
Counts live{};
// Every list ever made, so that a late use is seen for what it is; a destroyed one keeps its address but no entries.
// Never destroyed itself, as calls come until the very end of the process.
auto &lists = *new std::unordered_map<const List *, bool>;

size_t elementSize(const sonetrix_value_t &value) {
    return value.type >= SONETRIX_VALUE_AUINT32 && value.type <= SONETRIX_VALUE_AFLOAT ? 4 : 0;
}

} // namespace

Value::Value(const sonetrix_value_t &source) : scalar_(source) {
    size_t size = elementSize(source) * source.count;
    if (source.type == SONETRIX_VALUE_STRING && source.as.string) {
        size = std::strlen(source.as.string) + 1;
    }
    if (size > 0 && source.as.array != nullptr) {
        const auto *first = static_cast<const std::byte *>(source.as.array);
        bytes_.assign(first, first + size);
        pointsToBytes_ = true;
    }
}

sonetrix_value_t Value::record() const {
    sonetrix_value_t copy = scalar_;
    if (pointsToBytes_) {
        copy.as.array = bytes_.data();
    }
    return copy;
}

Counts counts() {
    const std::lock_guard lock(mutex);
    return live;
}

void countValues(int64_t change) {
    const std::lock_guard lock(mutex);
    live.values += change;
}

void countBlocks(int64_t change) {
    const std::lock_guard lock(mutex);
    live.blocks += change;
}

template <typename Handle> Handle *newList(const List *source) {
    auto list = std::make_unique<Handle>();
    if (source) {
        list->entries = source->entries;
    }
    const std::lock_guard lock(mutex);
    lists[list.get()] = true;
    ++live.lists;
    return list.release();
}

template sonetrix_cListValue *newList(const List *);
template sonetrix_cListKeyValue *newList(const List *);

List *newTestList() {
    auto list = std::make_unique<sonetrix_cListKeyValue>();
    list->engineKeeps = true;
    const std::lock_guard lock(mutex);
    lists[list.get()] = true;
    return list.release();
}

bool alive(const List *list) {
    const std::lock_guard lock(mutex);
    const auto found = lists.find(list);
    const bool usable = found != lists.end() && found->second;
    live.misuses += usable ? 0 : 1;
    return usable;
}

void discardList(List *list) {
    if (!alive(list)) {
        return;
    }
    const std::lock_guard lock(mutex);
    if (list->engineKeeps) {
        ++live.misuses;
        return;
    }
    --live.lists;
    if (Recorder::instance().isRecording()) {
        lists[list] = false;
        std::vector<Entry>().swap(list->entries);
    } else { // a long run: its memory is wanted back
        lists.erase(list);
        delete list;
    }
}

namespace {

int32_t add(List *list, const char *key, const sonetrix_value_t &value) {
    if (!alive(list)) {
        return -1;
    }
    list->entries.push_back({key ? key : "", Value(value)});
    return 0;
}

sonetrix_value_t string(const char *text) {
    return {.type = SONETRIX_VALUE_STRING, .as = {.string = text}, .count = 0};
}
sonetrix_value_t int32(int32_t number) { return {.type = SONETRIX_VALUE_INT32, .as = {.int32 = number}, .count = 0}; }
sonetrix_value_t uint32(uint32_t number) {
    return {.type = SONETRIX_VALUE_UINT32, .as = {.uint32 = number}, .count = 0};
}
sonetrix_value_t float32(float number) { return {.type = SONETRIX_VALUE_FLOAT, .as = {.float32 = number}, .count = 0}; }
sonetrix_value_t float64(double number) {
    return {.type = SONETRIX_VALUE_DOUBLE, .as = {.float64 = number}, .count = 0};
}
sonetrix_value_t array(uint32_t type, const void *elements, size_t count) {
    return {.type = type, .as = {.array = elements}, .count = count};
}

int32_t merge(List *list, List *other) {
    if (!alive(list) || (other && !alive(other))) {
        return -1;
    }
    if (other && other != list) {
        std::move(other->entries.begin(), other->entries.end(), std::back_inserter(list->entries));
        other->entries.clear();
    }
    return 0;
}

// Goes over the entries that there are at the start: a callback may add to the list.
template <typename Callback> int32_t forEach(const Call &call, const List *list, void *user, Callback callback) {
    if (!alive(list)) {
        return -1;
    }
    const Script script = call.script();
    const std::vector<Entry> entries = list->entries;
    for (const Entry &entry : entries) {
        const LockGivenUp without(script.givesLockUp);
        if (callback(entry, script.user ? script.user : user) != 0 && script.stopsOnError) {
            break;
        }
    }
    return call.status();
}

std::string entriesLiteral(const List *list, bool withKeys) {
    if (!list) {
        return "None";
    }
    std::string text = "[";
    for (const Entry &entry : list->entries) {
        const sonetrix_value_t value = entry.value.record();
        text += withKeys ? "(" + literal(entry.key.c_str()) + "," + literal(&value) + ")," : literal(&value) + ",";
    }
    return text + "]";
}

} // namespace

std::string literal(const sonetrix_value_t *value) {
    const auto scalar = [&](const char *name, const std::string &text) {
        return "('" + std::string(name) + "'," + text + ")";
    };
    switch (value->type) {
    case SONETRIX_VALUE_UINT32:
        return scalar("uint32", literal(value->as.uint32));
    case SONETRIX_VALUE_INT32:
        return scalar("int32", literal(value->as.int32));
    case SONETRIX_VALUE_FLOAT:
        return scalar("float", literal(value->as.float32));
    case SONETRIX_VALUE_STRING:
        return scalar("string", literal(value->as.string));
    case SONETRIX_VALUE_AUINT32:
        return scalar("auint32", arrayLiteral(static_cast<const uint32_t *>(value->as.array), value->count));
    case SONETRIX_VALUE_AINT32:
        return scalar("aint32", arrayLiteral(static_cast<const int32_t *>(value->as.array), value->count));
    case SONETRIX_VALUE_AFLOAT:
        return scalar("afloat", arrayLiteral(static_cast<const float *>(value->as.array), value->count));
    case SONETRIX_VALUE_DOUBLE:
        return scalar("double", literal(value->as.float64));
    default:
        return scalar("unknown", literal(value->type));
    }
}

std::string literal(const sonetrix_cListValue_t *list) { return entriesLiteral(list, false); }
std::string literal(const sonetrix_cListKeyValue_t *list) { return entriesLiteral(list, true); }

} // namespace sonetrix::testing

using namespace sonetrix::testing;

// In records of list functions a list is its address: its contents are what the other calls say.
namespace {
const void *id(const void *list) { return list; }

thread_local std::function<int32_t(const Entry &, void *)> lastRead;
} // namespace

extern "C" {

#define LIST_FUNCTIONS(prefix, Handle)                                                                                 \
    Handle *prefix##New() { return Call(__func__).null() ? nullptr : newList<Handle>(); }                              \
    void prefix##Destroy(Handle *list) {                                                                               \
        const Call call(__func__, id(list));                                                                           \
        discardList(list);                                                                                             \
    }                                                                                                                  \
    Handle *prefix##DeepCopy(const Handle *list) {                                                                     \
        return Call(__func__, id(list)).null() || !alive(list) ? nullptr : newList<Handle>(list);                      \
    }                                                                                                                  \
    int32_t prefix##Merge(Handle *list, Handle *other) {                                                               \
        return Call(__func__, id(list), id(other)).status(merge(list, other));                                         \
    }
LIST_FUNCTIONS(sonetrix_valueList, sonetrix_cListValue_t)
LIST_FUNCTIONS(sonetrix_keyValueList, sonetrix_cListKeyValue_t)

#define ADD_SCALAR(suffix, Type, make)                                                                                 \
    int32_t sonetrix_valueListAdd##suffix(sonetrix_cListValue_t *list, Type value) {                                   \
        return Call(__func__, id(list), value).status(add(list, nullptr, make(value)));                                \
    }                                                                                                                  \
    int32_t sonetrix_keyValueListAddS##suffix(sonetrix_cListKeyValue_t *list, const char *key, Type value) {           \
        return Call(__func__, id(list), key, value).status(add(list, key, make(value)));                               \
    }
ADD_SCALAR(S, const char *, string)
ADD_SCALAR(I32, int32_t, int32)
ADD_SCALAR(U32, uint32_t, uint32)
ADD_SCALAR(F, float, float32)
ADD_SCALAR(D, double, float64)

#define ADD_VALUE_ARRAY(suffix, Element, type)                                                                         \
    int32_t sonetrix_valueListAdd##suffix(sonetrix_cListValue_t *list, const Element *elements, size_t count) {        \
        return Call(__func__, id(list), arrayLiteral(elements, count))                                                 \
            .status(add(list, nullptr, array(type, elements, count)));                                                 \
    }
ADD_VALUE_ARRAY(Ai32, int32_t, SONETRIX_VALUE_AINT32)
ADD_VALUE_ARRAY(Afloat, float, SONETRIX_VALUE_AFLOAT)

#define ADD_KEY_VALUE_ARRAY(suffix, Element, type)                                                                     \
    int32_t sonetrix_keyValueListAddS##suffix(                                                                         \
        sonetrix_cListKeyValue_t *list, const char *key, const Element *elements, size_t count) {                      \
        return Call(__func__, id(list), key, arrayLiteral(elements, count))                                            \
            .status(add(list, key, array(type, elements, count)));                                                     \
    }
ADD_KEY_VALUE_ARRAY(Ai32, int32_t, SONETRIX_VALUE_AINT32)
ADD_KEY_VALUE_ARRAY(Au32, uint32_t, SONETRIX_VALUE_AUINT32)
ADD_KEY_VALUE_ARRAY(Afloat, float, SONETRIX_VALUE_AFLOAT)

int32_t sonetrix_valueListForEach(sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user) {
    lastRead = [callback](const Entry &entry, void *given) {
        const sonetrix_value_t value = entry.value.record();
        return callback(&value, given);
    };
    return forEach(Call(__func__, id(list)), list, user, lastRead);
}
int32_t sonetrix_keyValueListForEach(sonetrix_cListKeyValue_t *list, sonetrix_keyValueCallback_t callback, void *user) {
    lastRead = [callback](const Entry &entry, void *given) {
        const sonetrix_keyValue_t record{.key = entry.key.c_str(), .engineReserved = 0, .value = entry.value.record()};
        return callback(&record, given);
    };
    return forEach(Call(__func__, id(list)), list, user, lastRead);
}
// The read callback of this thread's last for-each, for one more list: on this thread or on a native one.
int32_t double_readAgain(const void *list, void *user, int32_t onNativeThread) {
    int32_t failures = 0;
    const auto work = [&, read = lastRead] {
        for (const Entry &entry : static_cast<const List *>(list)->entries) {
            failures += read(entry, user) != 0;
        }
    };
    onNativeThread ? std::thread(work).join() : work();
    return failures;
}
int32_t sonetrix_keyValueListRemoveKey(sonetrix_cListKeyValue_t *list, const char *key) {
    const Call call(__func__, id(list), key);
    return call.status(
        alive(list) && std::erase_if(list->entries, [&](const Entry &entry) { return entry.key == key; }) > 0 ? 0 : -1);
}
int32_t sonetrix_keyValueListGetS(sonetrix_cListKeyValue_t *list, const char *key, const char **text) {
    const Call call(__func__, id(list), key);
    for (const Entry &entry : list->entries) {
        const sonetrix_value_t value = entry.value.record();
        if (entry.key == key && value.type == SONETRIX_VALUE_STRING) {
            *text = value.as.string;
            return call.status();
        }
    }
    return call.status(-1);
}
int32_t sonetrix_keyValueListGetIU(sonetrix_cListKeyValue_t *list, const char *key, uint32_t *number) {
    const Call call(__func__, id(list), key);
    for (const Entry &entry : list->entries) {
        const sonetrix_value_t value = entry.value.record();
        if (entry.key == key && value.type == SONETRIX_VALUE_UINT32) {
            *number = value.as.uint32;
            return call.status();
        }
    }
    return call.status(-1);
}

void sonetrix_valueInitUInt32(sonetrix_value_t *value, uint32_t number) {
    const Call call(__func__, number);
    *value = uint32(number);
}
void sonetrix_valueInitInt32(sonetrix_value_t *value, int32_t number) {
    const Call call(__func__, number);
    *value = int32(number);
}
void sonetrix_valueInitFloat(sonetrix_value_t *value, float number) {
    const Call call(__func__, number);
    *value = float32(number);
}
void sonetrix_valueInitS(sonetrix_value_t *value, const char *text) {
    const Call call(__func__, text);
    *value = string(strdup(text));
    countValues(1);
}
void sonetrix_valueDeinit(sonetrix_value_t *value) {
    const Call call(__func__, value);
    if (value->type == SONETRIX_VALUE_STRING) {
        std::free(const_cast<char *>(value->as.string));
        value->as.string = nullptr;
        countValues(-1);
    }
}

} // extern "C"
