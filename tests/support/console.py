"""Programs on a pseudo-terminal, driven like a user at the keyboard."""

import os
import pty
import re
import subprocess
import sys
import termios
import types

from . import ENGINE, SLOWNESS, TIME_LIMIT

sys.path.append("/usr/lib/python3/dist-packages")  # pure Python: the distribution's is good for any interpreter
import pexpect.fdpexpect
import pyte

PROMPT = "engine> "


class Console(pexpect.fdpexpect.fdspawn):
    """The engine's console, or any other program; nothing is waited for without end.

        with Console() as console:
            assert console.ask("1 + 1") == "2"
            assert console.end() == 0
    """

    def __init__(self, *arguments, program=ENGINE, columns=80, rows=24, environment=None, **options):
        self.transcript, self._prompted = "", False
        terminal, its_end = pty.openpty()
        termios.tcsetwinsize(terminal, (rows, columns))
        self.first_settings = termios.tcgetattr(terminal)
        # TERM=dumb keeps line editing from painting with control sequences.
        variables = {**os.environ, "TERM": "dumb", **(environment or {})}
        self.process = subprocess.Popen([str(program), *map(str, arguments)], env=variables,
                                        preexec_fn=lambda: os.login_tty(its_end), **options)
        os.close(its_end)
        super().__init__(terminal, timeout=TIME_LIMIT, maxread=65536, encoding="utf-8", codec_errors="replace")

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.close()

    def read_nonblocking(self, *arguments):
        text = super().read_nonblocking(*arguments).replace("\r\n", "\n")
        self.transcript += text
        return text

    def send(self, text):
        self._prompted = False
        return super().send(text)

    def prompt(self):
        """Waits for the prompt, unless it is there and nothing has been typed since."""
        if not self._prompted:
            self.expect_exact(PROMPT)
        self._prompted = True

    def ask(self, line):
        """Waits for the prompt, types a line, and returns its output when the next prompt is there."""
        self.enter(line, "\n")  # the echo
        self.prompt()
        return self.before.strip()

    def enter(self, line, pattern):
        """Waits for the prompt, types a line, and waits for what is printed then."""
        self.prompt()
        self.sendline(line)
        self.expect(pattern)

    def interrupt(self):
        """Ctrl-C, and what comes before the console says so. One that lands between the prompt and its read is
        noticed at the next key, as at any Python prompt: then it is pressed again."""
        for _ in range(9):
            self.send("\x03")
            if self.expect_exact(["KeyboardInterrupt\n", pexpect.TIMEOUT], 3 * SLOWNESS) == 0:
                return self.before
        raise AssertionError(f"Ctrl-C is not noticed:\n{self}")

    def end(self, line=None):
        """Types a last line at the prompt, if any, and returns the exit status; the terminal is as it was."""
        if line is not None:
            self.prompt()
            self.sendline(line)
        self.expect(pexpect.EOF)
        status = self.process.wait(TIME_LIMIT)
        assert status < 0 or termios.tcgetattr(self.child_fd) == self.first_settings, self.transcript
        return status


class Screen(Console):
    """What a terminal emulator draws for a person.

        with Screen() as screen:
            screen.type("1 + 1\\r", shows="^2$")
    """

    def __init__(self, *arguments, terminal="xterm", columns=80, rows=24, environment=None, **options):
        self._screen = pyte.HistoryScreen(columns, rows, history=100_000, ratio=0.5)
        environment = {"TERM": terminal, **(environment or {})}
        super().__init__(*arguments, columns=columns, rows=rows, environment=environment, **options)
        self.logfile_read = types.SimpleNamespace(write=pyte.Stream(self._screen).feed, flush=lambda: None)

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
        termios.tcsetwinsize(self.child_fd, (self._screen.lines, columns))

    def wait_for(self, pattern, shown=False):
        """Until the pattern is found in the last lines, or in those on the screen."""
        while not re.search(pattern, "\n".join(self.lines(0 if shown else 200)), re.M):
            try:
                self.read_nonblocking(65536)
            except pexpect.TIMEOUT:
                raise AssertionError("\n".join([f"no {pattern!r} in", *self.lines(50)])) from None

    def type(self, text, shows=None, key_every=0):
        """Types, key by key if so said, and waits for what that shows, or reads what there is."""
        for key in text if key_every else [text]:
            self.send(key)
            self.expect_exact([pexpect.TIMEOUT, pexpect.EOF], key_every)
        shows and self.wait_for(shows)
