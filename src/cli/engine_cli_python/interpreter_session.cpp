#include "interpreter_session.h"

#include "host_log.h"
#include "module_init.h"
#include "python/errors.h"
#include "python/gil.h"
#include "python_threads.h"
#include "shutdown.h"
#include "statement.h"
#include "stop_request.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <optional>

namespace sonetrix::cli {

namespace {

constexpr const char *promptScript = "import sys\n"
                                     "sys.ps1 = \"engine> \"\n"
                                     "sys.ps2 = \"... \"\n"
                                     "del sys\n";
constexpr const char *pagerScript = "try:\n"
                                    "    import pydoc\n"
                                    "    pydoc.pager = pydoc.plainpager\n"
                                    "except:\n"
                                    "    pass\n";

bool ready = false;

// The standard library's extension modules do not name libpython among their needs; they look its symbols up globally.
// An engine that loads this library with local binding has brought libpython in locally, too.
void makePythonSymbolsGlobal() noexcept {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&Py_InitializeFromConfig), &info) != 0 && info.dli_fname != nullptr) {
        dlopen(info.dli_fname, RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD); // never closed: the interpreter stays loaded
    }
}

PyStatus initialize() noexcept {
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.parse_argv = 0;
    config.interactive = 1;
    config.write_bytecode = 0;
    config.buffered_stdio = 1;
    config.inspect = 1; // an uncaught SystemExit must not end the engine's process; see statement.h
    PyStatus status = PyConfig_SetBytesString(&config, &config.program_name, "engine");
    if (PyStatus_Exception(status) == 0) {
        status = Py_InitializeFromConfig(&config);
    }
    PyConfig_Clear(&config);
    return status;
}

void runScriptFile(const char *path) noexcept {
    std::FILE *file = std::fopen(path, "re");
    if (file == nullptr) {
        log(SONETRIX_LOG_WARN, "execute script file: '%s' not done", path);
        return;
    }
    runStatement([&] { return PyRun_SimpleFileExFlags(file, path, 1, nullptr); });
}

// Frees a string of the record and clears its field.
void consume(char *&text) noexcept { std::free(std::exchange(text, nullptr)); }

void runOrLog(const char *code, const LogFormat &warning) noexcept {
    if (PyRun_SimpleString(code) != 0) {
        log(SONETRIX_LOG_WARN, warning);
    }
}

void clearNamespace() noexcept { runOrLog("globals().clear()\n", "problem while cleaning up CLI global variables"); }

// Ahead of finalisation, which would run them: until now they can count on this library's functions.
void runExitHandlers() noexcept {
    Ref module = Ref::steal(PyImport_ImportModule("atexit"));
    if (!module || !Ref::steal(PyObject_CallMethod(module.get(), "_run_exitfuncs", nullptr))) {
        PyErr_Clear(); // finalisation runs them
    }
}

// Finalisation would put the default disposition in the place of the interpreter's handler, and Ctrl-C would end the
// process before the engine's own disposition is back. One that is ignored, it leaves.
void ignoreSigint() noexcept {
    Ref signals = Ref::steal(PyImport_ImportModule("_signal"));
    for (int attempt = 0; signals && attempt < 10; ++attempt) {
        PyErr_Clear();
        PyOS_InterruptOccurred(); // forgets it
        Ref ignore = Ref::steal(PyObject_GetAttrString(signals.get(), "SIG_IGN"));
        if (ignore && Ref::steal(PyObject_CallMethod(signals.get(), "signal", "iO", SIGINT, ignore.get()))) {
            break;
        }
    }
    PyErr_Clear();
}

// What finalisation would have done.
void flushStandardOutput() noexcept {
    PyObject *output = PySys_GetObject("stdout");
    if (output != nullptr && output != Py_None) {
        Ref::steal(PyObject_CallMethod(output, "flush", nullptr));
        PyErr_Clear();
    }
}

} // namespace

bool registerModule() noexcept {
    // An interpreter that runs already has its table of built-in modules fixed.
    return Py_IsInitialized() == 0 && PyImport_AppendInittab("sonetrix", PyInit_sonetrix) == 0;
}

void startInterpreter(const sonetrix_cliModule_t &module) noexcept {
    makePythonSymbolsGlobal();
    struct sigaction engines {};
    sigaction(SIGINT, nullptr, &engines);
    if (module.sigintMode == 0) {
        signal(SIGINT, [](int) {}); // not the default disposition, so the interpreter leaves it alone
    }
    const PyStatus status = initialize();
    if (module.sigintMode == 0) {
        sigaction(SIGINT, &engines, nullptr);
    }
    if (PyStatus_Exception(status) != 0) {
        log(SONETRIX_LOG_WARN, "error init python");
        return;
    }
    ready = true;
    const GilHeld held;
    installExceptHook();
    runOrLog("from sonetrix import *", "error importing sonetrix");
}

bool interpreterIsReady() noexcept { return ready; }

void setUpConsole(sonetrix_cliModule_t &module) noexcept {
    const GilHeld held;
    if (module.interactive != 0) {
        PyOS_InterruptOccurred(); // forgets a Ctrl-C from before there was a console
    }
    std::optional<SignalMask> unblocked;
    if (module.sigintMode != 0) {
        unblocked.emplace(SIG_UNBLOCK, std::initializer_list<int>{SIGINT});
    }
    runOrLog(promptScript, "problem settings python prompt");
    runOrLog(pagerScript, "problem settings python fix for help pager method");
    if (module.startCode != nullptr) {
        runStatement([&] { return PyRun_SimpleString(module.startCode); });
        consume(module.startCode);
    }
    if (module.scriptPath != nullptr) {
        runScriptFile(module.scriptPath);
        consume(module.scriptPath);
    }
}

void endInterpreter(const sonetrix_cliModule_t &module) noexcept {
    static constexpr ConsoleEnd console = {waitForPythonThreads, clearNamespace, runExitHandlers};
    ready = false;
    if (!holdsGil()) {
        acquireGil();
    }
    const bool finalise = shutDown(&console);
    if (module.savedSigintHandler != nullptr) {
        ignoreSigint();
    }
    if (finalise) {
        Py_FinalizeEx();
        return;
    }
    log(SONETRIX_LOG_ERROR, "a thread does not return from Python: the interpreter is left as it is");
    flushStandardOutput();
    releaseGil();
}

} // namespace sonetrix::cli
