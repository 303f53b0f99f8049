#pragma once

#include "sonetrix/engine_api.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace sonetrix::dev {

/// The types of value by the types that hold them, in the order of the type codes.
using HeldTypes = std::tuple<uint32_t,
    int32_t,
    float,
    const char *,
    std::span<const uint32_t>,
    std::span<const int32_t>,
    std::span<const float>,
    double>;

template <class T, size_t code = 0> consteval uint32_t typeCode() {
    if constexpr (std::is_same_v<T, std::tuple_element_t<code, HeldTypes>>)
        return code;
    else
        return typeCode<T, code + 1>();
}

/// A record by its argument's type; strings and arrays are borrowed.
template <class T> sonetrix_value_t valueRecord(T value) noexcept {
    sonetrix_value_t record;
    std::memset(&record, 0, sizeof record);
    record.type = typeCode<T>();
    if constexpr (std::is_arithmetic_v<T> || std::is_pointer_v<T>) {
        std::memcpy(&record.as, &value, sizeof value);
    } else {
        record.as.array = value.data();
        record.count = value.size();
    }
    return record;
}
inline sonetrix_value_t valueRecord(const std::string &text) noexcept { return valueRecord(text.c_str()); }

/// A typed value that owns its string or array.
class Value {
public:
    using Record = sonetrix_value_t;

    /// A deep copy; throws std::bad_alloc.
    explicit Value(const Record &record);
    Value(const Value &other) : Value(other.record_) {}
    Value(Value &&other) noexcept : record_(std::exchange(other.record_, valueRecord(uint32_t{0}))) {}
    Value &operator=(Value other) noexcept {
        std::swap(record_, other.record_);
        return *this;
    }
    ~Value() { sonetrix_valueDeinit(&record_); }

    [[nodiscard]] const Record &record() const noexcept { return record_; }
    operator const Record &() const noexcept { return record_; } // NOLINT(google-explicit-constructor)

private:
    Record record_;
};

/// A typed value under a key that it owns, too.
class KeyValue {
public:
    using Record = sonetrix_keyValue_t;

    explicit KeyValue(const Record &record) : KeyValue(record.key, record.value) {}
    KeyValue(std::string_view key, const sonetrix_value_t &value);
    KeyValue(const KeyValue &other) : KeyValue(other.record_) {}
    KeyValue(KeyValue &&other) noexcept
        : record_{std::exchange(other.record_.key, nullptr), 0,
              std::exchange(other.record_.value, valueRecord(uint32_t{0}))} {}
    KeyValue &operator=(KeyValue other) noexcept {
        std::swap(record_, other.record_);
        return *this;
    }
    ~KeyValue();

    operator const Record &() const noexcept { return record_; } // NOLINT(google-explicit-constructor)

private:
    Record record_;
};

} // namespace sonetrix::dev
