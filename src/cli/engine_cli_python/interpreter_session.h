// The one embedded interpreter: its start, the console's set-up, and its end. All of it runs on the console thread,
// which holds the interpreter lock from the start on.
#pragma once

#include <sonetrix/engine_api.h>

namespace sonetrix::cli {

// Registers the module `sonetrix` with the interpreter to come. False when it cannot be, or when an interpreter is
// running already.
bool registerModule() noexcept;

// Starts the interpreter and imports the module into the console's namespace. A failure is logged; the record then
// goes without an interpreter.
void startInterpreter(const sonetrix_cliModule_t &module) noexcept;

// Whether the interpreter was started and has not ended.
bool interpreterIsReady() noexcept;

// Prompts, pager, the start code and the script file; the latter two are consumed.
void setUpConsole(sonetrix_cliModule_t &module) noexcept;

// The end, in the order of shutdown.h, and finalisation.
void endInterpreter(const sonetrix_cliModule_t &module) noexcept;

} // namespace sonetrix::cli
