#pragma once

#include "list_core.h"

namespace sonetrix {

struct ValueListTraits {
    using List = sonetrix_cListValue_t;
    static List *create() { return sonetrix_valueListNew(); }
    static void destroy(List *list) { sonetrix_valueListDestroy(list); }
    static List *copy(const List *list) { return sonetrix_valueListDeepCopy(list); }
    static void merge(List *list, List *other) { sonetrix_valueListMerge(list, other); }
    static constexpr auto forEach = sonetrix_valueListForEach;
    static Ref newContainer(Py_ssize_t room) {
        Ref container = checked(PyList_New(room));
        Py_SET_SIZE(reinterpret_cast<PyVarObject *>(container.get()), 0);
        return container;
    }
    static constexpr const char *name = "listValue";
    static constexpr const char *nullMessage = "listvalue cannot be NULL on init";
    static constexpr Held pythonClass = Held::listValueClass;
};

// The Python class `listValue`.
using ListValue = ListObject<ValueListTraits>;

// An engine list of one key, for sonetrix_engine_GetParams().
struct DestroyValueList {
    void operator()(sonetrix_cListValue_t *list) const noexcept { sonetrix_valueListDestroy(list); }
};
std::unique_ptr<sonetrix_cListValue_t, DestroyValueList> newKeyList(const char *key);

// What list.append(value, selector) does.
void appendElement(ListValue &list, PyObject *value, PyObject *selector);

// Whether list.toListType() gives nothing but strings.
bool hasOnlyStrings(ListValue &list);

// The Python list of a list that the engine handed over, which is destroyed; an empty one for null.
Ref takeToList(sonetrix_cListValue_t *list);

} // namespace sonetrix
