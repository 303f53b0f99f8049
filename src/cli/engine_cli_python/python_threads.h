#pragma once

namespace sonetrix::cli {

// Finalisation waits for Python threads that are not daemons, without end. This does the same wait for a limited time,
// ahead of it, and names in the log who is still running then; finalisation does not wait for those again.
// Needs the interpreter lock.
void waitForPythonThreads() noexcept;

} // namespace sonetrix::cli
