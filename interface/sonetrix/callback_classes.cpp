#include "callback_classes.h"

#include "list_key_value.h"
#include "log.h"
#include "python/interpreter_guard.h"

#include <new>

namespace sonetrix {

namespace {

CallbackObject &self(PyObject *object) noexcept { return CallbackObject::of(object); }

void drop(CallbackObject &object) noexcept {
    if (const std::shared_ptr<Registration> registration = object.registration) {
        dropRegistration(*registration);
    }
}

// A part of each object, so of each cycle that the object is in. All finalizers of a cycle run before the garbage
// collector clears anything of it, so whatever the callable uses is still whole when the registration is dropped here.
// The object's own finalizer would not do: a subclass replaces it by defining __del__.
struct Guard {
    PyObject_HEAD;
    CallbackObject *owner;

    static Guard &of(PyObject *object) noexcept { return *reinterpret_cast<Guard *>(object); }

    static int traverse(PyObject *object, visitproc visit, void *arg) noexcept {
        Py_VISIT(Py_TYPE(object));
        return 0;
    }

    static void finalize(PyObject *object) noexcept {
        if (CallbackObject *owner = of(object).owner) {
            drop(*owner);
        }
    }

    static void deallocate(PyObject *object) noexcept {
        PyObject_GC_UnTrack(object);
        freeObject(object);
    }
};

int traverse(PyObject *object, visitproc visit, void *arg) noexcept {
    Py_VISIT(Py_TYPE(object));
    Py_VISIT(self(object).guard);
    if (const Registration *registration = self(object).registration.get()) {
        Py_VISIT(ownedCallable(*registration));
    }
    return 0;
}

int clear(PyObject *object) noexcept {
    drop(self(object));
    if (const Ref guard = Ref::steal(std::exchange(self(object).guard, nullptr))) {
        Guard::of(guard.get()).owner = nullptr;
    }
    return 0;
}

void deallocate(PyObject *object) noexcept {
    PyObject_GC_UnTrack(object);
    clear(object);
    self(object).registration.~shared_ptr();
    freeObject(object);
}

// A subclass hands its constructor's arguments on; they have been taken by __new__.
int initialize(PyObject *, PyObject *, PyObject *) noexcept { return 0; }

} // namespace

Ref allocateCallback(PyTypeObject *type) {
    PyTypeObject *guardClass = heldType(Held::callbackGuardClass);
    Ref object = checked(type->tp_alloc(type, 0));
    CallbackObject &created = self(object.get());
    new (&created.registration) std::shared_ptr<Registration>;
    created.guard = checked(guardClass->tp_alloc(guardClass, 0)).release();
    Guard::of(created.guard).owner = &created;
    return object;
}

void addCallbackClass(PyObject *module, Held place, const Method &constructor, newfunc construct) {
    if (heldOrNull(Held::callbackGuardClass) == nullptr) {
        hold(Held::callbackGuardClass,
            newClass<Guard>(module, "sonetrix.callbackGuard", Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_HAVE_GC,
                {slot(Py_tp_finalize, Guard::finalize), slot(Py_tp_traverse, Guard::traverse),
                    slot(Py_tp_dealloc, Guard::deallocate)}));
    }
    const std::string name = std::string("sonetrix.") + constructor.name;
    const std::string doc = signatureLine(constructor, false) + constructor.doc;
    Ref type = newClass<CallbackObject>(module, name.c_str(), Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
        {slot(Py_tp_doc, doc.c_str()), slot(Py_tp_new, construct), slot(Py_tp_init, initialize),
            slot(Py_tp_traverse, traverse), slot(Py_tp_clear, clear), slot(Py_tp_dealloc, deallocate)});
    checked(PyModule_AddType(module, asType(type)));
    hold(place, std::move(type));
}

// ---------------------------------------------------------------------------------------------------- notifications

void requireOneParameter(PyObject *callback) {
    Ref signature = call(moduleGlobal("signature"_id).get(), callback);
    Ref parameters = attribute(signature.get(), "parameters"_id);
    if (checked(PyObject_Size, parameters.get()) != 1) {
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
    const CallScope scope(user);
    if (!scope) {
        return;
    }
    try {
        Ref dict;
        try {
            dict = borrowedToDict(list);
        } catch (...) {
            reportThrown(notification.reportName);
            dict = checked(PyDict_New());
        }
        const Ref result = Ref::steal(hangingAtFinalisation(PyObject_CallOneArg, scope.callable(), dict.get()));
        if (!result) {
            PyErr_Clear();
            logString(SONETRIX_LOG_WARN, notification.failure);
        }
    } catch (...) {
        reportThrown(notification.reportName);
    }
}

} // namespace sonetrix
