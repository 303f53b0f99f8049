#pragma once

#include "engine.h"
#include "lists/lists.h"

#include <stdexcept>

namespace sonetrix::dev {

// Exit statuses of the program's own; a script's come from `exit`.
constexpr int exitFailure = 1;        // a script failed
constexpr int exitUsage = 64;         // wrong options
constexpr int exitNoInput = 66;       // the script cannot be read
constexpr int exitUnavailable = 69;   // the scripting module cannot be loaded
constexpr int exitEngineFailure = 70; // the engine cannot start
constexpr int exitRecording = 74;     // a recording has been cut short

/// Ends the program with that status, for that reason: none when all has been said.
class Exit : public std::runtime_error {
public:
    Exit(int exitStatus, const std::string &reason) : std::runtime_error(reason), status(exitStatus) {}

    const int status;
};

struct ProgramOptions {
    Engine::Options engine;
    ListKeyValue startParameters;
    sonetrix_log_level_t logLevel = SONETRIX_LOG_WARN;
    std::filesystem::path module;
    std::optional<std::string> code;
    std::optional<std::string> script;
    std::vector<std::string> scriptArguments;
    std::optional<std::string> listen; ///< the socket's path; the default one when empty
    bool interactive = false;

    /// Nothing but code and script is run, without a console.
    [[nodiscard]] bool scriptOnly() const noexcept { return (code || script) && !interactive; }
};

/// Reads the command line. Throws Exit where the program has to end here: help, version, an error.
ProgramOptions readOptions(int argc, char **argv);

/// Where shared libraries and packages are, as the program's own place tells: in the build tree and installed.
std::filesystem::path libraryFolder();

/// Puts what the module has to run in its `start` in front of a "python.start" that was set by hand. The packages'
/// folder is searched after all others; the console is turned on and clients are let in, if they are wanted; code and
/// script run in `__main__`, the way the interpreter's own command line would run them. Where they are all there is, a
/// failure becomes the engine's exit code, a stop interrupts the script without a traceback, and SIGINT is ignored from
/// then on.
void addStartCode(ProgramOptions &options, const std::filesystem::path &packages);

} // namespace sonetrix::dev
