// What the library's own code does differently for the supported interpreters (3.11 and later; 3.12 is the reference).
#pragma once

#include "ref.h"

#include <cstdint>

#if PY_VERSION_HEX < 0x030B0000
#error "CPython 3.11 or later is needed"
#endif

namespace sonetrix::version {

// Whether the running interpreter is of the minor version that this was compiled for; no other lays out objects so.
inline bool matchesHeaders() noexcept { return Py_Version >> 16 == PY_VERSION_HEX >> 16; }

// Takes the current exception away from the thread: the exception object, or none.
inline Ref takeRaised() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return Ref::steal(PyErr_GetRaisedException());
#else
    PyObject *type = nullptr;
    PyObject *value = nullptr;
    PyObject *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    if (type == nullptr) {
        return {};
    }
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref ownedType = Ref::steal(type);
    Ref ownedTraceback = Ref::steal(traceback);
    if (ownedTraceback) {
        PyException_SetTraceback(value, ownedTraceback.get());
    }
    return Ref::steal(value);
#endif
}

// Makes `exception` the thread's current exception; none clears it.
inline void setRaised(Ref exception) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    PyErr_SetRaisedException(exception.release());
#else
    if (!exception) {
        PyErr_Clear();
        return;
    }
    PyObject *type = Py_NewRef(reinterpret_cast<PyObject *>(Py_TYPE(exception.get())));
    PyObject *traceback = PyException_GetTraceback(exception.get());
    PyErr_Restore(type, exception.release(), traceback);
#endif
}

// Prints exception and traceback on sys.stderr; unlike PyErr_Print it gives SystemExit no special meaning.
inline void display(PyObject *exception) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    PyErr_DisplayException(exception);
#else
    Ref traceback = Ref::steal(PyException_GetTraceback(exception));
    PyErr_Display(reinterpret_cast<PyObject *>(Py_TYPE(exception)), exception, traceback.get());
#endif
}

// Whether the text is ASCII, so that PyUnicode_DATA is its NUL-terminated bytes.
inline bool isAscii(PyObject *text) noexcept {
#if PY_VERSION_HEX < 0x030C0000
    if (PyUnicode_READY(text) < 0) {
        PyErr_Clear();
        return false;
    }
#endif
    return PyUnicode_IS_ASCII(text) != 0;
}

// Whether the int, of any class, is of the small kind whose value can be read at once: below 2^30 in any case.
inline bool isSmallInt(PyObject *number) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject *>(number)) != 0;
#else
    const Py_ssize_t size = Py_SIZE(number);
    return size >= -1 && size <= 1;
#endif
}

inline long smallIntValue(PyObject *number) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject *>(number));
#else
    return Py_SIZE(number) * static_cast<long>(reinterpret_cast<PyLongObject *>(number)->ob_digit[0]);
#endif
}

// A number that changes whenever the dict does; 0 where the interpreter keeps none.
inline std::uint64_t dictVersion(PyObject *dict) noexcept {
#if PY_VERSION_HEX < 0x030D0000
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject *>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
#else
    static_cast<void>(dict);
    return 0;
#endif
}

// A number that changes whenever the type or a base of it is changed; 0 while the interpreter keeps none.
inline unsigned int typeVersion(PyTypeObject *type) noexcept {
#if PY_VERSION_HEX < 0x030D0000
    if (!PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG)) {
        return 0;
    }
#endif
    return type->tp_version_tag;
}

// In a module's slots: it is made in any kind of interpreter, and says itself which ones it refuses.
inline PyModuleDef_Slot createdInAnyInterpreter() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED};
#else
    return {0, nullptr};
#endif
}

// Whether the calling thread holds the interpreter lock. Not PyGILState_Check(), which says yes to every thread once a
// script has made a second interpreter.
inline bool holdsLock() noexcept {
#if PY_VERSION_HEX >= 0x030D0000
    return PyThreadState_GetUnchecked() != nullptr;
#elif PY_VERSION_HEX >= 0x030C0000
    return _PyThreadState_UncheckedGet() != nullptr;
#else
    const PyThreadState *holder = _PyThreadState_UncheckedGet();
    return holder != nullptr && holder == PyGILState_GetThisThreadState();
#endif
}

// The same for a calling thread that knows its state; one load, for what is asked for every element of a list.
inline bool holdsLock(const PyThreadState *own) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return own->_status.active != 0;
#else
    return own == _PyThreadState_UncheckedGet();
#endif
}

// The dictionary of a type.
inline Ref typeDict(PyTypeObject *type) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return Ref::steal(PyType_GetDict(type));
#else
    return Ref::borrow(type->tp_dict);
#endif
}

// A dict with room for `size` entries.
inline Ref newDict(Py_ssize_t size) noexcept { return Ref::steal(_PyDict_NewPresized(size)); }

} // namespace sonetrix::version
