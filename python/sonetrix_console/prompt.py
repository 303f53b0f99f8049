"""The prompt: line editing with a history that outlives the session, what results look like, the user's own start-up
file. Each of it does without what it does not find."""

import __main__

import builtins
import functools
import os
import sys
from types import TracebackType
from typing import Any

import sonetrix

from . import output
from .completion import candidates
from .ctl import edit_lines, user_folder
from .paste import one_line, show
from .words import Refused


def banner() -> str:
    """The line that a console begins with.

    >>> banner()
    'SoneTrix 1.0.0, Python 3.12.1, clock at 48000 Hz; help() shows what there is'
    """
    version = ".".join(map(str, sys.version_info[:3]))
    driver = "no driver"
    if sonetrix.engine.hasDriver():
        driver = f"{sonetrix.engine.getDriverName()} at {sonetrix.engine.getFrameRate()} Hz"
    return f"SoneTrix {sonetrix.__version__}, Python {version}, {driver}; help() shows what there is"


def describe(value: Any) -> str:
    """What a prompt shows of a statement's result: the engine's lists by content, and of `exit` what it does."""
    if isinstance(value, sonetrix.listKeyValue):
        return f"listKeyValue({value.toDict()})"
    if isinstance(value, sonetrix.listValue):
        return f"listValue({value.toList()})"
    if value is sonetrix.exit:
        return "exit() stops the engine, exit(3) with that status; Ctrl-D ends the console"
    return repr(value)


def display(value: Any) -> None:
    """Shows a statement's result at this prompt."""
    if isinstance(value, (sonetrix.listKeyValue, sonetrix.listValue)) or value is sonetrix.exit:
        setattr(builtins, "_", value)
        print(describe(value))
    else:
        sys.__displayhook__(value)


def trim(error: BaseException, traceback: TracebackType | None) -> None:
    """Leaves out where in this package the engine's refusal was found: the mistake is in front of it."""
    while isinstance(error, Refused) and traceback is not None and traceback.tb_next is not None:
        if traceback.tb_next.tb_frame.f_globals.get("__package__") == __package__:
            traceback.tb_next = None
        traceback = traceback.tb_next


def run_startup_file() -> None:
    """Runs $XDG_CONFIG_HOME/sonetrix/startup.py (~/.config/sonetrix/startup.py) in `__main__`, if there is one."""
    path = os.path.join(user_folder("XDG_CONFIG_HOME", ".config"), "startup.py")
    try:
        if os.path.exists(path):
            with open(path, "rb") as file:
                exec(compile(file.read(), path, "exec", dont_inherit=True), __main__.__dict__)
    except Exception as error:
        show(error, error.__traceback__ and error.__traceback__.tb_next)


@functools.cache  # once
def install() -> None:
    """Turns all of it on."""
    keep = edit_lines(candidates, "history")

    def line_typed(prompt: str, line: str) -> str | None:
        keep()  # before it runs, whatever it then does to the engine
        return one_line(prompt, line)

    show_error = sys.excepthook

    def show_trimmed(kind: type[BaseException], error: BaseException, traceback: TracebackType | None) -> None:
        trim(error, traceback)
        if traceback and traceback.tb_frame.f_code.co_filename == output.__file__:  # Ctrl-C at the prompt
            error, traceback = error.with_traceback(None), None
        show_error(kind, error, traceback)

    sys.displayhook, sys.excepthook = display, show_trimmed
    if sys.stdout is not None and sys.stdout.isatty():
        print(banner())
        output.install(line_typed)
    run_startup_file()
