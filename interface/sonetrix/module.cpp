// The module `sonetrix`: its creation, `exit`, `add_clear_callback` and the clean-up at the interpreter's end.

#include "module.h"

#include "engine_check.h"
#include "module_init.h"
#include "python/interpreter_guard.h"
#include "registration.h"
#include "shutdown.h"

namespace sonetrix {

namespace {

bool imported = false; // or being so; once and for all: the interpreter guard does not open again

// exit(exitcode=None)
Ref exitEngine(Arguments arguments) {
    sonetrix_engine_t *engine = unlocked(sonetrix_engineGet);
    if (engine == nullptr) {
        return none();
    }
    PyObject *exitCode = arguments.get(0, Py_None);
    if (checked(PyObject_RichCompareBool, exitCode, Py_None, Py_NE) != 0) {
        const std::int32_t code = PyLong_Check(exitCode) ? toInt32(exitCode) : 1;
        unlocked(sonetrix_engine_SetExitCode, engine, code);
    }
    unlocked(sonetrix_engine_RequestStop, engine);
    return none();
}

Ref addClearCallback(Arguments arguments) {
    if (PyCallable_Check(arguments[0]) == 0) {
        raise(PyExc_ValueError);
    }
    checked(PyList_Append(held(Held::clearCallbacks), arguments[0]));
    return none();
}

constexpr Method functions[] = {
    {"exit", "(exitcode: int | None = None)",
        "Requests the engine to stop and returns at once.\n\n"
        "- exitcode: the exit code that the engine's process ends with; None leaves it as it is, and anything that is\n"
        "  neither None nor an int counts as 1. OverflowError beyond a signed 32-bit integer.\n"
        "Does nothing when the process has no engine.",
        function<exitEngine>, Annotations::yes},
    {"add_clear_callback", "(callback)",
        "Registers a callable to be called without arguments when the console is cleaned up.\n\n"
        "Callbacks run in the order of their registration, once for each registration. An exception that one raises\n"
        "is logged, and the next one runs. ValueError when the callback is not callable.",
        function<addClearCallback>},
};

void runClearCallback(PyObject *callback) {
    Ref result = Ref::steal(PyObject_CallNoArgs(callback));
    if (result) {
        return;
    }
    PyErr_Clear();
    Ref message = checked(PyUnicode_FromFormat, "error while running clean callback registered from user: %S",
        attribute(callback, "__name__"_id).get());
    callMethod(moduleGlobal("log"_id).get(), "error"_id, message.get());
}

// The standard modules that the library uses itself; they become names of the module.
void importStandardModules(PyObject *module) {
    Ref inspect = checked(PyImport_ImportModule, "inspect");
    bindInModule(module, "signature", checked(PyObject_GetAttrString, inspect.get(), "signature"));
    for (const char *name : {"time", "math", "ctypes", "traceback", "typing", "os"}) {
        bindInModule(module, name, checked(PyImport_ImportModule, name));
    }
    hold(Held::ctypes, moduleGlobal("ctypes"_id));
}

// For an interpreter that embeds no console of ours; the console ends the library before its exit handlers have run.
Ref endAtExit() {
    shutDown(nullptr);
    return none();
}

constexpr Method endLibrary = {"end_library", "()", "", function<endAtExit>};

// One of gc.callbacks: called with "start" or "stop" and a dict, on any thread, at the interpreter's end, too, when the
// library's functions are refused there.
PyObject *onCollection(PyObject *, PyObject *arguments) noexcept {
    const char *phase = nullptr;
    PyObject *info = nullptr;
    if (PyArg_ParseTuple(arguments, "sO", &phase, &info) == 0) {
        return nullptr;
    }
    setCollecting(std::string_view(phase) == "start");
    return Py_NewRef(Py_None);
}

PyMethodDef collectionHook = {"on_collection", onCollection, METH_VARARGS, nullptr};

// They hold no reference to the module, which is to be collected at the end.
void installHooks() {
    Ref atExit = checked(PyImport_ImportModule, "atexit");
    checked(PyObject_CallMethod, atExit.get(), "register", "O", newFunction(endLibrary, Py_None).get());
    Ref callbacks = checked(PyObject_GetAttrString, checked(PyImport_ImportModule, "gc").get(), "callbacks");
    // With the hook goes what it has said: a script may empty gc.callbacks in the middle of a collection.
    Ref mark = checked(PyCapsule_New(&imported, nullptr, [](PyObject *) { setCollecting(false); }));
    Ref hook = checked(PyCFunction_New, &collectionHook, mark.get());
    checked(PyObject_CallMethod, callbacks.get(), "append", "O", hook.get());
    watchThreads(wakeRemovalWorker);
    watchForksOfRegistrations();
}

// Once per process: whether it is too late for another module.
bool refuseReimport() noexcept {
    if (imported) {
        PyErr_SetString(
            PyExc_ImportError, "Module 'sonetrix' has already been imported. Re-initialisation is not supported.");
        return true;
    }
    return false;
}

void letGo() noexcept {
    for (PyObject *&object : detail::held) {
        Ref::steal(std::exchange(object, nullptr));
    }
}

int execute(PyObject *module) noexcept {
    if (refuseReimport()) {
        return -1;
    }
    imported = true;
    try {
        letGo(); // of a module whose import failed
        detail::module = module;
        InternedString::makeAll();
        hold(Held::builtins, checked(PyImport_ImportModule, "builtins"));

        addListValue(module);
        addListKeyValue(module);
        addTimeout(module);
        addEngine(module);
        addNotifyChanges(module);
        addNotifyMeters(module);
        addMemory(module);
        importStandardModules(module);
        checked(PyModule_AddStringConstant(module, "__version__", SONETRIX_API_VERSION));
        hold(Held::clearCallbacks, checked(PyList_New(0)));
        addFunctions(module, functions);
        addLog(module);
        addCpu(module);
        addUsageInfo(module);

        callMethod(held(Held::engineClass), "initEngine"_id);
        installHooks();
    } catch (...) {
        translateException();
        imported = false;
        return -1;
    }
    return 0;
}

// One interpreter, one module per process: the engine handle and the interpreter guard are the process's.
PyObject *create(PyObject *spec, PyModuleDef *) noexcept {
    if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
        PyErr_SetString(PyExc_ImportError,
            "Interpreter change detected - this module can only be loaded into one interpreter per process.");
        return nullptr;
    }
    if (refuseReimport()) {
        return nullptr;
    }
    Ref name = Ref::steal(PyObject_GetAttrString(spec, "name"));
    return name ? PyModule_NewObject(name.get()) : nullptr;
}

int traverse(PyObject *module, visitproc visit, void *arg) noexcept {
    if (module == detail::module) {
        for (PyObject *object : detail::held) {
            Py_VISIT(object);
        }
    }
    return 0;
}

int clear(PyObject *module) noexcept {
    if (module == detail::module) {
        letGo();
    }
    return 0;
}

void freeModule(void *module) noexcept {
    if (module == detail::module) {
        letGo();
        detail::module = nullptr;
        if (imported) {
            InternedString::dropAll();
        }
    }
}

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void *>(create)},
    {Py_mod_exec, reinterpret_cast<void *>(execute)},
