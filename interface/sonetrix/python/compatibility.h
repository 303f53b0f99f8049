// What the library's own code does differently for the supported interpreters (3.11 and later; 3.12 is the reference):
// the official names of later versions for the earlier ones, and the few places that look inside an object.
#pragma once

#include "ref.h"

#if PY_VERSION_HEX < 0x030B0000
#error "CPython 3.11 or later is needed"
#endif

// NOLINTBEGIN(readability-identifier-naming): the interpreter's names
#if PY_VERSION_HEX < 0x030D0000
inline PyThreadState *PyThreadState_GetUnchecked() noexcept { return _PyThreadState_UncheckedGet(); }
#endif

#if PY_VERSION_HEX < 0x030C0000
inline PyObject *PyErr_GetRaisedException() noexcept {
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    if (type == nullptr) {
        return nullptr;
    }
    PyErr_NormalizeException(&type, &value, &traceback);
    const sonetrix::Ref ownedType = sonetrix::Ref::steal(type);
    const sonetrix::Ref ownedTraceback = sonetrix::Ref::steal(traceback);
    if (ownedTraceback) {
        PyException_SetTraceback(value, traceback);
    }
    return value;
}

inline void PyErr_SetRaisedException(PyObject *exception) noexcept {
    if (exception == nullptr) {
        PyErr_Clear();
        return;
    }
    PyErr_Restore(Py_NewRef(Py_TYPE(exception)), exception, PyException_GetTraceback(exception));
}

inline void PyErr_DisplayException(PyObject *exception) noexcept {
    const sonetrix::Ref traceback = sonetrix::Ref::steal(PyException_GetTraceback(exception));
    PyErr_Display(reinterpret_cast<PyObject *>(Py_TYPE(exception)), exception, traceback.get());
}

inline int PyUnstable_Long_IsCompact(const PyLongObject *number) noexcept {
    return Py_SIZE(number) >= -1 && Py_SIZE(number) <= 1;
}

inline Py_ssize_t PyUnstable_Long_CompactValue(const PyLongObject *number) noexcept {
    return Py_SIZE(number) * static_cast<Py_ssize_t>(number->ob_digit[0]);
}
#endif
// NOLINTEND(readability-identifier-naming)

namespace sonetrix {

// Sets the current exception aside for as long as it lives; whatever is raised meanwhile is dropped.
class RaisedException : NonCopyable {
public:
    RaisedException() noexcept : exception_(PyErr_GetRaisedException()) {}
    ~RaisedException() { PyErr_SetRaisedException(exception_); }

    PyObject *get() const noexcept { return exception_; }

private:
    PyObject *exception_; // owned
};

// A number that changes whenever the type or a base of it is changed; 0 while the interpreter keeps none.
inline unsigned int typeVersion(PyTypeObject *type) noexcept {
#if PY_VERSION_HEX < 0x030D0000
    if (!PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG)) {
        return 0;
    }
#endif
    return type->tp_version_tag;
}

} // namespace sonetrix
