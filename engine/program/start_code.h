#pragma once

#include <optional>
#include <string>
#include <vector>

namespace sonetrix::dev {

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

/// Python text that gives the console completion and a history kept over sessions, where readline is there.
std::string lineEditingCode();

} // namespace sonetrix::dev
