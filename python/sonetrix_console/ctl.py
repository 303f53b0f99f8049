#!/usr/bin/python3 -I
"""Runs Python text in a SoneTrix engine that is running, through the socket that its `serve()` has opened.

A plain client in this one file, which needs neither the package nor an engine on its machine. docs/remote.md describes
the messages.
"""

import contextlib
import errno
import fcntl
import io
import json
import os
import re
import select
import signal
import socket
import struct
import sys
import termios
import textwrap
from collections.abc import Callable, Iterator
from typing import Any, NoReturn

HISTORY_LENGTH = 10_000
USAGE, NO_FILE, UNAVAILABLE, INTERRUPTED = 64, 66, 69, 130
EPILOG = """\
Exit status: 0 done; 1 the engine refused, or the text raised an exception; what the text gave to sys.exit; 64 wrong
usage; 66 a file cannot be read or written; 69 there is no engine, or it has ended meanwhile; 130 interrupted."""


def default_socket() -> str:
    """Where an engine of this user listens that was not told where."""
    runtime = os.environ.get("XDG_RUNTIME_DIR") or f"/run/user/{os.getuid()}"
    folder = os.path.join(runtime, "sonetrix") if os.path.isdir(runtime) else f"/tmp/sonetrix-{os.getuid()}"
    return os.path.join(folder, "engine.sock")


def user_folder(variable: str, standard: str) -> str:
    """The user's folder for our files of one kind; one that cannot be, for a user without a home."""
    home = os.path.expanduser("~/").replace("~", os.devnull)
    return os.path.join(os.environ.get(variable) or home + standard, "sonetrix")


def is_trusted(connection: socket.socket) -> bool:
    """Whether this user or root is at the other end."""
    credentials = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    return struct.unpack("3i", credentials)[1] in (0, os.getuid())


def edit_lines(candidates: Callable[[str, str], list[str]], name: str) -> Callable[[], None]:
    """Line editing, where Python has it: completion, and a history that outlives the session, in a file of the user's
    alone. What it returns adds to that file what has been typed since; several consoles may do so at the same time."""
    try:
        import readline
    except ImportError:
        return lambda: None
    found: list[str] = []

    def complete(word: str, state: int) -> str | None:
        if state == 0:
            found.clear()
            with contextlib.suppress(Exception):  # an error at a key is of no use to anybody
                found.extend(candidates(readline.get_line_buffer()[:readline.get_endidx()], word))
        return found[state] if state < len(found) else None

    readline.set_completer(complete)
    pasting = "on" if os.environ.get("TERM", "dumb") != "dumb" else "off"
    for setting in ("tab: complete", "set show-all-if-ambiguous on", f"set enable-bracketed-paste {pasting}"):
        readline.parse_and_bind(setting)
    file = os.path.join(user_folder("XDG_STATE_HOME", ".local/state"), name)
    with contextlib.suppress(OSError):
        os.makedirs(os.path.dirname(file), 0o700, exist_ok=True)
        os.close(os.open(file, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600))
        readline.read_history_file(file)
    kept = readline.get_current_history_length()
    if kept > 2 * HISTORY_LENGTH:  # only now: appending with a limit would rewrite the file each time
        readline.set_history_length(HISTORY_LENGTH)
        with contextlib.suppress(OSError):
            readline.write_history_file(file)
        readline.set_history_length(-1)

    def keep() -> None:
        nonlocal kept
        new = readline.get_current_history_length() - kept
        kept += new
        with contextlib.suppress(OSError):
            readline.append_history_file(new, file)

    return keep


Screen = tuple[int, int, str]  # columns, lines and kind ($TERM) of a terminal


