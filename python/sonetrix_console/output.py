"""What callbacks, threads and the engine print while a line is being typed comes above that line, which stays whole.

Such output waits in a pipe: what threads write to `sys.stdout` and `sys.stderr`, and, when standard error is the
console's terminal, whatever the process writes there, the engine's log above all. Nobody ever waits for the pipe; what
it has no room for is left out. The console's own thread takes the text from it, woken by a signal, and draws the line
anew below.
"""

import contextlib
import ctypes
import fcntl
import os
import select
import signal
import sys
import threading
import time
from collections.abc import Callable, Iterable, Iterator
from types import FrameType
from typing import Any, TextIO, cast

import sonetrix

try:
    import readline
except ImportError:
    readline = None  # type: ignore[assignment]

_REDRAWS_PER_SECOND = 50
_PIPE_SIZE = 1 << 20


def _line_editor() -> Callable[[bytes], None] | None:
    """What prints text above the line, by the line editor's own functions: none of them is in the module readline."""
    try:
        editor = ctypes.CDLL(getattr(readline, "__file__", None))
        clear, begin, draw = editor.rl_clear_visible_line, editor.rl_on_new_line, editor.rl_redisplay
        stream = ctypes.c_void_p.in_dll(editor, "rl_outstream")
        capability = editor.rl_get_termcap
    except (AttributeError, OSError, ValueError):
        return None
    capability.restype = ctypes.c_char_p
    can_clear = bool(capability(b"ce"))
    write = ctypes.CDLL(None).fputs

    def print_above(text: bytes) -> None:
        if can_clear:
            clear()
        write(text if can_clear else b"\n" + text, stream)  # else the line stays where it is and comes again below
        begin()
        draw()

    return print_above


def _move_errors(place: int, new_place: int) -> None:
    """Standard error, if it is the one file, is the other from now on."""
    with contextlib.suppress(OSError):  # it may be closed
        if os.path.sameopenfile(2, place):
            os.dup2(new_place, 2)


class _Console:
    """The terminal, with a line that is being typed or without."""

    def __init__(self) -> None:
        self.lock = threading.RLock()  # held by who writes to the terminal while no line is being typed
        self.prompt: str | None = None  # of the line that is being typed
        self._reader: FrameType | None = None  # who reads it: none at the console's own prompt
        self.thread = threading.get_ident()  # that of the console
        assert sys.__stdout__ is not None  # there is a terminal
        self._terminal = os.dup(sys.__stdout__.fileno())
        self._pipe, self._entry = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        with contextlib.suppress(OSError):
            fcntl.fcntl(self._entry, fcntl.F_SETPIPE_SZ, _PIPE_SIZE)
        self._print_above = _line_editor() if readline is not None else None
        # One that nobody uses. It must not cut short what the line editor writes to a slow terminal; that waits for
        # keys in a call that is interrupted all the same. (The highest ones cannot be sent in emulation.)
        signals = range(signal.SIGRTMAX - 2, signal.SIGRTMIN, -1)
        unused = (number for number in signals if signal.getsignal(number) == signal.SIG_DFL)
        self._signal = next(unused, int(signal.SIGRTMIN))
        signal.signal(self._signal, self._on_wake)
        signal.siginterrupt(self._signal, self._print_above is None)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, [self._signal])
        self._signals, entry = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)  # the numbers of those that come
        signal.set_wakeup_fd(entry, warn_on_full_buffer=False)
        self._ended = False
        self._waker = threading.Thread(target=self._wake, name="console output", daemon=True)
        self._waker.start()

    def begin_line(self, prompt: str, reader: FrameType | None) -> None:
        with self.lock:
            self._write(self.take())
            # Without line editing the prompt itself is written there.
            if readline is not None:
                _move_errors(self._terminal, self._entry)
            self._reader, self.prompt = reader, prompt

    def end_line(self, whole: bool) -> None:
        with self.lock:
            self.prompt = self._reader = None
            _move_errors(self._entry, self._terminal)
            if whole:
                self._write(self.take())

    def post(self, text: bytes) -> None:
        with contextlib.suppress(BlockingIOError):
            while text:
                text = text[os.write(self._entry, text):]

    def take(self) -> bytes:
        """What has come meanwhile, in whole lines."""
        try:
            text = os.read(self._pipe, _PIPE_SIZE).replace(b"\0", b"")
        except BlockingIOError:
            return b""
        return text + b"\n" if text and not text.endswith(b"\n") else text

    def end(self) -> None:
        """Everything is as it was before."""
        self.end_line(whole=True)
        self._ended = True
        self.post(b"\0")
        self._waker.join(1)
        signal.set_wakeup_fd(-1)
        signal.signal(self._signal, signal.SIG_IGN)  # there may be one on its way

    def _write(self, text: bytes) -> None:
        with contextlib.suppress(OSError):
            while text:
                text = text[os.write(self._terminal, text):]

    def _wake(self) -> None:
        """Has the console's thread look into the pipe, again and again until it has: a signal may come a moment before
        that thread waits for a key, which then would come first. So with Ctrl-C, for which something is put there."""
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())  # Ctrl-C is for the console's thread
        while not self._ended:
            ready, _, _ = select.select([self._pipe, self._signals], [], [])
            if self._signals in ready:
                if set(os.read(self._signals, _PIPE_SIZE)) != {self._signal}:
                    self.post(b"\0")
                continue
            if self.prompt is not None:
                signal.pthread_kill(self.thread, self._signal)
            time.sleep(1 / _REDRAWS_PER_SECOND)

    def _on_wake(self, number: int, frame: FrameType | None) -> None:
        # In any other frame it is a completion that runs, or the line is not there yet or not any more.
        if self.prompt is None or frame is not self._reader:
            return
        before = signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])  # which would leave it half done
        try:
            text = self.take()
            if text and self._print_above is not None:
                self._print_above(text)
            elif text:
                typed = readline.get_line_buffer() if readline is not None else ""
                self._write(b"\n" + text + (self.prompt + typed).encode(errors="replace"))
        finally:
            signal.pthread_sigmask(signal.SIG_SETMASK, before)


