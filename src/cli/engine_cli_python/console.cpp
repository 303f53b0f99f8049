#include "console.h"

#include "console_thread.h"
#include "python/gil.h"
#include "statement.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <poll.h>
#include <span>
#include <sys/mman.h>
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
            tcsetattr(STDIN_FILENO, TCSANOW, &settings_);
        }
    }
    TerminalSettings(const TerminalSettings &) = delete;
    TerminalSettings &operator=(const TerminalSettings &) = delete;

private:
    termios settings_{};
    bool saved_;
};

struct CloseFile {
    void operator()(std::FILE *file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// A read that waits with the interpreter lock released: a pipe may stay silent for long.
ssize_t readSome(std::span<char> part) noexcept {
    const GilReleased released;
    pollfd input = {.fd = fileno(stdin), .events = POLLIN, .revents = 0};
    return poll(&input, 1, -1) < 0 ? -1 : read(input.fd, part.data(), part.size());
}

// All of standard input as a file in memory, or null when a stop request or KeyboardInterrupt came first.
File readStandardInput() noexcept {
    const int descriptor = memfd_create("standard input", MFD_CLOEXEC);
    File script(descriptor < 0 ? std::tmpfile() : fdopen(descriptor, "w+"));
    if (!script && descriptor >= 0) {
        close(descriptor);
    }
    std::array<char, 65536> part{};
    while (script) {
        const ssize_t count = readSome(part);
        if (ConsoleThread::instance().isInterrupted()) {
            script.reset();
        } else if (count > 0) {
            std::fwrite(part.data(), 1, static_cast<std::size_t>(count), script.get());
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            const bool complete = std::fflush(script.get()) == 0 && std::ferror(script.get()) == 0;
            std::rewind(script.get());
            return complete ? std::move(script) : nullptr;
        } else if (PyErr_CheckSignals() != 0) {
            PyErr_Print();
            script.reset();
        }
    }
    return nullptr;
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

std::int32_t runStandardInput() noexcept {
    File script = readStandardInput();
    if (!script) {
        return consoleEnded;
    }
    const StatementResult outcome =
        runStatement([&script] { return PyRun_SimpleFileExFlags(script.release(), fileName, 1, nullptr); });
    const bool succeeded = outcome.exitCode ? *outcome.exitCode == 0 : outcome.result == 0;
    return succeeded ? scriptSucceeded : consoleEnded;
}

} // namespace sonetrix::cli
