#include "lists/lists.h"

#include "refusal.h"

#include <cstdlib>
#include <new>

namespace sonetrix::dev {

namespace {

constexpr size_t elementSize = 4;

bool isArray(uint32_t type) noexcept {
    return type == SONETRIX_VALUE_AUINT32 || type == SONETRIX_VALUE_AINT32 || type == SONETRIX_VALUE_AFLOAT;
}

/// Of the value's string or array: none where it says it has elements and shows none.
size_t contentSize(const sonetrix_value_t &value) {
    const bool isString = value.type == SONETRIX_VALUE_STRING;
    if ((!isString && !isArray(value.type)) || value.as.array == nullptr)
        return 0;
    if (!isString && value.count > PTRDIFF_MAX / elementSize)
        throw std::bad_alloc();
    return isString ? std::strlen(value.as.string) + 1 : value.count * elementSize;
}

std::shared_ptr<const void> separate(sonetrix_value_t &value, const char **key) {
    const size_t size = contentSize(value);
    const size_t keySize = key != nullptr ? std::strlen(*key) + 1 : 0;
    if (size + keySize == 0)
        return nullptr;
    auto copies = std::make_shared_for_overwrite<uint32_t[]>((size + keySize) / elementSize + 1); // aligned for arrays
    auto *const bytes = reinterpret_cast<char *>(copies.get());
    if (size != 0)
        value.as.array = std::memcpy(bytes, value.as.array, size);
    if (keySize != 0)
        *key = static_cast<const char *>(std::memcpy(bytes + size, *key, keySize));
    return copies;
}

} // namespace

std::shared_ptr<const void> separate(sonetrix_value_t &record) { return separate(record, nullptr); }
std::shared_ptr<const void> separate(sonetrix_keyValue_t &record) { return separate(record.value, &record.key); }

} // namespace sonetrix::dev

using namespace sonetrix::dev;

namespace {

template <class Content> void initialise(sonetrix_value_t *value, Content content) noexcept {
    if (value != nullptr)
        *value = valueRecord(content);
}

bool isMissing(const char *text) noexcept { return text == nullptr; }
template <class Element> bool isMissing(std::span<Element> elements) noexcept {
    return elements.data() == nullptr && !elements.empty();
}
template <class Number> bool isMissing(Number /*number*/) noexcept { return false; }

/// Adds a value, or a key and a value.
template <class List, class... Arguments> int32_t add(List *list, Arguments... arguments) noexcept {
    if (list == nullptr || (isMissing(arguments) || ...))
        return statusInvalid;
    return guarded([&] { list->add(arguments...); });
}

template <class List> List *newList() noexcept {
    return guarded([] { return std::make_unique<List>().release(); });
}

template <class List> List *copyOf(const List *list) noexcept {
    return guarded([&] { return list == nullptr ? nullptr : std::make_unique<List>(*list).release(); });
}

template <class List> int32_t merge(List *list, List *other) noexcept {
    if (list == nullptr)
        return statusInvalid;
    return guarded([&] {
        if (other != nullptr)
            list->merge(*other);
    });
}

template <class List, class Callback> int32_t forEach(const List *list, Callback callback, void *user) {
    return list == nullptr || callback == nullptr ? statusInvalid : list->forEach(callback, user);
}

} // namespace

void sonetrix_valueInitUInt32(sonetrix_value_t *value, uint32_t number) { initialise(value, number); }
void sonetrix_valueInitInt32(sonetrix_value_t *value, int32_t number) { initialise(value, number); }
void sonetrix_valueInitFloat(sonetrix_value_t *value, float number) { initialise(value, number); }
void sonetrix_valueInitS(sonetrix_value_t *value, const char *text) {
    initialise(value, static_cast<const char *>(text != nullptr ? strdup(text) : nullptr));
}

void sonetrix_valueDeinit(sonetrix_value_t *value) {
    if (value == nullptr)
        return;
    if (value->type == SONETRIX_VALUE_STRING || isArray(value->type))
        std::free(const_cast<void *>(value->as.array));
    *value = valueRecord(uint32_t{0});
}

