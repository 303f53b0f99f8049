#pragma once

#include "module.h"

namespace sonetrix {

// Writes a line to the engine's log, with the interpreter lock released.
void logString(sonetrix_log_level_t level, const char *message);

// log.warn(prefix + str(traceback.format_exc())) for the current exception, which is cleared.
void warnWithTraceback(const char *prefix);

} // namespace sonetrix
