"""A console with its screen, as a terminal emulator draws it for a person."""

import fcntl
import itertools
import os
import re
import select
import struct
import sys
import termios
import time

from .console import Console

sys.path.append("/usr/lib/python3/dist-packages")  # pyte is pure Python: the distribution's is good for any interpreter
import pyte


class Screen(Console):
    """with Screen() as screen:
        screen.type("1 + 1\\r")
        screen.wait_for("^2$")
    """

    def __init__(self, *arguments, terminal="xterm", columns=80, rows=24, environment=None, **options):
        self._screen = pyte.HistoryScreen(columns, rows, history=100_000, ratio=0.5)
        self._painter = pyte.ByteStream(self._screen)
        self._scrolled = []
        environment = {"TERM": terminal, **(environment or {})}
        super().__init__(*arguments, columns=columns, rows=rows, environment=environment, **options)

    def _received(self, data):
        super()._received(data)
        self._painter.feed(data)

    def lines(self):
        """All lines, those that have left the screen first, without blanks at their ends."""
        columns = range(self._screen.columns)
        for row in itertools.islice(self._screen.history.top, len(self._scrolled), None):
            self._scrolled.append("".join(row[column].data for column in columns).rstrip())
        lines = [*self._scrolled, *self.shown()]
        while lines and not lines[-1]:
            lines.pop()
        return lines

    def shown(self):
        """The lines on the screen."""
        return [line.rstrip() for line in self._screen.display]

    def resize(self, columns):
        self._screen.resize(columns=columns)
        fcntl.ioctl(self._terminal, termios.TIOCSWINSZ, struct.pack("4H", self._screen.lines, columns, 0, 0))

    def wait_for(self, pattern, where=None):
        """Until the pattern is found in the lines, those of shown() if that is where, without empty ones at the end."""
        while not (match := re.search(pattern, "\n".join((where or self.lines)()[-2000:]).rstrip(), re.M)):
            if not self._read():
                self._fail(f"output ended before {pattern!r}")
            while select.select([self._terminal], [], [], 0)[0] and self._read():
                pass
        return match

    def type(self, text, key_every=0.0):
        """Types key by key, and reads the output meanwhile."""
        for key in text if key_every else [text]:
            os.write(self._terminal, key.encode())
            until = time.monotonic() + key_every
            while select.select([self._terminal], [], [], max(0, until - time.monotonic()))[0] and self._read():
                if time.monotonic() >= until:
                    break
