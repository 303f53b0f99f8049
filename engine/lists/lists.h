#pragma once

#include "sonetrix/engine_api.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

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

// Of both records: makes one point to copies of its strings and arrays. Their owner.
std::shared_ptr<const void> separate(sonetrix_value_t &record);
std::shared_ptr<const void> separate(sonetrix_keyValue_t &record);

/// A record that owns its strings and arrays. Copies share them, since nobody changes them.
template <class Owned> class RecordOwner {
public:
    using Record = Owned;

    /// A deep copy. Throws std::bad_alloc.
    explicit RecordOwner(const Record &shown) : record_(shown), content_(separate(record_)) {}

    [[nodiscard]] const Record &record() const noexcept { return record_; }
    operator const Record &() const noexcept { return record_; } // NOLINT(google-explicit-constructor)

private:
    Record record_;
    std::shared_ptr<const void> content_;
};

using Value = RecordOwner<sonetrix_value_t>;       // a typed value
using KeyValue = RecordOwner<sonetrix_keyValue_t>; // a typed value under a key

/// An ordered list of records, each of which owns its strings and arrays. Adding may move the records, never what they
/// point to.
template <class Element> class RecordList {
public:
    using Record = typename Element::Record;

    [[nodiscard]] auto begin() const noexcept { return elements_.begin(); }
    [[nodiscard]] auto end() const noexcept { return elements_.end(); }
    [[nodiscard]] bool empty() const noexcept { return elements_.empty(); }

    /// Adds a deep copy.
    void addRecord(const Record &record) { elements_.emplace_back(record); }
    /// Moves all records of `other` to the end; does nothing when that is this list.
    void merge(RecordList &other) {
        if (&other == this)
            return;
        elements_.insert(elements_.end(), std::make_move_iterator(other.elements_.begin()),
            std::make_move_iterator(other.elements_.end()));
        other.elements_.clear();
    }

    /// Calls back for the records present at the start, also for those after a failed one. The callback may add to the
    /// list. The first result that is not 0, else 0.
    template <class Callback> int32_t forEach(Callback callback, void *user) const {
        int32_t result = 0;
        const size_t count = elements_.size();
        for (size_t i = 0; i < count && i < elements_.size(); ++i) {
            const Record record = elements_[i];
            const int32_t one = callback(&record, user);
            result = result != 0 ? result : one;
        }
        return result;
    }

protected:
    std::vector<Element> elements_;
};

} // namespace sonetrix::dev

/// The C interface's list handles point to the engine's own lists.
struct sonetrix_cListValue : sonetrix::dev::RecordList<sonetrix::dev::Value> {
    /// Takes what valueRecord takes.
    template <class T> void add(const T &value) { addRecord(sonetrix::dev::valueRecord(value)); }
};

struct sonetrix_cListKeyValue : sonetrix::dev::RecordList<sonetrix::dev::KeyValue> {
    /// Takes what valueRecord takes, or a record of which it makes a deep copy.
    template <class T> void add(const char *key, const T &value) { add(key, sonetrix::dev::valueRecord(value)); }
    void add(const char *key, const sonetrix_value_t &value) { addRecord({key, 0, value}); }
    template <class T> void add(const std::string &key, const T &value) { add(key.c_str(), value); }

    /// The newest entry of that key, or null; valid until the list is changed.
    [[nodiscard]] const sonetrix_value_t *find(std::string_view key) const noexcept {
        const auto newest = std::find_if(
            elements_.rbegin(), elements_.rend(), [key](const Record &record) { return key == record.key; });
        return newest == elements_.rend() ? nullptr : &newest->record().value;
    }
    /// Removes every entry of that key; the number of them.
    size_t remove(std::string_view key) {
        return std::erase_if(elements_, [key](const Record &record) { return key == record.key; });
    }
};

namespace sonetrix::dev {

using ListValue = sonetrix_cListValue;
using ListKeyValue = sonetrix_cListKeyValue;

} // namespace sonetrix::dev
