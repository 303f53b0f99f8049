#include "console_access.h"

#include "console.h"
#include "python/errors.h"
#include "statement.h"

#include <cstdio>

extern "C" void double_onStopRequest(void (*hook)());

using namespace sonetrix;
using namespace sonetrix::cli;

namespace {

sonetrix_cliModule_t record{}; // of the console that is running

// construct([(key, text or number)]): whether there is a record. There is none while an interpreter runs, this one.
PyObject *construct(PyObject *, PyObject *entries) {
    sonetrix_cListKeyValue_t *parameters = sonetrix_keyValueListNew();
    for (Py_ssize_t index = 0; index < PyList_GET_SIZE(entries); ++index) {
        const char *key = nullptr;
        PyObject *value = nullptr;
        if (PyArg_ParseTuple(PyList_GET_ITEM(entries, index), "yO", &key, &value) == 0) {
            return nullptr;
        }
        if (PyBytes_Check(value)) {
            sonetrix_keyValueListAddSS(parameters, key, PyBytes_AS_STRING(value));
        } else {
            sonetrix_keyValueListAddSU32(parameters, key, static_cast<std::uint32_t>(PyLong_AsUnsignedLongMask(value)));
        }
    }
    sonetrix_cliModule_t *module = sonetrix_engineCliCostructor(parameters, nullptr);
    sonetrix_keyValueListDestroy(parameters);
    return PyBool_FromLong(module != nullptr);
}

// Runs a statement that raises the exception, for (result, exit code or None).
PyObject *raise(PyObject *, PyObject *exception) {
    const StatementResult outcome = runStatement([exception] {
        PyErr_SetObject(reinterpret_cast<PyObject *>(Py_TYPE(exception)), exception);
        PyErr_Print();
        return -1;
    });
    return outcome.exitCode ? PyLong_FromLong(*outcome.exitCode) : Py_NewRef(Py_None);
}

// Reads the bytes as a statement, as an interactive one if so asked, but does not run it: what raise() gives.
PyObject *compile(PyObject *, PyObject *arguments) {
    const char *text = nullptr;
    int interactive = 0;
    if (PyArg_ParseTuple(arguments, "yp", &text, &interactive) == 0) {
        return nullptr;
    }
    const StatementResult outcome = runStatement([text, interactive] {
        if (Ref::steal(Py_CompileString(text, "__engine__", interactive != 0 ? Py_single_input : Py_file_input))) {
            return 0;
        }
        PyErr_Print();
        return -1;
    });
    return outcome.exitCode ? PyLong_FromLong(*outcome.exitCode) : Py_NewRef(Py_None);
}

// The console on what standard input is now: what its record's `run` gives.
PyObject *run(PyObject *, PyObject *interactive) {
    record = {};
    if (std::freopen(nullptr, "r", stdin) == nullptr) { // what it has read ahead is of another file
        return PyErr_SetFromErrno(PyExc_OSError);
    }
    return PyLong_FromLong(PyObject_IsTrue(interactive) != 0 ? runConsole(record) : runStandardInput());
}

PyMethodDef functions[] = {
    {"construct", construct, METH_O, nullptr},
    {"raise_", raise, METH_O, nullptr},
    {"compile", compile, METH_VARARGS, nullptr},
    {"run", run, METH_O, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "console_access", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

} // namespace

PyObject *newConsoleAccess() {
    installExceptHook();
    double_onStopRequest([] { record.stopRequested = 1; });
    return PyModule_Create(&definition);
}
