#include "callback_bridge.h"

#include "callback_reaper.h"
#include "key_cache.h"
#include "list_key_value.h"
#include "log.h"

namespace sonetrix {

namespace {

using namespace std::chrono_literals;

// How long the interpreter's end waits for a callable that is running on an engine thread.
constexpr std::chrono::milliseconds lastCallLimit = 5s;
// And for Python threads in functions of this library.
constexpr std::chrono::milliseconds lastFrameLimit = 1s;

Name signatureName("signature");
Name parametersName("parameters");

// All registrations, oldest first; guarded by the interpreter lock.
CallbackObject *oldest = nullptr;
CallbackObject *newest = nullptr;
bool ending = false;
int beginning = 0;    // registrations that the engine may have, and that are not in the list yet
bool overdue = false; // a callable has not returned within the limit: it is not waited for again

void link(CallbackObject &object) noexcept {
    object.previous = newest;
    (newest == nullptr ? oldest : newest->next) = &object;
    newest = &object;
}

void unlink(CallbackObject &object) noexcept {
    (object.previous == nullptr ? oldest : object.previous->next) = object.next;
    (object.next == nullptr ? newest : object.next->previous) = object.previous;
    object.previous = nullptr;
    object.next = nullptr;
}

bool isRegistered(const PyObject *callback, const CallbackKind *kind) noexcept {
    const CallbackObject *object = oldest;
    while (object != nullptr && (object->callback != callback || object->kind != kind)) {
        object = object->next;
    }
    return object != nullptr;
}

// Whether, beside one that is in the list no more, the engine may have other registrations of the callable.
bool hasOthers(const PyObject *callback, const CallbackKind *kind) noexcept {
    return beginning != 0 || awaitsRemoval(kind->remove, callback) || isRegistered(callback, kind);
}

CallbackObject &self(PyObject *object) noexcept { return *reinterpret_cast<CallbackObject *>(object); }

// Ends the registration, if there is one. The object leaves the list before the lock is given up, so that two threads
// cannot both end it.
void unregister(CallbackObject &object) noexcept {
    void *handle = std::exchange(object.handle, nullptr);
    if (handle == nullptr) {
        return;
    }
    unlink(object);
    sonetrix_engine_t *engine = engineHandle();
    if (engine == nullptr) {
        return;
    }
    if (ending || CallScope::mustNotWaitFor(object)) {
        const Removal removal = {object.kind->remove, engine, handle, Py_NewRef(object.callback)};
        if (removeLater(removal)) {
            return;
        }
        Ref::steal(removal.callback);
    }
    unlocked([&] { object.kind->remove(engine, handle); });
}

// A part of each object, so of each cycle that the object is in. All finalizers of a cycle run before the garbage
// collector clears anything of it, so whatever the callable uses is still whole when the registration ends here. The
// object's own finalizer would not do: a subclass replaces it by defining __del__.
struct Guard {
    PyObject_HEAD CallbackObject *owner;

    static Guard &of(PyObject *object) noexcept { return *reinterpret_cast<Guard *>(object); }

    static int traverse(PyObject *object, visitproc visit, void *arg) noexcept {
        Py_VISIT(Py_TYPE(object));
        return 0;
    }

    static void finalize(PyObject *object) noexcept {
        if (CallbackObject *owner = of(object).owner) {
            unregister(*owner);
        }
    }

