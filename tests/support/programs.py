"""Programs without a terminal, above all the development engine's."""

import functools
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from . import BUILD, ENGINE, MODULE, PRELOAD, SANITIZER, SOURCE, TIME_LIMIT

PACKAGES = BUILD / "lib/python3/dist-packages"

# For runs that leave a thread behind: what it holds is no leak.
OUTLIVED = {"ASAN_OPTIONS": "detect_leaks=0",
            "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " report_thread_leaks=0 die_after_fork=0"}


def run(*command, text_input="", time_limit=TIME_LIMIT, environment=None, **options):
    """Runs a program to its end; standard input is a pipe with this text. A hanging one fails the test."""
    return subprocess.run([*map(str, command)], input=text_input, capture_output=True, text=True,
                          timeout=time_limit, env=dict(os.environ, **(environment or {})), **options)


def run_python(source, program=None, **variables):
    """Runs Python text in an interpreter of its own, which can load the module."""
    if PRELOAD:
        variables["LD_PRELOAD"] = PRELOAD
    return run(program or sys.executable, "-X", "faulthandler", "-W", "ignore", "-c", source, environment=variables)


def run_engine(*arguments, **options):
    return run(ENGINE, *arguments, **options)


def run_script(source, *arguments, **options):
    """Runs Python text as a script file in the engine; `arguments` are the engine's options."""
    with tempfile.NamedTemporaryFile("w", suffix=".py") as file:
        file.write(source)
        file.flush()
        return run_engine(*arguments, file.name, **options)


def cache(name):
    """A setting of the build under test, or None."""
    found = re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)
    return found and found[1]


def compile_engine(program, *options):
    """The example of an engine that is not ours, compiled."""
    if (compiler := cache("CMAKE_C_COMPILER")) is None:
        raise unittest.SkipTest("built by a compiler for another machine, with options of its own")
    sanitizer = [f"-fsanitize={SANITIZER}"] if SANITIZER else []
    subprocess.run([compiler, "-Wall", "-Werror", *sanitizer, *(SOURCE / "examples/minimal_engine").glob("*.c"),
                    *options, "-o", program], check=True)
    return program


@functools.cache
def minimal_engine():
    minimal_engine.folder = tempfile.TemporaryDirectory()  # which goes with the process
    return compile_engine(pathlib.Path(minimal_engine.folder.name, "minimal_engine"), "-rdynamic",
                          f"-I{SOURCE}/include", f'-DSONETRIX_MODULE="{MODULE}"', "-ldl", "-lpthread")
