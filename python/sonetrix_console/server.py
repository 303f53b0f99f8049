"""The way into a running engine: a socket of the file system at which sonetrix-ctl and other clients run Python text.

docs/remote.md describes the messages. A client has a thread that reads them and, for each text, one that runs it: so a
text that takes its time holds up nobody, and its client can interrupt it, or leave, which interrupts it, too. All
are daemon threads, for which the interpreter's end does not wait.
"""

import codeop
import contextlib
import ctypes
import errno
import functools
import io
import json
import os
import pathlib
import queue
import signal
import socket
import socketserver
import stat
import sys
import threading
import time
import traceback
from collections.abc import Callable, Iterator, Mapping
from typing import Any

from sonetrix import add_clear_callback

from . import prompt, words
from .completion import candidates
from .ctl import Screen, Terminal, default_socket, is_trusted
from .paste import compile_block

__all__ = ["Terminal", "here", "listen"]
_LONGEST = 1 << 20  # bytes of a message
_MOST = 256  # clients


class _Here(threading.local):
    client: "Client | None" = None  # whose text this thread runs


here = _Here()


class _Stream(io.TextIOBase):
    """A standard stream of a client's texts. Output is sent by lines."""

    encoding = "utf-8"

    def __init__(self, client: "Client", kind: str) -> None:
        self._client, self._kind, self._part = client, kind, ""

    def isatty(self) -> bool:
        return self._client.screen() is not None

    def write(self, text: str) -> int:
        self._part += text
        if "\n" in text or len(self._part) > 4096:
            self.flush()
        return len(text)

    def flush(self) -> None:
        part, self._part = self._part, ""
        if part:
            self._client.send(**{self._kind: part})

    def readline(self, _size: int = -1, /) -> str:  # type: ignore[override]
        self._client.send(read=True)
        while (text := self._client.typed(0.2)) is None:
            pass  # where an interrupt is noticed
        return text


class _Routed:
    """In the place of a standard stream: a client's text has the client's, everybody else what was there before."""

    def __init__(self, name: str) -> None:
        self._name, self._own = name, getattr(sys, name)

    def __getattr__(self, name: str) -> Any:
        return getattr(here.client.streams[self._name] if here.client else self._own, name)

    def __iter__(self) -> Iterator[str]:
        return iter(self.readline, "")


@functools.cache
def _route() -> None:
    """What a client's text reads, prints and shows is the client's from now on, and `_` stays the console's."""
    for name in ("stdin", "stdout", "stderr"):
        setattr(sys, name, _Routed(name))
    own = sys.displayhook

    def display(value: Any, /) -> None:
        if here.client is None:
            own(value)
        elif value is not None:
            here.client.result = value
            print(prompt.describe(value))

    sys.displayhook = display


