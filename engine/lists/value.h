#pragma once

#include "sonetrix/engine_api.h"

#include <optional>
#include <span>
#include <string>
#include <utility>

namespace sonetrix::dev {

/// What a value refers to outside its record: a string with its NUL, or an array's elements.
struct Payload {
    const void *data;
    size_t size;
    size_t alignment;
};
/// None for scalars and null strings. Throws std::length_error or std::invalid_argument for an impossible array.
std::optional<Payload> payloadOf(const sonetrix_value_t &value);

/// Records by argument type; strings and arrays are borrowed.
sonetrix_value_t valueRecord(uint32_t number) noexcept;
sonetrix_value_t valueRecord(int32_t number) noexcept;
sonetrix_value_t valueRecord(float number) noexcept;
sonetrix_value_t valueRecord(double number) noexcept;
sonetrix_value_t valueRecord(const char *text) noexcept;
inline sonetrix_value_t valueRecord(const std::string &text) noexcept { return valueRecord(text.c_str()); }
sonetrix_value_t valueRecord(std::span<const uint32_t> elements) noexcept;
sonetrix_value_t valueRecord(std::span<const int32_t> elements) noexcept;
sonetrix_value_t valueRecord(std::span<const float> elements) noexcept;

/// Same type and same content, bit for bit.
bool identical(const sonetrix_value_t &left, const sonetrix_value_t &right) noexcept;

/// A typed value that owns its string or array.
class Value {
public:
    Value() noexcept : record_(valueRecord(uint32_t{0})) {}
    /// A deep copy; throws std::bad_alloc.
    explicit Value(const sonetrix_value_t &record);
    Value(const Value &other) : Value(other.record_) {}
    Value(Value &&other) noexcept : record_(std::exchange(other.record_, valueRecord(uint32_t{0}))) {}
    Value &operator=(Value other) noexcept {
        std::swap(record_, other.record_);
        return *this;
    }
    ~Value() { sonetrix_valueDeinit(&record_); }

    [[nodiscard]] const sonetrix_value_t &record() const noexcept { return record_; }

private:
    sonetrix_value_t record_;
};

} // namespace sonetrix::dev
