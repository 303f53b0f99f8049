// The end of the interpreter: one order, for the console and for an interpreter that merely imports the library.
#pragma once

namespace sonetrix {

// What the console adds, called in this order. All with the interpreter lock held.
struct ConsoleEnd {
    bool (*waitForPythonThreads)() noexcept; // false when finalisation would wait for one that does not end
    void (*clearNamespace)() noexcept;
    void (*runExitHandlers)() noexcept;
};

// Ends what engine threads and the interpreter have in common, while the interpreter still is whole. With the
// interpreter lock held, before finalisation; `console` is null for an interpreter that is not the console's.
//
//   clear callbacks       (console) the scripts' own, in the order of registration, each once
//   Python threads        (console) those that are no daemons: waited for as finalisation does, but not without end
//   registrations         removed oldest first; from here on an object has none, so no new calls come
//   the namespace         (console) `globals().clear()`: callables and threads that used it have come to their end
//   exit handlers         (console) atexit's. In another interpreter these steps are an exit handler themselves
//   the interpreter guard closed, with the lock given up, and waited for: no engine thread is in Python, none will be
//
// The waits of ours have their limits: Python threads (15 s), registrations (twice 5 s), the guard (5 s). What scripts
// have registered, clear callbacks and exit handlers, takes the time that it takes. True when the interpreter can be
// finalised; false when an engine thread or a thread of ours is in Python still: finalisation would unwind it, and the
// engine with it. The console's interpreter is left as it is then. One that is not ours goes on to its end, and takes
// the thread as it does any other.
//
// In an interpreter that is not ours, older exit handlers follow, which may join threads that use the library: on any
// thread but the ending one its functions raise RuntimeError from here on. Python threads that are left are the
// finalisation's: it hangs them where they ask for the lock, which no thread of theirs does while it holds a lock of
// the engine's (an iteration's callback is refused at the guard).
bool shutDown(const ConsoleEnd *console) noexcept;

// `clear_python_sonetrix`: logs, then runs every registered clear callback once. Takes the interpreter lock itself.
void clearPythonModule() noexcept;

} // namespace sonetrix