class Client(socketserver.StreamRequestHandler):
    """A connection; to what its texts run, a terminal."""

    server: "_Server"

    def setup(self) -> None:
        super().setup()
        self.streams = {"stdin": _Stream(self, ""), "stdout": _Stream(self, "out"), "stderr": _Stream(self, "err")}
        self.result: object = None  # kept until the next one, as at the console: a timer may live by it
        self.busy = self._interrupted = False
        self._runner = 0  # the thread that can be interrupted
        self._screen: Screen | None = None
        self._input: queue.SimpleQueue[str] = queue.SimpleQueue()
        self._sending, self._interrupting = threading.RLock(), threading.Lock()
        self.server.clients.add(self)

    def handle(self) -> None:
        for line in iter(lambda: self.rfile.readline(_LONGEST), b""):
            if not line.endswith(b"\n"):
                break  # too long, or the client's end in the middle of it
            try:
                message = json.loads(line)
                getattr(self, "do_" + message["do"])(message)
            except Exception as error:
                self.send(error=f"{type(error).__name__}: {error}")

    def finish(self) -> None:
        self._input.put("")
        self.interrupt()
        super().finish()
        self.server.clients.discard(self)

    def send(self, **message: Any) -> None:
        with self._sending, contextlib.suppress(OSError):  # whoever has left is noticed where messages are read
            self.request.sendall(json.dumps(message).encode() + b"\n")

    def interrupt(self) -> None:
        """Raises KeyboardInterrupt in the running text; where it is in a call that waits, after that call."""
        with self._interrupting:
            self._interrupted = True
            if self._runner:
                _raise_in(self._runner, KeyboardInterrupt)

    def hang_up(self) -> None:
        with contextlib.suppress(OSError):
            self.request.shutdown(socket.SHUT_RDWR)

    # Messages

    def do_run(self, message: dict[str, Any]) -> None:
        with self._sending:
            if self.busy:
                raise RuntimeError("another text is running")
        self.do_resize(message)
        self._input = queue.SimpleQueue()
        self.busy, self._interrupted = True, False
        threading.Thread(target=self._work, args=(message,), daemon=True).start()

    def do_input(self, message: dict[str, Any]) -> None:
        self._input.put(str(message["text"]))

    def do_resize(self, message: dict[str, Any]) -> None:
        if (screen := message.get("screen")) is not None:
            columns, lines, kind = screen
            screen = max(1, int(columns)), max(1, int(lines)), str(kind)
        self._screen = screen

    def do_interrupt(self, _message: dict[str, Any]) -> None:
        self.interrupt()

    def do_complete(self, message: dict[str, Any]) -> None:
        self.send(matches=list(candidates(message["text"], message["word"])))

    # A terminal, like that of ctl.py

    def screen(self) -> Screen | None:
        return self._screen

    def typed(self, seconds: float) -> str | None:
        try:
            return self._input.get(timeout=seconds)
        except queue.Empty:
            return None

    @contextlib.contextmanager
    def keys(self) -> Iterator[Callable[[float], str | None]]:
        self.send(keys=True)
        try:
            yield self.typed
        finally:
            self.send(keys=False)

    # On the thread of a text

    def _work(self, message: dict[str, Any]) -> None:
        here.client = self
        reply: dict[str, Any] | None = None
        while True:  # an interrupt may strike until there is no runner and none is under way
            try:
                if reply is None:
                    reply = {"done": 130}
                    reply = self._run(**message)
                with self._interrupting:
                    self._runner = 0
                _raise_in(threading.get_ident(), None)
                break
            except KeyboardInterrupt:
                pass
        with self._sending:  # so that whoever has the reply can send the next text
            self.send(**reply)
            self.busy = False

    def _run(self, /, name: str = "<ctl>", space: str = "console", **message: Any) -> dict[str, Any]:
        try:
            with self._interrupting:
                self._runner = threading.get_ident()
                if self._interrupted:
                    raise KeyboardInterrupt
            return {"done": 0, **_execute(name, space, **message)}
        except SystemExit as error:
            if error.code is None or isinstance(error.code, int):
                return {"done": (error.code or 0) & 0xFF}
            self.streams["stderr"].write(f"{error.code}\n")
            return {"done": 1}
        except BaseException as error:
            briefly = space == "words" and isinstance(error, words.Refused)
            self.streams["stderr"].write(f"{error}\n" if briefly else _with_traceback(error, name))
            return {"done": 130 if isinstance(error, KeyboardInterrupt) else 1}
        finally:
            for stream in self.streams.values():
                stream.flush()


def _with_traceback(error: BaseException, name: str) -> str:
    frames = error.__traceback__
    while frames and frames.tb_frame.f_code.co_filename != name:
        frames = frames.tb_next
    prompt.trim(error, frames)
    return "".join(traceback.format_exception(type(error), error, frames))


