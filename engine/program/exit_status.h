#pragma once

namespace sonetrix::dev {

/// Exit statuses of the program's own; a script's come from `exit`.
constexpr int exitFailure = 1;        // a script failed
constexpr int exitUsage = 64;         // wrong options
constexpr int exitNoInput = 66;       // the script cannot be read
constexpr int exitUnavailable = 69;   // the scripting module cannot be loaded
constexpr int exitEngineFailure = 70; // the engine cannot start
constexpr int exitRecording = 74;     // a recording has been cut short

} // namespace sonetrix::dev
