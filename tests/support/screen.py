"""A program in a terminal emulator, seen as a person sees it."""

import itertools
import os
import re
import shlex
import subprocess
import time

from . import TIME_LIMIT

_numbers = itertools.count()


class Screen:
    """
    with Screen(ENGINE, columns=40) as screen:
        screen.type("1 + 1\n")
        screen.wait("^2$")
    """

    def __init__(self, *command, columns=80, lines=24, environment=None):
        self._tmux = ["tmux", "-L", f"sonetrix-{os.getpid()}-{next(_numbers)}", "-f", os.devnull]
        variables = {name: value for name, value in os.environ.items() if name != "TMUX"}
        given = [f"{key}={value}" for key, value in (environment or {}).items()]
        line = shlex.join(["env", *given, *map(str, command)]) + "; echo ended $?; cat"
        subprocess.run([*self._tmux, "new-session", "-d", "-x", str(columns), "-y", str(lines), line],
                       env=dict(variables, LC_ALL="C.UTF-8"), check=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._do("kill-server")

    def _do(self, *arguments):
        return subprocess.run([*self._tmux, *arguments], capture_output=True, text=True, timeout=TIME_LIMIT).stdout

    def type(self, text):
        self._do("send-keys", "-l", text.replace("\n", "\r"))

    def resize(self, columns):
        self._do("resize-window", "-x", str(columns))

    def text(self):
        return self._do("capture-pane", "-p").rstrip()

    def wait(self, pattern):
        """Waits for a regular expression, in which ^ and $ match at line ends; the screen as it is then."""
        end = time.monotonic() + TIME_LIMIT
        while not re.search(pattern, text := self.text(), re.MULTILINE):
            if time.monotonic() > end:
                raise AssertionError(f"no {pattern!r} on the screen:\n{text}")
            time.sleep(0.05)
        return text