class Terminal:
    """The terminal of standard input and output."""

    def screen(self) -> Screen | None:
        """None where one of them is none."""
        if not (os.isatty(0) and os.isatty(1)):
            return None
        columns, lines = os.get_terminal_size()
        return columns or 80, lines or 24, os.environ.get("TERM", "dumb")

    def typed(self, seconds: float = 0) -> str | None:
        """The next key within that time, "" at the end of input."""
        return os.read(0, 1).decode(errors="ignore") if select.select([0], [], [], seconds)[0] else None

    @contextlib.contextmanager
    def keys(self) -> Iterator[Callable[..., str | None]]:
        """Keys come as they are pressed, Ctrl-C among them; afterwards the terminal is as it was."""
        settings, changed = termios.tcgetattr(0), termios.tcgetattr(0)
        changed[3] &= ~(termios.ICANON | termios.ECHO | termios.ISIG)
        try:
            termios.tcsetattr(0, termios.TCSANOW, changed)
            yield self.typed
        finally:
            termios.tcsetattr(0, termios.TCSANOW, settings)


class TextRefused(Exception):
    """The engine has not taken a text."""


class Connection:
    """To an engine, which runs one text at a time for it."""

    def __init__(self, connected: socket.socket) -> None:
        self._socket = connected
        if os.getuid() and not is_trusted(self._socket):
            raise PermissionError(errno.EPERM, "it is another user's")
        self.terminal = Terminal()
        self._keys = contextlib.ExitStack()
        self._typed: Callable[[], str | None] | None = None  # while keys or a line are wanted
        self._received = b""
        self._unfinished = 0  # texts whose end has not come, those that were left among them

    def send(self, **message: Any) -> None:
        self._socket.sendall(json.dumps(message).encode() + b"\n", socket.MSG_NOSIGNAL)

    def receive(self) -> dict[str, Any]:
        while b"\n" not in self._received:
            watched: list[socket.socket | int] = [self._socket, *([0] if self._typed else [])]
            ready, _, _ = select.select(watched, [], [])
            if self._typed and 0 in ready:
                self._send_typed(self._typed() or "")
            if self._socket in ready:
                self._received += self._socket.recv(65536) or self._end()
        line, _, self._received = self._received.partition(b"\n")
        message: dict[str, Any] = json.loads(line)
        self._unfinished -= "done" in message
        return message

    def _send_typed(self, typed: str) -> None:
        self.send(do="input", text=typed)
        handler = signal.default_int_handler
        if typed == "\x03" and signal.signal(signal.SIGINT, handler) is handler:  # the second one, keys here
            self.send(do="interrupt")
            raise KeyboardInterrupt

    def run(self, text: str, **options: Any) -> dict[str, Any]:
        """The engine's last word on the text. Ctrl-C interrupts the text, a second one gives it up."""
        signal.signal(signal.SIGINT, self._interrupt)
        signal.signal(signal.SIGWINCH, lambda *_: self.send(do="resize", screen=self.terminal.screen()))
        self._typed = None
        try:
            self.send(do="run", text=text, screen=self.terminal.screen(), **options)
            self._unfinished += 1
            with self._keys:
                while self._unfinished:
                    message = self.receive()
                    self._obey(message)
            return message
        except TextRefused:
            self._unfinished -= 1
            raise
        finally:
            self._typed = None
            signal.signal(signal.SIGINT, signal.default_int_handler)

    def _interrupt(self, *_: object) -> None:
        signal.signal(signal.SIGINT, signal.default_int_handler)
        self.send(do="interrupt")

    def complete(self, line: str, word: str) -> list[str]:
        self.send(do="complete", text=line, word=word)
        while not {"matches", "error"} & (message := self.receive()).keys():
            self._show(message)  # of a text that was left
        return list(message.get("matches", []))

    def watch(self) -> None:
        """From now on the engine's end is noticed at once, also while a line is being typed."""
        signal.signal(signal.SIGIO, lambda *_: self._look())
        fcntl.fcntl(self._socket, fcntl.F_SETOWN, os.getpid())
        fcntl.fcntl(self._socket, fcntl.F_SETFL, fcntl.fcntl(self._socket, fcntl.F_GETFL) | os.O_ASYNC)

    def _look(self) -> None:
        if self._socket.fileno() < 0:  # closed meanwhile
            return
        with contextlib.suppress(BlockingIOError):  # nothing has come
            self._socket.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) or self._end()

    def _end(self) -> NoReturn:
        signal.signal(signal.SIGIO, signal.SIG_IGN)
        raise ConnectionError

    def _show(self, message: dict[str, Any]) -> None:
        for stream, key in ((sys.stdout, "out"), (sys.stderr, "err")):
            stream.write(message.get(key, ""))
            stream.flush()

    def _obey(self, message: dict[str, Any]) -> None:
        self._show(message)
        if "keys" in message:
            self._keys.close()
            self._typed = self._keys.enter_context(self.terminal.keys()) if message["keys"] else None
        if "read" in message:
            self._typed = self._line
            if not sys.stdin.isatty():  # what is there already has perhaps been read
                self.send(do="input", text=self._line())
        if "error" in message:
            raise TextRefused(message["error"])

    def _line(self) -> str:
        self._typed = None
        return sys.stdin.readline()


