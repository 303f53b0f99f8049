#pragma once

#include "engine.h"
#include "lists/lists.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sonetrix::dev {

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

/// Reads the command line. Where the program has to end here (help, version, an error) it says so on the standard
/// streams and gives the exit status instead.
std::optional<ProgramOptions> readOptions(int argc, char **argv, int &exitStatus);

/// Adds the start parameter that "KEY=VALUE" or "KEY:TYPE=VALUE" describes. Throws std::invalid_argument.
void addStartParameter(ListKeyValue &parameters, const std::string &description);

} // namespace sonetrix::dev
