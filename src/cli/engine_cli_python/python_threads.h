#pragma once

namespace sonetrix::cli {

// Finalisation waits for Python threads that are not daemons, without end. This does the same wait ahead of it, for 15
// s at most: who is still running after 3 s is named in the log, and after 15 s left behind, with an error there;
// finalisation does not wait for those again up to CPython 3.14. Needs the interpreter lock.
// False when finalisation would wait for those left behind all the same, as it does from CPython 3.15 on.
bool waitForPythonThreads() noexcept;

} // namespace sonetrix::cli
