#include "program/cli_module.h"
#include "program/options.h"
#include "program/termination_signals.h"
#include "thread.h"

#include <fcntl.h>
#include <iostream>

using namespace sonetrix::dev;

namespace {

int complain(int status, const std::string &what) {
    std::cerr << "sonetrix-engine: " << what << '\n';
    return status;
}

/// Standard streams that were closed lead nowhere, rather than to whatever the process opens next.
void openStandardStreams() {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", O_RDWR); // NOLINT(android-cloexec-open): these three are inherited
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    ::close(descriptor);
}

/// Runs the module on this thread. The status of what it ran.
int32_t runModule(CliModule &module, const Engine &engine, bool scriptOnly, std::atomic<bool> &starts) {
    starts = true;
    const bool started = module.start();
    starts = false;
    if (!started)
        return complain(exitUnavailable, "the scripting module has no interpreter");
    if (scriptOnly || engine.stopRequested())
        return 0;
    const bool console = ::isatty(STDIN_FILENO) != 0;
    return module.run() == -1 && !console ? exitFailure : 0;
}

int statusOf(const Engine &engine, int32_t ran) {
    const int32_t status = engine.exitCode().value_or(ran);
    return status == 0 && engine.hasRecordingFailed() ? exitRecording : status;
}

/// Ends the module, which has run, then the engine. The status of the program.
int end(CliModule &module, Engine &engine, TerminationSignals &signals, int32_t ran) {
    constexpr std::chrono::seconds lastWait{1};
    if (isForkedChild()) {
        // The engine's threads are not here; what the script has left to say is said by the interpreter's end.
        module.destroy();
        std::fflush(nullptr);
        ::_exit(engine.exitCode().value_or(ran));
    }
    // The module holds the interpreter's lock until it is destroyed, and engine threads may be waiting for it.
    engine.requestStop();
    module.destroy();
    signals.expectNothing();
    if (!engine.join(lastWait)) {
        sonetrix_log(SONETRIX_LOG_ERROR, __FILE__, __LINE__, 1, "a callback does not return: ending without it");
        std::fflush(nullptr);
        ::_exit(statusOf(engine, ran));
    }
    return statusOf(engine, ran);
}

CliModule loadModule(const std::filesystem::path &library) try {
    return CliModule(library);
} catch (const std::runtime_error &error) {
    throw Exit(exitUnavailable, error.what());
}

int runEngine(ProgramOptions options) {
    // Not opened here: that would disturb the writer of a pipe.
    if (options.script &&
        (::access(options.script->c_str(), R_OK) != 0 || std::filesystem::is_directory(*options.script)))
        throw Exit(exitNoInput, *options.script + ": cannot be read");
    sonetrix_log_SetLogLevel(options.logLevel);
    CliModule module = loadModule(options.module);
    const auto packages = libraryFolder() / "python3" / "dist-packages";
    if (!std::filesystem::exists(packages / "sonetrix_console"))
        throw Exit(exitUnavailable, "there is no sonetrix_console in " + packages.string());
    addStartCode(options, packages);
    // Never destroyed: a Python thread that a script has left behind may be inside it to the program's very end.
    Engine &engine = *std::make_unique<Engine>(options.engine, std::move(options.startParameters)).release();

    // Scripts are interrupted by Python's own SIGINT handler, which the interpreter installs over the default
    // disposition only; unless the parameter says that SIGINT is the engine's.
    uint32_t sigintMode = 1;
    sonetrix_keyValueListGetIU(&engine.startParameters(), "python.sigint", &sigintMode);
    const bool pythonInterrupts = (options.scriptOnly() || ::isatty(STDIN_FILENO) == 0) && sigintMode != 0;
    if (pythonInterrupts)
        std::signal(SIGINT, SIG_DFL);
    std::atomic<bool> starts{false};
    TerminationSignals signals(!pythonInterrupts, [&](int signal, bool again) {
        if (again) // who asks twice is in a hurry
            ::_exit(engine.exitCode().value_or(128 + signal));
        engine.requestStop();
    });
    engine.setStopHook([&, console = ::pthread_self()] {
        module.stop();
        // Asked to end by a signal, the program does not wait for a script; one that has called `exit` runs on.
        if (starts && signals.received() && dispositionOf(SIGINT).sa_handler != SIG_DFL)
            ::pthread_kill(console, SIGINT);
    });
    engine.start();
    sonetrix_log(SONETRIX_LOG_INFO, __FILE__, __LINE__, 1, "running at %u frames per second, %u frames per block",
        options.engine.format.rate, options.engine.format.block);
    const bool constructed = module.construct(engine.startParameters());
    const int32_t ran = constructed ? runModule(module, engine, options.scriptOnly(), starts)
                                    : complain(exitUnavailable, "the scripting module could not be created");
    return end(module, engine, signals, ran);
}

} // namespace

int main(int argc, char **argv) {
    openStandardStreams();
    for (const int number : {SIGPIPE, SIGXFSZ}) // who writes is told of it
        std::signal(number, SIG_IGN);
    try {
        return runEngine(readOptions(argc, argv));
    } catch (const Exit &exit) {
        return *exit.what() == '\0' ? exit.status : complain(exit.status, exit.what());
    } catch (const std::exception &error) {
        return complain(exitEngineFailure, error.what());
    }
}
