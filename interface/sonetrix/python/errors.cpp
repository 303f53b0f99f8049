#include "errors.h"

#include "gil.h"

#include <cstdarg>
#include <exception>
#include <new>

namespace sonetrix {

void raise(PyObject *type) {
    PyErr_SetNone(type);
    throw PythonError();
}

void raise(PyObject *type, const char *message) {
    PyErr_SetString(type, message);
    throw PythonError();
}

void raiseFormat(PyObject *type, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    hangingAtFinalisation([&] { PyErr_FormatV(type, format, arguments); }); // it may call __str__
    va_end(arguments);
    throw PythonError();
}

void translateException() noexcept {
    try {
        throw;
    } catch (const PythonError &) {
        // The indicator is set already.
    } catch (const std::bad_alloc &) {
        PyErr_NoMemory();
    } catch (const std::exception &error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    } catch (...) { // nothing else is thrown: the thread is being unwound
        hangThread();
    }
}

void addTraceback(const char *qualifiedName) noexcept {
    Ref frame;
    {
        const RaisedException raised; // making the frame must not see, nor lose, it
        Ref globals = Ref::steal(PyDict_New());
        Ref code = Ref::steal(reinterpret_cast<PyObject *>(PyCode_NewEmpty("<sonetrix>", qualifiedName, 1)));
        if (globals && code) {
            frame = Ref::steal(reinterpret_cast<PyObject *>(PyFrame_New(
                PyThreadState_Get(), reinterpret_cast<PyCodeObject *>(code.get()), globals.get(), nullptr)));
        }
    }
    if (frame) { // without memory for the entry, the exception itself is what matters
        PyTraceBack_Here(reinterpret_cast<PyFrameObject *>(frame.get()));
    }
}

void reportUnraisable(const char *qualifiedName, Report report) noexcept {
    Ref name;
    {
        const RaisedException raised;
        if (raised.get() == nullptr) {
            return;
        }
        if (report == Report::tracebackAndHook) {
            hangingAtFinalisation(PyErr_DisplayException, raised.get());
        }
        name = Ref::steal(PyUnicode_FromString(qualifiedName));
    }
    hangingAtFinalisation(PyErr_WriteUnraisable, name.get());
}

void reportThrown(const char *qualifiedName, Report report) noexcept {
    translateException();
    addTraceback(qualifiedName);
    reportUnraisable(qualifiedName, report);
}

} // namespace sonetrix
