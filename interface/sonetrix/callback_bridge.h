// Engine threads -> Python callables: what notifyChanges, notifyMeters and timeout share.
//
//   life       An object of these classes owns a callable and one registration with the engine. The registration ends
//              when the object is deallocated, when the garbage collector finalizes the cycle that it is in, or when
//              the interpreter ends, whichever comes first; always before the callable is let go. So the callable,
//              which is the engine's user pointer, lives as long as the engine may call.
//   a call     An engine thread passes the gate, is refused if it holds the interpreter lock already (notifications),
//              takes the lock, takes a reference to the callable of its own (the callable may drop its object), and
//              calls. A callable's errors end in the engine's log. What can only be for an object that is gone is not
//              called.
//   the engine is called with the interpreter lock released, registration and removal included: removal waits for a
//              call in progress, and that call needs the lock. A callable that drops another's object does not wait
//              at all; see callback_reaper.h.
//   the end    endRegistrations(): those alive are removed in the order in which they were made, and objects made from
//              then on are not registered. closeLibrary(): the gate is closed, and whoever is inside is waited for.
//              A callable that does not return is waited for a limited time only.
#pragma once

#include "clear.h"
#include "module.h"
#include "python/gate.h"
#include "python/gil.h"
#include "python/types.h"

namespace sonetrix {

// What the three classes differ in, for the shared code.
struct CallbackKind {
    void (*remove)(sonetrix_engine_t *engine, void *handle);
};

struct CallbackObject {
    PyObject_HEAD const CallbackKind *kind;
    PyObject *callback; // owned
    PyObject *guard;    // owned; ends the registration when the object is part of a cycle that is collected
    void *handle;       // the engine's; null when not registered
    // The neighbours in the list of all registrations, in the order in which they were made.
    CallbackObject *previous;
    CallbackObject *next;
};

// A new object of the class that owns `callback` and what `registerCallback(engine)`, called with the interpreter lock
// released, returns. A null from the engine is left to the caller.
template <class Register>
Ref newCallback(PyTypeObject *type,
    const CallbackKind &kind,
    PyObject *callback,
    sonetrix_engine_t *engine,
    Register &&registerCallback);

// MemoryError when the engine refused the registration.
void requireRegistered(const Ref &object);

// Makes one of the three classes and binds it in the module.
Ref addCallbackClass(PyObject *module, const char *name, const char *doc, newfunc construct);

// One call of a callable by an engine thread that holds the interpreter lock. It keeps the callable alive, which may
// drop its own object.
class CallScope {
public:
    CallScope(void *user, const CallbackKind &kind) noexcept;
    ~CallScope();
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;

    PyObject *callable() const noexcept { return callable_.get(); }

    // Whether this thread is inside a call and must not wait for the end of the object's, which may be waiting for this
    // one in turn. For its own it does not wait; but which of a callable's registrations a call is for, nobody knows.
    // The object has left the list of registrations.
    static bool mustNotWaitFor(const CallbackObject &object) noexcept;
    // Whether the call is only for registrations whose objects are gone: the engine has them until the reaper gets to
    // them, the script does not.
    bool isOfTheDropped() const noexcept;

private:
    bool mayBeOf(const CallbackObject &object) const noexcept {
        return called_ == object.callback && kind_ == object.kind;
    }
    // Whether another thread is inside a call that may be the object's.
    static bool isElsewhere(const CallbackObject &object) noexcept;

    static constinit thread_local CallScope *innermost_;
    static CallScope *all_; // guarded by the interpreter lock

    Ref callable_;
    PyObject *called_;
    const CallbackKind *kind_;
    CallScope *const *thread_ = &innermost_;
    CallScope *outer_;
    CallScope *previous_ = nullptr;
    CallScope *next_;
};

// The trampoline's part of a notification: `list` as a dict, given to the callable `user`.
struct Notification {
    const CallbackKind *kind;
    const char *lockOrderError;
    const char *failure;
    const char *reportName;
};
void notify(const Notification &notification, sonetrix_cListKeyValue_t *list, void *user) noexcept;

// Refuses a callable that does not take exactly one parameter.
void requireOneParameter(PyObject *callback);

// A new object of a notification's class; see newCallback.
template <class Register>
Ref newNotification(PyTypeObject *type, const CallbackKind &kind, PyObject *callback, Register &&registerCallback);

namespace detail {
bool registrationsEnded() noexcept;
CallbackObject &allocateCallback(Ref &object, PyTypeObject *type, const CallbackKind &kind, PyObject *callback);
// A registration's beginning and end, with the interpreter lock held; in between, the engine may call already.
void beginRegistration() noexcept;
void endRegistration(CallbackObject &object, void *handle) noexcept;
} // namespace detail

template <class Register>
Ref newCallback(PyTypeObject *type,
    const CallbackKind &kind,
    PyObject *callback,
    sonetrix_engine_t *engine,
    Register &&registerCallback) {
    Ref object;
    CallbackObject &created = detail::allocateCallback(object, type, kind, callback);
    if (!detail::registrationsEnded()) {
        detail::beginRegistration();
        detail::endRegistration(created, unlocked([&] { return registerCallback(engine); }));
    }
    return object;
}

template <class Register>
Ref newNotification(PyTypeObject *type, const CallbackKind &kind, PyObject *callback, Register &&registerCallback) {
    requireOneParameter(callback);
    sonetrix_engine_t *engine = engineHandle();
    if (engine == nullptr) {
        raise(PyExc_MemoryError);
    }
    Ref object = newCallback(type, kind, callback, engine, registerCallback);
    requireRegistered(object);
    return object;
}

} // namespace sonetrix
