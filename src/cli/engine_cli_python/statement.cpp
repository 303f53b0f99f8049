#include "statement.h"

#include "python/errors.h"
#include "python/gil.h"
#include "stop_request.h"

#include <sonetrix/engine_api.h>

namespace sonetrix::cli {

namespace {

bool isSilent(PyObject *type) noexcept {
    return PyErr_GivenExceptionMatches(type, PyExc_SystemExit) != 0 ||
           (PyErr_GivenExceptionMatches(type, PyExc_KeyboardInterrupt) != 0 && stopHasInterruptedConsole());
}

// `self` is the interpreter's own hook.
PyObject *exceptHook(PyObject *self, PyObject *arguments) noexcept {
    PyObject *type = PyTuple_GET_SIZE(arguments) > 0 ? PyTuple_GET_ITEM(arguments, 0) : Py_None;
    return isSilent(type) ? Py_NewRef(Py_None) : PyObject_Call(self, arguments, nullptr);
}

PyMethodDef exceptHookMethod = {
    "excepthook", exceptHook, METH_VARARGS, "Displays an exception on sys.stderr; SystemExit asks the engine to stop."};

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

// A SystemExit that is the last exception shown.
Ref lastExit() noexcept {
    PyObject *exception = PySys_GetObject("last_value");
    const bool isExit = exception != nullptr && PyErr_GivenExceptionMatches(exception, PyExc_SystemExit) != 0;
    return isExit ? Ref::borrow(exception) : Ref();
}

} // namespace

void installExceptHook() noexcept {
    PyObject *original = PySys_GetObject("__excepthook__");
    const Ref hook = Ref::steal(original == nullptr ? nullptr : PyCFunction_New(&exceptHookMethod, original));
    if (!hook || PySys_SetObject("excepthook", hook.get()) != 0 || PySys_SetObject("__excepthook__", hook.get()) != 0) {
        PyErr_Clear(); // the default hook shows a traceback for SystemExit, no more
    }
}

StatementResult runStatement(const std::function<int()> &statement) noexcept {
    if (lastExit()) {
        PySys_SetObject("last_value", nullptr);
        PyErr_Clear();
    }
    const int result = statement();
    const Ref exit = result == 0 ? Ref() : lastExit();
    if (!exit) {
        return {result, std::nullopt};
    }
    const std::int32_t code = readExitCode(exit.get());
    unlocked([code] {
        if (sonetrix_engine_t *engine = sonetrix_engineGet()) {
            sonetrix_engine_SetExitCode(engine, code);
            sonetrix_engine_RequestStop(engine);
        }
    });
    return {result, code};
}

} // namespace sonetrix::cli
