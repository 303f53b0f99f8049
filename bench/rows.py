"""One process of the benchmark: measures some parts and prints a JSON object for each row.

    rows.py LIBRARY PROGRAMS PART...

PROGRAMS is the folder of the stub engine, the floor and what else is built for the benchmark.
"""

import ctypes
import gc
import importlib
import json
import os
import pathlib
import pty
import statistics
import subprocess
import sys
import tempfile
import threading
import time

# What the library imports, so that its own share of the import can be told.
import inspect, math, traceback, typing  # noqa: E401,F401

from measure import Row, interleaved, percentile, resident, statements

LIBRARY, PROGRAMS = map(pathlib.Path, sys.argv[1:3])
sys.path[:0] = [str(LIBRARY.parent), str(PROGRAMS)]
stub = ctypes.CDLL(str(PROGRAMS / "libsonetrix_stub.so"), mode=ctypes.RTLD_GLOBAL)
stub.stub_setModules.argtypes = ctypes.c_uint32, ctypes.c_uint32
# Called with the interpreter lock kept, so that a busy console is busy from the first call on.
notify_start = ctypes.PyDLL(stub._name).stub_notifyStart
notify_start.argtypes = ctypes.c_uint32, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_void_p


def timed_import(name):
    began = time.thread_time()
    return importlib.import_module(name), time.thread_time() - began


floor, floor_import = timed_import("floor")  # both find the stub engine's functions
sonetrix, own_import = timed_import("sonetrix")
peers = {"ctypes": importlib.import_module("peer_ctypes")}
if (PROGRAMS / "peer.so").exists():
    peers["Cython"] = importlib.import_module("peer")


def row(name, ours, beside, limit, names, peer=None, **options):
    """A statement beside the floor's; `peer` is the statement with {} for a peer's module."""
    others = peers if peer else {}
    results = statements(ours, beside, *[peer.format(f"peers[{other!r}]") for other in others],
                         names=names | {"peers": peers}, **options)
    return Row(name, *results[:2], limit, dict(zip(others, results[2:])))


# ----------------------------------------------------------------------------------------------------------- calls

LINK = "('gain:out_1', 'system:playback_1')"
REFUSED = "try: {}.link(1, 2)\nexcept Exception: pass"


def calls():
    names = {"engine": sonetrix.engine, "log": sonetrix.log, "bare": floor.engine, "barelog": floor.log}
    yield row("`engine.isRunning()`", "engine.isRunning()", "bare.isRunning()", 1.08, names, "{}.isRunning()")
    yield row("`engine.link(str, str)`", "engine.link" + LINK, "bare.link" + LINK, 1.08, names, "{}.link" + LINK)
    yield row("`engine.link(str, p2=str)`", "engine.link('a:b', p2='c:d')", "bare.linkKeywords('a:b', p2='c:d')", None,
              names)
    yield row("a refused call, caught", REFUSED.format("engine"), REFUSED.format("bare"), None, names)
    text = "('a line for the log')"
    yield row("`log.info(str)`", "log.info" + text, "barelog.info" + text, 1.10, names, "{}.info" + text)


def parameters():
    names = {"engine": sonetrix.engine, "bare": floor.engine, "one": sonetrix.listKeyValue().append("gain.level", 0.5),
             "bareone": floor.listKeyValue().append("gain.level", 1)}
    for count, limit in (1, 1.15), (20, None):
        keys = tuple(f"gain.level_{index}" for index in range(count))
        given = "'gain.level_0'" if count == 1 else "keys"
        names |= {"keys": keys, "ours": sonetrix.listKeyValue(), "theirs": floor.listKeyValue()}
        for key in keys:
            names["ours"].append(key, 7), names["theirs"].append(key, 7)
        of = f"of {count} key{'s' * (count > 1)}"
        yield row(f"`getParam` {of}", f"engine.getParam({given})", f"bare.getParam({given})", limit, names)
        yield row(f"`setParams` {of}", "engine.setParams(ours)", "bare.setParams(theirs)", limit, names)


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
    for count in (10, 10_000, 100_000):
        options = {"operations": count, "seconds": 0.3 if count <= 10_000 else 1}
        names = {"keyed": mixed_key_value_list(count), "floor": floor, "count": count}
        assert names["keyed"].toDict() == floor.newestToDict(count) == floor.newestToDictOfKnownKeys(count)
        assert names["keyed"].toDictType() == floor.newestToDictType(count)
        each = f"of {count:,}, per entry"
        yield row(f"`toDict()` {each}", "keyed.toDict()", "floor.newestToDict(count)", 1.10, names, **options)
        if count == 10:
            yield row(f"`toDict()` {each}; floor that knows the keys", "keyed.toDict()",
                      "floor.newestToDictOfKnownKeys(count)", None, names, **options)
        yield row(f"`toDictType()` {each}", "keyed.toDictType()", "floor.newestToDictType(count)", None, names,
                  **options)
        names["values"] = mixed_value_list(count)
        assert names["values"].toList() == floor.newestToList(count)
        reading = f"`toList()` of {count:,}, per element"
        yield row(reading, "values.toList()", "floor.newestToList(count)", 1.10, names, **options)
        asking = reading + "; floor that asks for the lock"
        yield row(asking, "values.toList()", "floor.newestToListAsking(count)", None,
                  names, **options)


