"""The console host does with the command-line module's record what it is told: see tests/record/console_host.cpp.

    report = host.run("construct", "start", "stop", "run", "destroy", text_input="print(1)")
    with host.Terminal() as console: ...

Operations that do not construct come first, and the usual ones follow. Whatever the test, the rules are checked for all
calls of engine functions, and that signals are as they were.
"""

import ast
import collections
import os
import pathlib
import re
import signal
import subprocess
import tempfile
from typing import NamedTuple

from . import CONSOLE_HOST, MODULE, SOURCE, programs
from .console import Console

USUAL = "construct", "start", "run", "destroy"


class Report(NamedTuple):
    facts: dict  # what the host has noted
    log: list  # (level, text)
    result: subprocess.CompletedProcess | None = None  # its standard output, above all


def read(path, result=None):
    """What the host reports, once what always has to be true has been checked."""
    facts = ast.literal_eval(pathlib.Path(path).read_text())
    calls = collections.defaultdict(list)
    for name, args, *_ in facts["calls"]:
        calls[name].append(args)
    kept = len(calls["sonetrix_malloc"]) - len(calls["sonetrix_free"]) if facts["constructed"] else 0
    assert (facts["violations"], facts["signalsRestored"], kept) == ([], True, 0), facts
    facts["exitCode"] = [-1, *(code for _, code in calls["sonetrix_engine_SetExitCode"])][-1]
    facts["stopsAsked"] = len(calls["sonetrix_engine_RequestStop"])
    for _, file, line, flag, text in calls["sonetrix_log"]:  # each from where it says
        source, = (SOURCE / "src").rglob(pathlib.Path(file.decode()).name)
        around = "".join(source.read_text().splitlines()[line - 2:line + 1])
        words = re.findall(r"\w{3,}", text.decode(errors="replace"))
        assert flag == 1 and any(word in around for word in words), (file, line, text)
    log = [(args[0], args[-1].decode(errors="surrogateescape")) for name, args, *_ in facts["calls"]
           if name in ("sonetrix_log", "sonetrix_log_LogString")]
    return Report(facts, log, result)


def ignore_sigint():
    signal.signal(signal.SIGINT, signal.SIG_IGN)


def command(path, operations, commands=os.devnull):
    return [MODULE, path, commands, *operations, *(() if "construct" in operations else USUAL)]


def run(*operations, **options):
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "report")
        result = programs.run(CONSOLE_HOST, *command(path, operations), **options)
        assert os.path.exists(path), result
        return read(path, result)


class Terminal(Console):
    """The host on a terminal; further operations on the way, and a report at its end."""

    def __init__(self, *operations, launch=(), **options):
        self.folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.folder.name, "report")
        read_end, write_end = os.pipe()
        self.commands = open(write_end, "w")
        program, *arguments = *launch, CONSOLE_HOST, *command(self.path, operations, f"/dev/fd/{read_end}")
        super().__init__(*arguments, program=program, pass_fds=[read_end], **options)
        os.close(read_end)

    def _begin(self, terminal):
        super()._begin(terminal)
        ignore_sigint()  # until the host has its handler

    def __exit__(self, *arguments):
        self.commands.close()
        super().__exit__(*arguments)
        self.folder.cleanup()

    def tell(self, line):
        print(line, file=self.commands, flush=True)

    def finish(self):
        """Waits for the end; what the host reports."""
        self.commands.close()
        status = self.end()
        assert status == 0, (status, self.transcript)
        return read(self.path)
