#!/usr/bin/env python3
"""Registrations, edits and timers at a running engine's console for SECONDS; memory, threads and files must come to rest.

    tests/soak/run.py SECONDS
"""

import os
import pathlib
import re
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1]))
from support.console import Console  # noqa: E402 (the path comes first)
from support.live import CHURN, PRELUDE  # noqa: E402

SAMPLES = 10


def measure(process):
    """Resident kilobytes, threads and open files."""
    status = pathlib.Path(f"/proc/{process}/status").read_text()
    resident, threads = (int(re.search(rf"{name}:\s+(\d+)", status)[1]) for name in ("VmRSS", "Threads"))
    return resident, threads, len(os.listdir(f"/proc/{process}/fd"))


def main(seconds):
    samples = []
    with Console(time_limit=seconds + 120) as console:
        console.ask(f"exec({PRELUDE + CHURN!r})")
        for number in range(SAMPLES + 1):
            console.ask(f"churn({seconds / SAMPLES})")
            samples.append(measure(console.process.pid))
            print("%8d s  %8d kB  %4d threads  %4d files" % (seconds * number / SAMPLES, *samples[-1]), flush=True)
        print(console.ask("len(engine.getModuleNames()), len(threading.enumerate())"))
        status = console.end("exit(0)")
    half = samples[SAMPLES // 2]
    grown = samples[-1][0] > half[0] * 1.02 + 500 or samples[-1][1:] != half[1:]
    print("grown" if grown else "at rest")
    return status or grown


if __name__ == "__main__":
    sys.exit(main(float(sys.argv[1]) if len(sys.argv) > 1 else 120))