    static void deallocate(PyObject *object) noexcept {
        PyObject_GC_UnTrack(object);
        PyTypeObject *type = Py_TYPE(object);
        type->tp_free(object);
        Ref::steal(reinterpret_cast<PyObject *>(type));
    }
};

int traverse(PyObject *object, visitproc visit, void *arg) noexcept {
    Py_VISIT(Py_TYPE(object));
    Py_VISIT(self(object).callback);
    Py_VISIT(self(object).guard);
    return 0;
}

int clear(PyObject *object) noexcept {
    unregister(self(object));
    if (const Ref guard = Ref::steal(std::exchange(self(object).guard, nullptr))) {
        Guard::of(guard.get()).owner = nullptr;
    }
    Ref::steal(std::exchange(self(object).callback, nullptr));
    return 0;
}

void deallocate(PyObject *object) noexcept {
    PyObject_GC_UnTrack(object);
    clear(object);
    PyTypeObject *type = Py_TYPE(object);
    type->tp_free(object);
    Ref::steal(reinterpret_cast<PyObject *>(type));
}

} // namespace

namespace detail {

CallbackObject &allocateCallback(Ref &object, PyTypeObject *type, const CallbackKind &kind, PyObject *callback) {
    PyTypeObject *guardClass = asType(state().callbackGuardClass);
    if (guardClass == nullptr) {
        raiseModuleGone(); // a finalizer's, at the interpreter's end
    }
    object = checked(type->tp_alloc(type, 0)); // zeroed
    CallbackObject &created = self(object.get());
    created.kind = &kind;
    created.callback = Py_NewRef(callback);
    Ref guard = checked(guardClass->tp_alloc(guardClass, 0));
    Guard::of(guard.get()).owner = &created;
    created.guard = guard.release();
    return created;
}

bool registrationsEnded() noexcept { return ending; }

void beginRegistration() noexcept { ++beginning; }

void endRegistration(CallbackObject &object, void *handle) noexcept {
    --beginning;
    object.handle = handle;
    if (handle != nullptr) {
        link(object);
    }
    if (ending) {
        unregister(object);
    }
}

} // namespace detail

Ref addCallbackClass(PyObject *module, const char *name, const char *doc, newfunc construct) {
    if (!state().callbackGuardClass) {
        state().callbackGuardClass =
            newClass<Guard>(module, "sonetrix.callbackGuard", Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_HAVE_GC,
                {slot(Py_tp_finalize, Guard::finalize), slot(Py_tp_traverse, Guard::traverse),
                    slot(Py_tp_dealloc, Guard::deallocate)});
    }
    Ref type = newClass<CallbackObject>(module, name, Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
        {slot(Py_tp_doc, doc), slot(Py_tp_new, construct), slot(Py_tp_traverse, traverse), slot(Py_tp_clear, clear),
            slot(Py_tp_dealloc, deallocate)});
    checked(PyModule_AddType(module, asType(type)));
    return type;
}

constinit thread_local CallScope *CallScope::innermost_ = nullptr;
CallScope *CallScope::all_ = nullptr;

CallScope::CallScope(void *user, const CallbackKind &kind) noexcept
    : callable_(Ref::borrow(static_cast<PyObject *>(user))),
      called_(callable_.get()),
      kind_(&kind),
      outer_(std::exchange(innermost_, this)),
      next_(std::exchange(all_, this)) {
    if (next_ != nullptr) {
        next_->previous_ = this;
    }
}

CallScope::~CallScope() {
    callable_.reset(); // with the last reference go other objects, from inside the call
    innermost_ = outer_;
    (previous_ == nullptr ? all_ : previous_->next_) = next_;
    if (next_ != nullptr) {
        next_->previous_ = previous_;
    }
}

bool CallScope::mustNotWaitFor(const CallbackObject &object) noexcept {
    return innermost_ != nullptr &&
           (!innermost_->mayBeOf(object) || isElsewhere(object) || hasOthers(object.callback, object.kind));
}

bool CallScope::isElsewhere(const CallbackObject &object) noexcept {
    for (const CallScope *call = all_; call != nullptr; call = call->next_) {
        if (call->thread_ != &innermost_ && call->mayBeOf(object)) {
            return true;
        }
    }
    return false;
}

bool CallScope::isOfTheDropped() const noexcept {
    // Which of a callable's registrations a call is for, nobody knows.
    return awaitsRemoval(kind_->remove, called_) && beginning == 0 && !isRegistered(called_, kind_);
}

void requireRegistered(const Ref &object) {
    if (self(object.get()).handle == nullptr && !ending) {
        raise(PyExc_MemoryError);
    }
}

void requireOneParameter(PyObject *callback) {
    Ref signature = call(moduleGlobal(signatureName).get(), callback);
    Ref parameters = attribute(signature.get(), parametersName);
    const Py_ssize_t count = PyObject_Size(parameters.get());
    if (count < 0) {
        throw PythonError();
    }
    if (count != 1) {
        raise(PyExc_ValueError, "The callback must have only one parameter");
    }
}

void notify(const Notification &notification, sonetrix_cListKeyValue_t *list, void *user) noexcept {
    const EngineThreadEntry entry(EngineThreadEntry::LockOrder::check);
    if (entry.heldAlready()) {
        sonetrix_log_LogString(SONETRIX_LOG_ERROR, "python", 0, 1, notification.lockOrderError);
        return;
    }
    if (!entry) {
        return;
    }
    const CallScope scope(user, *notification.kind);
    if (scope.isOfTheDropped()) {
        return;
    }
    try {
        Ref dict;
        try {
            dict = toDict(list);
        } catch (...) {
            translateException();
            reportUnraisable(notification.reportName);
            dict = checked(PyDict_New());
        }
        const Ref result =
            Ref::steal(takeLockOrPark([&] { return PyObject_CallOneArg(scope.callable(), dict.get()); }));
        if (!result) {
            PyErr_Clear();
            logFromBridge(SONETRIX_LOG_WARN, notification.failure);
        }
    } catch (...) {
        translateException();
        reportUnraisable(notification.reportName);
    }
}

void endRegistrations() noexcept {
    ending = true;
    while (oldest != nullptr) {
        const Ref object = Ref::borrow(reinterpret_cast<PyObject *>(oldest));
        unregister(self(object.get()));
    }
    if (!overdue) {
        overdue = !unlocked([] { return waitForRemovals(lastCallLimit); });
    }
}

bool closeLibrary() noexcept {
    if (!interpreterGate().isClosed()) {
        endRegistrations();
        dropKeyCache();
    }
    const std::chrono::milliseconds limit = overdue ? 0ms : lastCallLimit;
    const bool allOut = unlocked([limit] {
        const bool reaped = endReaper(limit);
        return interpreterGate().close(reaped ? limit : 0ms) && reaped;
    });
    overdue = overdue || !allOut;
    return LibraryFrame::close(lastFrameLimit) && allOut;
}

} // namespace sonetrix
