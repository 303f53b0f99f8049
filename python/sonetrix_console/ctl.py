#!/usr/bin/python3 -I
"""Runs Python text in a SoneTrix engine that is running, through the socket that its `serve()` has opened.

A plain client in this one file, which needs neither the package nor an engine on its machine. docs/remote.md describes
the messages.
"""

import argparse
import ast
import contextlib
import fcntl
import json
import os
import re
import select
import shutil
import signal
import socket
import struct
import sys
import termios
from collections.abc import Callable, Iterator
from typing import Any, NoReturn

USAGE, NO_INPUT, UNAVAILABLE, INTERRUPTED = 64, 66, 69, 130
EPILOG = """\
Exit status: 0 done; 1 the engine refused, or the text raised an exception; what the text gave to sys.exit; 64 wrong
usage; 66 a file cannot be read; 69 there is no engine, or it has ended meanwhile; 130 interrupted."""


def default_socket() -> str:
    """Where an engine of this user listens that was not told where."""
    for folder in (os.environ.get("XDG_RUNTIME_DIR", ""), f"/run/user/{os.getuid()}"):
        if os.path.isdir(folder):
            return os.path.join(folder, "sonetrix", "engine.sock")
    return f"/tmp/sonetrix-{os.getuid()}/engine.sock"


Screen = tuple[int, int, str]  # columns, lines and kind ($TERM) of a terminal


class EngineGone(Exception):
    """The connection has ended."""


class Terminal:
    """The terminal of standard input and output."""

    def screen(self) -> Screen | None:
        """None where one of them is none."""
        if not (sys.stdin.isatty() and sys.stdout.isatty()):
            return None
        return (*shutil.get_terminal_size(), os.environ.get("TERM", "dumb"))

    def typed(self, seconds: float) -> str | None:
        """The next key within that time, "" at the end of input."""
        return os.read(0, 1).decode(errors="ignore") if select.select([0], [], [], seconds)[0] else None

    @contextlib.contextmanager
    def keys(self) -> Iterator[Callable[[float], str | None]]:
        """Keys come as they are pressed, Ctrl-C among them; afterwards the terminal is as it was."""
        settings, changed = termios.tcgetattr(0), termios.tcgetattr(0)
        changed[3] &= ~(termios.ICANON | termios.ECHO | termios.ISIG)
        try:
            termios.tcsetattr(0, termios.TCSANOW, changed)
            yield self.typed
        finally:
            termios.tcsetattr(0, termios.TCSANOW, settings)