def add():
    names = {"sonetrix": sonetrix, "floor": floor, "hundred": range(100),
             "floats": tuple(float(index) for index in range(1000))}
    adding = "target = {}.listKeyValue()\nfor _ in hundred: target.append('gain.level', {})"
    for kind, value in (("int", "7"), ("str", "'some text'")):
        peer = adding.replace("{}", "{{}}", 1).format(value)
        yield row(f"`append(str, {kind})`", adding.format("sonetrix", value), adding.format("floor", value), 1.15,
                  names, peer, operations=100)
    yield row("`append` of a tuple of 1,000 floats", "sonetrix.listValue().append(floats)",
              "floor.listValue().append(floats)", 1.20, names)


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

    def elapsed():
        pass

    registrations = [sonetrix.notifyChanges(callback)]
    floor.notifyKept(callback)
    floor.notifyNew(callback)
    registrations.append(sonetrix.engine.addTimer(1000, elapsed))
    floor.addTimer(elapsed)

    def batch(index, count, busy=False):
        samples = (ctypes.c_double * count)()
        notify_start(index, changes_list, count, 1000 if busy else 0, samples)
        while busy and notifying.value:
            pass
        stub.stub_notifyJoin()
        return [sample * 1e-9 for sample in samples]

    def sampled(places, seconds, *arguments):
        results = interleaved(*[lambda place=place: batch(place, *arguments) for place in places], seconds=seconds,
                              least=3)
        return [[sample for one in result for sample in one] for result in results]

    ours, kept, new = sampled(range(3), 1, 200)
    yield Row("a notification of 10; floor that keeps its thread state", ours, kept, 1.2)
    yield Row("a notification of 10; floor with a new thread state for each", ours, new, 0.2)
    yield Row("a timer's call", *sampled((3, 4), 0.5, 200))
    ours, kept = sampled(range(2), 2, 20, True)
    yield Row("a notification of 10 while a script computes, median", [statistics.median(ours)],
              [statistics.median(kept)])
    yield Row("the same, 99th percentile", [percentile(ours, 0.99)], [percentile(kept, 0.99)])
    assert received == [10]


def registrations():
    names = {"ours": sonetrix.notifyChanges, "bare": floor.registration, "thousand": range(1000),
             "callback": lambda entries: None}
    making = "made = [{}(callback) for _ in thousand]\ndel made"
    yield row("1,000 registrations made and dropped, each", making.format("ours"), making.format("bare"), None, names,
              operations=1000)


# --------------------------------------------------------------------------------------------------------- modules

def modules():
    """Per module, beside the same of a graph of 10: what a long graph costs more."""
    names = {"engine": sonetrix.engine, "bare": floor.engine}
    for statement, label in (("engine.getModuleInfos()", "`getModuleInfos()`"), ("engine.dot('/dev/null')", "`dot()`")):
        samples = {}
        for count in 10, 1000, 5000:
            stub.stub_setModules(count, 2)
            samples[count], = statements(statement, names=names, operations=count)
        for count in 1000, 5000:
            yield Row(f"{label}, per module of {count:,}; floor: of 10", samples[count], samples[10], 1.25)
    for count in 10, 5000:
        stub.stub_setModules(count, 2)
        yield row(f"`getModuleNames()` of {count:,}, per module", "engine.getModuleNames()", "bare.getModuleNames()",
                  1.25, names, operations=count)
    stub.stub_setModules(1, 1)


# ------------------------------------------------------------------------------------------------- threads, memory

def threads():
    """Two Python threads that call at the same time, in time that passes."""
    def both(link, count=20_000):
        def loop():
            for _ in range(count):
                link("gain:out_1", "system:playback_1")
        callers = [threading.Thread(target=loop) for _ in range(2)]
        began = time.perf_counter()
        for caller in callers:
            caller.start()
        for caller in callers:
            caller.join()
        return (time.perf_counter() - began) / (2 * count)

    yield Row("`engine.link(str, str)` on two threads at once",
              *interleaved(lambda: both(sonetrix.engine.link), lambda: both(floor.engine.link), seconds=2))


def imports():
    yield Row("import, the module's own share; floor: of an empty module's", [own_import], [floor_import])


def memory():
    """Resident memory after 100,000 rounds, and what 900,000 more have added."""
    def read_round():
        for index in range(1000):
            sonetrix.listKeyValue().append("gain.level", index * 0.5).append("gain.name", "text").toDict()

    def register_round():
        for _ in range(1000):
            sonetrix.notifyChanges(callback)

    def callback(entries):
        pass

    for name, thousand in ("lists made, filled, read", read_round), ("registrations made", register_round):
        for _ in range(100):
            thousand()
        before = resident()
        for _ in range(900):
            thousand()
        yield Row(f"memory that the last 900,000 of 1,000,000 {name} and dropped have added", [resident() - before],
                  unit="B")


