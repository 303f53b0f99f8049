#pragma once

#include "finalisation.h"
#include "non_copyable.h"
#include "python.h"

#include <utility>

namespace sonetrix {

// An owned reference, or none. A raw `PyObject *` in this library is a borrowed one unless it is said to be owned.
// Making, copying and dropping a Ref needs the interpreter lock.
class Ref {
public:
    Ref() noexcept = default;
    // Takes over the reference that the caller owns.
    static Ref steal(PyObject *object) noexcept { return Ref(object); }
    // Takes a reference of its own.
    static Ref borrow(PyObject *object) noexcept { return Ref(Py_XNewRef(object)); }

    Ref(const Ref &other) noexcept : object_(Py_XNewRef(other.object_)) {}
    Ref(Ref &&other) noexcept : object_(other.release()) {}
    // By swap: the old object is dropped last, when this Ref already holds the new one.
    Ref &operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    // With the last reference may go code of a script's.
    ~Ref() { hangingAtFinalisation(Py_XDECREF, object_); }

    PyObject *get() const noexcept { return object_; }
    // Hands the reference over to the caller.
    [[nodiscard]] PyObject *release() noexcept { return std::exchange(object_, nullptr); }
    void reset() noexcept { *this = Ref(); }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    explicit Ref(PyObject *owned) noexcept : object_(owned) {}

    PyObject *object_ = nullptr;
};

inline Ref none() noexcept { return Ref::borrow(Py_None); }
inline Ref boolean(bool value) noexcept { return Ref::borrow(value ? Py_True : Py_False); }

} // namespace sonetrix
