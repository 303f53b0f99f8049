#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sonetrix::dev {

/// Where the Python package of the console is, as the program's own place tells: in the build tree and installed.
std::filesystem::path pythonPackages();

/// Python text that lets the interpreter find the packages in that folder, after all others.
std::string searchPathCode(const std::filesystem::path &packages);

/// Python text that turns the console's package on.
std::string consoleCode();

/// Python text that lets clients in at that socket, or at the default one when the path is empty.
std::string listenCode(const std::string &path);

/// Python text that runs the code, then the script, in `__main__`, the way the interpreter's own command line would:
/// arguments, search path, tracebacks. With `ends` a failure becomes the engine's exit code, the script is interrupted
/// by a stop without a traceback, and SIGINT is ignored from then on.
struct ScriptRun {
    std::optional<std::string> code;
    std::optional<std::string> script;
    std::vector<std::string> arguments;
    bool ends = false;
};
std::string scriptRunCode(const ScriptRun &run);

} // namespace sonetrix::dev
