#include "program/cli_module.h"
#include "program/exit_status.h"
#include "program/options.h"
#include "program/start_code.h"
#include "program/termination_signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace sonetrix::dev;

namespace {

int complain(int status, const std::string &what) {
    std::cerr << "sonetrix-engine: " << what << '\n';
    return status;
}

/// Does not open it: that would disturb the writer of a pipe.
bool readable(const std::string &path) {
    struct stat status {};
    if (::access(path.c_str(), R_OK) != 0 || ::stat(path.c_str(), &status) != 0)
        return false;
    if (S_ISDIR(status.st_mode))
        errno = EISDIR;
    return !S_ISDIR(status.st_mode);
}

/// Standard streams that were closed lead nowhere, rather than to whatever the process opens next.
void openStandardStreams() {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", O_RDWR); // NOLINT(android-cloexec-open): these three are inherited
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    ::close(descriptor);
}

/// What the program has to have run in the module's `start`, in front of a "python.start" that was set by hand.
void addStartCode(ProgramOptions &options, const std::filesystem::path &packages) {
    std::string text = searchPathCode(packages);
    if (!options.scriptOnly())
        text += consoleCode();
    if (options.code || options.script)
        text += scriptRunCode({options.code, options.script, options.scriptArguments, options.scriptOnly()});
    const char *byHand = nullptr;
    if (sonetrix_keyValueListGetS(&options.startParameters, "python.start", &byHand) == 0)
        text += byHand;
    options.startParameters.remove("python.start");
    options.startParameters.add("python.start", text);
}

/// Runs the module on this thread. The status of what it ran.
int32_t runModule(CliModule &module, const Engine &engine, bool scriptOnly, std::atomic<bool> &scriptRuns) {
    scriptRuns = scriptOnly;
    const bool started = module.start();
    scriptRuns = false;
    if (!started)
        return complain(exitUnavailable, "the scripting module has no interpreter");
    if (scriptOnly || engine.stopRequested())
        return 0;
    const bool console = ::isatty(STDIN_FILENO) != 0;
    return module.run() == -1 && !console ? exitFailure : 0;
}

int runEngine(ProgramOptions options) {
    std::string error;
    CliModule module;
    if (!module.load(options.module, error))
        return complain(exitUnavailable, error);
    const std::filesystem::path packages = pythonPackages();
    if (!std::filesystem::exists(packages / "sonetrix_console"))
        return complain(exitUnavailable, "there is no sonetrix_console in " + packages.string());
    addStartCode(options, packages);
    // Never destroyed: a Python thread that a script has left behind may be inside it to the program's very end.
    Engine *const engine = Engine::create(options.engine, std::move(options.startParameters), error).release();
    if (engine == nullptr)
        return complain(exitEngineFailure, error);

    // Scripts are interrupted by Python's own SIGINT handler, which the interpreter installs over the default
    // disposition only; unless the parameter says that SIGINT is the engine's.
    uint32_t sigintMode = 1;
    sonetrix_keyValueListGetIU(&engine->startParameters(), "python.sigint", &sigintMode);
    const bool pythonInterrupts = options.scriptOnly() && sigintMode != 0;
    if (pythonInterrupts)
        std::signal(SIGINT, SIG_DFL);
    std::atomic<bool> scriptRuns{false};
    TerminationSignals signals(!pythonInterrupts, [&] { engine->requestStop(); });
    engine->setStopHook([&, console = ::pthread_self()] {
        module.stop();
        if (pythonInterrupts && scriptRuns && signals.received())
            ::pthread_kill(console, SIGINT);
    });
    if (!engine->start(error)) {
        engine->join();
        return complain(exitEngineFailure, error);
    }
    sonetrix_log(SONETRIX_LOG_INFO, __FILE__, __LINE__, 1, "running at %u frames per second, %u frames per block",
        options.engine.rate, options.engine.block);

    int status = exitUnavailable;
    if (module.construct(engine->startParameters(), error)) {
        status = runModule(module, *engine, options.scriptOnly(), scriptRuns);
    } else {
        complain(status, error);
    }
    if (TerminationSignals::isForked()) {
        // The engine's threads are not here; what the script has left to say is said by the interpreter's end.
        module.destroy();
        std::fflush(nullptr);
        ::_exit(engine->exitCode().value_or(status));
    }
    // The module holds the interpreter's lock until it is destroyed, and engine threads may be waiting for it.
    engine->requestStop();
    module.destroy();
    engine->join();
    return engine->exitCode().value_or(status);
}

} // namespace

int main(int argc, char **argv) {
    openStandardStreams();
    int status = 0;
    auto options = readOptions(argc, argv, status);
    if (!options)
        return status;
    if (options->script && !readable(*options->script))
        return complain(exitNoInput, *options->script + ": " + std::strerror(errno));
    sonetrix_log_SetLogLevel(options->logLevel);
    try {
        return runEngine(std::move(*options));
    } catch (const std::exception &error) {
        return complain(exitEngineFailure, error.what());
    }
}