def show(value: Any, path: str) -> None:
    """Data as lines of text, in a file if one is named."""
    if isinstance(value, dict):
        value = [f"{key} {item}" for key, item in value.items()]
    with open(path or 1, "w", encoding="utf-8", errors="replace", closefd=bool(path)) as file:
        file.writelines(f"{line}\n" for line in (value if isinstance(value, list) else [value]))


def read_script(path: str) -> str:
    """Its text, by the encoding that it names or by its byte order mark."""
    from tokenize import detect_encoding  # only here: it takes its time

    with open(0 if path == "-" else path, "rb", closefd=path != "-") as file:
        script = file.read()
    try:
        return script.decode(detect_encoding(io.BytesIO(script).readline)[0])
    except (SyntaxError, UnicodeError) as error:
        raise OSError(errno.EILSEQ, str(error), path) from None


def pair(text: str) -> list[str]:
    """The two sides of KEY=VALUE; put() converts the second."""
    key, value = text.split("=", 1)
    return [key, value]


def repl(connection: Connection) -> int:
    """Lines to the engine's console until the end of input; what a line gives to sys.exit ends nothing."""
    typing = connection.terminal.screen() is not None
    if typing:
        print("Ctrl-D leaves; exit() stops the engine")
    keep = edit_lines(connection.complete, "ctl_history") if typing else lambda: None
    connection.watch()
    lines: list[str] = []
    while True:
        try:
            line = input(("... " if lines else "engine> ") if typing else "")
            keep()
            pasted = "\n" in line
            if pasted and lines:  # amid a statement, which an empty line would end
                line = "\n".join(filter(str.strip, line.split("\n")))
            lines.append(line)
            block = pasted and len(lines) == 1
            if not connection.run(textwrap.dedent(line) if block else "\n".join(lines), line=not block).get("more"):
                lines.clear()
        except (EOFError, ConnectionError) as end:
            print("\n" * typing, end="")
            if isinstance(end, ConnectionError):
                raise
            return 0
        except (KeyboardInterrupt, TextRefused) as error:
            print("\nKeyboardInterrupt" if isinstance(error, KeyboardInterrupt) else error)
            lines.clear()


# Each command: what it does, its arguments, and what it runs, shown there or given as data, with the package's names.
COMMANDS = {
    "repl": ("a console in the engine", "", "", ""),
    "eval": ("runs Python text and shows the values of its expressions", "TEXT", "{TEXT}", "{TEXT}"),
    "run": ("runs a script, - from standard input; what comes behind it is its own", "FILE [ARGUMENT...]", "", ""),
    "get": ("the value of a parameter, or of all of a module: MODULE.", "KEY", "", "get({KEY!r})"),
    "set": ("writes parameters", "KEY=VALUE...", "", "[put(*pair) for pair in {KEY=VALUE!r}]"),
    "ports": ("the names of all ports", "", "", "prompt.sonetrix.engine.getPortNames()"),
    "link": ("links two ports, or the ports of two modules", "FROM TO", "", "connect({FROM!r}, {TO!r})"),
    "unlink": ("removes links, all or those to another one", "FROM [TO]", "", "disconnect({FROM!r}, {TO!r} or None)"),
    "graph": ("modules, their values and links", "", "graph()", "state()"),
    "top": ("the load, live on a terminal; q ends it", "", "top()", "views.engine_load()"),
    "meters": ("levels, live on a terminal; q ends it", "[PATTERN]", "meters({PATTERN!r})",
               "views.levels({PATTERN!r})"),
    "save": ("writes a script that rebuilds the graph", "[FILE]", "", "session.script()"),
    "load": ("makes the graph what a saved script says", "FILE", "", ""),
}


