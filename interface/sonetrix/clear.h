// What the console host calls of the module, at the interpreter's end.
#pragma once

namespace sonetrix {

// `clear_python_sonetrix`: logs, then runs every registered clear callback once. Takes the interpreter lock itself.
void clearPythonModule() noexcept;

// Ends every callback registration that is still alive, and makes callback objects that are created from now on go
// without one: none of them would be called. Needs the interpreter lock.
void endRegistrations() noexcept;

// Ends the registrations and closes the gate; see callback_bridge.h. To be called with the interpreter lock held,
// before the interpreter is finalised. False when an engine thread is still inside Python after the time limit: the
// interpreter must then be left alive.
bool endCallbacks() noexcept;

} // namespace sonetrix
