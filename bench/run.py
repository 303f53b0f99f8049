"""The library beside bare C extension functions (floor.c) on the same engine, in one table.

    make bench                     everything
    bench/run.py BUILD [PART...]   some of: calls lists add notify modules memory start audio

A time is the median of many interleaved rounds, with the minimum in brackets; of statements it is processor time.
Nothing here passes or fails.
"""

import ctypes
import os
import pathlib
import pty
import subprocess
import sys
import tempfile
import time

from measure import Row, compared, interleaved, memory_text, percentile, print_table, resident, statements, time_text

BUILD = pathlib.Path(sys.argv[1]).resolve()
LIBRARY = BUILD / "lib" / "sonetrix.so"
PROGRAMS = BUILD / "bench"

sys.path[:0] = [str(LIBRARY.parent), str(PROGRAMS)]
stub = ctypes.CDLL(str(PROGRAMS / "libsonetrix_stub.so"), mode=ctypes.RTLD_GLOBAL)
stub.stub_setModules.argtypes = ctypes.c_uint32, ctypes.c_uint32
# Called with the interpreter lock kept, so that a busy console is busy from the first call on.
notify_start = ctypes.PyDLL(stub._name).stub_notifyStart
notify_start.argtypes = ctypes.c_uint32, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_void_p

import floor  # noqa: E402  (both find the stub engine's functions)
import sonetrix  # noqa: E402


def side_by_side(name, ours, beside, target, names, **options):
    return compared(name, *statements(ours, beside, names=names, **options), target)


# ----------------------------------------------------------------------------------------------------------- calls

def calls():
    names = {"engine": sonetrix.engine, "log": sonetrix.log, "bare": floor.engine, "barelog": floor.log}
    yield side_by_side("engine.isRunning()", "engine.isRunning()", "bare.isRunning()", "1.10", names)
    yield side_by_side("log.info(str)", "log.info('a line for the log')", "barelog.info('a line for the log')", "1.10",
                       names)
    yield side_by_side("engine.link(str, str)", "engine.link('gain:out_1', 'system:playback_1')",
                       "bare.link('gain:out_1', 'system:playback_1')", "1.10", names)


# ----------------------------------------------------------------------------------------------------------- lists

def mixed_values(count):
    """Numbers of each kind, strings and a few arrays: (value, type name)."""
    for index in range(count):
        yield ((index, None), (index, "uint32"), (index * 0.5, None), (index * 0.25, "double"), (-index, None),
               (f"value {index}", None), (index * 1.5, None), (index, None), ((1, 2, 3), None),
               (f"another value {index}", None))[index % 10]


def mixed_key_value_list(count):
    result = sonetrix.listKeyValue()
    for index, (value, kind) in enumerate(mixed_values(count)):
        result.append(f"module{index // 10}.parameter{index % 10}", value, kind)
    return result


def mixed_value_list(count):
    result = sonetrix.listValue()
    for value, kind in mixed_values(count):
        result.append(value, kind)
    return result


def lists():
    for count in (10, 10_000, 100_000, 1_000_000):
        options = {"operations": count, "seconds": 1 if count <= 10_000 else 4}
        names = {"keyed": mixed_key_value_list(count), "floor": floor, "count": count}
        assert names["keyed"].toDict() == floor.newestToDict(count) == floor.newestToDictOfKnownKeys(count)
        label = f"toDict() of {count:,}, per entry"
        if count == 10:
            yield side_by_side(label + "; floor with new keys", "keyed.toDict()", "floor.newestToDict(count)", "1.10",
                               names, **options)
            yield side_by_side(label + "; floor with last keys", "keyed.toDict()",
                               "floor.newestToDictOfKnownKeys(count)", "", names, **options)
        else:
            yield side_by_side(label, "keyed.toDict()", "floor.newestToDict(count)", "1.10", names, **options)
    for count in (10, 10_000, 100_000, 1_000_000):
        options = {"operations": count, "seconds": 1 if count <= 10_000 else 4}
        names = {"values": mixed_value_list(count), "floor": floor, "count": count}
        assert names["values"].toList() == floor.newestToList(count)
        yield side_by_side(f"toList() of {count:,}, per element", "values.toList()", "floor.newestToList(count)", "1.10",
                           names, **options)


