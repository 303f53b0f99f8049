#pragma once

#include <sonetrix/engine_api.h>

#include <cstdint>

namespace sonetrix::cli {

// What `run` returns.
constexpr std::int32_t consoleEnded = -1; // also: the script failed
constexpr std::int32_t scriptSucceeded = -2;

// The interactive console: statements from the terminal until the end of input or a stop request.
//
// Whoever dresses it sets `sys.linehook`. It is called on the console thread around every line that is read from the
// terminal meanwhile, be it at the prompt, by input() or in pdb:
//
//   sys.linehook(prompt, None)   before the line is read
//   sys.linehook(prompt, line)   afterwards: the line with its line end, several lines when line editing returns a
//   paste
//                                as one, "" at the end of input and when the line was interrupted
//
// A str that the second call returns is read in place of the line. KeyboardInterrupt in the hook interrupts the line;
// any other exception is reported as unraisable and changes nothing.
std::int32_t runConsole(const sonetrix_cliModule_t &module) noexcept;

// All of standard input as one script.
std::int32_t runStandardInput() noexcept;

// Whether a stop has been requested.
bool stopRequested(const sonetrix_cliModule_t &module) noexcept;

} // namespace sonetrix::cli
