"""The console host does with the command-line module's record what it is told: see tests/record/console_host.cpp.

    report = host.run("construct", "start", "stop", "run", "destroy", text_input="print(1)")
    report.log, report.stdout, report.stderr, report.run and what else the host has noted
    with host.Terminal() as console: ...

Operations that do not construct come first, and the usual ones follow. Whatever the test, the rules are checked for all
calls of engine functions, and that signals are as they were.
"""

import ast
import collections
import tempfile
import types

from . import CONSOLE_HOST, MODULE, programs
from .console import Console

USUAL = "construct", "start", "run", "destroy"


def read(file, **streams):
    """What the host reports, once what always has to be true has been checked; the log as (level, text)."""
    text = file.read()
    assert text, streams
    report = types.SimpleNamespace(**ast.literal_eval(text), **streams)
    names = collections.Counter(name for name, *_ in report.calls)
    kept = names["sonetrix_malloc"] - names["sonetrix_free"] if report.constructed else 0
    assert (report.violations, report.signalsRestored, kept) == ([], True, 0), report
    codes = [args[1] for name, args, *_ in report.calls if name == "sonetrix_engine_SetExitCode"]
    report.exitCode, report.stopsAsked = [-1, *codes][-1], names["sonetrix_engine_RequestStop"]
    report.log = [(args[0], args[-1].decode(errors="surrogateescape")) for name, args, *_ in report.calls
                  if name in ("sonetrix_log", "sonetrix_log_LogString")]
    return report


def command(file, operations):
    return [CONSOLE_HOST, MODULE, file.name, *operations, *(() if "construct" in operations else USUAL)]


def run(*operations, launch=(), **options):
    with tempfile.NamedTemporaryFile("r") as file:
        result = programs.run(*launch, *command(file, operations), **options)
        return read(file, stdout=result.stdout, stderr=result.stderr)


class Terminal(Console):
    """The host on a terminal, with a report at its end."""

    def __init__(self, *operations, launch=(), **options):
        self.file = tempfile.NamedTemporaryFile("r")
        program, *arguments = *launch, *command(self.file, operations)
        super().__init__(*arguments, program=program, **options)

    def finish(self):
        """Waits for the end; what the host reports."""
        status = self.end()
        assert status == 0, (status, self.transcript)
        with self.file:
            return read(self.file)
