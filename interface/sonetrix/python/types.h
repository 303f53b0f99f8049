// Heap types from a table of slots.
#pragma once

#include "compatibility.h"
#include "errors.h"

#include <initializer_list>
#include <vector>

namespace sonetrix {

template <class Function> PyType_Slot slot(int id, Function *function) {
    return {id, reinterpret_cast<void *>(function)};
}
inline PyType_Slot slot(int id, const char *doc) { return {id, const_cast<char *>(doc)}; }

// A class of the module, "sonetrix.listValue"; `Object` is its instances' C++ record.
template <class Object>
Ref newClass(PyObject *module, const char *name, unsigned int flags, std::initializer_list<PyType_Slot> slots) {
    std::vector<PyType_Slot> table(slots);
    table.push_back({0, nullptr});
    PyType_Spec spec = {
        .name = name,
        .basicsize = sizeof(Object),
        .itemsize = 0,
        .flags = static_cast<unsigned int>(Py_TPFLAGS_DEFAULT) | flags,
        .slots = table.data(),
    };
    return checked(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

// The end of a class's tp_dealloc.
inline void freeObject(PyObject *object) noexcept {
    PyTypeObject *type = Py_TYPE(object);
    type->tp_free(object);
    Ref::steal(reinterpret_cast<PyObject *>(type));
}

// Knows whether a class still is as it was made; until Python code changes it, what a look-up on it finds is known.
class OriginalClass {
public:
    void remember(PyTypeObject *type) {
        checked(PyObject_GetAttrString, reinterpret_cast<PyObject *>(type), "__init__"); // gives the class its version
        version_ = typeVersion(type);
    }
    bool isUnchanged(PyTypeObject *type) const noexcept { return version_ != 0 && typeVersion(type) == version_; }

private:
    unsigned int version_ = 0; // unknown
};

inline PyTypeObject *asType(const Ref &type) noexcept { return reinterpret_cast<PyTypeObject *>(type.get()); }

} // namespace sonetrix