def add():
    names = {"sonetrix": sonetrix, "floor": floor, "hundred": range(100),
             "floats": tuple(float(index) for index in range(100_000))}
    adding = "target = {}.listKeyValue()\nfor _ in hundred: target.append('gain.level', {})"
    for kind, value in (("int", "7"), ("str", "'some text'")):
        yield side_by_side(f"append(str, {kind})", adding.format("sonetrix", value), adding.format("floor", value),
                           "1.15", names, operations=100)
    yield side_by_side("append(tuple of 100,000 floats), per float", "sonetrix.listValue().append(floats)",
                       "floor.listValue().append(floats)", "1.15", names, operations=100_000)


# --------------------------------------------------------------------------------------------------- notifications

def notify():
    changes = sonetrix.listKeyValue()
    for index in range(10):
        changes.append(f"gain.level_{index}", index * 0.5 if index % 2 else index)
    changes_list = ctypes.c_void_p.in_dll(stub, "stub_newestKeyValueList").value
    notifying = ctypes.c_int32.in_dll(stub, "stub_notifying")

    received = []

    def callback(entries):
        received[:] = [len(entries)]

    registration = sonetrix.notifyChanges(callback)
    floor.notifyKept(callback)
    floor.notifyNew(callback)

    def batch(index, count, busy):
        samples = (ctypes.c_double * count)()
        notify_start(index, changes_list, count, 1000 if busy else 0, samples)
        while busy and notifying.value:
            pass
        stub.stub_notifyJoin()
        return [sample * 1e-9 for sample in samples]

    for busy in (False, True):
        count, seconds = (20, 10) if busy else (200, 3)
        results = interleaved(*[lambda index=index: batch(index, count, busy) for index in range(3)], seconds=seconds,
                              least=5)
        ours, kept, new = ([sample for one in result for sample in one] for result in results)
        state = "console busy" if busy else "console idle"
        for name, beside, target in (("thread state kept", kept, "1.20"), ("new thread state each time", new, "")):
            yield compared(f"notification of 10, {state}; floor: {name}", ours, beside, target)
            tails = percentile(ours, 0.99), percentile(beside, 0.99)
            yield Row("    99th percentile", *map(time_text, tails), f"{tails[0] / tails[1]:.2f}", target)
    assert received == [10]
    del registration


# --------------------------------------------------------------------------------------------------------- modules

def modules():
    names = {"engine": sonetrix.engine, "bare": floor.engine}
    counts = 10, 100, 1000, 5000
    for statement, label in (("engine.getModuleInfos()", "getModuleInfos()"), ("engine.dot('/dev/null')", "dot()")):
        base = None
        for count in counts:
            stub.stub_setModules(count, 2)
            sample, = statements(statement, names=names, operations=count, seconds=1)
            base = base or sample
            row = compared(f"{label}, per module of {count:,}; beside: of 10", sample, base, "linear")
            yield row
    for count in counts:
        stub.stub_setModules(count, 2)
        options = {"operations": count, "seconds": 0.5}
        ours, taking, keeping = statements("engine.getModuleNames()", "bare.getModuleNames()",
                                           "bare.getModuleNamesLocked()", names=names, **options)
        yield compared(f"getModuleNames() of {count:,}, per module", ours, taking, "1.25")
        yield compared("    floor that keeps the lock throughout", ours, keeping)
    stub.stub_setModules(1, 1)


# ---------------------------------------------------------------------------------------------------------- memory

def flat(name, round_of_1000):
    """Resident memory after 100,000 rounds, and what 900,000 more have added."""
    for _ in range(100):
        round_of_1000()
    before = resident()
    began = time.perf_counter()
    for _ in range(900):
        round_of_1000()
    each = (time.perf_counter() - began) / 900_000
    return Row(f"{name}: memory at 100,000 and at 1,000,000", memory_text(resident()), memory_text(before),
               f"{(resident() - before) / 1e3:+.0f} kB", "flat"), each


