// The module's one state, and what every class of it uses: the engine handle and look-ups in the module's namespace.
#pragma once

#include "python/convert.h"
#include "python/function.h"
#include "python/names.h"

#include <sonetrix/engine_api.h>

namespace sonetrix {

// The module's strong references. There is one interpreter and one module per process, so there is one
// state; it lives from the module's import to the end of its interpreter.
struct ModuleState {
    PyObject *module = nullptr;      // borrowed: the module owns the state
    PyObject *moduleNames = nullptr; // borrowed: the module's namespace
    Ref engineClass;
    Ref logClass;
    Ref listValueClass;
    Ref listKeyValueClass;
    Ref notifyChangesClass;
    Ref notifyMetersClass;
    Ref timeoutClass;
    Ref callbackGuardClass;
    Ref ctypes;         // the module, as it was imported
    Ref clearCallbacks; // list of callables, in the order of their registration
};

// Without references once the module is gone: what it made may outlive it. A module whose import failed for want of an
// engine keeps its state, as long as it lives and no other is imported.
ModuleState &state() noexcept;

namespace detail {
inline constinit sonetrix_engine_t *engine = nullptr;
} // namespace detail

// The engine handle, null until engine.initEngine() has succeeded.
inline sonetrix_engine_t *engineHandle() noexcept { return detail::engine; }
inline void setEngineHandle(sonetrix_engine_t *engine) noexcept { detail::engine = engine; }
// The handle, or Exception with the message.
inline sonetrix_engine_t *requireEngine(const char *message = "engine not initialized") {
    sonetrix_engine_t *engine = engineHandle();
    if (engine == nullptr) [[unlikely]] {
        raisePlain(message);
    }
    return engine;
}

// For what needs the module when that is gone.
[[noreturn]] void raiseModuleGone();

// A global of the module as Python code in it would see it: the module's namespace, then the builtins.
Ref moduleGlobal(const Name &name);
// Attribute look-up and call by name: what `object.name` and `object.name(...)` do.
inline Ref attribute(PyObject *object, const Name &name) { return checked(PyObject_GetAttr(object, name.get())); }
template <class... Args> Ref call(PyObject *callable, Args *...args) {
    return checked(PyObject_CallFunctionObjArgs(callable, args..., nullptr));
}
template <class... Args> Ref callMethod(PyObject *object, const Name &name, Args *...args) {
    return checked(PyObject_CallMethodObjArgs(object, name.get(), args..., nullptr));
}

// The classes, one function each, in the order in which the module makes them.
void addListValue(PyObject *module);
void addListKeyValue(PyObject *module);
void addTimeout(PyObject *module);
void addEngine(PyObject *module);
void addNotifyChanges(PyObject *module);
void addNotifyMeters(PyObject *module);
void addMemory(PyObject *module);
void addLog(PyObject *module);
void addCpu(PyObject *module);
void addUsageInfo(PyObject *module);

// Binds an object to its name in the module.
void bindInModule(PyObject *module, const char *name, const Ref &object);
// Adds a table's functions to the module.
void addFunctions(PyObject *module, std::span<const Method> functions);
// A class's static functions, into its dictionary.
void addStaticFunctions(PyObject *type, std::span<const Method> functions);

} // namespace sonetrix
