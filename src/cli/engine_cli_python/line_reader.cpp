#include "line_reader.h"

#include "python/errors.h"
#include "python/gil.h"
#include "stop_request.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

namespace sonetrix::cli {

namespace {

decltype(PyOS_ReadlineFunctionPointer) interpretersReader = nullptr;

// Calls sys.linehook; `line` may be null. The str that it returns, as bytes, or none. KeyboardInterrupt stays set.
Ref callLineHook(const char *prompt, const char *line) noexcept {
    const Ref hook = Ref::borrow(PySys_GetObject("linehook"));
    if (!hook || hook.get() == Py_None) {
        return {};
    }
    Ref earlier = Ref::steal(PyErr_GetRaisedException()); // that of an interrupted line
    Ref result;
    try {
        const Ref promptText = checked(PyUnicode_DecodeFSDefault(prompt));
        const Ref lineText = line == nullptr ? none() : checked(PyUnicode_DecodeFSDefault(line));
        result = checked(PyObject_CallFunctionObjArgs(hook.get(), promptText.get(), lineText.get(), nullptr));
        result = PyUnicode_Check(result.get()) ? checked(PyUnicode_EncodeFSDefault(result.get())) : Ref();
    } catch (const PythonError &) {
        if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt) != 0) {
            Ref interrupt = Ref::steal(PyErr_GetRaisedException());
            PyException_SetTraceback(interrupt.get(), Py_None); // it is the line that is interrupted, not the hook
            PyErr_SetRaisedException(interrupt.release());
            return {};
        }
        reportUnraisable("sys.linehook");
    }
    PyErr_SetRaisedException(earlier.release());
    return result;
}

// A line as the interpreter wants it; none stands for an interrupted one.
char *newLine(const char *text, std::size_t size) noexcept {
    void *copy = PyMem_RawMalloc(size + 1);
    return copy == nullptr ? nullptr : static_cast<char *>(std::memcpy(copy, text, size + 1));
}

// Called without the interpreter lock.
char *readLine(std::FILE *input, std::FILE *output, const char *prompt) noexcept {
    // Its two ends run signal handlers, and some draw on the terminal what a line that is being read needs: so they
    // are not within what the hook is told to be a read.
    std::optional<PromptRead> ownPrompt;
    {
        const GilHeld gil;
        if (PyErr_CheckSignals() != 0) {
            return nullptr;
        }
        if (PyEval_GetFrame() == nullptr) { // no Python code is running: it is not input()'s, or pdb's
            ownPrompt.emplace();
        }
        callLineHook(prompt, nullptr);
        if (PyErr_Occurred() != nullptr) {
            ownPrompt.reset();
            return nullptr;
        }
    }
    const bool reads = !ownPrompt || !stopIsRequested();
    char *line = reads ? interpretersReader(input, output, prompt) : nullptr;
    const GilHeld gil;
    const bool stopped = ownPrompt && stopIsRequested();
    const Ref replacement = callLineHook(prompt, line == nullptr ? "" : line);
    ownPrompt.reset();
    if (stopped) {
        PyErr_Clear();
        PyMem_RawFree(line);
        return nullptr; // whatever was typed: KeyboardInterrupt, which is not shown
    }
    if (line == nullptr || (!replacement && PyErr_Occurred() == nullptr)) {
        return line;
    }
    PyMem_RawFree(line);
    return replacement ? newLine(PyBytes_AS_STRING(replacement.get()),
                             static_cast<std::size_t>(PyBytes_GET_SIZE(replacement.get())))
                       : nullptr;
}

// Without line editing, the interpreter chooses its reader when it reads its first line: of nothing, then.
void haveReaderChosen() noexcept {
    std::FILE *nothing = std::fopen("/dev/null", "re");
    if (nothing != nullptr) {
        PyMem_Free(PyOS_Readline(nothing, nothing, ""));
        PyErr_Clear();
        std::fclose(nothing);
    }
}

} // namespace

void installLineReader() noexcept {
    if (PyOS_ReadlineFunctionPointer == nullptr) {
        haveReaderChosen();
    }
    if (PyOS_ReadlineFunctionPointer != nullptr && PyOS_ReadlineFunctionPointer != readLine) {
        interpretersReader = std::exchange(PyOS_ReadlineFunctionPointer, readLine);
    }
}

} // namespace sonetrix::cli
