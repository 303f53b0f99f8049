#pragma once

#include "sonetrix/engine_api.h"

#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace sonetrix::dev {

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
