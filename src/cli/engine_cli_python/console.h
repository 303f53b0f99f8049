#pragma once

#include <sonetrix/engine_api.h>

#include <cstdint>

namespace sonetrix::cli {

// What `run` returns.
constexpr std::int32_t consoleEnded = -1; // also: the script failed
constexpr std::int32_t scriptSucceeded = -2;

// The interactive console: statements from the terminal until the end of input or a stop request. How a line is read,
// and how whoever dresses the console has a part in it, is in line_reader.h.
std::int32_t runConsole(const sonetrix_cliModule_t &module) noexcept;

// All of standard input as one script, whatever the flag says.
std::int32_t runStandardInput() noexcept;

// Whether a stop has been requested.
bool stopRequested(const sonetrix_cliModule_t &module) noexcept;

} // namespace sonetrix::cli
