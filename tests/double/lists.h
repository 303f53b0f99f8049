// Typed values and lists of the recording engine: plain, and counted.
#pragma once

#include "sonetrix/engine_api.h"

#include <cstddef>
#include <string>
#include <vector>

namespace sonetrix::testing {

// A value with what it points to. Keeps odd records as they are: unknown types, null strings, empty arrays.
class Value {
public:
    explicit Value(const sonetrix_value_t &source);
    sonetrix_value_t record() const;

private:
    sonetrix_value_t scalar_;
    bool pointsToBytes_ = false;
    std::vector<std::byte> bytes_;
};

struct Entry {
    std::string key;
    Value value;
};

struct List {
    virtual ~List() = default;

    std::vector<Entry> entries;
    bool engineKeeps = false; // a script must not destroy it
};

// How many objects are alive, and how often a list was used or destroyed that was not.
struct Counts {
    int64_t lists, values, blocks, misuses;
};
Counts counts();
void countValues(int64_t change);
void countBlocks(int64_t change);

} // namespace sonetrix::testing

// The two opaque handles of the interface, both on the same list.
struct sonetrix_cListValue : sonetrix::testing::List {};
struct sonetrix_cListKeyValue : sonetrix::testing::List {};

namespace sonetrix::testing {

template <typename Handle> Handle *newList(const List *source = nullptr);
// A list that belongs to the test: not counted, and not to be destroyed.
List *newTestList();
// Destroys a list without a record of it.
void discardList(List *list);
// False, and a misuse on record, when the list is not alive.
bool alive(const List *list);

} // namespace sonetrix::testing