class Connection:
    """To an engine, which runs one text at a time for it."""

    def __init__(self, path: str) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(path)
        credentials = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        if os.getuid() and struct.unpack("3i", credentials)[1] not in (0, os.getuid()):
            raise PermissionError("it is another user's")
        self.ended = False
        self.terminal = Terminal()
        self._keys = contextlib.ExitStack()
        self._typed: Callable[[float], str | None] | None = None  # while keys are wanted
        self._received = b""
        self._interrupts = 0
        self._reading = False

    def send(self, **message: Any) -> None:
        try:
            self._socket.sendall(json.dumps(message).encode() + b"\n", socket.MSG_NOSIGNAL)
        except OSError:
            raise EngineGone from None

    def receive(self) -> dict[str, Any]:
        while b"\n" not in self._received:
            watched: list[socket.socket | int] = [self._socket, *([0] if self._typed else [])]
            ready, _, _ = select.select(watched, [], [])
            if self._typed and 0 in ready:
                self._press(self._typed(0) or "")
            if self._socket in ready:
                self._received += self._socket.recv(65536) or self._end()
        line, _, self._received = self._received.partition(b"\n")
        message: dict[str, Any] = json.loads(line)
        return message

    def run(self, text: str, **options: Any) -> dict[str, Any]:
        """The engine's last word on the text. Ctrl-C interrupts the text, a second one gives it up."""
        self._interrupts = 0
        signal.signal(signal.SIGINT, lambda *_: self._interrupt())
        signal.signal(signal.SIGWINCH, lambda *_: self.send(do="resize", screen=self.terminal.screen()))
        try:
            self.send(do="run", text=text, screen=self.terminal.screen(), **options)
            while "done" not in (message := self.receive()):
                self._obey(message)
            return message
        finally:
            self._keys.close()
            signal.signal(signal.SIGWINCH, signal.SIG_DFL)
            signal.signal(signal.SIGINT, signal.default_int_handler)

    def complete(self, line: str, word: str) -> list[str]:
        self.send(do="complete", text=line, word=word)
        matches: list[str] = self.receive().get("matches", [])
        return matches

    def watch(self) -> None:
        """From now on the engine's end is noticed at once, also while a line is being typed."""
        signal.signal(signal.SIGIO, lambda *_: self._look())
        fcntl.fcntl(self._socket, fcntl.F_SETOWN, os.getpid())
        fcntl.fcntl(self._socket, fcntl.F_SETFL, fcntl.fcntl(self._socket, fcntl.F_GETFL) | os.O_ASYNC)

    def _look(self) -> None:
        with contextlib.suppress(BlockingIOError):
            self.ended or self._socket.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) or self._end()

    def _end(self) -> NoReturn:
        self.close()
        raise EngineGone

    def close(self) -> None:
        """No signal of watch() comes any more; one that has come already does nothing."""
        self.ended = True
        self._socket.close()

    def _obey(self, message: dict[str, Any]) -> None:
        for stream, key in ((sys.stdout, "out"), (sys.stderr, "err")):
            stream.write(message.get(key, ""))
            stream.flush()
        if "keys" in message:
            self._keys.close()
            self._typed = self._keys.enter_context(self.terminal.keys()) if message["keys"] else None
        if "read" in message:
            self._read()
        if "error" in message:
            raise SystemExit(f"sonetrix-ctl: {message['error']}")

    def _read(self) -> None:
        self._reading = True
        try:
            self.send(do="input", text=sys.stdin.readline())
        except KeyboardInterrupt:
            self.send(do="interrupt")
        finally:
            self._reading = False

    def _press(self, keys: str) -> None:
        self.send(do="input", text=keys)
        if "\x03" in keys:
            self._interrupt()

    def _interrupt(self) -> None:
        self._interrupts += 1
        if self._interrupts > 1 or self._reading:
            raise KeyboardInterrupt
        if not self._typed:
            self.send(do="interrupt")


def show(value: Any, path: str) -> None:
    """Data as text, in a file if one is named."""
    if isinstance(value, dict):
        value = "\n".join(f"{key} {item}" for key, item in value.items())
    elif isinstance(value, list):
        value = "\n".join(map(str, value))
    if value == "":
        return
    if path:
        with open(path, "w", encoding="utf-8") as file:
            print(value, file=file)
    else:
        print(value)


def read_file(path: str) -> str:
    try:
        if path == "-":
            return sys.stdin.read()
        with open(path, encoding="utf-8") as file:
            return file.read()
    except (OSError, UnicodeError) as error:
        print(f"sonetrix-ctl: {error}", file=sys.stderr)
        raise SystemExit(NO_INPUT) from None


def literal(text: str) -> Any:
    """The number that a text is, or the text."""
    try:
        value = ast.literal_eval(text)
    except (SyntaxError, ValueError):
        return text
    return value if isinstance(value, (int, float)) else text


def repl(connection: Connection) -> int:
    """Lines to the engine's console until the end of input; what a line gives to sys.exit ends nothing."""
    typing = connection.terminal.screen() is not None
    if typing:
        edit_lines(connection)
        print("Ctrl-D leaves; exit() stops the engine")
    connection.watch()
    lines: list[str] = []
    while True:
        try:
            lines.append(input(("... " if lines else "engine> ") if typing else ""))
            if not connection.run("\n".join(lines), line=True).get("more"):
                lines.clear()
        except (EOFError, EngineGone) as end:
            print("\n" * typing, end="")
            if isinstance(end, EngineGone):
                raise
            return 0
        except KeyboardInterrupt:
            print("\nKeyboardInterrupt")
            lines.clear()


def edit_lines(connection: Connection) -> None:
    """Line editing, with a history of its own and completion by the engine."""
    try:
        import readline
    except ImportError:
        return
    matches: list[str] = []

    def complete(word: str, state: int) -> str | None:
        if state == 0:
            matches[:] = connection.complete(readline.get_line_buffer()[: readline.get_endidx()], word)
        return matches[state] if state < len(matches) else None

    readline.set_completer(complete)
    readline.parse_and_bind("set show-all-if-ambiguous on")
    readline.parse_and_bind("bind ^I rl_complete" if "libedit" in (readline.__doc__ or "") else "tab: complete")


