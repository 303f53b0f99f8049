#include "list_core.h"

#include "python/version.h"

namespace sonetrix {

Ref ListReading::takeList() {
    if (PyList_GET_SIZE(container_.get()) == 0) {
        Ref list = checked(PyList_New(static_cast<Py_ssize_t>(items_.size())));
        Py_ssize_t index = 0;
        for (PyObject *&item : items_) {
            PyList_SET_ITEM(list.get(), index++, std::exchange(item, nullptr));
        }
        return list;
    }
    // The engine called back from elsewhere, too.
    for (PyObject *item : items_) {
        checked(PyList_Append(container_.get(), item));
    }
    return container_;
}

Ref ListReading::takeDict() {
    const bool elsewhere = PyDict_GET_SIZE(container_.get()) != 0;
    Ref dict = elsewhere ? container_ : version::newDict(static_cast<Py_ssize_t>(items_.size() / 2));
    if (!dict) {
        throw PythonError();
    }
    for (std::size_t index = 0; index < items_.size(); index += 2) {
        checked(PyDict_SetItem(dict.get(), items_[index], items_[index + 1]));
    }
    return dict;
}

} // namespace sonetrix
