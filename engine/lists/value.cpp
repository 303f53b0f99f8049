#include "lists/value.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace sonetrix::dev {

namespace {

constexpr size_t elementSize = 4;

bool isArray(uint32_t type) noexcept {
    return type == SONETRIX_VALUE_AUINT32 || type == SONETRIX_VALUE_AINT32 || type == SONETRIX_VALUE_AFLOAT;
}

sonetrix_value_t emptyRecord(sonetrix_value_type_t type) noexcept {
    sonetrix_value_t record;
    std::memset(&record, 0, sizeof record);
    record.type = type;
    return record;
}

template <class T> sonetrix_value_t arrayRecord(sonetrix_value_type_t type, std::span<const T> elements) noexcept {
    static_assert(sizeof(T) == elementSize);
    auto record = emptyRecord(type);
    record.as.array = elements.data();
    record.count = elements.size();
    return record;
}

} // namespace

std::optional<Payload> payloadOf(const sonetrix_value_t &value) {
    if (value.type == SONETRIX_VALUE_STRING && value.as.string != nullptr)
        return Payload{value.as.string, std::strlen(value.as.string) + 1, 1};
    if (!isArray(value.type))
        return std::nullopt;
    if (value.as.array == nullptr && value.count != 0)
        throw std::invalid_argument("array without elements");
    if (value.count > PTRDIFF_MAX / elementSize)
        throw std::length_error("array too long");
    return Payload{value.as.array, value.count * elementSize, elementSize};
}

sonetrix_value_t valueRecord(uint32_t number) noexcept {
    auto record = emptyRecord(SONETRIX_VALUE_UINT32);
    record.as.uint32 = number;
    return record;
}

sonetrix_value_t valueRecord(int32_t number) noexcept {
    auto record = emptyRecord(SONETRIX_VALUE_INT32);
    record.as.int32 = number;
    return record;
}

sonetrix_value_t valueRecord(float number) noexcept {
    auto record = emptyRecord(SONETRIX_VALUE_FLOAT);
    record.as.float32 = number;
    return record;
}

sonetrix_value_t valueRecord(double number) noexcept {
    auto record = emptyRecord(SONETRIX_VALUE_DOUBLE);
    record.as.float64 = number;
    return record;
}

sonetrix_value_t valueRecord(const char *text) noexcept {
    auto record = emptyRecord(SONETRIX_VALUE_STRING);
    record.as.string = text;
    return record;
}

sonetrix_value_t valueRecord(std::span<const uint32_t> elements) noexcept {
    return arrayRecord(SONETRIX_VALUE_AUINT32, elements);
}

sonetrix_value_t valueRecord(std::span<const int32_t> elements) noexcept {
    return arrayRecord(SONETRIX_VALUE_AINT32, elements);
}

sonetrix_value_t valueRecord(std::span<const float> elements) noexcept {
    return arrayRecord(SONETRIX_VALUE_AFLOAT, elements);
}

bool identical(const sonetrix_value_t &left, const sonetrix_value_t &right) noexcept {
    if (left.type != right.type)
        return false;
    switch (left.type) {
    case SONETRIX_VALUE_STRING:
        if (left.as.string == nullptr || right.as.string == nullptr)
            return left.as.string == right.as.string;
        return std::strcmp(left.as.string, right.as.string) == 0;
    case SONETRIX_VALUE_AUINT32:
    case SONETRIX_VALUE_AINT32:
    case SONETRIX_VALUE_AFLOAT:
        return left.count == right.count &&
               (left.count == 0 || std::memcmp(left.as.array, right.as.array, left.count * elementSize) == 0);
    case SONETRIX_VALUE_DOUBLE:
        return std::bit_cast<uint64_t>(left.as.float64) == std::bit_cast<uint64_t>(right.as.float64);
    default:
        return left.as.uint32 == right.as.uint32;
    }
}

Value::Value(const sonetrix_value_t &record) : record_(record) {
    const auto payload = payloadOf(record);
    if (!payload)
        return;
    void *copy = std::malloc(std::max<size_t>(payload->size, 1));
    if (copy == nullptr)
        throw std::bad_alloc();
    if (payload->size != 0)
        std::memcpy(copy, payload->data, payload->size);
    record_.as.array = copy;
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
