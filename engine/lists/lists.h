#pragma once

#include "lists/arena.h"
#include "lists/value.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace sonetrix::dev {

/// An ordered list of records whose keys, strings and arrays live in the list's own arena. Adding may move the records,
/// never what they point to. What allocates throws std::bad_alloc, std::length_error or (an impossible array)
/// std::invalid_argument, and leaves the records as they were.
template <class Record> class RecordList {
public:
    RecordList() noexcept = default;
    RecordList(const RecordList &other) { append(other); }
    RecordList(RecordList &&other) noexcept { swap(other); }
    RecordList &operator=(RecordList other) noexcept {
        swap(other);
        return *this;
    }
    ~RecordList() = default;

    [[nodiscard]] const Record *begin() const noexcept { return records_.data(); }
    [[nodiscard]] const Record *end() const noexcept { return records_.data() + records_.size(); }
    [[nodiscard]] size_t size() const noexcept { return records_.size(); }
    [[nodiscard]] bool empty() const noexcept { return records_.empty(); }
    const Record &operator[](size_t index) const noexcept { return records_[index]; }

    void clear() noexcept { RecordList().swap(*this); }
    void reserve(size_t count) {
        if (count > records_.capacity())
            records_.reserve(std::max({count, 2 * records_.capacity(), firstCapacity}));
    }
    /// Adds a deep copy.
    void addRecord(const Record &record) {
        reserve(records_.size() + 1);
        records_.push_back(stored(record));
    }
    /// Adds deep copies of all records of `other`, another list.
    void append(const RecordList &other);
    /// Moves all records of `other` to the end; does nothing when that is this list.
    void merge(RecordList &other);

    /// Calls back for the records present at the start, also for those after a failed one. The callback may add to the
    /// list. The first result that is not 0, else 0.
    template <class Callback> int32_t forEach(Callback callback, void *user) const {
        int32_t result = 0;
        const size_t count = records_.size();
        for (size_t i = 0; i < count && i < records_.size(); ++i) {
            const Record record = records_[i];
            const int32_t one = callback(&record, user);
            result = result != 0 ? result : one;
        }
        return result;
    }

protected:
    sonetrix_value_t stored(const sonetrix_value_t &value) {
        sonetrix_value_t copy = value;
        if (const auto payload = payloadOf(value))
            copy.as.array = arena_.copy(payload->data, payload->size, payload->alignment);
        return copy;
    }
    sonetrix_keyValue_t stored(const sonetrix_keyValue_t &entry) {
        return {arena_.copyText(entry.key), 0, stored(entry.value)};
    }
    void swap(RecordList &other) noexcept {
        records_.swap(other.records_);
        std::swap(arena_, other.arena_);
    }

    std::vector<Record> records_;
    Arena arena_;

private:
    static constexpr size_t firstCapacity = 4;
};

extern template class RecordList<sonetrix_value_t>;
extern template class RecordList<sonetrix_keyValue_t>;

} // namespace sonetrix::dev

/// The C interface's list handles point to the engine's own lists.
struct sonetrix_cListValue : sonetrix::dev::RecordList<sonetrix_value_t> {
    /// Takes what valueRecord takes.
    template <class T> void add(const T &value) { addRecord(sonetrix::dev::valueRecord(value)); }
};

struct sonetrix_cListKeyValue : sonetrix::dev::RecordList<sonetrix_keyValue_t> {
    /// Takes what valueRecord takes, or a record of which it makes a deep copy.
    template <class T> void add(std::string_view key, const T &value) { add(key, sonetrix::dev::valueRecord(value)); }
    void add(std::string_view key, const sonetrix_value_t &value) {
        reserve(size() + 1);
        const char *storedKey = arena_.copyText(key);
        records_.push_back({storedKey, 0, stored(value)});
    }
    /// The newest entry of that key, or null; valid until the list is changed.
    [[nodiscard]] const sonetrix_value_t *find(std::string_view key) const noexcept;
    /// Removes every entry of that key; the number of them.
    size_t remove(std::string_view key);
};

namespace sonetrix::dev {

using ListValue = sonetrix_cListValue;
using ListKeyValue = sonetrix_cListKeyValue;

} // namespace sonetrix::dev
