#include "program/start_code.h"

#include <fmt/format.h>

namespace sonetrix::dev {

namespace {

// Both texts define one function that takes its own name away again, so that nothing is left behind in the console.

constexpr const char *runSteps = R"py(
def _sonetrix_run(steps, arguments, ends):
    import os, signal, sys
    from sonetrix import engine, exit
    space = sys.modules["__main__"].__dict__
    del space["_sonetrix_run"]
    status = 0
    try:
        sys.argv = [os.fsdecode(argument) for argument in arguments]
        for path, source in steps:
            if ends and not engine.isRunning():
                break
            if source is None:
                path = os.path.abspath(os.fsdecode(path))
                sys.path.insert(0, os.path.dirname(os.path.realpath(path)))
                space["__file__"] = path
                with open(path, "rb") as file:
                    source = file.read()
            exec(compile(source, path, "exec", dont_inherit=True), space)
    except SystemExit:
        raise
    except BaseException as error:
        interrupted = isinstance(error, KeyboardInterrupt)
        if not (interrupted and ends and not engine.isRunning()):
            status = 130 if interrupted else 1
            frames = error.__traceback__.tb_next
            sys.excepthook(type(error), error.with_traceback(frames), frames)
    finally:
        while ends:
            try:
                signal.signal(signal.SIGINT, signal.SIG_IGN)
                break
            except KeyboardInterrupt:
                pass
        if ends and status:
            exit(status)
)py";

constexpr const char *lineEditing = R"py(
def _sonetrix_line_editing():
    del globals()["_sonetrix_line_editing"]
    try:
        import atexit, os, readline, rlcompleter
    except ImportError:
        return
    editline = "libedit" in (readline.__doc__ or "")
    readline.parse_and_bind("bind ^I rl_complete" if editline else "tab: complete")
    state = os.environ.get("XDG_STATE_HOME") or os.path.join(os.path.expanduser("~"), ".local", "state")
    history = os.path.join(state, "sonetrix", "history")
    try:
        os.makedirs(os.path.dirname(history), mode=0o700, exist_ok=True)
        readline.read_history_file(history)
    except OSError:
        pass
    readline.set_history_length(10000)

    def save():
        try:
            readline.write_history_file(history)
        except OSError:
            pass

    atexit.register(save)
_sonetrix_line_editing()
)py";

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

std::string scriptRunCode(const ScriptRun &run) {
    std::string steps;
    std::string arguments = literal(run.script ? *run.script : "-c");
    if (run.code)
        steps += fmt::format("('<string>', {}), ", literal(*run.code));
    if (run.script)
        steps += fmt::format("({}, None), ", literal(*run.script));
    for (const std::string &argument : run.arguments)
        arguments += ", " + literal(argument);
    return fmt::format("{}_sonetrix_run([{}], [{}], {})\n", runSteps, steps, arguments, run.ends ? "True" : "False");
}

std::string lineEditingCode() { return lineEditing; }

} // namespace sonetrix::dev