#if PY_VERSION_HEX >= 0x030C0000
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED}, // create() says itself what it refuses
#endif
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "sonetrix",
    "The scripting interface of the running SoneTrix audio engine.",
    0,
    nullptr,
    slots,
    traverse,
    clear,
    freeModule,
};

} // namespace

void detail::raiseModuleGone() { raise(PyExc_RuntimeError, "the module sonetrix is gone"); }

PyObject *moduleNames() {
    if (detail::module == nullptr) {
        detail::raiseModuleGone();
    }
    return PyModule_GetDict(detail::module);
}

Ref moduleGlobal(const InternedString &name) {
    PyObject *found = PyDict_GetItemWithError(moduleNames(), name.get());
    if (found == nullptr && PyErr_Occurred() == nullptr) {
        found = PyDict_GetItemWithError(PyModule_GetDict(held(Held::builtins)), name.get());
    }
    if (found == nullptr) {
        if (PyErr_Occurred() == nullptr) {
            PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.get());
        }
        throw PythonError();
    }
    return Ref::borrow(found);
}

void bindInModule(PyObject *module, const char *name, const Ref &object) {
    checked(PyModule_AddObjectRef(module, name, object.get()));
}

void addFunctions(PyObject *owner, std::span<const Method> table) {
    for (const Method &method : table) {
        checked(PyObject_SetAttrString, owner, method.name, newFunction(method, owner).get());
    }
}

void clearPythonModule() noexcept {
    const GilHeld gil;
    const Ref callbacks = Ref::borrow(heldOrNull(Held::clearCallbacks));
    if (!callbacks) {
        return;
    }
    try {
        Ref message = checked(PyUnicode_FromString("clearing sonetrix Python module"));
        callMethod(moduleGlobal("log"_id).get(), "debug"_id, message.get());
        // By index: a callback may register another one.
        for (Py_ssize_t index = 0; index < PyList_GET_SIZE(callbacks.get()); ++index) {
            runClearCallback(Ref::borrow(PyList_GET_ITEM(callbacks.get(), index)).get());
        }
    } catch (...) {
        reportThrown("sonetrix.clear_python_sonetrix");
    }
}

} // namespace sonetrix

PyObject *PyInit_sonetrix() {
    if (Py_Version >> 16 != PY_VERSION_HEX >> 16) { // no other minor version lays out objects so
        PyErr_Format(PyExc_ImportError, "Module 'sonetrix' was built for Python %d.%d, not for %.100s",
            PY_MAJOR_VERSION, PY_MINOR_VERSION, Py_GetVersion());
        return nullptr;
    }
    if (const std::string mismatch = sonetrix::engineMismatch(); !mismatch.empty()) {
        PyErr_SetString(PyExc_ImportError, mismatch.c_str());
        return nullptr;
    }
    return PyModuleDef_Init(&sonetrix::definition);
}
