// What listValue and listKeyValue share: the object that owns one engine list, its life, and how it is read.
//
// A kind of list is described by its traits:
//   List                              the engine's list
//   create, destroy, copy, merge      the engine's functions for it
//   forEach, newContainer             its reading, and the Python container for that with room for so many elements
//   name, nullMessage                 of the Python class; what the factory raises on null
//   pythonClass                       where the Python class is held
#pragma once

#include "python/interpreter_guard.h"
#include "python/types.h"
#include "value.h"

#include <algorithm>
#include <memory>
#include <new>
#include <optional>

namespace sonetrix {

// There may be far fewer elements than expected, when keys recur or are removed again.
constexpr Py_ssize_t mostRoom = 1 << 17;

// The Python object. It shares its engine list, copy on write, with whoever reads that and does not expect it to
// change: the engine, called with the interpreter lock released, or a for-each, during which a finalizer may run. They
// hold a copy of the pointer, made and dropped with the lock held.
template <class Traits> struct ListObject {
    using List = typename Traits::List;

    PyObject_HEAD;
    std::shared_ptr<List> list; // null until something is stored; never null again after that
    Py_ssize_t expected;        // elements: so many were added since the last reading, and read then

    // The engine list, to be written to.
    List *writable() {
        if (list.use_count() != 1) [[unlikely]] {
            list = own(list == nullptr ? Traits::create() : Traits::copy(list.get()));
        }
        return list.get();
    }
    // The same, for one more element.
    List *growing() {
        ++expected;
        return writable();
    }

    static ListObject &of(PyObject *object) noexcept { return *reinterpret_cast<ListObject *>(object); }
    static ListObject &of(const Ref &object) noexcept { return of(object.get()); }

    static std::string className() { return std::string("sonetrix.") + Traits::name; }
    static PyTypeObject *pythonClass() { return heldType(Traits::pythonClass); }

    static Ref newEmpty() { return allocate(pythonClass()); }

    // Wraps an engine list and owns it from then on; Exception on null.
    static Ref init(List *list) {
        if (list == nullptr) {
            raisePlain(Traits::nullMessage);
        }
        std::shared_ptr<List> owner = own(list);
        Ref object = newEmpty();
        of(object).list = std::move(owner);
        return object;
    }
    // The same, where null stands for a list without elements.
    static Ref initOrEmpty(List *list) { return list == nullptr ? newEmpty() : init(list); }

    // Refuses anything but an object of this class or a subclass.
    static ListObject &require(const char *argument, PyObject *given) {
        if (PyObject_TypeCheck(given, pythonClass()) == 0) {
            raiseArgumentType(argument, className().c_str(), given);
        }
        return of(given);
    }

    // What `callback` stores when the engine goes through the list.
    template <class Callback> static Ref read(List *list, Py_ssize_t expected, Callback callback) {
        Ref container = Traits::newContainer(std::min(expected, mostRoom));
        if (list != nullptr) {
            Traits::forEach(list, callback, container.get());
        }
        return container;
    }

    // ------------------------------------------------------------------------------------------- the Python class

    static PyObject *construct(PyTypeObject *type, PyObject *positional, PyObject *keywords) noexcept {
        const bool extra = PyTuple_GET_SIZE(positional) != 0 || (keywords != nullptr && PyDict_GET_SIZE(keywords) != 0);
        // A subclass with an __init__ of its own may take what it likes, as with any object.
        if (extra && type->tp_init == PyBaseObject_Type.tp_init) {
            PyErr_Format(PyExc_TypeError, "%s() takes no arguments (%zd given)", type->tp_name,
                PyTuple_GET_SIZE(positional) + (keywords == nullptr ? 0 : PyDict_GET_SIZE(keywords)));
            return nullptr;
        }
        return callSlot(Traits::name, "__new__", [type] { return allocate(type); });
    }

    static void deallocate(PyObject *object) noexcept {
        of(object).list.~shared_ptr();
        freeObject(object);
    }

    static PyObject *compare(PyObject *object, PyObject *other, int operation) noexcept {
        if (operation != Py_EQ && operation != Py_NE) {
            return Py_NewRef(Py_NotImplemented);
        }
        return callSlot(Traits::name, operation == Py_EQ ? "__eq__" : "__ne__", [&] {
            const bool equal = other != Py_None && of(object).list == require("other", other).list;
            return boolean(equal == (operation == Py_EQ));
        });
    }

    // -------------------------------------------------------------------------------------------- shared methods

    static Ref dup(ListObject &self) {
        Ref copy = self.list == nullptr ? newEmpty() : init(Traits::copy(self.list.get()));
        of(copy).expected = self.expected;
        return copy;
    }

    static Ref merge(ListObject &self, Arguments arguments) {
        ListObject &other = require("other", arguments[0]);
        List *list = self.writable();
        if (&self != &other) { // a list merged with itself stays as it is
            Traits::merge(list, other.list == nullptr ? nullptr : other.writable());
            self.expected += std::exchange(other.expected, 0);
        }
        return none();
    }

    static Ref refuseReduce(ListObject &) {
        raise(PyExc_TypeError, "no default __reduce__ due to non-trivial __cinit__");
    }

    static constexpr const char *dupDoc =
        "Duplicates the list, by returning a new objects with a newly allocated list copied from the original.";
    static constexpr const char *mergeDoc =
        "Merges the current object with another list. The other list will be emptied of its values.";
    static constexpr const char *reduceDoc = "Lists wrap an object of the engine and cannot be pickled.";

    // Makes the class and binds it in the module.
    static void addClass(PyObject *module, const char *doc, std::span<const Method> methods) {
        Ref type = newClass<ListObject>(module, className().c_str(), Py_TPFLAGS_BASETYPE,
            {slot(Py_tp_doc, doc), slot(Py_tp_new, construct), slot(Py_tp_dealloc, deallocate),
                slot(Py_tp_richcompare, compare), slot(Py_tp_hash, PyObject_HashNotImplemented)});
        addMethods(asType(type), methods);
        checked(PyModule_AddType(module, asType(type)));
        original_.remember(asType(type));
        hold(Traits::pythonClass, std::move(type));
    }

    // Whether the object is of this very class, and the class still as it was made: then its methods are those here.
    static bool hasOriginalMethods(PyObject *object) { return Py_IS_TYPE(object, pythonClass()) && isOriginalClass(); }
    static bool isOriginalClass() { return original_.isUnchanged(pythonClass()); }

private:
    static Ref allocate(PyTypeObject *type) {
        Ref object = checked(type->tp_alloc(type, 0));
        new (&of(object).list) std::shared_ptr<List>;
        return object;
    }

    // Destroys the list when it throws std::bad_alloc, also for null.
    static std::shared_ptr<List> own(List *list) {
        if (list == nullptr) {
            throw std::bad_alloc();
        }
        return {list, Traits::destroy};
    }

    static inline OriginalClass original_;
};

// The body of a read callback: stores one record in the Python container that the engine was given as user data, by
// `store(record, container)`. The engine may call on any thread, with the interpreter lock held and without.
template <class Record, class Store> std::int32_t readRecord(const Record *record, void *user, Store &&store) noexcept {
    std::optional<EngineThreadEntry> entry;
    if (!holdsGil()) [[unlikely]] {
        entry.emplace(EngineThreadEntry::LockOrder::ignore);
        if (!*entry) {
            return -1;
        }
    }
    try {
        store(*record, static_cast<PyObject *>(user));
        return 0;
    } catch (...) {
        // The element is left out of the result.
        translateException();
        PyErr_Clear();
        return -1;
    }
}

// For the typed callbacks, when the user data is not the container that it should be: reported as unraisable.
inline void reportContainer(PyObject *user, const char *expected, const char *reportName) noexcept {
    try {
        raiseExpected(expected, user);
    } catch (...) {
        reportThrown(reportName);
    }
}

} // namespace sonetrix
