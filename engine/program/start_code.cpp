#include "program/start_code.h"

#include <fmt/format.h>

namespace sonetrix::dev {

namespace {

/// The text as a Python bytes literal.
std::string literal(const std::string &text) {
    std::string result = "b'";
    for (const char c : text) {
        const bool plain = c >= ' ' && c <= '~' && c != '\'' && c != '\\';
        result += plain ? std::string(1, c) : fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    }
    return result + "'";
}

} // namespace

std::filesystem::path pythonPackages() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return program.parent_path().parent_path() / "lib" / "python3" / "dist-packages";
}

std::string searchPathCode(const std::filesystem::path &packages) {
    return fmt::format("__import__('sys').path.append(__import__('os').fsdecode({}))\n", literal(packages));
}

std::string consoleCode() { return "import sonetrix_console; sonetrix_console.install()\n"; }

std::string listenCode(const std::string &path) {
    const std::string argument = path.empty() ? "" : fmt::format("__import__('os').fsdecode({})", literal(path));
    return fmt::format("__import__('sonetrix_console').serve({})\n", argument);
}

std::string scriptRunCode(const ScriptRun &run) {
    std::string steps;
    std::string arguments = literal(run.script ? *run.script : "-c");
    if (run.code)
        steps += fmt::format("('<string>', {}), ", literal(*run.code));
    if (run.script)
        steps += fmt::format("({}, None), ", literal(*run.script));
    for (const std::string &argument : run.arguments)
        arguments += ", " + literal(argument);
    return fmt::format("__import__('sonetrix_console.program').program.run([{}], [{}], {})\n", steps, arguments,
        run.ends ? "True" : "False");
}

} // namespace sonetrix::dev
