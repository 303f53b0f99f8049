"""What the Python tests share. Paths come from ctest's environment, with the release build as the default."""

import os
import signal
import pathlib
import sys
import unittest

# A runner that was started in the background may ignore it, and every program that a test starts would.
signal.signal(signal.SIGINT, signal.default_int_handler)

SOURCE = pathlib.Path(os.environ.get("SONETRIX_SOURCE", pathlib.Path(__file__).parents[2]))
BUILD = pathlib.Path(os.environ.get("SONETRIX_BUILD", SOURCE / "build" / "release"))
MODULE = BUILD / "lib" / "sonetrix.so"
ENGINE = BUILD / "bin" / "sonetrix-engine"
RECORD = BUILD / "tests" / "libsonetrix_record.so"
CONSOLE_HOST = BUILD / "tests" / "console_host"

SANITIZER = os.environ.get("SONETRIX_SANITIZE", "")
# Waits are scaled, never guessed per build.
SLOWNESS = 6 if SANITIZER or hasattr(sys, "gettotalrefcount") else 1

# For another architecture: a folder of scripts of the programs' names that start them in an emulator; RUN goes before
# any other program of the target's.
RUN = []
if LAUNCHERS := os.environ.get("SONETRIX_LAUNCHERS"):
    ENGINE, CONSOLE_HOST = (pathlib.Path(LAUNCHERS, program.name) for program in (ENGINE, CONSOLE_HOST))
    sys.executable = str(pathlib.Path(LAUNCHERS, "python3"))
    RUN = [str(pathlib.Path(LAUNCHERS, "run"))]
    SLOWNESS = 10
TIME_LIMIT = 30.0 * SLOWNESS
in_real_time = unittest.skipIf(RUN, "plays in real time: the emulated interpreter takes longer to start than it lasts")
# The body of a busy loop. The thread sanitizer holds a signal back until the thread's next library call.
BUSY = "pass" if SANITIZER != "thread" else "__import__('time').sleep(0)"

# What is set here for the user's own interpreters must not change what the tests see: buffering, above all.
for _name in [name for name in os.environ if name.startswith("PYTHON") and name not in ("PYTHONPATH", "PYTHONMALLOC")]:
    del os.environ[_name]
os.environ["PYTHONDONTWRITEBYTECODE"] = "1"

# The sanitizer's run-time library was brought in for this interpreter only; children that need it say so.
PRELOAD = os.environ.pop("LD_PRELOAD", None)
