# ctest: timeout=200 processors=2
"""notifyChanges, notifyMeters and timeout in the running engine: registrations that come and go under fire, and ends of
engine and interpreter while everything fires.

SONETRIX_CHURN_SECONDS and SONETRIX_END_RUNS set for how long, and how many programs end under fire.
"""

import concurrent.futures
import os
import tempfile
import unittest

from support import console, programs

SECONDS = float(os.environ.get("SONETRIX_CHURN_SECONDS", 4))
END_RUNS = int(os.environ.get("SONETRIX_END_RUNS", 36))

# Ends in the way that the first argument names, with registrations in globals, in cycles and in threads. What runs on
# when the globals are gone has what it needs as defaults.
SCRIPT = f"SECONDS = {SECONDS}" + """
import collections, gc, os, random, re, signal, sys, threading
from sonetrix import *

way, pick, counts = sys.argv[1], random.Random(sys.argv[2]), collections.Counter()

def write(engine=engine, listKeyValue=listKeyValue):
    engine.setParams(listKeyValue().append("engine.log.level", 3))

def make(kind, callback, engine=engine, notifyChanges=notifyChanges, notifyMeters=notifyMeters):
    return [lambda: notifyChanges(callback), lambda: notifyMeters(callback, 0), lambda: notifyMeters(callback, 1),
            lambda: engine.addTimer(1, callback)][kind]()

def counting(kind, counts=counts):
    return lambda *_: counts.update([kind])

def churn(goes_on, make=make, write=write, pick=pick, told=[*map(counting, range(4))]):
    "Dropped by this thread, by callables, themselves too, which register more, and by the collector."
    pool = []
    def replace(*_):
        if goes_on():
            pool[-1:] = [make(pick.randrange(4), told[0])]
    while goes_on():
        kind = pick.randrange(4)
        pool.append(make(kind, pick.choice([told[kind], replace])))
        if pick.random() < 0.1:
            cycle = [make(kind, replace)]
            cycle.append(cycle)
        del pool[:max(0, len(pool) - pick.randrange(20))]
        write()

def start(*goes_on, daemon=False):
    threads = [threading.Thread(target=churn, args=[one], daemon=daemon) for one in goes_on]
    for thread in threads:
        thread.start()
    return threads

def size():
    "Resident kilobytes, threads and open files."
    with open("/proc/self/status") as file:
        status = file.read()
    figures = [int(re.search(name + r":\\s+(\\d+)", status)[1]) for name in ("VmRSS", "Threads")]
    return [*figures, len(os.listdir("/proc/self/fd"))]

def come_to_rest():
    sizes = []
    for _ in range(10):
        end = time.monotonic() + SECONDS / 10
        for thread in start(*[lambda: time.monotonic() < end] * 4):
            thread.join()
        gc.collect()
        sizes.append(size())
    assert len(counts) == 4, counts
    while counts and time.monotonic() < end + 10:  # a call that is under way may make one more, and drop it
        counts.clear(), write(), time.sleep(0.1)
    assert not counts, counts
    alive = [make(kind, counting(kind)) for kind in range(4)]
    while len(counts) < 4:  # each is told anew
        write()
    if SECONDS > 60:  # by then all is at rest
        assert sizes[9][0] < sizes[4][0] * 1.02 + 500 and sizes[9][1:] == sizes[4][1:], sizes

if way == "rest":
    come_to_rest()
    exit(7)
in_globals = [make(pick.randrange(4), counting(4)) for _ in range(20)] + [engine.addTimer(1, write)]
in_cycle = [make(pick.randrange(4), counting(4))]
in_cycle.append(in_cycle)
if pick.random() < 0.5:
    del in_cycle
start(engine.isRunning), start(*[lambda: True] * int(sys.argv[3]), daemon=True)
time.sleep(pick.random() * 0.1)
at_most_once = iter([lambda: os.kill(os.getpid(), signal.SIGTERM)])
if way == "exit":
    exit(7)
elif way == "SystemExit":
    raise SystemExit(7)
elif way == "stop from a callback":
    quitter = engine.addTimer(1, lambda: exit(7))
    engine.waitUntilEnd()
elif way == "stop from a thread":
    threading.Thread(target=exit, args=[7]).start()
elif way == "SIGTERM":
    killer = engine.addTimer(1, lambda: next(at_most_once, int)())
    engine.waitUntilEnd()
"""
WAYS = {"end of script": 0, "exit": 7, "SystemExit": 7, "stop from a callback": 7, "stop from a thread": 7,
        "SIGTERM": 0}


class UnderFire(unittest.TestCase):
    def setUp(self):
        self.script = os.path.join(self.enterContext(tempfile.TemporaryDirectory()), "script.py")
        with open(self.script, "w") as file:
            file.write(SCRIPT)

    def run_script(self, way, seed, daemons, status):
        """What went wrong, if anything."""
        result = programs.run_engine(self.script, way, seed, daemons, environment=programs.OUTLIVED,
                                     time_limit=programs.TIME_LIMIT + 2 * SECONDS)
        if (result.returncode, result.stdout + result.stderr) != (status, ""):
            return f"{way}, {seed}: {result}"

    def test_churn(self):
        self.assertIsNone(self.run_script("rest", 1, 0, 7))

    def test_programs_end(self):
        def end(seed):
            way, status = list(WAYS.items())[seed % len(WAYS)]
            return self.run_script(way, seed, seed // len(WAYS) % 2, status)
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            self.assertEqual([wrong for wrong in pool.map(end, range(END_RUNS)) if wrong], [])

    def test_consoles_end(self):
        for seed, (line, status) in enumerate([
                ("exit(7)", 7), ("raise SystemExit(7)", 7), ("\4", 0), ("cpu() # exit", 7)]):
            with self.subTest(line), console.Console("-i", self.script, "end of script", seed, 1,
                                                     environment=programs.OUTLIVED) as terminal:
                if line.startswith("cpu"):
                    terminal.ask("quitter = timeout(300, lambda: exit(7))")
                terminal.prompt()
                terminal.sendline(line)
                self.assertEqual(terminal.end(), status)
                self.assertNotRegex(terminal.transcript.split(line, 1)[-1], "Error|Exception|WARN|Fatal")

    def test_the_process_may_exit_in_c_with_everything_there(self):
        result = programs.run_script("""
import ctypes, threading
done, kept = threading.Event(), [timeout(10_000, int)]
dropping = timeout(1, lambda: (kept.clear(), done.set()))
done.wait()
ctypes.CDLL(None).exit(3)
""", environment=programs.OUTLIVED)
        self.assertEqual((result.returncode, result.stdout + result.stderr), (3, ""))
