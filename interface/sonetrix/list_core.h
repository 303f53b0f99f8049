// What listValue and listKeyValue share: the object that owns one engine list, its life, and how it is read.
//
// A kind of list is described by its traits:
//   List                              the engine's list
//   create, destroy, copy, merge      the engine's functions for it
//   className, nullMessage            "sonetrix.listValue"; what the factory raises on null
//   equalName, unequalName            of the comparisons, for tracebacks
//   pythonClass()                     the Python class
#pragma once

#include "python/gil.h"
#include "python/types.h"
#include "python/version.h"
#include "value.h"

#include <array>
#include <cstddef>
#include <new>
#include <optional>

namespace sonetrix {

template <class Traits> struct ListObject;

template <class Traits> using OwnedList = std::unique_ptr<typename Traits::List, void (*)(typename Traits::List *)>;

// The use of an object's engine list by somebody who does not expect it to change: the engine, called with the
// interpreter lock released, or a for-each, during which a finalizer may run. Made and ended with the lock held.
template <class Traits> class Loan {
public:
    using List = typename Traits::List;

    explicit Loan(ListObject<Traits> &object) noexcept : object_(&object), list_(object.list), next_(object.loans) {
        object.loans = this;
    }
    ~Loan() {
        if (abandoned_ == nullptr) {
            Loan **link = &object_->loans;
            while (*link != this) {
                link = &(*link)->next_;
            }
            *link = next_;
        }
    }
    Loan(const Loan &) = delete;
    Loan &operator=(const Loan &) = delete;

    List *get() const noexcept { return list_; }

    // Leaves the list to the borrowers, the last of whom destroys it. Without memory for that, nothing changes.
    static void leaveTo(Loan *loans, List *list) {
        const auto shared = std::make_shared<OwnedList<Traits>>(nullptr, Traits::destroy);
        shared->reset(list);
        for (Loan *loan = loans; loan != nullptr; loan = loan->next_) {
            loan->abandoned_ = shared;
        }
    }

private:
    ListObject<Traits> *object_;
    List *list_;
    Loan *next_;
    std::shared_ptr<OwnedList<Traits>> abandoned_;
};

template <class Traits> struct ListObject {
    using List = typename Traits::List;

    PyObject_HEAD List *list; // null until something is stored; never null again after that
    Loan<Traits> *loans;

    // The engine list, to be written to. It is made when it is not there yet. While it is on loan it is left to the
    // borrowers, and the object goes on with a copy.
    List *writable() {
        if (list == nullptr || loans != nullptr) [[unlikely]] {
            replaceList();
        }
        return list;
    }
    [[gnu::noinline, gnu::cold]] void replaceList() {
        OwnedList<Traits> fresh(list == nullptr ? Traits::create() : Traits::copy(list), Traits::destroy);
        if (fresh == nullptr) {
            throw std::bad_alloc();
        }
        if (loans != nullptr) {
            Loan<Traits>::leaveTo(loans, list);
            loans = nullptr;
        }
        list = fresh.release();
    }

    void clearFields() noexcept {
        list = nullptr;
        loans = nullptr;
    }

    static ListObject &of(PyObject *object) noexcept { return *reinterpret_cast<ListObject *>(object); }
    static ListObject &of(const Ref &object) noexcept { return of(object.get()); }

    static PyTypeObject *pythonClass() noexcept { return asType(Traits::pythonClass()); }

    static Ref newEmpty() {
        if (pythonClass() == nullptr) {
            raiseModuleGone();
        }
        Ref object = checked(pythonClass()->tp_alloc(pythonClass(), 0));
        of(object).clearFields();
        return object;
    }

    // Wraps an engine list and owns it from then on; Exception on null.
    static Ref init(List *list) {
        if (list == nullptr) {
            raisePlain(Traits::nullMessage);
        }
        OwnedList<Traits> guard(list, Traits::destroy);
        Ref object = newEmpty();
        of(object).list = guard.release();
        return object;
    }
    // The same, where null stands for a list without elements.
    static Ref initOrEmpty(List *list) { return list == nullptr ? newEmpty() : init(list); }

    // Refuses anything but an object of this class or a subclass.
    static ListObject &require(const char *argument, PyObject *given) {
        if (pythonClass() == nullptr) {
            raiseModuleGone();
        }
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
        PyObject *object = type->tp_alloc(type, 0);
        if (object != nullptr) {
            of(object).clearFields();
        }
        return object;
    }

    static void deallocate(PyObject *object) noexcept {
        PyTypeObject *type = Py_TYPE(object);
        if (List *list = std::exchange(of(object).list, nullptr)) {
            Traits::destroy(list);
        }
        type->tp_free(object);
        Ref::steal(reinterpret_cast<PyObject *>(type));
    }

    static PyObject *compare(PyObject *object, PyObject *other, int operation) noexcept {
        if (operation != Py_EQ && operation != Py_NE) {
            return Py_NewRef(Py_NotImplemented);
        }
        const char *name = operation == Py_EQ ? Traits::equalName : Traits::unequalName;
        return border(name, static_cast<PyObject *>(nullptr), [&] {
            const bool equal = other != Py_None && of(object).list == require("other", other).list;
            return boolean(equal == (operation == Py_EQ)).release();
        });
    }

    // -------------------------------------------------------------------------------------------- shared methods

    static Ref dup(ListObject &self) { return self.list == nullptr ? newEmpty() : init(Traits::copy(self.list)); }

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
    static Ref addClass(PyObject *module, const char *doc, std::span<const Method> methods) {
        Ref type = newClass<ListObject>(module, Traits::className, Py_TPFLAGS_BASETYPE,
            {slot(Py_tp_doc, doc), slot(Py_tp_new, construct), slot(Py_tp_dealloc, deallocate),
                slot(Py_tp_richcompare, compare), slot(Py_tp_hash, PyObject_HashNotImplemented)});
        addMethods(asType(type), methods);
        checked(PyModule_AddType(module, asType(type)));
        original_.remember(asType(type));
        return type;
    }

    // Whether the object is of this very class, and the class still as it was made: then its methods are those here.
    static bool hasOriginalMethods(PyObject *object) noexcept {
        return Py_IS_TYPE(object, pythonClass()) && original_.isUnchanged(pythonClass());
    }

private:
    static inline OriginalClass original_;
};

// One reading of an engine list by the thread that holds the interpreter lock. The engine's for-each hands the callback
// the Python container as user data; when that is the container of the thread's current reading, and the thread has not
// given the lock up since, what is read is collected here, so that the result can be made in its final size at once.
class ListReading {
public:
    explicit ListReading(Ref container) noexcept : container_(std::move(container)), outer_(current_) {
        current_ = this;
    }
    ~ListReading();
    ListReading(const ListReading &) = delete;
    ListReading &operator=(const ListReading &) = delete;

