// Running Python text so that SystemExit has the effect of `exit(code)` and never ends the engine's process.
//
// The interpreter is configured to "inspect", which makes it print an uncaught SystemExit like any exception instead of
// ending the process. Our sys.excepthook keeps that from being seen, and sys.last_value, which the interpreter sets
// before it prints, tells that it happened, whatever hook a script has installed.
#pragma once

#include "python/ref.h"

#include <cstdint>
#include <optional>

namespace sonetrix::cli {

// Replaces sys.excepthook, and sys.__excepthook__ with it, by one that passes over in silence SystemExit and the
// KeyboardInterrupt that a stop request raises at the console.
void installExceptHook() noexcept;

namespace detail {
void forgetLastExit() noexcept;
// If the last exception is a SystemExit: sets the engine's exit code, requests its stop, and gives the code.
std::optional<std::int32_t> exitIfRequested() noexcept;
} // namespace detail

struct StatementResult {
    int result;                           // the interpreter's
    std::optional<std::int32_t> exitCode; // when it ended by SystemExit
};

// Runs `statement`, a call of one of the interpreter's entry points. Needs the interpreter lock.
template <class Statement> StatementResult runStatement(Statement &&statement) noexcept {
    detail::forgetLastExit();
    const int result = statement();
    return {result, result == 0 ? std::nullopt : detail::exitIfRequested()};
}

} // namespace sonetrix::cli
