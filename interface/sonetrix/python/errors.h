// Errors: a failed Python call throws PythonError, with the interpreter's error indicator set, and the exception
// boundary (see function.h) turns it back into the null that the interpreter expects.
#pragma once

#include "ref.h"

#include <concepts>
#include <type_traits>

namespace sonetrix {

// Says that the interpreter's error indicator is set, and nothing else.
struct PythonError {};

[[noreturn]] void raise(PyObject *type);
[[noreturn]] void raise(PyObject *type, const char *message);
// The format is PyErr_Format's.
[[noreturn]] void raiseFormat(PyObject *type, const char *format, ...);

// The result of a Python call that returns a new reference, or throws.
inline Ref checked(PyObject *stolen) {
    if (stolen == nullptr) {
        throw PythonError();
    }
    return Ref::steal(stolen);
}

// The result of a Python call that reports failure by -1, which it may also return without one.
template <class Number>
requires std::is_arithmetic_v<Number> Number checked(Number result) {
    if (result == Number(-1) && PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return result;
}

// checked(call(args...)), for calls that may run Python code.
template <class Call, class... Args>
requires std::invocable<Call, Args...>
auto checked(Call &&call, Args &&...args) {
    return checked(hangingAtFinalisation(std::forward<Call>(call), std::forward<Args>(args)...));
}

// Calls `action(item)` for each item of an iterable.
template <class Action> void forEach(PyObject *iterable, Action &&action) {
    const Ref iterator = checked(PyObject_GetIter, iterable);
    while (const Ref item = Ref::steal(hangingAtFinalisation(PyIter_Next, iterator.get()))) {
        action(item.get());
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
}

// For a handler of `...`: makes whatever was thrown the current Python exception. A thread that the interpreter's
// finalisation is unwinding hangs here; see hangingAtFinalisation().
void translateException() noexcept;

// Makes an exception the one that is being handled, as in the body of an `except`.
class HandledException : NonCopyable {
public:
    explicit HandledException(PyObject *exception) noexcept : outer_(Ref::steal(PyErr_GetHandledException())) {
        PyErr_SetHandledException(exception);
    }
    ~HandledException() { PyErr_SetHandledException(outer_.get()); }

private:
    Ref outer_;
};

// Adds an entry that bears the name ("sonetrix.engine.link") to the current exception's traceback.
void addTraceback(const char *qualifiedName) noexcept;

// Hands the current exception to sys.unraisablehook, the name as its object, so that the interpreter prints
// "Exception ignored in: 'sonetrix....'". With a full traceback, the exception is printed by itself before.
enum class Report { hook, tracebackAndHook };
void reportUnraisable(const char *qualifiedName, Report report = Report::hook) noexcept;

// For a handler of `...` that nothing may leave: reports whatever was thrown, with a traceback entry that bears the
// name.
void reportThrown(const char *qualifiedName, Report report = Report::hook) noexcept;

} // namespace sonetrix