def _execute(name: str, space: str, text: str, arguments: tuple[str, ...] = (), line: bool = False, data: bool = False,
             **_: Any) -> dict[str, Any]:
    names = {"console": vars(sys.modules["__main__"]), "words": vars(sys.modules[__package__]),
             "own": {"__name__": "__main__", "__file__": name}}[space]
    if data:
        return {"value": _plain(eval(compile(text, name, "eval", dont_inherit=True), names))}
    if line and codeop.compile_command(text, name) is None:
        return {"more": True}
    if space == "own":
        with words.script_arguments(name, *arguments):
            exec(compile(text, name, "exec", dont_inherit=True), names)
    else:
        exec(compile_block(text, name), names)
    return {}


def _plain(value: Any) -> Any:
    """What JSON has for a value."""
    if isinstance(value, Mapping):
        return {str(words.text(key)): _plain(element) for key, element in value.items()}
    if isinstance(value, (list, tuple, set, frozenset)):
        return [_plain(element) for element in value]
    value = words.text(value)
    return value if value is None or isinstance(value, (str, int, float)) else repr(value)


def _raise_in(thread: int, exception: type[BaseException] | None) -> None:
    """Has a thread raise it before its next Python instruction; None takes back what it has not raised yet."""
    value = None if exception is None else ctypes.py_object(exception)
    ctypes.pythonapi.PyThreadState_SetAsyncExc(ctypes.c_ulong(thread), value)


class _Server(socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
    daemon_threads = True
    request_queue_size = _MOST

    def __init__(self, path: str) -> None:
        self.clients: set[Client] = set()
        self._path, self._process = pathlib.Path(path), os.getpid()
        super().__init__(path, Client)
        self._file = self._path.stat()

    def server_bind(self) -> None:
        os.fchmod(self.socket.fileno(), 0o600)  # is the file's mode from its first moment
        _remove_stale(self._path)
        super().server_bind()

    def verify_request(self, request: Any, _address: Any) -> bool:
        return is_trusted(request) and len(self.clients) < _MOST

    def handle_error(self, *_: Any) -> None:
        pass  # of a connection that is gone

    def close(self) -> None:
        """Ends all clients, at the end of the engine."""
        if os.getpid() != self._process:
            return  # a forked process has none of the threads, and the sockets are its parent's
        self.socket.shutdown(socket.SHUT_RDWR)  # wakes the thread that accepts
        self.shutdown()
        self.server_close()
        with contextlib.suppress(OSError):
            if os.path.samestat(self._path.stat(), self._file):
                self._path.unlink()
        for seconds, act in ((0.1, Client.interrupt), (1.0, Client.hang_up)):  # one that said exit() ends so
            end = time.monotonic() + seconds
            while time.monotonic() < end and any(client.busy for client in list(self.clients)):
                time.sleep(0.002)
            for client in list(self.clients):
                act(client)


def _remove_stale(path: pathlib.Path) -> None:
    if path.exists():
        with socket.socket(socket.AF_UNIX) as probe:
            probe.settimeout(1)
            if probe.connect_ex(str(path)) != errno.ECONNREFUSED or not path.is_socket():
                raise OSError(errno.EADDRINUSE, "an engine listens there already, or it is no socket", str(path))
        path.unlink()


def _private_folder(path: str) -> None:
    os.makedirs(path, mode=0o700, exist_ok=True)
    status = os.lstat(path)
    if not stat.S_ISDIR(status.st_mode) or status.st_uid != os.getuid() or status.st_mode & 0o077:
        raise PermissionError(errno.EPERM, "this is not a folder of this user alone", path)


def listen(path: str | None) -> str:
    """See serve()."""
    if path is None:
        path = default_socket()
        _private_folder(os.path.dirname(path))
    server = _Server(os.path.abspath(path))
    _route()
    before = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})  # Ctrl-C is the console's, not of these threads
    try:
        threading.Thread(target=server.serve_forever, args=(86400,), name="sonetrix server", daemon=True).start()
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
    add_clear_callback(server.close)
    return path
