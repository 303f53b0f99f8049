// What listValue and listKeyValue share: the object that owns one engine list, its life, and how it is read.
//
// A kind of list is described by its traits:
//   List                              the engine's list
//   create, destroy, copy, merge      the engine's functions for it
//   className, nullMessage            "sonetrix.listValue"; what the factory raises on null
//   equalName, unequalName            of the comparisons, for tracebacks
//   pythonClass                       where the Python class is held
#pragma once

#include "python/interpreter_guard.h"
#include "python/types.h"
#include "value.h"

#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <vector>

namespace sonetrix {

// The Python object. It shares its engine list, copy on write, with whoever reads that and does not expect it to
// change: the engine, called with the interpreter lock released, or a for-each, during which a finalizer may run. They
// hold a copy of the pointer, made and dropped with the lock held.
template <class Traits> struct ListObject {
    using List = typename Traits::List;

    PyObject_HEAD;
    std::shared_ptr<List> list; // null until something is stored; never null again after that

    // The engine list, to be written to.
    List *writable() {
        if (list.use_count() != 1) [[unlikely]] {
            list = own(list == nullptr ? Traits::create() : Traits::copy(list.get()));
        }
        return list.get();
    }

    static ListObject &of(PyObject *object) noexcept { return *reinterpret_cast<ListObject *>(object); }
    static ListObject &of(const Ref &object) noexcept { return of(object.get()); }

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
            raiseArgumentType(argument, Traits::className, given);
        }
        return of(given);
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
        return exceptionBoundary(
            Traits::className, static_cast<PyObject *>(nullptr), [type] { return allocate(type).release(); });
    }

    static void deallocate(PyObject *object) noexcept {
        PyTypeObject *type = Py_TYPE(object);
        of(object).list.~shared_ptr();
        type->tp_free(object);
        Ref::steal(reinterpret_cast<PyObject *>(type));
    }

    static PyObject *compare(PyObject *object, PyObject *other, int operation) noexcept {
        if (operation != Py_EQ && operation != Py_NE) {
            return Py_NewRef(Py_NotImplemented);
        }
        const char *name = operation == Py_EQ ? Traits::equalName : Traits::unequalName;
        return exceptionBoundary(name, static_cast<PyObject *>(nullptr), [&] {
            const bool equal = other != Py_None && of(object).list == require("other", other).list;
            return boolean(equal == (operation == Py_EQ)).release();
        });
    }

    // -------------------------------------------------------------------------------------------- shared methods

    static Ref dup(ListObject &self) { return self.list == nullptr ? newEmpty() : init(Traits::copy(self.list.get())); }

    static Ref merge(ListObject &self, Arguments arguments) {
        ListObject &other = require("other", arguments[0]);
        List *list = self.writable();
        if (&self != &other) { // a list merged with itself stays as it is
            Traits::merge(list, other.list == nullptr ? nullptr : other.writable());
        }
        return none();
    }

    static Ref refuseReduce(ListObject &) {
        raise(PyExc_TypeError, "no default __reduce__ due to non-trivial __cinit__");
    }

    static constexpr const char *reduceDoc = "Lists wrap an object of the engine and cannot be pickled.";

    // Makes the class and binds it in the module.
    static void addClass(PyObject *module, const char *doc, std::span<const Method> methods) {
        Ref type = newClass<ListObject>(module, Traits::className, Py_TPFLAGS_BASETYPE,
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

// One reading of an engine list. The engine's for-each hands the callback the Python container as user data; what is
// read for the container of a reading is collected there, so that the result can be made in its final size at once.
// All of it is guarded by the interpreter lock.
class ListReading {
public:
    explicit ListReading(Ref container) noexcept
        : container_(std::move(container)), outer_(std::exchange(innermost_, this)), items_(std::move(spare_)) {}
    ~ListReading();
    ListReading(const ListReading &) = delete;
    ListReading &operator=(const ListReading &) = delete;

    PyObject *container() const noexcept { return container_.get(); }

    // The reading that fills the container, or null.
    static ListReading *of(const void *container) noexcept {
        ListReading *reading = innermost_;
        while (reading != nullptr && reading->container_.get() != container)
            [[unlikely]] { reading = reading->outer_; }
        return reading;
    }

    void add(Ref item) { items_.push_back(std::move(item)); }
    void add(Ref key, Ref value) {
        if (items_.capacity() - items_.size() < 2) {
            items_.reserve(2 * items_.size() + 2); // both or none
        }
        items_.push_back(std::move(key));
        items_.push_back(std::move(value));
    }
    std::size_t size() const noexcept { return items_.size(); }

    // The list of all items, or the dict of all pairs of items.
    Ref takeList();
    Ref takeDict();

private:
    Ref container_;
    ListReading *outer_; // a finalizer, or another thread, may read a list during a reading
    std::vector<Ref> items_;

    static inline constinit ListReading *innermost_ = nullptr;
    // The memory of the last reading, for the next one.
    static inline std::vector<Ref> spare_;
};

// The body of a read callback: stores one record by `store(record, reading, container)`; `reading` is null for a
// container that no reading is for. The engine may call on any thread, with the interpreter lock held and without.
template <class Record, class Store> std::int32_t readRecord(const Record *record, void *user, Store &&store) noexcept {
    std::optional<EngineThreadEntry> entry;
    if (!holdsGil()) [[unlikely]] {
        entry.emplace(EngineThreadEntry::LockOrder::ignore);
        if (!*entry) {
            return -1;
        }
    }
    try {
        store(*record, ListReading::of(user), static_cast<PyObject *>(user));
        return 0;
    } catch (...) {
        // The element is left out of the result.
        translateException();
        PyErr_Clear();
        return -1;
    }
}

// For the typed callbacks: whether the user data is the container that it should be; reported as unraisable if not.
template <class Check> bool isContainer(PyObject *user, Check &&check, const char *expected, const char *reportName) {
    if (check(user)) {
        return true;
    }
    try {
        raiseExpected(expected, user);
    } catch (const PythonError &) {
        addTraceback(reportName);
        reportUnraisable(reportName);
    }
    return false;
}

} // namespace sonetrix
