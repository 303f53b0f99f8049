// The module `sonetrix`: its creation, `exit`, `add_clear_callback` and the clean-up at the interpreter's end.

#include "module.h"

#include "callback_bridge.h"
#include "clear.h"
#include "engine_check.h"
#include "module_init.h"
#include "python/gil.h"
#include "python/version.h"

#include <new>
#include <utility>

namespace sonetrix {

namespace {

ModuleState *theState = nullptr;
ModuleState noState;
bool importing = false;
bool imported = false; // once and for all: the gate does not open again

Name logName("log");
Name debugName("debug");
Name errorName("error");
Name nameName("__name__");
Name ctypesName("ctypes");
Name initEngineName("initEngine");

// exit(exitcode=None)
Ref exitEngine(Arguments arguments) {
    sonetrix_engine_t *engine = unlocked(sonetrix_engineGet);
    if (engine == nullptr) {
        return none();
    }
    PyObject *exitCode = arguments.get(0, Py_None);
    if (checked(PyObject_RichCompareBool(exitCode, Py_None, Py_NE)) != 0) {
        const std::int32_t code = PyLong_Check(exitCode) ? toInt32(exitCode) : 1;
        unlocked([&] { sonetrix_engine_SetExitCode(engine, code); });
    }
    unlocked([&] { sonetrix_engine_RequestStop(engine); });
    return none();
}

Ref addClearCallback(Arguments arguments) {
    if (PyCallable_Check(arguments[0]) == 0) {
        raise(PyExc_ValueError);
    }
    checked(PyList_Append(state().clearCallbacks.get(), arguments[0]));
    return none();
}

constexpr Method functions[] = {
    {"exit", "(exitcode: int | None = None)",
        "Requests the engine to stop and returns at once.\n\n"
        "- exitcode: the exit code that the engine's process ends with; None leaves it as it is, and anything that is\n"
        "  neither None nor an int counts as 1. OverflowError beyond a signed 32-bit integer.\n"
        "Does nothing when the process has no engine.",
        function<exitEngine>},
    {"add_clear_callback", "(callback)",
        "Registers a callable to be called without arguments when the console is cleaned up.\n\n"
        "Callbacks run in the order of their registration, once for each registration. An exception that one raises "
        "is\n"
        "logged, and the next one runs. ValueError when the callback is not callable.",
        function<addClearCallback>},
};

void runClearCallback(PyObject *callback) {
    Ref result = Ref::steal(PyObject_CallNoArgs(callback));
    if (result) {
        return;
    }
    PyErr_Clear();
    Ref message = checked(PyUnicode_FromFormat(
        "error while running clean callback registered from user: %S", attribute(callback, nameName).get()));
    callMethod(moduleGlobal(logName).get(), errorName, message.get());
}

void importAs(PyObject *module, const char *name) { bindInModule(module, name, checked(PyImport_ImportModule(name))); }

// The standard modules that the library uses itself; they become names of the module.
void importStandardModules(PyObject *module) {
    for (const char *name : {"time", "math", "ctypes", "traceback"}) {
        importAs(module, name);
    }
    state().ctypes = moduleGlobal(ctypesName);
    Ref inspect = checked(PyImport_ImportModule("inspect"));
    bindInModule(module, "signature", checked(PyObject_GetAttrString(inspect.get(), "signature")));
    importAs(module, "typing");
    importAs(module, "os");
}

// An interpreter that embeds no console of ours takes its leave here, at its exit handlers. It goes on to its end even
// when a thread does not come out in time.
Ref endAtExit() {
    closeLibrary();
    return none();
}

constexpr Method atExitFunction = {"close_library", "()", "", function<endAtExit>};

void dropState() noexcept { std::exchange(theState, nullptr)->~ModuleState(); }

// Once per process: whether it is too late for another module.
bool refuseReimport() noexcept {
    if (imported || importing) {
        PyErr_SetString(
            PyExc_ImportError, "Module 'sonetrix' has already been imported. Re-initialisation is not supported.");
        return true;
    }
    return false;
}

int execute(PyObject *module) noexcept {
    if (refuseReimport()) {
        return -1;
    }
    if (theState != nullptr) {
        dropState(); // of a module whose import failed
    }
    importing = true;
    try {
        theState = new (PyModule_GetState(module)) ModuleState;
        ModuleState &created = *theState;
        created.module = module;
        created.moduleNames = PyModule_GetDict(module);
        Name::makeAll();
        addFunctionAttributes();

        addListValue(module);
        addListKeyValue(module);
        addTimeout(module);
        addEngine(module);
        addNotifyChanges(module);
        addNotifyMeters(module);
        addMemory(module);
        importStandardModules(module);
        checked(PyModule_AddStringConstant(module, "__version__", SONETRIX_API_VERSION));
        created.clearCallbacks = checked(PyList_New(0));
        addFunctions(module, functions);
        addLog(module);
        addCpu(module);
        addUsageInfo(module);

        callMethod(created.engineClass.get(), initEngineName);

        Ref atExit = checked(PyImport_ImportModule("atexit"));
        Ref handler = newFunction(atExitFunction, module);
        checked(PyObject_CallMethod(atExit.get(), "register", "O", handler.get()));
    } catch (...) {
        translateException();
        importing = false;
        return -1;
    }
    importing = false;
    imported = true;
    return 0;
}

// One interpreter, one module per process: the engine handle and the callbacks' gate are the process's.
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

// Visits, or lets go of, each strong reference of the state.
template <class Action> void forEachReference(ModuleState &state, Action &&action) {
    for (Ref *reference : {&state.engineClass, &state.logClass, &state.listValueClass, &state.listKeyValueClass,
             &state.notifyChangesClass, &state.notifyMetersClass, &state.timeoutClass, &state.callbackGuardClass,
             &state.ctypes, &state.clearCallbacks}) {
        action(*reference);
    }
}

// The state that execute() made for this very module, if it came that far.
ModuleState *stateOf(PyObject *module) noexcept {
    return theState != nullptr && theState == PyModule_GetState(module) ? theState : nullptr;
}

int traverse(PyObject *module, visitproc visit, void *arg) noexcept {
    if (ModuleState *state = stateOf(module)) {
        int result = 0;
        forEachReference(*state, [&](const Ref &reference) {
            if (result == 0 && reference) {
                result = visit(reference.get(), arg);
            }
        });
        return result;
    }
    return 0;
}

int clear(PyObject *module) noexcept {
    if (ModuleState *state = stateOf(module)) {
        forEachReference(*state, [](Ref &reference) { reference.reset(); });
    }
    return 0;
}

void freeModule(void *module) noexcept {
    if (stateOf(static_cast<PyObject *>(module)) != nullptr) {
        dropState();
        if (imported) {
            Name::dropAll();
        }
    }
}

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void *>(create)},
    {Py_mod_exec, reinterpret_cast<void *>(execute)},
    version::createdInAnyInterpreter(),
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "sonetrix",
    "The scripting interface of the running SoneTrix audio engine.",
    sizeof(ModuleState),
    nullptr,
    slots,
    traverse,
    clear,
    freeModule,
};

} // namespace