def memory():
    def read_round():
        for index in range(1000):
            filled = sonetrix.listKeyValue().append("gain.level", index * 0.5).append("gain.name", "text")
            filled.toDict()

    def register_round():
        for _ in range(1000):
            sonetrix.notifyChanges(callback)

    def callback(entries):
        pass

    row, each = flat("create, append, read, drop", read_round)
    yield row
    row, each = flat("registrations created and dropped", register_round)
    yield row
    yield Row("registrations created and dropped", f"{1 / each:,.0f} per second", "")


# ------------------------------------------------------------------------------------------------------- processes

def console_start():
    """Seconds from the constructor to the first prompt."""
    terminal, console_terminal = pty.openpty()
    with subprocess.Popen([PROGRAMS / "console_start", LIBRARY], stdin=console_terminal, stdout=console_terminal,
                          stderr=console_terminal) as process:
        os.close(console_terminal)
        output = b""
        while not output.endswith(b"engine> "):
            output += os.read(terminal, 4096)
        prompt = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
        process.kill()
    os.close(terminal)
    return (prompt - int(output.split(b"constructing ")[1].split()[0])) * 1e-9


def interpreter_run():
    began = time.perf_counter()
    subprocess.run([sys.executable, "-c", "import time, math, ctypes, traceback, typing, os, inspect"], check=True)
    return time.perf_counter() - began


def start():
    yield compared("console: constructor to prompt; beside: bare python -c 'import ...'",
                   *interleaved(console_start, interpreter_run, seconds=8), "1.20")


CHAIN = """
import time
from sonetrix import engine, listKeyValue, notifyMeters
for index in range(20):
    engine.newModule(f"gain{index}", "amp_mono", None)
    engine.link(f"gain{index - 1}:output" if index else "system:capture_1", f"gain{index}:input")
engine.link("gain19:output", "system:playback_1")
time.sleep(0.5)
end = time.monotonic() + 4
"""
WAITING = "time.sleep(4)"
EDITING = """
while time.monotonic() < end:
    engine.newModule("extra", "amp_mono", None)
    engine.link("gain19:output", "extra:input")
    engine.link("extra:output", "system:playback_2")
    engine.link("system:playback_2", "")
    engine.delModule("extra")
"""
METERS = """
for index in range(1000):
    engine.addDebugMeter(f"meter{index}", index * 0.5)
def slow(meters):
    time.sleep(0.05)
registration = notifyMeters(slow)
time.sleep(4)
"""


def block_times(script):
    with tempfile.NamedTemporaryFile("w", suffix=".py") as file:
        file.write(CHAIN + script)
        file.flush()
        result = subprocess.run([PROGRAMS / "block_times", LIBRARY, file.name], stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, check=True)
    if "Traceback" in result.stderr:
        sys.exit(result.stderr)
    _, median, high, highest, longest = map(int, result.stdout.splitlines()[-1].split())
    return median * 1e-9, high * 1e-9, highest * 1e-9


def audio():
    results = interleaved(*[lambda script=script: block_times(script) for script in (WAITING, EDITING, METERS)],
                          seconds=40, least=3)
    quiet, editing, meters = (list(zip(*result)) for result in results)
    for label, sample in (("a script edits the graph", editing), ("1,000 fast meters, slow callable", meters)):
        yield compared(f"block's median, {label}; beside: no script runs", sample[0], quiet[0])
        yield compared(f"block's 99.9th percentile, {label}", sample[2], quiet[2], "as without")


# ------------------------------------------------------------------------------------------------------------ main

PARTS = {part.__name__: part for part in (calls, lists, add, notify, modules, memory, start, audio)}


def main():
    rows = []
    for name in sys.argv[2:] or PARTS:
        print(f"{name} ...", file=sys.stderr, flush=True)
        rows += PARTS[name]()
    print_table(rows)


if __name__ == "__main__":
    main()
