#include "console.h"

#include "console_thread.h"
#include "python/gil.h"
#include "statement.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace sonetrix::cli {

namespace {

constexpr const char *fileName = "__engine__";

// Results of an interactive step, from the interpreter's errcode.h.
constexpr int endOfInput = 11;
constexpr int noMemory = 15;

// Gives the terminal back as it was, whatever line editing made of it.
class TerminalSettings {
public:
    TerminalSettings() noexcept : saved_(tcgetattr(STDIN_FILENO, &settings_) == 0) {}
    ~TerminalSettings() {
        // From the background, the attempt would stop the process.
        if (saved_ && tcgetpgrp(STDIN_FILENO) == getpgrp()) {
            tcsetattr(STDIN_FILENO, TCSADRAIN, &settings_);
        }
    }
    TerminalSettings(const TerminalSettings &) = delete;
    TerminalSettings &operator=(const TerminalSettings &) = delete;

private:
    termios settings_{};
    bool saved_;
};

// All of standard input, or nothing when a stop request came first. Read with the interpreter lock released: a pipe may
// stay silent for long.
std::optional<std::string> readStandardInput(const sonetrix_cliModule_t &module) noexcept {
    const bool stoppedBefore = stopRequested(module); // a request before the run does not concern the script
    std::string text;
    std::array<char, 65536> part{};
    const GilReleased released;
    for (;;) {
        const ssize_t count = read(fileno(stdin), part.data(), part.size());
        if (count > 0) {
            text.append(part.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
        if (!stoppedBefore && stopRequested(module)) {
            return std::nullopt;
        }
    }
}

// Through the interpreter's own entry point for files.
std::int32_t runScript(std::string &text) noexcept {
    std::FILE *script = fmemopen(text.data(), text.size(), "r");
    if (script == nullptr) {
        return consoleEnded;
    }
    const StatementResult outcome =
        runStatement([script] { return PyRun_SimpleFileExFlags(script, fileName, 1, nullptr); });
    const bool succeeded = outcome.exitCode ? *outcome.exitCode == 0 : outcome.result == 0;
    return succeeded ? scriptSucceeded : consoleEnded;
}

} // namespace

bool stopRequested(const sonetrix_cliModule_t &module) noexcept {
    return __atomic_load_n(&module.stopRequested, __ATOMIC_SEQ_CST) != 0;
}

std::int32_t runConsole(const sonetrix_cliModule_t &module) noexcept {
    const TerminalSettings settings;
    PyCompilerFlags flags = {.cf_flags = 0, .cf_feature_version = PY_MINOR_VERSION}; // `from __future__` lasts
    while (!stopRequested(module)) {
        const StatementResult step =
            runStatement([&flags] { return PyRun_InteractiveOneFlags(stdin, fileName, &flags); });
        if (step.result == endOfInput || step.result == noMemory) {
            break;
        }
    }
    return consoleEnded;
}

std::int32_t runStandardInput(const sonetrix_cliModule_t &module) noexcept {
    std::optional<std::string> text = readStandardInput(module);
    if (!text) {
        return consoleEnded;
    }
    return text->empty() ? scriptSucceeded : runScript(*text);
}

} // namespace sonetrix::cli
