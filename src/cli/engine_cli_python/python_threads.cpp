#include "python_threads.h"

#include "host_log.h"
#include "python/ref.h"

namespace sonetrix::cli {

namespace {

// Rests on names of the module threading's own: `_shutdown`, which finalisation calls, and up to 3.12 the locks that it
// waits for. On another thread it would wait for the main one's, too.
constexpr const char *waitScript = R"(
import sys

left = False

def wait(threading):
    global left
    shutdown, threading._shutdown = threading._shutdown, lambda: None
    main = threading.main_thread()
    if hasattr(threading, "_shutdown_locks"):
        threading._shutdown_locks.discard(main._tstate_lock)
    waiter = threading.Thread(target=shutdown, daemon=True)
    waiter.start()
    for seconds, left_behind in (3, False), (12, True):
        waiter.join(seconds)
        if not waiter.is_alive():
            return
        for thread in threading.enumerate():
            if thread is not main and not thread.daemon:
                report(str(thread.name).encode("utf-8", "backslashreplace"), left_behind)
    left = True

try:
    if "threading" in sys.modules:
        wait(sys.modules["threading"])
except KeyboardInterrupt:
    pass
)";

PyObject *report(PyObject *, PyObject *arguments) noexcept {
    PyObject *name = nullptr;
    int leftBehind = 0;
    if (PyArg_ParseTuple(arguments, "Sp", &name, &leftBehind) == 0) {
        return nullptr;
    }
    if (leftBehind == 0) {
        log(SONETRIX_LOG_WARN, "waiting for python thread '%s'", PyBytes_AS_STRING(name));
    } else {
        log(SONETRIX_LOG_ERROR, "python thread '%s' is still running and is left behind", PyBytes_AS_STRING(name));
    }
    return Py_NewRef(Py_None);
}

PyMethodDef reportMethod = {"report", report, METH_VARARGS, nullptr};

} // namespace

bool waitForPythonThreads() noexcept {
    const Ref function = Ref::steal(PyCFunction_New(&reportMethod, nullptr));
    const Ref names = Ref::steal(function ? Py_BuildValue("{sO}", "report", function.get()) : nullptr);
    if (!names || !Ref::steal(PyRun_String(waitScript, Py_file_input, names.get(), names.get()))) {
        PyErr_Print();
    }
#if PY_VERSION_HEX >= 0x030F0000
    return !names || PyDict_GetItemString(names.get(), "left") != Py_True;
#else
    return true;
#endif
}

} // namespace sonetrix::cli