ModuleState &state() noexcept { return theState != nullptr ? *theState : noState; }

void raiseModuleGone() { raise(PyExc_RuntimeError, "the module sonetrix is gone"); }

Ref moduleGlobal(const Name &name) {
    PyObject *module = state().module;
    if (module == nullptr) {
        raiseModuleGone();
    }
    PyObject *globals = PyModule_GetDict(module);
    if (PyObject *found = PyDict_GetItemWithError(globals, name.get())) {
        return Ref::borrow(found);
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    PyObject *builtin = PyDict_GetItemWithError(PyEval_GetBuiltins(), name.get());
    if (builtin == nullptr) {
        if (PyErr_Occurred() == nullptr) {
            PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.get());
        }
        throw PythonError();
    }
    return Ref::borrow(builtin);
}

void bindInModule(PyObject *module, const char *name, const Ref &object) {
    checked(PyModule_AddObjectRef(module, name, object.get()));
}

void addFunctions(PyObject *module, std::span<const Method> table) {
    for (const Method &method : table) {
        bindInModule(module, method.name, newFunction(method, module));
    }
}

void addStaticFunctions(PyObject *type, std::span<const Method> table) {
    for (const Method &method : table) {
        checked(PyObject_SetAttrString(type, method.name, newFunction(method, type).get()));
    }
}

void clearPythonModule() noexcept {
    const GilHeld held;
    if (theState == nullptr) {
        return;
    }
    try {
        Ref message = checked(PyUnicode_FromString("clearing sonetrix Python module"));
        callMethod(moduleGlobal(logName).get(), debugName, message.get());
        // By index: a callback may register another one.
        Ref callbacks = state().clearCallbacks;
        for (Py_ssize_t index = 0; index < PyList_GET_SIZE(callbacks.get()); ++index) {
            runClearCallback(Ref::borrow(PyList_GET_ITEM(callbacks.get(), index)).get());
        }
    } catch (...) {
        translateException();
        addTraceback("sonetrix.clear_python_sonetrix");
        reportUnraisable("sonetrix.clear_python_sonetrix");
    }
}

} // namespace sonetrix

PyObject *PyInit_sonetrix() {
    if (!sonetrix::version::matchesHeaders()) {
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
