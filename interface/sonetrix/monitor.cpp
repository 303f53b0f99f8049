#include "monitor.h"

#include "python/gil.h"

namespace sonetrix {

namespace {

constexpr const char *hideCursor = "\x1b[?25l";
constexpr const char *showCursor = "\x1b[?25h";

// A terminal sequence; a stream that cannot encode it does without.
void printSequence(const char *sequence, const char *end) {
    try {
        print(checked(PyUnicode_FromString(sequence)).get(), end);
    } catch (const PythonError &) {
        if (PyErr_ExceptionMatches(PyExc_UnicodeEncodeError) == 0) {
            throw;
        }
        PyErr_Clear();
    }
}

Ref rawTerminalSize() { return callMethod(moduleGlobal("os"_id).get(), "get_terminal_size"_id); }

Py_ssize_t dimension(const Ref &size, const InternedString &name) {
    return checked(PyNumber_AsSsize_t, attribute(size.get(), name).get(), PyExc_OverflowError);
}

} // namespace

HiddenCursor::HiddenCursor() { printSequence(hideCursor, "\r"); }

HiddenCursor::~HiddenCursor() {
    const RaisedException raised; // what ends the monitor is what matters
    for (int attempts = 3; hidden_ && attempts > 0; --attempts) {
        try {
            show();
        } catch (const PythonError &) {
            // Another interrupt may strike before the sequence is out.
            attempts = PyErr_ExceptionMatches(PyExc_KeyboardInterrupt) != 0 ? attempts : 0;
            PyErr_Clear();
        }
    }
}

void HiddenCursor::show() {
    printSequence(showCursor, nullptr);
    hidden_ = false;
}

void whileRunning(const std::function<void()> &redraw) {
    const Ref tenth = checked(PyFloat_FromDouble(0.1));
    while (checked(PyObject_IsTrue, callEngine("isRunning"_id).get()) != 0) {
        redraw();
        callMethod(moduleGlobal("time"_id).get(), "sleep"_id, tenth.get());
        // The sleep looks for signals only when one has cut it short, not when one came just before.
        checked(PyErr_CheckSignals);
    }
}

void print(PyObject *text, const char *end) {
    Ref arguments = checked(PyTuple_Pack(1, text));
    Ref keywords = checked(end == nullptr ? Py_BuildValue("{sO}", "flush", Py_True)
                                          : Py_BuildValue("{sssO}", "end", end, "flush", Py_True));
    const Ref function = moduleGlobal("print"_id);
    checked(PyObject_Call, function.get(), arguments.get(), keywords.get());
}

TerminalSize terminalSize() {
    const Ref size = rawTerminalSize();
    return {dimension(size, "columns"_id), dimension(size, "lines"_id)};
}

Py_ssize_t terminalColumns() { return dimension(rawTerminalSize(), "columns"_id); }

Ref cut(const Ref &text, Py_ssize_t columns) {
    return columns > 0 ? checked(PyUnicode_Substring(text.get(), 0, columns)) : text;
}

Ref formatted(PyObject *number, const char *formatSpec) {
    return checked(PyObject_Format, number, checked(PyUnicode_FromString(formatSpec)).get());
}

Ref formatted(double number, const char *formatSpec) {
    return formatted(checked(PyFloat_FromDouble(number)).get(), formatSpec);
}

} // namespace sonetrix
