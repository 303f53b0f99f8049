#include "errors.h"

#include "version.h"

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
    PyErr_FormatV(type, format, arguments);
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
    }
}

void addTraceback(const char *qualifiedName) noexcept {
    // The exception is set aside: making the frame must not see, nor lose, it.
    Ref exception = version::takeRaised();
    Ref globals = Ref::steal(PyDict_New());
    Ref code = Ref::steal(reinterpret_cast<PyObject *>(PyCode_NewEmpty("<sonetrix>", qualifiedName, 1)));
    Ref frame;
    if (globals && code) {
        frame = Ref::steal(reinterpret_cast<PyObject *>(
            PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject *>(code.get()), globals.get(), nullptr)));
    }
    PyErr_Clear(); // no memory for the entry: the exception itself is what matters
    version::setRaised(std::move(exception));
    if (frame) {
        PyTraceBack_Here(reinterpret_cast<PyFrameObject *>(frame.get()));
    }
}

void reportUnraisable(const char *qualifiedName, Report report) noexcept {
    Ref exception = version::takeRaised();
    if (!exception) {
        return;
    }
    if (report == Report::tracebackAndHook) {
        version::display(exception.get());
    }
    Ref name = Ref::steal(PyUnicode_FromString(qualifiedName));
    PyErr_Clear();
    version::setRaised(std::move(exception));
    PyErr_WriteUnraisable(name.get());
}

} // namespace sonetrix
