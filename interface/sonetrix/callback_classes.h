// Engine threads -> Python callables: what notifyChanges, notifyMeters and timeout share.
//
// An object of these classes owns a registration (registration.h) and drops it when it is deallocated, or when the
// garbage collector finalizes the cycle that it is in, whichever comes first. An engine thread that calls passes the
// interpreter guard, is refused if it holds the interpreter lock already (notifications), takes the lock and calls. A
// callable's errors end in the engine's log.
#pragma once

#include "module.h"
#include "python/types.h"
#include "registration.h"

#include <memory>

namespace sonetrix {

struct CallbackObject {
    PyObject_HEAD;
    std::shared_ptr<Registration> registration; // none when the interpreter was ending
    PyObject *guard;                            // owned

    static CallbackObject &of(PyObject *object) noexcept { return *reinterpret_cast<CallbackObject *>(object); }
};

// An object of the class, without a registration yet.
Ref allocateCallback(PyTypeObject *type);

// Makes one of the three classes, whose constructor has this signature, and binds it in the module.
void addCallbackClass(PyObject *module, Held place, const Method &constructor, newfunc construct);

// A class's tp_new: `body(type, arguments)` makes the object.
template <const Method &constructor, auto body>
PyObject *construct(PyTypeObject *type, PyObject *positional, PyObject *keywords) noexcept {
    return callSlot(constructor.name, "__new__", [&] {
        std::array<PyObject *, constructor.signature.size()> values{};
        bindArguments(constructor, positional, keywords, values);
        return body(type, Arguments(values.data(), values.size()));
    });
}

// A new object of the class that owns `callback` and what `registerCallback(engine)`, called with the interpreter lock
// released, returns. A null from the engine is left to the caller.
template <class Register>
Ref newCallback(PyTypeObject *type,
    RemoveFunction remove,
    PyObject *callback,
    sonetrix_engine_t *engine,
    Register &&registerCallback) {
    Ref object = allocateCallback(type);
    if (auto registration = beginRegistration(remove, callback)) {
        CallbackObject::of(object.get()).registration = registration;
        completeRegistration(*registration, unlocked(registerCallback, engine));
    }
    return object;
}

// ---------------------------------------------------------------------------------------------------- notifications

// The trampoline's part of a notification: `list` as a dict, given to the callable `user`.
struct Notification {
    const char *lockOrderError;
    const char *failure;
    const char *reportName;
};
void notify(const Notification &notification, sonetrix_cListKeyValue_t *list, void *user) noexcept;

// Refuses a callable that does not take exactly one parameter.
void requireOneParameter(PyObject *callback);

// A new object of a notification's class; MemoryError without an engine, or when it refuses the registration.
template <class Register>
Ref newNotification(PyTypeObject *type, RemoveFunction remove, PyObject *callback, Register &&registerCallback) {
    requireOneParameter(callback);
    sonetrix_engine_t *engine = engineHandle();
    if (engine == nullptr) {
        raise(PyExc_MemoryError);
    }
    Ref object = newCallback(type, remove, callback, engine, registerCallback);
    const auto &registration = CallbackObject::of(object.get()).registration;
    if (registration != nullptr && !isRegistered(*registration)) {
        raise(PyExc_MemoryError);
    }
    return object;
}

} // namespace sonetrix
