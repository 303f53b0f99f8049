"""The engine program and the console host, without a terminal."""

import ast
import os
import subprocess
import tempfile
from typing import NamedTuple

from . import CONSOLE_HOST, ENGINE, MODULE, TIME_LIMIT


# The leak checker itself crashes at a thread that outlives the interpreter: for runs that leave one behind.
OUTLIVED = {"ASAN_OPTIONS": "detect_leaks=0"}


def run(program, *arguments, text_input="", time_limit=TIME_LIMIT, environment=None, **options):
    """Runs a program to its end; standard input is a pipe with this text. A hanging one is killed and fails the test."""
    return subprocess.run([str(program), *map(str, arguments)], input=text_input, capture_output=True, text=True,
                          timeout=time_limit, env=dict(os.environ, **(environment or {})), **options)


def run_engine(*arguments, **options):
    return run(ENGINE, *arguments, **options)


def run_script(source, *arguments, **options):
    """Runs Python text as a script file in the engine; `arguments` are the engine's options."""
    with tempfile.NamedTemporaryFile("w", suffix=".py") as file:
        file.write(source)
        file.flush()
        return run_engine(*arguments, file.name, **options)


class Report(NamedTuple):
    result: subprocess.CompletedProcess
    facts: dict  # what the console host has noted, see there
    log: list  # (level, text)

    def calls(self, *names):
        return [call for call in self.facts["calls"] if call[0] in names]


def read_report(path):
    with open(path) as file:
        facts = ast.literal_eval(file.read())
    log = [(args[0], args[-1].decode()) for name, args, *_ in facts["calls"]
           if name in ("sonetrix_log", "sonetrix_log_LogString")]
    assert facts["violations"] == [], facts["violations"]
    return facts, log


def run_console_host(*operations, flags=(), **options):
    """See console_host.cpp; operations that do not construct are parameters, and the usual ones follow."""
    if "construct" not in operations:
        operations += "construct", "start", "run", "destroy"
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "report")
        result = run(CONSOLE_HOST, MODULE, "--report", path, *flags, *operations, **options)
        if not os.path.exists(path):
            raise AssertionError(f"console_host ended with {result.returncode}\n{result.stdout}{result.stderr}")
        return Report(result, *read_report(path))