ListValue *sonetrix_valueListNew() { return newList<ListValue>(); }
void sonetrix_valueListDestroy(ListValue *list) { std::unique_ptr<ListValue>{list}; }
ListValue *sonetrix_valueListDeepCopy(const ListValue *list) { return copyOf(list); }
int32_t sonetrix_valueListMerge(ListValue *list, ListValue *other) { return merge(list, other); }

int32_t sonetrix_valueListAddS(ListValue *list, const char *text) { return add(list, text); }
int32_t sonetrix_valueListAddI32(ListValue *list, int32_t number) { return add(list, number); }
int32_t sonetrix_valueListAddU32(ListValue *list, uint32_t number) { return add(list, number); }
int32_t sonetrix_valueListAddF(ListValue *list, float number) { return add(list, number); }
int32_t sonetrix_valueListAddD(ListValue *list, double number) { return add(list, number); }
int32_t sonetrix_valueListAddAi32(ListValue *list, const int32_t *elements, size_t count) {
    return add(list, std::span(elements, count));
}
int32_t sonetrix_valueListAddAfloat(ListValue *list, const float *elements, size_t count) {
    return add(list, std::span(elements, count));
}

int32_t sonetrix_valueListForEach(ListValue *list, sonetrix_valueCallback_t callback, void *user) {
    return forEach(list, callback, user);
}

ListKeyValue *sonetrix_keyValueListNew() { return newList<ListKeyValue>(); }
void sonetrix_keyValueListDestroy(ListKeyValue *list) { std::unique_ptr<ListKeyValue>{list}; }
ListKeyValue *sonetrix_keyValueListDeepCopy(const ListKeyValue *list) { return copyOf(list); }
int32_t sonetrix_keyValueListMerge(ListKeyValue *list, ListKeyValue *other) { return merge(list, other); }

int32_t sonetrix_keyValueListRemoveKey(ListKeyValue *list, const char *key) {
    if (list == nullptr || key == nullptr)
        return statusInvalid;
    return list->remove(key) != 0 ? statusOk : statusNotFound;
}

int32_t sonetrix_keyValueListAddSS(ListKeyValue *list, const char *key, const char *text) {
    return add(list, key, text);
}
int32_t sonetrix_keyValueListAddSI32(ListKeyValue *list, const char *key, int32_t number) {
    return add(list, key, number);
}
int32_t sonetrix_keyValueListAddSU32(ListKeyValue *list, const char *key, uint32_t number) {
    return add(list, key, number);
}
int32_t sonetrix_keyValueListAddSF(ListKeyValue *list, const char *key, float number) { return add(list, key, number); }
int32_t sonetrix_keyValueListAddSD(ListKeyValue *list, const char *key, double number) {
    return add(list, key, number);
}
int32_t sonetrix_keyValueListAddSAi32(ListKeyValue *list, const char *key, const int32_t *elements, size_t count) {
    return add(list, key, std::span(elements, count));
}
int32_t sonetrix_keyValueListAddSAu32(ListKeyValue *list, const char *key, const uint32_t *elements, size_t count) {
    return add(list, key, std::span(elements, count));
}
int32_t sonetrix_keyValueListAddSAfloat(ListKeyValue *list, const char *key, const float *elements, size_t count) {
    return add(list, key, std::span(elements, count));
}

int32_t sonetrix_keyValueListForEach(ListKeyValue *list, sonetrix_keyValueCallback_t callback, void *user) {
    return forEach(list, callback, user);
}

int32_t sonetrix_keyValueListGetS(ListKeyValue *list, const char *key, const char **text) {
    if (list == nullptr || key == nullptr || text == nullptr)
        return statusInvalid;
    const sonetrix_value_t *value = list->find(key);
    if (value == nullptr || value->type != SONETRIX_VALUE_STRING)
        return statusNotFound;
    *text = value->as.string;
    return statusOk;
}

int32_t sonetrix_keyValueListGetIU(ListKeyValue *list, const char *key, uint32_t *number) {
    if (list == nullptr || key == nullptr || number == nullptr)
        return statusInvalid;
    const sonetrix_value_t *value = list->find(key);
    const bool fits = value != nullptr && (value->type == SONETRIX_VALUE_UINT32 ||
                                              (value->type == SONETRIX_VALUE_INT32 && value->as.int32 >= 0));
    if (fits)
        *number = value->as.uint32;
    return fits ? statusOk : statusNotFound;
}
