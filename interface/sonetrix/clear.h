// What the console host calls of the module, at the interpreter's end.
#pragma once

namespace sonetrix {

// `clear_python_sonetrix`: logs, then runs every registered clear callback once. Takes the interpreter lock itself.
void clearPythonModule() noexcept;

// Ends every callback registration that is still alive, and makes callback objects that are created from now on go
// without one: none of them would be called. Needs the interpreter lock.
void endRegistrations() noexcept;

// Ends the registrations, closes the gate to engine threads and the library's functions to other Python threads; see
// callback_bridge.h and python/gil.h. To be called with the interpreter lock held, before the interpreter is finalised.
// False when a thread is still inside after a limited time: the interpreter had better be left alive.
bool closeLibrary() noexcept;

} // namespace sonetrix