# ------------------------------------------------------------------------------------------------------- processes

def prompt_of(*command, ask=None):
    """Seconds from "constructing" to the prompt, and what the answer to a statement is."""
    terminal, console_terminal = pty.openpty()
    with subprocess.Popen(command, stdin=console_terminal, stdout=console_terminal, stderr=console_terminal) as process:
        os.close(console_terminal)

        def output_to_prompt():
            output = b""
            while not output.endswith(b"engine> "):
                output += os.read(terminal, 4096)
            return output
        output = output_to_prompt()
        prompt = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
        answer = b""
        if ask:
            os.write(terminal, ask.encode() + b"\n")
            answer = output_to_prompt()
        process.kill()
    os.close(terminal)
    return (prompt - int(output.split(b"constructing ")[1].split()[0])) * 1e-9, answer.decode()


def start():
    console = PROGRAMS / "console_start", LIBRARY
    _, answer = prompt_of(*console, ask="print('MODULES', *__import__('sys').modules)")
    imported = [name for name in answer.split("MODULES ")[-1].split() if name.isidentifier() or "." in name]
    imported = [name for name in imported if not name.startswith(("sonetrix", "engine", "__main__"))]
    assert "ctypes" in imported and "traceback" in imported, answer
    yield Row("the console's start: constructor to prompt",
              *interleaved(lambda: prompt_of(*console)[0], lambda: prompt_of(PROGRAMS / "bare_start", *imported)[0],
                           seconds=2), 1.20)


CHAIN = """
import time
from sonetrix import engine, listKeyValue, notifyMeters
def chain(count):
    for index in range(count):
        engine.newModule(f"gain{index}", "amp_mono", None)
        engine.link(f"gain{index - 1}:output" if index else "system:capture_1", f"gain{index}:input")
    engine.link(f"gain{count - 1}:output", "system:playback_1")
"""
WAITING = "chain(20)\ntime.sleep(SECONDS)"
BUSY = """
chain(20)
end = time.monotonic() + SECONDS
for index in range(1000):
    engine.addDebugMeter(f"meter{index}", index * 0.5)
def slow(meters):
    time.sleep(0.05)
registration = notifyMeters(slow)
while time.monotonic() < end:
    engine.newModule("extra", "amp_mono", None)
    engine.link("gain19:output", "extra:input")
    engine.link("extra:output", "system:playback_2")
    engine.link("system:playback_2", "")
    engine.delModule("extra")
    engine.setParams(listKeyValue().append("gain0.gain", 0.5))
    engine.getLastMeter()
"""
LONG = "chain(1000)\ntime.sleep(SECONDS)"


def block_times(script, seconds):
    """Xruns; the median, 99th and 99.9th percentile and worst of processing; the same of lateness."""
    with tempfile.NamedTemporaryFile("w", suffix=".py") as file:
        file.write(CHAIN + script.replace("SECONDS", str(seconds)))
        file.flush()
        result = subprocess.run([PROGRAMS / "block_times", LIBRARY, file.name], stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, check=True)
    if "Traceback" in result.stderr:
        sys.exit(result.stderr)
    xruns, *lines = result.stdout.splitlines()[-3:]
    return int(xruns), *[[int(number) * 1e-9 for number in line.split()] for line in lines]


def realtime():
    seconds = float(os.environ.get("SONETRIX_BENCH_SECONDS", "5"))
    quiet, busy = (block_times(script, seconds) for script in (WAITING, BUSY))
    for label, place in ("a block's processing", 1), ("a block's lateness", 2):
        for index, name in enumerate(("median", "99th percentile", "99.9th percentile", "worst")):
            yield Row(f"{label}, {name}: scripts at work; floor: none", [busy[place][index]], [quiet[place][index]],
                      1.1 if (place, index) == (2, 2) else None)
    yield Row("xruns, scripts at work; floor: none", [busy[0]], [quiet[0]], unit="")
    yield Row("a block of 64 frames with 1,000 modules, median", [block_times(LONG, 2)[1][0]])


# ------------------------------------------------------------------------------------------------------------ main

ON_ONE_CORE = calls, parameters, lists, add, registrations, modules, imports, memory
PARTS = {part.__name__: part for part in (*ON_ONE_CORE, notify, threads, start, realtime)}


def main():
    # The engine's process has many threads; with a single one, the C library leaves atomic instructions out.
    threading.Thread(target=threading.Event().wait, daemon=True).start()
    everywhere = os.sched_getaffinity(0)
    for name in sys.argv[3:]:
        part = PARTS[name]
        os.sched_setaffinity(0, {max(everywhere)} if part in ON_ONE_CORE else everywhere)
        for each in part():
            print(json.dumps({"part": name} | each.summary()), flush=True)
        gc.collect()
    sys.stdout.flush()
    os._exit(0)


if __name__ == "__main__":
    main()
