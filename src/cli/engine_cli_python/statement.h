// Running Python text so that SystemExit has the effect of `exit(code)` and never ends the engine's process.
//
// The interpreter is configured to "inspect", which makes it print an uncaught SystemExit like any exception instead of
// ending the process. Our sys.excepthook keeps that from being seen, and sys.last_value, which the interpreter sets
// before it prints, tells that it happened, whatever hook a script has installed.
#pragma once

#include "python/ref.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace sonetrix::cli {

// Replaces sys.excepthook, and sys.__excepthook__ with it, by one that passes over in silence SystemExit and the
// KeyboardInterrupt that a stop request raises at the console.
void installExceptHook() noexcept;

struct StatementResult {
    int result;                           // the interpreter's
    std::optional<std::int32_t> exitCode; // when it ended by SystemExit
};

// Runs `statement`, a call of one of the interpreter's entry points. After a SystemExit it sets the engine's exit code
// and requests its stop. Needs the interpreter lock.
StatementResult runStatement(const std::function<int()> &statement) noexcept;

} // namespace sonetrix::cli