def parse() -> dict[str, Any]:
    import argparse  # only here: the engine's console, which uses this file, too, would wait for it

    class Parser(argparse.ArgumentParser):
        def exit(self, status: int = 0, message: str | None = None) -> NoReturn:
            super().exit(status and USAGE, message)

    common = Parser(add_help=False, argument_default=argparse.SUPPRESS)
    common.add_argument("--socket", metavar="PATH",
                        help="where the engine listens ($SONETRIX_SOCKET, else in the user's runtime folder)")
    common.add_argument("--json", action="store_true", help="the answer as JSON")
    parser = Parser("sonetrix-ctl", description="Works in a SoneTrix engine that is running.", epilog=EPILOG,
                    parents=[common], formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    counts = {"[...]": argparse.REMAINDER, "[]": "?", "...": "+"}
    for name, (summary, arguments, _, _) in COMMANDS.items():
        usage = f"{arguments}: {summary}" if arguments else summary
        command = commands.add_parser(name, help=usage, description=summary, parents=[common])
        for argument in arguments.split():
            marks = re.sub("[A-Z=]+", "", argument)
            optional: dict[str, Any] = {"nargs": counts[marks], "default": ""} if marks else {}
            command.add_argument(argument.strip("[]."), type=pair if "=" in argument else str, **optional)
    path = os.environ.get("SONETRIX_SOCKET") or default_socket()
    return vars(parser.parse_args(namespace=argparse.Namespace(socket=path, json=False)))


def perform(connection: Connection, given: dict[str, Any]) -> int:
    command = given["command"]
    if command == "repl":
        return repl(connection)
    shown, data = (text.format(**given) for text in COMMANDS[command][2:])
    space = "console" if command == "eval" else "words"
    if command in ("run", "load"):
        name = os.path.abspath(given["FILE"]) if given["FILE"] != "-" else "<stdin>"
        answer = connection.run(read_script(given["FILE"]), name=name, space="own", arguments=given.get("ARGUMENT", []))
    elif shown and not given["json"]:
        answer = connection.run(shown, space=space)
    else:
        answer = connection.run(data, space=space, data=True)
        if given["json"] and "value" in answer:
            show(json.dumps(answer["value"]), "")
        elif command in ("get", "ports", "save") and "value" in answer:
            show(answer["value"], given.get("FILE") or "")
    return int(answer["done"])


def fail(what: str, error: OSError, status: int) -> int:
    print(f"sonetrix-ctl: {what}: {error.strerror}", file=sys.stderr)
    return status


def work(connected: socket.socket, given: dict[str, Any]) -> int:
    try:
        connected.connect(given["socket"])
        connection = Connection(connected)
    except OSError as error:
        return fail(given["socket"], error, UNAVAILABLE)
    try:
        return perform(connection, given)
    except ConnectionError:
        print("sonetrix-ctl: the engine has ended", file=sys.stderr)
        return UNAVAILABLE
    except TextRefused as refused:
        print(f"sonetrix-ctl: {refused}", file=sys.stderr)
        return 1
    except OSError as error:
        return fail(error.filename or "standard output", error, NO_FILE)


def main() -> int:
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # of `sonetrix-ctl ports | head`
    for name, mode in (("stdin", "r"), ("stdout", "w"), ("stderr", "w")):
        if getattr(sys, name) is None:  # closed: the socket must not come in its place
            setattr(sys, name, open(os.devnull, mode))
    for stream in (sys.stdout, sys.stderr):
        getattr(stream, "reconfigure")(errors="replace")
    given = parse()
    try:
        with socket.socket(socket.AF_UNIX) as connected:
            return work(connected, given)
    except KeyboardInterrupt:
        return INTERRUPTED


if __name__ == "__main__":
    sys.exit(main())
