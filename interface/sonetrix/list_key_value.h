#pragma once

#include "list_core.h"

namespace sonetrix {

struct KeyValueListTraits {
    using List = sonetrix_cListKeyValue_t;
    static List *create() { return sonetrix_keyValueListNew(); }
    static void destroy(List *list) { sonetrix_keyValueListDestroy(list); }
    static List *copy(const List *list) { return sonetrix_keyValueListDeepCopy(list); }
    static void merge(List *list, List *other) { sonetrix_keyValueListMerge(list, other); }
    static constexpr auto forEach = sonetrix_keyValueListForEach;
    static Ref newContainer(Py_ssize_t room) { return checked(_PyDict_NewPresized(room)); }
    static constexpr const char *name = "listKeyValue";
    static constexpr const char *nullMessage = "listkey cannot be NULL on init";
    static constexpr Held pythonClass = Held::listKeyValueClass;
};

// The Python class `listKeyValue`.
using ListKeyValue = ListObject<KeyValueListTraits>;

// An engine key/value list as a Python dict: what toDict() and toDictType() give. The engine keeps the list.
Ref toDict(sonetrix_cListKeyValue_t *list, Py_ssize_t expected = 0);
Ref toDictType(sonetrix_cListKeyValue_t *list);
// toDict() and dup() of a list that the engine lends, by the class's own methods if a script has replaced them.
Ref borrowedToDict(sonetrix_cListKeyValue_t *list);
Ref borrowedDup(sonetrix_cListKeyValue_t *list);

// Appends an entry of a dict of (value, type name) pairs.
void appendTyped(ListKeyValue &list, PyObject *key, PyObject *pair);

// Lets the keys go that are kept for the dicts to come.
void dropKeyCache() noexcept;

} // namespace sonetrix