class Stream:
    """Stands for `sys.stdout` or `sys.stderr`."""

    def __init__(self, stream: TextIO, console: _Console) -> None:
        self._stream, self._console = stream, console
        self._begun: dict[int, str] = {}  # lines without an end, by thread

    def __getattr__(self, name: str) -> Any:
        return getattr(self._stream, name)

    def write(self, text: str) -> int:
        thread = threading.get_ident()
        with self._console.lock:
            if self._console.prompt is None and thread == self._console.thread:
                return self._stream.write(text)
            lines, end, rest = (self._begun.pop(thread, "") + text).rpartition("\n")
            if rest:
                self._begun[thread] = rest
            if self._console.prompt is None:
                self._stream.write(lines + end)
            else:
                self._console.post((lines + end).encode(errors="replace"))
        return len(text)

    def writelines(self, lines: Iterable[str]) -> None:
        self.write("".join(lines))

    def flush(self) -> None:
        with self._console.lock:
            if self._console.prompt is None:
                self._stream.write(self._begun.pop(threading.get_ident(), ""))
                self._stream.flush()


_console: _Console | None = None


@contextlib.contextmanager
def held() -> Iterator[Callable[[], bytes]]:
    """Holds back what others print to the console, for a view that paints over its own lines; what it gives tells what
    has come meanwhile."""
    console = _console
    if console is None or threading.get_ident() != console.thread:
        yield bytes
        return
    console.begin_line("", None)
    try:
        yield console.take
    finally:
        console.end_line(whole=True)


def install(line_typed: Callable[[str, str], str | None]) -> None:
    """Takes care of the console's output from now on; `line_typed(prompt, line)` may replace a line typed there."""
    global _console
    _console = console = _Console()

    def hook(prompt: str, line: str | None) -> str | None:
        reader = sys._getframe().f_back
        if line is None:
            console.begin_line(prompt, reader)
            return None
        console.end_line(whole=line.endswith("\n"))
        return line_typed(prompt, line) if reader is None else None

    def end() -> None:
        setattr(sys, "linehook", None)
        console.end()  # the streams then write at once

    sys.stdout, sys.stderr = (cast(TextIO, Stream(stream, console)) for stream in (sys.stdout, sys.stderr))
    setattr(sys, "linehook", hook)
    sonetrix.add_clear_callback(end)
