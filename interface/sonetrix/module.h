// The module's one state, and what every class of it uses: the engine handle and look-ups in the module's namespace.
#pragma once

#include "python/convert.h"
#include "python/function.h"
#include "python/interned_string.h"

#include <sonetrix/engine_api.h>

namespace sonetrix {

// What the module holds references to. There is one interpreter and one module per process, so there is one state; it
// lives from the module's import to the end of its interpreter.
enum class Held : std::size_t {
    engineClass,
    logClass,
    listValueClass,
    listKeyValueClass,
    notifyChangesClass,
    notifyMetersClass,
    timeoutClass,
    callbackGuardClass,
    ctypes,         // the module, as it was imported
    builtins,       // the module
    clearCallbacks, // list of callables, in the order of their registration
    count
};

namespace detail {
inline constinit sonetrix_engine_t *engine = nullptr;
inline constinit PyObject *module = nullptr; // borrowed
// Owned, and null once the module is gone: what it made may outlive it. The interpreter is gone when static objects
// are destroyed, hence no Refs.
inline constinit std::array<PyObject *, static_cast<std::size_t>(Held::count)> held{};
[[noreturn]] void raiseModuleGone();
} // namespace detail

inline PyObject *heldOrNull(Held what) noexcept { return detail::held[static_cast<std::size_t>(what)]; }
// RuntimeError when the module is gone: for what a finalizer may come to at the interpreter's end.
inline PyObject *held(Held what) {
    PyObject *object = heldOrNull(what);
    if (object == nullptr) [[unlikely]] {
        detail::raiseModuleGone();
    }
    return object;
}
inline PyTypeObject *heldType(Held what) { return reinterpret_cast<PyTypeObject *>(held(what)); }
inline void hold(Held what, Ref object) noexcept {
    Ref::steal(std::exchange(detail::held[static_cast<std::size_t>(what)], object.release()));
}

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

// The module's namespace; RuntimeError when it is gone.
PyObject *moduleNames();
// A global of the module as Python code in it would see it: the module's namespace, then the module builtins.
Ref moduleGlobal(const InternedString &name);
// Attribute look-up and call by name: what `object.name` and `object.name(...)` do.
inline Ref attribute(PyObject *object, const InternedString &name) {
    return checked(PyObject_GetAttr, object, name.get());
}
// object[key]
inline Ref item(PyObject *object, const InternedString &key) { return checked(PyObject_GetItem, object, key.get()); }
template <class... Args> Ref call(PyObject *callable, Args *...args) {
    return checked(PyObject_CallFunctionObjArgs, callable, args..., nullptr);
}
template <class... Args> Ref callMethod(PyObject *object, const InternedString &name, Args *...args) {
    return checked(PyObject_CallMethodObjArgs, object, name.get(), args..., nullptr);
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
// Adds a table's functions to the module, or to a class as static ones.
void addFunctions(PyObject *owner, std::span<const Method> functions);

} // namespace sonetrix
