// Rests on two of the module threading's own names: `_shutdown`, which finalisation calls, and in 3.11 and 3.12
// `_shutdown_locks`, which it waits for.

#include "python_threads.h"

#include "host_log.h"
#include "python/errors.h"

namespace sonetrix::cli {

namespace {

constexpr double patience = 3.0; // seconds, before they are named in the log
constexpr double limit = 15.0;

PyObject *doNothing(PyObject *, PyObject *) noexcept { return Py_NewRef(Py_None); }
PyMethodDef noShutdown = {"_shutdown", doNothing, METH_NOARGS, nullptr};

// Puts a function that does nothing in the place of threading._shutdown, which it returns.
Ref takeShutdown(PyObject *threading) {
    Ref shutdown = checked(PyObject_GetAttrString(threading, "_shutdown"));
    Ref nothing = checked(PyCFunction_New(&noShutdown, nullptr));
    checked(PyObject_SetAttrString(threading, "_shutdown", nothing.get()));
    return shutdown;
}

// On another thread, the wait would be for the main one, too.
void leaveOut(PyObject *mainThread, PyObject *threading) {
    Ref locks = Ref::steal(PyObject_GetAttrString(threading, "_shutdown_locks"));
    if (!locks) {
        PyErr_Clear();
        return;
    }
    Ref mainLock = checked(PyObject_GetAttrString(mainThread, "_tstate_lock"));
    checked(PyObject_CallMethod(locks.get(), "discard", "O", mainLock.get()));
}

// Calls the function on a daemon thread, which it gives.
Ref callOnThread(PyObject *threading, const Ref &function) {
    Ref threadClass = checked(PyObject_GetAttrString(threading, "Thread"));
    Ref arguments = checked(PyTuple_New(0));
    Ref keywords = checked(Py_BuildValue("{sOsO}", "target", function.get(), "daemon", Py_True));
    Ref thread = checked(PyObject_Call(threadClass.get(), arguments.get(), keywords.get()));
    checked(PyObject_CallMethod(thread.get(), "start", nullptr));
    return thread;
}

// Whether the thread ended in time, or Ctrl-C cut the wait short.
bool join(const Ref &thread, double seconds) {
    if (!Ref::steal(PyObject_CallMethod(thread.get(), "join", "d", seconds))) {
        PyErr_Clear();
        return true;
    }
    Ref alive = checked(PyObject_CallMethod(thread.get(), "is_alive", nullptr));
    return checked(PyObject_IsTrue(alive.get())) == 0;
}

void nameThreads(sonetrix_log_level_t level, const LogFormat &format, PyObject *threading, PyObject *mainThread) {
    Ref threads = checked(PyObject_CallMethod(threading, "enumerate", nullptr));
    threads = checked(PySequence_List(threads.get())); // a script may have replaced the function
    for (Py_ssize_t index = 0; index < PyList_GET_SIZE(threads.get()); ++index) {
        PyObject *thread = PyList_GET_ITEM(threads.get(), index);
        Ref daemon = checked(PyObject_GetAttrString(thread, "daemon"));
        if (thread != mainThread && checked(PyObject_IsTrue(daemon.get())) == 0) {
            Ref name = checked(PyObject_Str(checked(PyObject_GetAttrString(thread, "name")).get()));
            const Ref text = checked(PyUnicode_AsEncodedString(name.get(), "utf-8", "backslashreplace"));
            log(level, format, PyBytes_AS_STRING(text.get()));
        }
    }
}

} // namespace

void waitForPythonThreads() noexcept {
    const Ref threading = Ref::borrow(PyDict_GetItemString(PyImport_GetModuleDict(), "threading"));
    if (!threading) {
        return;
    }
    try {
        const Ref shutdown = takeShutdown(threading.get());
        const Ref mainThread = checked(PyObject_CallMethod(threading.get(), "main_thread", nullptr));
        leaveOut(mainThread.get(), threading.get());
        const Ref waiter = callOnThread(threading.get(), shutdown);
        if (join(waiter, patience)) {
            return;
        }
        nameThreads(SONETRIX_LOG_WARN, "waiting for python thread '%s'", threading.get(), mainThread.get());
        if (!join(waiter, limit - patience)) {
            nameThreads(SONETRIX_LOG_ERROR, "python thread '%s' is still running and is left behind", threading.get(),
                mainThread.get());
        }
    } catch (const PythonError &) {
        if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt) != 0) {
            PyErr_Clear();
        } else {
            PyErr_Print();
        }
    }
}

} // namespace sonetrix::cli
