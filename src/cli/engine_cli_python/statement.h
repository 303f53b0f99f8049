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

// Replaces sys.excepthook by one that passes SystemExit over in silence.
void installExceptHook() noexcept;

namespace detail {
Ref lastException() noexcept;
// If the last exception is a SystemExit and not `previous`: sets the engine's exit code, requests its stop, and gives
// the code.
std::optional<std::int32_t> exitIfRequested(const Ref &previous) noexcept;
} // namespace detail

struct StatementResult {
    int result;                           // the interpreter's
    std::optional<std::int32_t> exitCode; // when it ended by SystemExit
};

// Runs `statement`, a call of one of the interpreter's entry points. Needs the interpreter lock.
template <class Statement> StatementResult runStatement(Statement &&statement) noexcept {
    const Ref previous = detail::lastException();
    const int result = statement();
    return {result, result == 0 ? std::nullopt : detail::exitIfRequested(previous)};
}

} // namespace sonetrix::cli