    PyObject *container() const noexcept { return container_.get(); }

    // The reading that fills `user` on this thread, which holds the lock; else null.
    static ListReading *of(const void *user) noexcept {
        ListReading *reading = current_;
        const bool usable =
            reading != nullptr && reading->container_.get() == user && version::holdsLock(reading->thread_);
        return usable ? reading : nullptr;
    }

    void add(Ref item) {
        makeRoom(1);
        items_[size_++] = item.release();
    }
    void add(Ref key, Ref value) {
        makeRoom(2);
        items_[size_++] = key.release();
        items_[size_++] = value.release();
    }
    std::size_t size() const noexcept { return size_; }

    // The list of all items, or the dict of all pairs of items.
    Ref takeList();
    Ref takeDict();

private:
    static constexpr std::size_t usualCount = 128;

    void makeRoom(std::size_t count) {
        if (room_ - size_ < count) [[unlikely]] {
            grow();
        }
    }
    void grow();
    // The next item, from the first one on.
    Ref take() noexcept { return Ref::steal(items_[taken_++]); }

    Ref container_;
    PyThreadState *thread_ = PyThreadState_Get();
    ListReading *outer_; // a finalizer that runs during a reading may read a list, too
    // Owned references, those before `taken_` excepted; most lists need no memory of their own for them.
    std::array<PyObject *, usualCount> usualItems_;
    NativeArray<PyObject *> moreItems_;
    PyObject **items_ = usualItems_.data();
    std::size_t room_ = usualCount;
    std::size_t size_ = 0;
    std::size_t taken_ = 0;

    static inline constinit thread_local ListReading *current_ [[gnu::tls_model("initial-exec")]] = nullptr;
};

// The body of a read callback: stores one record by `store(record, reading, container)`, where `reading` is null when
// the callback was called otherwise than by this thread's own reading. Safe with the interpreter lock held and without.
template <class Record, class Store> std::int32_t readRecord(const Record *record, void *user, Store &&store) noexcept {
    struct Elsewhere {
        explicit Elsewhere(PyObject *object) : container(Ref::borrow(object)) {}
        const GilHeld held;
        const Ref container;
    };
    auto *container = static_cast<PyObject *>(user);
    ListReading *const reading = ListReading::of(user);
    std::optional<Elsewhere> elsewhere;
    if (reading == nullptr) [[unlikely]] {
        elsewhere.emplace(container);
    }
    try {
        store(*record, reading, container);
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
