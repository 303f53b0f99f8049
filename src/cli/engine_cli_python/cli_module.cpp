// The engine's command-line module for Python: its record and the engine's operations on it.

#include "console.h"
#include "engine_check.h"
#include "host_log.h"
#include "interpreter_session.h"
#include "stop_request.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unistd.h>

namespace sonetrix::cli {

namespace {

// The dispositions that the record's console and its interpreter replaced, with their flags and masks.
struct sigaction savedSigint {};
constexpr std::array otherSignals = {SIGPIPE, SIGXFSZ};
std::array<struct sigaction, otherSignals.size()> savedOthers{};

void start(sonetrix_cliModule_t *module) {
    if (interpreterIsReady()) {
        setUpConsole(*module);
    }
}

std::int32_t run(sonetrix_cliModule_t *module) {
    if (!interpreterIsReady()) {
        return consoleEnded;
    }
    const bool interactive = module->interactive != 0;
    const SignalMask unblocked =
        module->sigintMode == 0 ? SignalMask(SIG_UNBLOCK, {SIGURG}) : SignalMask(SIG_UNBLOCK, {SIGINT, SIGURG});
    const RunInProgress inProgress(interactive);
    return interactive ? runConsole(*module) : runStandardInput();
}

void stop(sonetrix_cliModule_t *module) {
    if (!stopRequested(*module)) {
        log(SONETRIX_LOG_DEBUG, "request to stop cli");
        if (__atomic_exchange_n(&module->stopRequested, 1, __ATOMIC_SEQ_CST) == 0) {
            sendStopRequest();
            return;
        }
    }
    log(SONETRIX_LOG_DEBUG, "cli stop already send");
}

// Back to what was there before the interpreter started, unless the engine has set something else meanwhile: what is
// the interpreter's bears its mark, SA_ONSTACK, and since its end is no function of its own.
void restore(int number, const struct sigaction &saved) noexcept {
    struct sigaction current {};
    sigaction(number, nullptr, &current);
    const bool isFunction =
        (current.sa_flags & SA_SIGINFO) != 0 || (current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN);
    if (!isFunction && (current.sa_flags & SA_ONSTACK) != 0) {
        sigaction(number, &saved, nullptr);
    }
}

void restoreSignals(sonetrix_cliModule_t &module) noexcept {
    if (module.savedSigintHandler != nullptr) {
        restore(SIGINT, savedSigint);
        module.savedSigintHandler = nullptr;
    }
    for (std::size_t index = 0; index < otherSignals.size(); ++index) {
        restore(otherSignals[index], savedOthers[index]);
    }
}

void release(sonetrix_cliModule_t *module) noexcept {
    std::free(module->startCode);
    std::free(module->scriptPath);
    sonetrix_free(module);
}

void destroy(sonetrix_cliModule_t *module) {
    if (module == nullptr) {
        return;
    }
    if (interpreterIsReady()) {
        endInterpreter(*module);
    }
    closeStopRequests();
    restoreSignals(*module);
    release(module);
}

void readStartParameters(sonetrix_cliModule_t &module, sonetrix_cListKeyValue_t *parameters) noexcept {
    if (parameters == nullptr) {
        return;
    }
    for (const auto &[key, field] :
        {std::pair("python.start", &module.startCode), {"python.file", &module.scriptPath}}) {
        const char *text = nullptr;
        if (sonetrix_keyValueListGetS(parameters, key, &text) == 0) {
            *field = strdup(text);
            log(SONETRIX_LOG_DEBUG, "python.start: %s", text);
        }
    }
    std::uint32_t mode = 0;
    if (sonetrix_keyValueListGetIU(parameters, "python.sigint", &mode) == 0) {
        module.sigintMode = mode;
        log(SONETRIX_LOG_DEBUG, "python.sigint: %d", static_cast<int>(mode));
    }
}

void saveSignals() noexcept {
    sigaction(SIGINT, nullptr, &savedSigint);
    for (std::size_t index = 0; index < otherSignals.size(); ++index) {
        sigaction(otherSignals[index], nullptr, &savedOthers[index]);
    }
}

// On a terminal the console is interactive, and the default disposition of SIGINT makes the interpreter install its
// KeyboardInterrupt handler, unless the engine keeps SIGINT for itself, or there is another console that has it.
void chooseMode(sonetrix_cliModule_t &module, bool hasInterpreter) noexcept {
    if (isatty(fileno(stdin)) == 0) {
        if (errno == ENOTTY) {
            log(SONETRIX_LOG_INFO, "not interactive console");
        } else {
            log(SONETRIX_LOG_WARN, "not interactive console: %d %s", errno, std::strerror(errno));
        }
        return;
    }
    if (module.sigintMode == 0) {
        log(SONETRIX_LOG_INFO, "interactive console");
    } else {
        log(SONETRIX_LOG_INFO, "interactive console (KeyboardInterrupt default python handler)");
        module.savedSigintHandler = hasInterpreter ? signal(SIGINT, SIG_DFL) : nullptr;
    }
    module.interactive = 1;
}

} // namespace

} // namespace sonetrix::cli

extern "C" sonetrix_cliModule_t *sonetrix_engineCliCostructor(sonetrix_cListKeyValue_t *parameters, void *context) {
    using namespace sonetrix::cli;
    if (const std::string mismatch = sonetrix::engineMismatch(); !mismatch.empty()) {
        std::fprintf(stderr, "sonetrix.so: %s\n", mismatch.c_str()); // there may be no log
        return nullptr;
    }
    void *memory = sonetrix_malloc(sizeof(sonetrix_cliModule_t));
    if (memory == nullptr) {
        log(SONETRIX_LOG_WARN, "error creating python cli");
        return nullptr;
    }
    auto *module = new (memory) sonetrix_cliModule_t{};
    module->context = context;
    module->run = run;
    module->start = start;
    module->stop = stop;
    module->destroy = destroy;
    module->sigintMode = 1;
    readStartParameters(*module, parameters);
    const bool registered = registerModule();
    if (registered) {
        saveSignals();
    }
    // Until the interpreter's handler is there: the default disposition, which makes the interpreter install it, would
    // end the process.
    const SignalMask blocked(SIG_BLOCK, {SIGINT});
    chooseMode(*module, registered);
    if (!registered) {
        log(SONETRIX_LOG_WARN, "could not extend in-built modules table");
        log(SONETRIX_LOG_WARN, "error creating python cli");
        release(module);
        return nullptr;
    }
    openStopRequests();
    startInterpreter(*module);
    return module;
}
