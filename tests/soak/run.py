"""The soak: everything at once on a running engine, for the given number of seconds, and a one-page report.

    python3 tests/soak/run.py [SECONDS]

Ends with status 1 when resident memory, threads or open files have grown, or when anything failed.
"""

import ast
import pathlib
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parents[1]))

from support.console import Console  # noqa: E402 (the path comes first)

WARM_UP = 0.25  # of the samples: caches fill, arenas settle
ALLOWED_GROWTH = 0.03  # of the resident memory
COMMANDS = ("engine.isRunning()", "len(engine.getModuleInfos()) > 0", "engine.getUsageInfo() and None",
            "listKeyValue().append('a', 1).toDict()", "1/0", "engine.dot('/dev/null')", "engine.cpuInfo() and None")


def mean(numbers):
    return sum(numbers) / len(numbers)


def soak(seconds):
    load = pathlib.Path(__file__).with_name("load.py")
    with (tempfile.TemporaryDirectory() as state, Console("--log-level", "fatal", "-i", load, time_limit=seconds + 120,
                                                          environment={"XDG_STATE_HOME": state}) as console):
        console.ask("__import__('readline').set_auto_history(False)")  # it would be the one thing that grows
        end = time.monotonic() + seconds
        typed = 0
        while time.monotonic() < end:
            console.ask(COMMANDS[typed % len(COMMANDS)])
            typed += 1
            console.transcript, console._position = console.transcript[console._position:], 0
            time.sleep(0.01)
        console.prompt()
        console.send("soak.report()")
        console.expect("REPORT ")
        report = ast.literal_eval(console.expect(" END"))
        console.prompt()
        status = console.end("exit(0)")
    return report, typed, status


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 120.0
    report, typed, status = soak(seconds)
    samples = report["samples"]
    settled = samples[int(len(samples) * WARM_UP):]
    third = max(1, len(settled) // 3)
    problems = [f"{what}: {count} times" for what, count in report["errors"].items()]
    if status != 0:
        problems.append(f"the engine ended with status {status}")

    print(f"Soak of {seconds:g} s\n\ncalls from Python       {sum(report['calls'].values()):>10}   {report['calls']}")
    print(f"callbacks delivered     {sum(report['callbacks'].values()):>10}   {report['callbacks']}")
    print(f"meters dropped          {report['meters dropped']!s:>10}\nxruns                   {report['xruns']:>10}")
    print(f"commands at the console {typed:>10}\n\n{'':14}{'first third':>14}{'last third':>14}{'highest':>14}")
    for column, what in enumerate(("resident KiB", "threads", "open files"), 1):
        values = [sample[column] for sample in settled]
        first, last = mean(values[:third]), mean(values[-third:])
        print(f"{what:14}{first:14.1f}{last:14.1f}{max(values):14}")
        if last > first * (1 + ALLOWED_GROWTH) + (column != 1):
            problems.append(f"{what} has grown from {first:.1f} to {last:.1f}")
    print("\nresident memory over time (KiB): " + " ".join(str(sample[1]) for sample in samples[::max(1, len(samples) // 12)]))
    print("\n" + ("\n".join(problems) if problems else "no growth, no errors"))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
