#include "program/options.h"

#include "driver/device_driver.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#if __has_include(<CLI/ExtraValidators.hpp>) // transformers, from CLI11 2.6 on
#include <CLI/ExtraValidators.hpp>
#endif
#include <CLI/Formatter.hpp>
#include <charconv>
#include <iostream>

namespace sonetrix::dev {

namespace {

constexpr const char *description = "Runs the development audio engine with a Python console.\n\n"
                                    "With SCRIPT or -c the engine stops when they have run; otherwise a console opens, "
                                    "or what standard input holds is\n"
                                    "run as one script when that is no terminal.\n";

constexpr const char *footer =
    "Start parameters (--set): a whole number becomes int32, or uint32 where only that holds it; a number with a\n"
    "point float; anything else a string. KEY:TYPE=VALUE names the type: uint32, int32, float, double or string.\n"
    "\nExit status: the code that a script gave to exit(); else 0, or 1 when a script failed (130 when it was\n"
    "interrupted); 64 wrong options; 66 SCRIPT cannot be read; 69 the scripting module cannot be loaded;\n"
    "70 the engine cannot start; 74 the recording was cut short; 128 and the signal's number after a second SIGTERM.";

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App *, std::string) const override {
        return "Usage: sonetrix-engine [OPTIONS] [SCRIPT [ARGUMENT...]]\n";
    }
    /// Without what a flag stands for when it has no value.
    std::string make_option_name(const CLI::Option *option, bool positional) const override {
        const std::string name = Formatter::make_option_name(option, positional);
        return name.substr(0, name.find('{'));
    }
};

const std::map<std::string, sonetrix_log_level_t> levelNames{{"trace", SONETRIX_LOG_TRACE},
    {"debug", SONETRIX_LOG_DEBUG}, {"info", SONETRIX_LOG_INFO}, {"warn", SONETRIX_LOG_WARN},
    {"error", SONETRIX_LOG_ERROR}, {"fatal", SONETRIX_LOG_FATAL}};

/// The first word that is no option is the script; what follows is the script's own.
void takeScript(std::vector<std::string> words, ProgramOptions &options) {
    const bool separated = !words.empty() && words.front() == "--";
    if (separated)
        words.erase(words.begin());
    if (words.empty())
        return;
    if (!separated && words.front().starts_with('-'))
        throw CLI::ExtrasError({words.front()});
    options.script = words.front();
    options.scriptArguments.assign(words.begin() + 1, words.end());
}

void takeDriver(const std::string &name, Engine::Options &options) {
    constexpr std::string_view device = "device";
    const bool isDevice = name == device || name.starts_with("device:");
    if (name != "clock" && !isDevice)
        throw CLI::ValidationError("--driver", name + ": neither clock nor device");
    options.device.reset();
    if (isDevice)
        options.device = name.substr(std::min(name.size(), device.size() + 1));
}

void listDevices() {
    for (const std::string &line : soundDevices())
        std::cout << line << std::endl;
    throw CLI::Success();
}

template <class Number> bool addNumber(ListKeyValue &parameters, const std::string &key, std::string_view text) {
    text.remove_prefix(text.starts_with('+') ? 1 : 0);
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber)
        parameters.add(key, number);
    return isNumber;
}

/// "KEY=VALUE" or "KEY:TYPE=VALUE"
void addStartParameter(ListKeyValue &parameters, const std::string &setting) {
    const size_t equals = setting.find('=');
    const size_t colon = setting.rfind(':', equals);
    const std::string key = setting.substr(0, std::min(colon, equals));
    if (key.empty() || equals == std::string::npos)
        throw CLI::ValidationError("--set", setting + ": not KEY=VALUE");
    const std::string text = setting.substr(equals + 1);
    const std::string type = colon < equals ? setting.substr(colon + 1, equals - colon - 1) : "";
    const bool deduced = type.empty();
    const bool looksReal = // which "nan" and "inf" do not
        text.find('.') != std::string::npos && text.find_first_not_of("+-.0123456789eE") == std::string::npos;
    if (((deduced || type == "int32") && addNumber<int32_t>(parameters, key, text)) ||
        ((deduced || type == "uint32") && addNumber<uint32_t>(parameters, key, text)) ||
        ((deduced ? looksReal : type == "float") && addNumber<float>(parameters, key, text)) ||
        (type == "double" && addNumber<double>(parameters, key, text)))
        return;
    if (!deduced && type != "string")
        throw CLI::ValidationError("--set", setting + ": the value is not of that type");
    parameters.add(key, text);
}

} // namespace

std::filesystem::path libraryFolder() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().parent_path() / "lib";
}

ProgramOptions readOptions(int argc, char **argv) {
    ProgramOptions options;
    std::error_code unreadable;
    const auto installed = libraryFolder() / "sonetrix" / "sonetrix.so";
    options.module = std::filesystem::exists(installed, unreadable) ? installed : libraryFolder() / "sonetrix.so";
    std::vector<std::string> settings;

    CLI::App app(description, "sonetrix-engine");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(footer);
    app.prefix_command();
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.set_version_flag("--version", "sonetrix-engine " SONETRIX_VERSION);
    app.add_option("-c", options.code, "Python text to run before SCRIPT")->type_name("CODE");
    app.add_flag("-i,--interactive", options.interactive, "Open the console after SCRIPT or -c");
    app.add_flag("--listen{}", options.listen, "Let sonetrix-ctl in, at that socket (in the user's runtime folder)")
        ->type_name("[=PATH]");
    app.add_option("--set", settings, "Start parameter, repeatable")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false) // what follows may be the script
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--rate", options.engine.format.rate, "Frames per second")->type_name("HZ")->capture_default_str();
    app.add_option("--block", options.engine.format.block, "Frames per block")
        ->type_name("FRAMES")
        ->capture_default_str();
    app.add_option_function<std::string>(
           "--driver", [&](const std::string &name) { takeDriver(name, options.engine); },
           "What asks for the blocks: the clock, the default sound device or the one of that name (clock)")
        ->type_name("clock|device[:NAME]");
    app.add_flag_callback("--list-devices", listDevices, "List the sound devices and exit");
    app.add_option("--input", options.engine.input, "Sound file to play into the capture ports")->type_name("FILE");
    app.add_option("--record", options.engine.record, "Sound file for what the playback ports play")->type_name("FILE");
    app.add_option("--offline", options.engine.offlineSeconds, "Render that long, as fast as possible")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    app.add_option("--log-level", options.logLevel, "trace, debug, info, warn, error, fatal or its number (warn)")
        ->type_name("LEVEL")
        ->transform(CLI::CheckedTransformer(levelNames, CLI::ignore_case).description(""));
    app.add_option("--module", options.module,
           "The scripting module (sonetrix.so in ../lib/sonetrix or ../lib from the program)")
        ->type_name("PATH");
    try {
        app.parse(argc, argv);
        takeScript(app.remaining(), options);
        for (const std::string &setting : settings)
            addStartParameter(options.startParameters, setting);
        return options;
    } catch (const CLI::Success &helpOrVersion) {
        throw Exit(app.exit(helpOrVersion), "");
    } catch (const CLI::ParseError &error) {
        throw Exit(exitUsage, std::string(error.what()) + "; see --help");
    }
}

} // namespace sonetrix::dev
