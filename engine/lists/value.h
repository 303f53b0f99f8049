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

// Of both records: a copy with strings and arrays of its own, which throws std::bad_alloc; and what frees those.
sonetrix_value_t deepCopy(const sonetrix_value_t &record);
sonetrix_keyValue_t deepCopy(const sonetrix_keyValue_t &record);
void release(sonetrix_value_t &record) noexcept;
void release(sonetrix_keyValue_t &record) noexcept;

/// A record that owns its strings and arrays.
template <class Owned> class RecordOwner {
public:
    using Record = Owned;

    explicit RecordOwner(const Record &record) : record_(deepCopy(record)) {}
    RecordOwner(const RecordOwner &other) : RecordOwner(other.record_) {}
    RecordOwner(RecordOwner &&other) noexcept : record_(std::exchange(other.record_, {})) {}
    RecordOwner &operator=(RecordOwner other) noexcept {
        std::swap(record_, other.record_);
        return *this;
    }
    ~RecordOwner() { release(record_); }

    [[nodiscard]] const Record &record() const noexcept { return record_; }
    operator const Record &() const noexcept { return record_; } // NOLINT(google-explicit-constructor)

private:
    Record record_;
};

using Value = RecordOwner<sonetrix_value_t>;       // a typed value
using KeyValue = RecordOwner<sonetrix_keyValue_t>; // a typed value under a key

} // namespace sonetrix::dev
