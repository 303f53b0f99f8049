#include "lists/value.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace sonetrix::dev {

namespace {

constexpr size_t elementSize = 4;

bool isArray(uint32_t type) noexcept {
    return type == SONETRIX_VALUE_AUINT32 || type == SONETRIX_VALUE_AINT32 || type == SONETRIX_VALUE_AFLOAT;
}

/// In memory of malloc, as the interface's own value functions keep theirs.
void *copied(const void *data, size_t size) {
    void *copy = std::malloc(std::max<size_t>(size, 1));
    if (copy == nullptr)
        throw std::bad_alloc();
    if (size != 0)
        std::memcpy(copy, data, size);
    return copy;
}

const char *copied(const char *text) { return static_cast<const char *>(copied(text, std::strlen(text) + 1)); }

} // namespace

// An array that says it has elements and shows none stays so.
sonetrix_value_t deepCopy(const sonetrix_value_t &record) {
    sonetrix_value_t copy = record;
    if (record.type == SONETRIX_VALUE_STRING && record.as.string != nullptr) {
        copy.as.string = copied(record.as.string);
    } else if (isArray(record.type) && record.as.array != nullptr) {
        if (record.count > PTRDIFF_MAX / elementSize)
            throw std::bad_alloc();
        copy.as.array = copied(record.as.array, record.count * elementSize);
    }
    return copy;
}

sonetrix_keyValue_t deepCopy(const sonetrix_keyValue_t &record) {
    sonetrix_keyValue_t copy{copied(record.key), 0, {}};
    try {
        copy.value = deepCopy(record.value);
    } catch (...) {
        release(copy);
        throw;
    }
    return copy;
}

void release(sonetrix_value_t &record) noexcept { sonetrix_valueDeinit(&record); }

void release(sonetrix_keyValue_t &record) noexcept {
    std::free(const_cast<char *>(record.key));
    release(record.value);
}

} // namespace sonetrix::dev

using namespace sonetrix::dev;

void sonetrix_valueInitUInt32(sonetrix_value_t *value, uint32_t number) {
    if (value != nullptr)
        *value = valueRecord(number);
}

void sonetrix_valueInitInt32(sonetrix_value_t *value, int32_t number) {
    if (value != nullptr)
        *value = valueRecord(number);
}

void sonetrix_valueInitFloat(sonetrix_value_t *value, float number) {
    if (value != nullptr)
        *value = valueRecord(number);
}

void sonetrix_valueInitS(sonetrix_value_t *value, const char *text) {
    if (value != nullptr)
        *value = valueRecord(static_cast<const char *>(text != nullptr ? strdup(text) : nullptr));
}

void sonetrix_valueDeinit(sonetrix_value_t *value) {
    if (value == nullptr)
        return;
    if (value->type == SONETRIX_VALUE_STRING || isArray(value->type))
        std::free(const_cast<void *>(value->as.array));
    *value = valueRecord(uint32_t{0});
}
