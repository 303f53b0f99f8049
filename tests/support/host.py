"""The console host does with the command-line module's record what it is told: see tests/record/console_host.cpp.

    report = host.run("construct", "start", "stop", "run", "destroy", text_input="print(1)")
    report.log, report.stdout, report.stderr, report.run and what else the host has noted
    with host.Terminal() as console: ...

Operations that do not construct come first, and the usual ones follow. Whatever the test, the rules are checked for all
calls of engine functions, and that signals are as they were.
"""

import ast
import collections
import pathlib
import re
import signal
import tempfile
import types

from . import CONSOLE_HOST, MODULE, SOURCE, programs
from .console import Console

USUAL = "construct", "start", "run", "destroy"


def read(file, **streams):
    """What the host reports, once what always has to be true has been checked; the log as (level, text)."""
    text = file.read()
    assert text, streams
    report = types.SimpleNamespace(**ast.literal_eval(text), **streams)
    calls = collections.defaultdict(list)
    for name, args, *_ in report.calls:
        calls[name].append(args)
    kept = len(calls["sonetrix_malloc"]) - len(calls["sonetrix_free"]) if report.constructed else 0
    assert (report.violations, report.signalsRestored, kept) == ([], True, 0), report
    report.exitCode = [-1, *(code for _, code in calls["sonetrix_engine_SetExitCode"])][-1]
    report.stopsAsked = len(calls["sonetrix_engine_RequestStop"])
    for _, name, line, flag, text in calls["sonetrix_log"]:  # each from where it says
        source, = (SOURCE / "src").rglob(pathlib.Path(name.decode()).name)
        around = "".join(source.read_text().splitlines()[line - 2:line + 1])
        words = re.findall(r"\w{3,}", text.decode(errors="replace"))
        assert flag == 1 and any(word in around for word in words), (name, line, text)
    report.log = [(args[0], args[-1].decode(errors="surrogateescape")) for name, args, *_ in report.calls
                  if name in ("sonetrix_log", "sonetrix_log_LogString")]
    return report


def ignore_sigint():
    signal.signal(signal.SIGINT, signal.SIG_IGN)


def command(file, operations):
    return [CONSOLE_HOST, MODULE, file.name, *operations, *(() if "construct" in operations else USUAL)]


def run(*operations, **options):
    with tempfile.NamedTemporaryFile("r") as file:
        result = programs.run(*command(file, operations), **options)
        return read(file, stdout=result.stdout, stderr=result.stderr)


class Terminal(Console):
    """The host on a terminal, with a report at its end."""

    def __init__(self, *operations, launch=(), **options):
        self.file = tempfile.NamedTemporaryFile("r")
        program, *arguments = *launch, *command(self.file, operations)
        super().__init__(*arguments, program=program, **options)

    def _begin(self, terminal):
        super()._begin(terminal)
        ignore_sigint()  # until the host has its handler

    def finish(self):
        """Waits for the end; what the host reports."""
        status = self.end()
        assert status == 0, (status, self.transcript)
        with self.file:
            return read(self.file)
