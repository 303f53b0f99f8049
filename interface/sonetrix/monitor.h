// What the console monitors share: a view that is redrawn in place, ten times a second, until the engine stops; and the
// wait for that stop.
#pragma once

#include "engine.h"

#include <functional>

namespace sonetrix {

// Hides the cursor for as long as a monitor runs; it is shown again however the monitor ends.
class HiddenCursor : NonCopyable {
public:
    HiddenCursor();
    ~HiddenCursor();

    // The regular end: errors of the terminal come through.
    void show();

private:
    bool hidden_ = true;
};

// Calls `redraw` at once and then every tenth of a second while engine.isRunning(); a signal's exception ends it.
void whileRunning(const std::function<void()> &redraw);

// print(text, end=end, flush=True); without `end` where it is null
void print(PyObject *text, const char *end);
// The terminal's size, os.get_terminal_size(); OSError when standard output is not a terminal.
struct TerminalSize {
    Py_ssize_t columns;
    Py_ssize_t lines;
};
TerminalSize terminalSize();
Py_ssize_t terminalColumns();
// The first `columns` characters; all of them when there are no columns.
Ref cut(const Ref &text, Py_ssize_t columns);
// format(number, formatSpec)
Ref formatted(PyObject *number, const char *formatSpec);
Ref formatted(double number, const char *formatSpec);

} // namespace sonetrix
