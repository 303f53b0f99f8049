"""The console host does with the command-line module's record what it is told: see tests/record/console_host.cpp.

    report = host.run("construct", "start", "stop", "run", "destroy", text_input="print(1)")
    with host.Terminal() as console: ...

Operations that do not construct are start parameters, and the usual operations follow. Whatever the test, the rules are
checked for all calls of engine functions, and that signals are as they were.
"""

import ast
import os
import pathlib
import re
import subprocess
import tempfile
from typing import NamedTuple

from . import CONSOLE_HOST, MODULE, SOURCE, programs
from .console import Console

USUAL = "construct", "start", "run", "destroy"


def after(milliseconds, *operation):
    """The usual operations, and one that an engine thread carries out so long after the start."""
    return "construct", "start", "after", milliseconds, *operation, "run", "destroy"


class Report(NamedTuple):
    result: subprocess.CompletedProcess  # its standard output, above all
    facts: dict  # what the host has noted
    log: list  # (level, text)

    def calls(self, *names):
        return [call for call in self.facts["calls"] if call[0] in names]


def read(path):
    """The facts and the log, once what always has to be true has been checked."""
    with open(path) as file:
        facts = ast.literal_eval(file.read())
    assert facts["violations"] == [], facts["violations"]
    assert (facts["signalsRestored"], facts["blocks"]) == (True, 0), (facts["signalsRestored"], facts["blocks"])
    codes = [args[1] for name, args, *_ in facts["calls"] if name == "sonetrix_engine_SetExitCode"]
    facts["exitCode"] = codes[-1] if codes else -1
    calls = [args for name, args, *_ in facts["calls"] if name == "sonetrix_log"]
    for _, file, line, flag, text in calls:
        source, = (SOURCE / "src").rglob(pathlib.Path(file.decode()).name)
        around = "".join(source.read_text().splitlines()[line - 2:line + 1])
        words = re.findall(r"\w{3,}", text.decode(errors="replace"))
        assert flag == 1 and any(word in around for word in words), (file, line, text)
    log = [(args[0], args[-1].decode(errors="surrogateescape")) for name, args, *_ in facts["calls"]
           if name in ("sonetrix_log", "sonetrix_log_LogString")]
    return facts, log


def command(path, operations, flags, commands=-1):
    usual = () if "construct" in operations else USUAL
    return [MODULE, path, commands, flags or "-", *operations, *usual]


def run(*operations, flags="", **options):
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "report")
        result = programs.run(CONSOLE_HOST, *command(path, operations, flags), **options)
        if not os.path.exists(path):
            raise AssertionError(f"console_host ended with {result.returncode}\n{result.stdout}{result.stderr}")
        return Report(result, *read(path))


class Terminal(Console):
    """The host on a terminal; further operations on the way, and a report at its end."""

    def __init__(self, *operations, flags="", **keywords):
        self.folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.folder.name, "report")
        read_end, self._commands = os.pipe()
        super().__init__(*command(self.path, operations, flags, read_end), program=CONSOLE_HOST, pass_fds=(read_end,),
                         **keywords)
        os.close(read_end)

    def __exit__(self, *arguments):
        self._commands is not None and os.close(self._commands)
        super().__exit__(*arguments)
        self.folder.cleanup()

    def command(self, *lines):
        os.write(self._commands, "".join(line + "\n" for line in lines).encode())

    def finish(self):
        """Waits for the end; the facts and the log."""
        os.close(self._commands)
        self._commands = None
        status = self.end()
        assert status == 0, (status, self.transcript)
        assert self.settings() == self.first_settings, (self.settings(), self.first_settings)
        return read(self.path)
