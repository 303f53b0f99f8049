#include "console.h"

#include "console_thread.h"
#include "python/errors.h"
#include "python/gil.h"
#include "python/version.h"
#include "statement.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
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

// Calls sys.linehook; `line` may be null. The str that it returns, as bytes, or none. KeyboardInterrupt stays set.
Ref callLineHook(const char *prompt, const char *line) noexcept {
    const Ref hook = Ref::borrow(PySys_GetObject("linehook"));
    if (!hook || hook.get() == Py_None) {
        return {};
    }
    Ref earlier = version::takeRaised(); // that of an interrupted line
    Ref result;
    try {
        const Ref promptText = checked(PyUnicode_DecodeFSDefault(prompt));
        const Ref lineText = line == nullptr ? Ref::borrow(Py_None) : checked(PyUnicode_DecodeFSDefault(line));
        result = checked(PyObject_CallFunctionObjArgs(hook.get(), promptText.get(), lineText.get(), nullptr));
        result = PyUnicode_Check(result.get()) ? checked(PyUnicode_EncodeFSDefault(result.get())) : Ref();
    } catch (const PythonError &) {
        if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt) != 0) {
            return {};
        }
        reportUnraisable("sys.linehook");
    }
    version::setRaised(std::move(earlier));
    return result;
}

decltype(PyOS_ReadlineFunctionPointer) interpreterReadLine = nullptr;

// In front of the interpreter's own, which may be that of line editing. Called without the interpreter lock; null
// stands for an interrupted line.
char *readLine(std::FILE *input, std::FILE *output, const char *prompt) noexcept {
    {
        const GilHeld held;
        callLineHook(prompt, nullptr);
        if (PyErr_Occurred() != nullptr) {
            return nullptr;
        }
    }
    char *line = interpreterReadLine(input, output, prompt);
    const GilHeld held;
    const Ref replacement = callLineHook(prompt, line == nullptr ? "" : line);
    if (line == nullptr || (!replacement && PyErr_Occurred() == nullptr)) {
        return line;
    }
    PyMem_RawFree(line);
    if (!replacement) {
        return nullptr;
    }
    const auto size = static_cast<std::size_t>(PyBytes_GET_SIZE(replacement.get())) + 1;
    void *copy = PyMem_RawMalloc(size);
    return copy == nullptr ? nullptr
                           : static_cast<char *>(std::memcpy(copy, PyBytes_AS_STRING(replacement.get()), size));
}

// Before each statement: importing readline puts its own reader there. Without it, there is none before the first line.
void hookLineReader() noexcept {
    if (PyOS_ReadlineFunctionPointer != nullptr && PyOS_ReadlineFunctionPointer != readLine) {
        interpreterReadLine = std::exchange(PyOS_ReadlineFunctionPointer, readLine);
    }
}

} // namespace

bool stopRequested(const sonetrix_cliModule_t &module) noexcept {
    return __atomic_load_n(&module.stopRequested, __ATOMIC_SEQ_CST) != 0;
}

std::int32_t runConsole(const sonetrix_cliModule_t &module) noexcept {
    const TerminalSettings settings;
    PyCompilerFlags flags = {.cf_flags = 0, .cf_feature_version = PY_MINOR_VERSION}; // `from __future__` lasts
    while (!stopRequested(module)) {
        hookLineReader();
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
