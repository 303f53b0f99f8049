#include "lists/lists.h"

#include <cstring>

namespace sonetrix::dev {

template <class Record> void RecordList<Record>::append(const RecordList &other) {
    const size_t before = records_.size();
    reserve(before + other.size());
    try {
        for (const Record &record : other)
            records_.push_back(stored(record));
    } catch (...) {
        records_.resize(before);
        throw;
    }
}

template <class Record> void RecordList<Record>::merge(RecordList &other) {
    if (&other == this)
        return;
    if (records_.empty()) {
        swap(other);
    } else {
        append(other);
    }
    other.clear();
}

template class RecordList<sonetrix_value_t>;
template class RecordList<sonetrix_keyValue_t>;

} // namespace sonetrix::dev

const sonetrix_value_t *sonetrix_cListKeyValue::find(std::string_view key) const noexcept {
    const auto entry = std::find_if(records_.rbegin(), records_.rend(), [&](const auto &e) { return key == e.key; });
    return entry == records_.rend() ? nullptr : &entry->value;
}

size_t sonetrix_cListKeyValue::remove(std::string_view key) {
    const size_t removed = std::erase_if(records_, [&](const sonetrix_keyValue_t &entry) {
        if (key != entry.key)
            return false;
        const auto payload = sonetrix::dev::payloadOf(entry.value);
        arena_.discard(key.size() + 1 + (payload ? payload->size : 0));
        return true;
    });
    if (arena_.worthCompacting())
        *this = sonetrix_cListKeyValue(*this);
    return removed;
}
