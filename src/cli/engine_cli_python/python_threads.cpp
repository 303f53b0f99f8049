#include "python_threads.h"

#include "module.h"

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
    for seconds, write, words in (
            (3, log.warn, "waiting for python thread '%s'"),
            (12, log.error, "python thread '%s' is still running and is left behind")):
        waiter.join(seconds)
        if not waiter.is_alive():
            return
        for thread in threading.enumerate():
            if thread is not main and not thread.daemon:
                name = str(thread.name).encode("utf-8", "backslashreplace").decode()
                write(words % name)
    left = True

try:
    if "threading" in sys.modules:
        wait(sys.modules["threading"])
except KeyboardInterrupt:
    pass
)";

} // namespace

bool waitForPythonThreads() noexcept {
    const Ref names = Ref::steal(Py_BuildValue("{sO}", "log", heldOrNull(Held::logClass)));
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
