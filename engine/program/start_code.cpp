#include "program/options.h"

#include <fmt/ranges.h>

namespace sonetrix::dev {

namespace {

/// The text as Python bytes, whatever it holds.
std::string literal(std::string_view text) {
    const std::vector<unsigned char> bytes(text.begin(), text.end());
    return fmt::format("bytes.fromhex('{:02x}')", fmt::join(bytes, ""));
}

std::string scriptRunCode(const ProgramOptions &options) {
    std::string steps;
    if (options.code)
        steps += fmt::format("('<string>', {}), ", literal(*options.code));
    if (options.script)
        steps += fmt::format("({}, None), ", literal(*options.script));
    std::string arguments = literal(options.script.value_or("-c"));
    for (const std::string &argument : options.scriptArguments)
        arguments += ", " + literal(argument);
    return fmt::format("__import__('sonetrix_console.program').program.run([{}], [{}], {})\n", steps, arguments,
        options.scriptOnly() ? "True" : "False");
}

} // namespace

void addStartCode(ProgramOptions &options, const std::filesystem::path &packages) {
    constexpr auto path = [](const std::string &name) { return "__import__('os').fsdecode(" + literal(name) + ')'; };
    std::string text = fmt::format("__import__('sys').path.append({})\n", path(packages));
    text += "__import__('sonetrix_console.program').program.find_interpreter()\n";
    if (!options.scriptOnly())
        text += "import sonetrix_console; sonetrix_console.install()\n";
    if (options.listen)
        text += fmt::format(
            "__import__('sonetrix_console').serve({})\n", options.listen->empty() ? "" : path(*options.listen));
    if (options.code || options.script)
        text += scriptRunCode(options);
    const char *byHand = nullptr;
    if (sonetrix_keyValueListGetS(&options.startParameters, "python.start", &byHand) == 0)
        text += byHand;
    options.startParameters.remove("python.start");
    options.startParameters.add("python.start", text);
}

} // namespace sonetrix::dev
