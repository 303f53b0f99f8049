"""Programs without a terminal, above all the development engine's."""

import functools
import os
import pathlib
import re
import subprocess
import tempfile

from . import BUILD, ENGINE, MODULE, SANITIZER, SOURCE, TIME_LIMIT

PACKAGES = BUILD / "lib/python3/dist-packages"

# For runs that leave a thread behind. The leak checker itself crashes at one that outlives the interpreter.
OUTLIVED = {"ASAN_OPTIONS": "detect_leaks=0",
            "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " report_thread_leaks=0"}


def run(program, *arguments, text_input="", time_limit=TIME_LIMIT, environment=None, **options):
    """Runs a program to its end; standard input is a pipe with this text. A hanging one fails the test."""
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


@functools.cache
def minimal_engine():
    """The example of an engine that is not ours, compiled."""
    folder = tempfile.TemporaryDirectory()
    compiler = re.search(r"^CMAKE_C_COMPILER:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)[1]
    sanitizer = [f"-fsanitize={SANITIZER}"] if SANITIZER else []
    program = pathlib.Path(folder.name, "minimal_engine")
    subprocess.run([compiler, *sanitizer, "-rdynamic", f"-I{SOURCE}/include", f'-DSONETRIX_MODULE="{MODULE}"', "-o",
                    program,
                    *(SOURCE / "examples/minimal_engine").glob("*.c"), "-ldl", "-lpthread"], check=True)
    minimal_engine.folder = folder  # which goes with the process
    return program
