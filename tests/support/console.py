"""A program on a pseudo-terminal, driven like a user at the keyboard."""

import contextlib
import functools
import math
import os
import pty
import re
import select
import signal
import subprocess
import sys
import termios
import time

from . import ENGINE, SLOWNESS, TIME_LIMIT

sys.path.append("/usr/lib/python3/dist-packages")  # pyte is pure Python: the distribution's is good for any interpreter
import pyte

PROMPT = "engine> "


class ConsoleTimeout(AssertionError):
    pass


class Console:
    """The engine's console, or any other program. The clock runs from the start: a hanging program is killed.

        with Console() as console:
            assert console.ask("1 + 1") == "2"
            assert console.end() == 0
    """

    def __init__(self, *arguments, program=ENGINE, columns=80, rows=24, environment=None, **options):
        self.transcript, self._position = "", 0
        self._deadline = time.monotonic() + TIME_LIMIT
        self._terminal, its_end = pty.openpty()
        termios.tcsetwinsize(self._terminal, (rows, columns))
        self.first_settings = self.settings()
        # TERM=dumb keeps line editing from painting with control sequences.
        variables = {**os.environ, "TERM": "dumb", **(environment or {})}
        self.process = subprocess.Popen([str(program), *map(str, arguments)], env=variables,
                                        preexec_fn=functools.partial(self._begin, its_end), **options)
        os.close(its_end)

    def _begin(self, terminal):
        """In the process that becomes the program."""
        os.login_tty(terminal)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self._terminal)

    def settings(self):
        return termios.tcgetattr(self._terminal)

    def _fail(self, what):
        raise ConsoleTimeout(f"{what}; status {self.process.poll()}; transcript:\n{self.transcript}")

    def _read(self, until=math.inf):
        """More output into the transcript; False at its end."""
        remaining = min(until, self._deadline) - time.monotonic()
        if not select.select([self._terminal], [], [], max(0, remaining))[0]:
            self._fail("time is up")
        try:
            data = os.read(self._terminal, 65536)
        except OSError:  # what Linux reports when the other side is closed
            return False
        self._received(data)
        return bool(data)

    def _received(self, data):
        self.transcript += data.decode(errors="replace").replace("\r\n", "\n")

    def expect(self, pattern, seconds=math.inf):
        """Waits for a regular expression in the output not yet taken; takes and returns what comes before it."""
        until = time.monotonic() + seconds
        while not (match := re.compile(pattern).search(self.transcript, self._position)):
            if not self._read(until):
                self._fail(f"output ended before {pattern!r}")
        taken = self.transcript[self._position:match.start()]
        self._position = match.end()
        return taken

    def prompt(self):
        return self.expect(PROMPT)

    def write(self, text):
        os.write(self._terminal, text.encode())

    def send(self, line=""):
        self.write(line + "\n")

    def ask(self, line):
        """Waits for the prompt, types a line, and returns its output when the next prompt is there."""
        self.prompt()
        self.send(line)
        self.expect("\n")  # the echo
        answer = self.prompt()
        self._position -= len(PROMPT)
        return answer.strip()

    def control(self, letter):
        self.write(chr(ord(letter) - 64))

    def interrupt(self):
        """Ctrl-C, and what comes before the console says so. One that lands between the prompt and its read is
        noticed at the next key, as at any Python prompt: then it is pressed again."""
        for _ in range(9):
            self.control("C")
            with contextlib.suppress(ConsoleTimeout):
                return self.expect("KeyboardInterrupt\n", 3 * SLOWNESS)
        self._fail("Ctrl-C is not noticed")

    def signal(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def end(self, line=None):
        """Types a last line, if any, and returns the exit status once the output has ended."""
        if line is not None:
            self.send(line)
        while self._read():
            pass
        return self.process.wait(max(0.1, self._deadline - time.monotonic()))


class Screen(Console):
    """What a terminal emulator draws for a person.

        with Screen() as screen:
            screen.type("1 + 1\\r")
            screen.wait_for("^2$")
    """

    def __init__(self, *arguments, terminal="xterm", columns=80, rows=24, environment=None, **options):
        self._screen = pyte.HistoryScreen(columns, rows, history=100_000, ratio=0.5)
        self._painter = pyte.ByteStream(self._screen)
        environment = {"TERM": terminal, **(environment or {})}
        super().__init__(*arguments, columns=columns, rows=rows, environment=environment, **options)

    def _received(self, data):
        super()._received(data)
        self._painter.feed(data)

    def shown(self):
        """The lines on the screen, without blanks at their ends."""
        return [line.rstrip() for line in self._screen.display]

    def lines(self, at_most=100_000):
        """Those that have left the screen first, and no empty ones at the end."""
        columns, scrolled = range(self._screen.columns), [*self._screen.history.top]
        scrolled = scrolled[max(0, len(scrolled) - at_most):]
        lines = ["".join(row[column].data for column in columns).rstrip() for row in scrolled] + self.shown()
        while lines and not lines[-1]:
            lines.pop()
        return lines

    def resize(self, columns):
        self._screen.resize(columns=columns)
        termios.tcsetwinsize(self._terminal, (self._screen.lines, columns))

    def wait_for(self, pattern, shown=False):
        """Until the pattern is found in the last lines, or in those on the screen."""
        while not (match := re.search(pattern, "\n".join(self.lines(0 if shown else 200)), re.M)):
            if not self._read():
                self._fail(f"output ended before {pattern!r}")
        return match

    def type(self, text, key_every=0.0):
        """Types, key by key if so said, and reads the output meanwhile."""
        for key in text if key_every else [text]:
            self.write(key)
            until = time.monotonic() + key_every
            with contextlib.suppress(ConsoleTimeout):
                while self._read(until):
                    pass
