"""A program on a pseudo-terminal, driven like a user at the keyboard."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

from . import ENGINE, TIME_LIMIT

PRIMARY, SECONDARY = "engine> ", "... "


class ConsoleTimeout(AssertionError):
    pass


class Console:
    """The engine's console, or any other program. The clock runs from the start: a hanging program is killed.

        with Console() as console:
            assert console.ask("1 + 1") == "2"
            assert console.end() == 0
    """

    def __init__(self, *arguments, program=ENGINE, columns=80, rows=0, environment=None, time_limit=TIME_LIMIT,
                 **options):
        self.transcript = ""
        self._position = 0
        self._deadline = time.monotonic() + time_limit
        self._terminal, terminal_end = pty.openpty()
        rows and fcntl.ioctl(terminal_end, termios.TIOCSWINSZ, struct.pack("4H", rows, columns, 0, 0))
        self.first_settings = self.settings()
        # TERM=dumb keeps line editing from painting with control sequences. COLUMNS would stand before what is resized.
        width = {} if rows else {"COLUMNS": str(columns)}
        variables = {**os.environ, "TERM": "dumb", **width, **(environment or {})}
        self.process = subprocess.Popen([str(program), *map(str, arguments)], stdin=terminal_end, stdout=terminal_end,
                                        stderr=terminal_end, env=variables, close_fds=True,
                                        preexec_fn=self._lead_session,
                                        **options)
        os.close(terminal_end)

    @staticmethod
    def _lead_session():
        os.setsid()
        fcntl.ioctl(0, termios.TIOCSCTTY, 0)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.poll() is None and self.process.kill()
        self.process.wait()
        os.close(self._terminal)

    def settings(self):
        return termios.tcgetattr(self._terminal)

    def _fail(self, what):
        raise ConsoleTimeout(f"{what}; status {self.process.poll()}; transcript:\n{self.transcript}")

    def _read(self):
        """More output into the transcript; False at its end."""
        remaining = self._deadline - time.monotonic()
        if remaining <= 0 or not select.select([self._terminal], [], [], remaining)[0]:
            self._fail("time is up")
        try:
            data = os.read(self._terminal, 65536)
        except OSError:  # what Linux reports when the other side is closed
            return False
        self._received(data)
        return bool(data)

    def _received(self, data):
        self.transcript += data.decode(errors="replace").replace("\r\n", "\n")

    def expect(self, pattern):
        """Waits for a regular expression in the output not yet taken; takes and returns what comes before it."""
        while not (match := re.compile(pattern).search(self.transcript, self._position)):
            if not self._read():
                self._fail(f"output ended before {pattern!r}")
        taken = self.transcript[self._position:match.start()]
        self._position = match.end()
        return taken

    def prompt(self):
        return self.expect(re.escape(PRIMARY))

    def write(self, text):
        os.write(self._terminal, text.encode())

    def send(self, line=""):
        self.write(line + "\n")

    def ask(self, line):
        """Waits for the prompt, types a line, and returns its output when the next prompt is there."""
        self.prompt()
        self.send(line)
        self.expect(r"\n")  # the echo
        answer = self.prompt()
        self._position -= len(PRIMARY)
        return answer.strip()

    def control(self, letter):
        self.write(chr(ord(letter.upper()) - 64))

    def interrupt(self):
        """Ctrl-C, and what comes before the console says so. One that lands between the prompt and its read is
        noticed at the next key, as at any Python prompt: then it is pressed again."""
        while True:
            self.control("C")
            again = time.monotonic() + 3 * TIME_LIMIT / 30
            while time.monotonic() < again:
                if match := re.compile("KeyboardInterrupt\n").search(self.transcript, self._position):
                    return self.expect(re.escape(match.group()))
                if select.select([self._terminal], [], [], 0.1)[0]:
                    self._read()
            if self._deadline < again:
                self._fail("Ctrl-C is not noticed")

    def signal(self, number=signal.SIGINT):
        self.process.send_signal(number)

    def end(self, line=None):
        """Types a last line, if any, and returns the exit status once the output has ended."""
        if line is not None:
            self.send(line)
        while self._read():
            pass
        try:
            return self.process.wait(max(0.1, self._deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            self._fail("the program does not end")