# Each command: what it does, its arguments, and what it runs in the names of the package: shown there, or given as data.
COMMANDS = {
    "repl": ("a console in the engine", "", "", ""),
    "eval": ("runs Python text and shows the values of its expressions", "TEXT", "", "{TEXT}"),
    "run": ("runs a script, - from standard input; what comes behind it is its own", "FILE [ARGUMENT...]", "", ""),
    "get": ("the value of a parameter, or of all of a module: MODULE.", "KEY", "", "get({KEY!r})"),
    "set": ("writes parameters", "KEY=VALUE...", "", "[put(*pair) for pair in {pairs!r}]"),
    "ports": ("the names of all ports", "", "", "prompt.sonetrix.engine.getPortNames()"),
    "link": ("links two ports, or the ports of two modules", "FROM TO", "", "connect({FROM!r}, {TO!r})"),
    "unlink": ("removes links, all or those to another one", "FROM [TO]", "", "disconnect({FROM!r}, {TO!r} or None)"),
    "graph": ("modules, their values and links", "", "graph()", "state()"),
    "top": ("the load, live on a terminal; q ends it", "", "top()", "views.engine_load()"),
    "meters": ("levels, live on a terminal; q ends it", "[PATTERN]", "meters({PATTERN!r})", "views.levels({PATTERN!r})"),
    "save": ("writes a script that rebuilds the graph", "[FILE]", "", "session.script()"),
    "load": ("makes the graph what a saved script says", "FILE", "", ""),
}


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.print_usage(sys.stderr)
        self.exit(USAGE, f"sonetrix-ctl: {message}\n")


def parse() -> argparse.Namespace:
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
            command.add_argument(argument.strip("[]."), **optional)
    path = os.environ.get("SONETRIX_SOCKET") or default_socket()
    options = parser.parse_args(namespace=argparse.Namespace(socket=path, json=False))
    options.pairs = [pair.partition("=") for pair in getattr(options, "KEY=VALUE", [])]
    if not all(equals for _, equals, _ in options.pairs):
        parser.error("set takes KEY=VALUE")
    options.pairs = [(key, literal(value)) for key, _, value in options.pairs]
    return options


def perform(connection: Connection, options: argparse.Namespace) -> int:
    command, given = options.command, vars(options)
    if command == "repl":
        return repl(connection)
    if command in ("run", "load"):
        name = os.path.abspath(options.FILE) if options.FILE != "-" else "<stdin>"
        text, arguments = read_file(options.FILE), given.get("ARGUMENT", [])
        return finish(connection.run(text, name=name, space="own", arguments=arguments))
    if command == "eval" and not options.json:
        return finish(connection.run(options.TEXT))
    shown, data = (text.format(**given) for text in COMMANDS[command][2:])
    if shown and not options.json:
        return finish(connection.run(shown, space="words"))
    answer = connection.run(data, data=True, space="console" if command == "eval" else "words")
    if options.json and answer["done"] == 0:
        print(json.dumps(answer["value"]))
    elif command in ("get", "ports", "save") and answer["done"] == 0:
        show(answer["value"], given.get("FILE") or "")
    return finish(answer)


def finish(answer: dict[str, Any]) -> int:
    status: int = answer["done"]
    return status


def main() -> int:
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # of `sonetrix-ctl ports | head`
    for stream in (sys.stdout, sys.stderr):
        getattr(stream, "reconfigure")(errors="replace")
    options = parse()
    try:
        with contextlib.closing(Connection(options.socket)) as connection:
            return perform(connection, options)
    except EngineGone:
        print("sonetrix-ctl: the engine has ended", file=sys.stderr)
        return UNAVAILABLE
    except OSError as error:
        print(f"sonetrix-ctl: {options.socket}: {error.strerror or error}", file=sys.stderr)
        return UNAVAILABLE
    except KeyboardInterrupt:
        return INTERRUPTED


if __name__ == "__main__":
    sys.exit(main())
