"""The prompt: line editing with a history that outlives the session, what results look like, the user's own start-up
file. Each of it does without what it does not find."""

import __main__

import builtins
import os
import pathlib
import sys
from types import TracebackType
from typing import Any

import sonetrix

from . import completion, output
from .paste import one_line
from .words import Refused

try:
    import readline
except ImportError:  # an interpreter without it: the terminal's own line editing
    readline = None  # type: ignore[assignment]

_HISTORY_LENGTH = 10_000


def _folder(variable: str, standard: str) -> pathlib.Path:
    """The user's folder for our files of one kind."""
    return pathlib.Path(os.environ.get(variable) or pathlib.Path.home() / standard) / "sonetrix"


class History:
    """The lines typed, in a file of the user's alone. Each is in it before it runs, whatever the line then does to the
    engine; several consoles may add to it at the same time."""

    def __init__(self, path: pathlib.Path) -> None:
        self.path = path

    def load(self) -> None:
        """Into line editing, with the file cut to the last lines."""
        try:
            lines = self.path.read_text(errors="replace").split("\n")[:-1]
            if len(lines) > 2 * _HISTORY_LENGTH:
                lines = lines[-_HISTORY_LENGTH:]
                shorter = self.path.with_suffix(f".{os.getpid()}")
                with open(os.open(shorter, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w") as file:
                    file.writelines(line + "\n" for line in lines)
                shorter.replace(self.path)
        except OSError:
            return
        for line in lines[-_HISTORY_LENGTH:]:
            readline.add_history(line.replace("\x1e", "\n"))

    def add(self, entry: str) -> None:
        """Several lines that were pasted as one stay one entry."""
        if not entry.strip():
            return
        try:
            self.path.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
            descriptor = os.open(self.path, os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o600)
            with open(descriptor, "wb") as file:
                file.write((entry.rstrip("\n").replace("\n", "\x1e") + "\n").encode(errors="replace"))
        except OSError:
            pass


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
    path = _folder("XDG_CONFIG_HOME", ".config") / "startup.py"
    try:
        code = compile(path.read_bytes(), str(path), "exec", dont_inherit=True)
        exec(code, __main__.__dict__)
    except FileNotFoundError:
        pass
    except Exception as error:
        frames = error.__traceback__ and error.__traceback__.tb_next
        sys.excepthook(type(error), error, frames)


def install() -> None:
    """Turns all of it on."""
    completion.install()
    history = History(_folder("XDG_STATE_HOME", ".local/state") / "history")
    if readline is not None:
        if os.environ.get("TERM", "dumb") != "dumb":
            readline.parse_and_bind("set enable-bracketed-paste on")
        history.load()

    def line_typed(prompt: str, line: str) -> str | None:
        history.add(line)
        return one_line(prompt, line)

    show_error = sys.excepthook

    def show_trimmed(kind: type[BaseException], error: BaseException, traceback: TracebackType | None) -> None:
        trim(error, traceback)
        show_error(kind, error, traceback)

    sys.displayhook, sys.excepthook = display, show_trimmed
    if sys.stdout is not None and sys.stdout.isatty():
        print(banner())
        output.install(line_typed)
    run_startup_file()
