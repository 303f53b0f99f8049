#include "statement.h"

#include "console_thread.h"
#include "python/errors.h"
#include "python/gil.h"

#include <sonetrix/engine_api.h>

namespace sonetrix::cli {

namespace {

PyObject *exceptHook(PyObject *, PyObject *arguments) noexcept {
    PyObject *type = PyTuple_GET_SIZE(arguments) > 0 ? PyTuple_GET_ITEM(arguments, 0) : Py_None;
    if (PyErr_GivenExceptionMatches(type, PyExc_SystemExit) != 0) {
        return Py_NewRef(Py_None);
    }
    const ConsoleThread::Display display;
    PyObject *original = PySys_GetObject("__excepthook__");
    return original == nullptr ? Py_NewRef(Py_None) : PyObject_Call(original, arguments, nullptr);
}

PyMethodDef exceptHookMethod = {
    "excepthook", exceptHook, METH_VARARGS, "Displays an exception on sys.stderr; SystemExit asks the engine to stop."};

bool hasNoCode(PyObject *exception) noexcept {
    const Ref code = Ref::steal(PyObject_GetAttrString(exception, "code"));
    PyErr_Clear();
    return code.get() == Py_None;
}

// Python's own reading of SystemExit.code: none is 0, an int is itself, anything else is printed and is 1.
std::int32_t readExitCode(PyObject *exception) noexcept {
    Ref code = Ref::steal(PyObject_GetAttrString(exception, "code"));
    if (!code || code.get() == Py_None) {
        PyErr_Clear();
        return 0;
    }
    if (PyLong_Check(code.get())) {
        const long value = PyLong_AsLong(code.get()); // beyond a long: -1, as Python has it
        PyErr_Clear();
        return static_cast<std::int32_t>(value);
    }
    const Ref standardError = Ref::borrow(PySys_GetObject("stderr")); // writing may take it out of sys
    if (standardError && standardError.get() != Py_None) {
        PyFile_WriteObject(code.get(), standardError.get(), Py_PRINT_RAW);
        PyFile_WriteString("\n", standardError.get());
    }
    PyErr_Clear();
    return 1;
}

} // namespace

void installExceptHook() noexcept {
    Ref hook = Ref::steal(PyCFunction_New(&exceptHookMethod, nullptr));
    if (!hook || PySys_SetObject("excepthook", hook.get()) != 0) {
        PyErr_Clear(); // the default hook shows a traceback for SystemExit, no more
    }
}

namespace detail {

Ref lastException() noexcept { return Ref::borrow(PySys_GetObject("last_value")); }

std::optional<std::int32_t> exitIfRequested(const Ref &previous) noexcept {
    const Ref exception = lastException();
    if (!exception || exception.get() == previous.get() ||
        PyErr_GivenExceptionMatches(exception.get(), PyExc_SystemExit) == 0) {
        return std::nullopt;
    }
    if (ConsoleThread::instance().hasRaisedSystemExit() && hasNoCode(exception.get())) {
        return std::nullopt;
    }
    const std::int32_t code = readExitCode(exception.get());
    unlocked([code] {
        if (sonetrix_engine_t *engine = sonetrix_engineGet()) {
            sonetrix_engine_SetExitCode(engine, code);
            sonetrix_engine_RequestStop(engine);
        }
    });
    return code;
}

} // namespace detail

} // namespace sonetrix::cli
