# ctest: timeout=200 processors=2
"""notifyChanges, notifyMeters and timeout in the running engine: registrations that come and go under fire, until
engine and interpreter end while everything fires.

SONETRIX_CHURN_SECONDS and SONETRIX_END_RUNS set for how long, and how many programs end under fire.
"""

import concurrent.futures
import os
import unittest

from support import programs

SECONDS = float(os.environ.get("SONETRIX_CHURN_SECONDS", 4))
END_RUNS = int(os.environ.get("SONETRIX_END_RUNS", 36))

# Ends in the way that it is told, with registrations in globals, in cycles and in threads. What runs on when the
# globals are gone has what it needs as defaults.
SCRIPT = """
import functools, os, random, signal, threading
from sonetrix import *

pick, entries, called = random.Random(seed), listKeyValue().append("engine.log.level", 3), set()
kinds = [notifyChanges, notifyMeters, functools.partial(notifyMeters, meters_type=0),
         functools.partial(engine.addTimer, 1)]

def noting(kind, called=called):
    return lambda *_: called.add(kind)

def churn(goes_on, kinds=kinds, pick=pick, write=engine.setParams, entries=entries, note=noting(None)):
    "Dropped by this thread, by callables, themselves too, which register more, and by the collector."
    pool = []
    def replace(*_):
        if goes_on():
            pool[-1:] = [pick.choice(kinds)(note)]
    while goes_on():
        pool.append(pick.choice(kinds)(pick.choice([note, replace])))
        if pick.random() < 0.1:
            cycle = [pick.choice(kinds)(replace)]
            cycle.append(cycle)
        del pool[:max(0, len(pool) - pick.randrange(20))]
        write(entries)

in_globals = [kind(noting(kind)) for kind in kinds * 5]
if pick.random() < 0.5:
    in_cycle = [notifyMeters(noting(None))]
    in_cycle.append(in_cycle)
for _ in range(3):
    threading.Thread(target=churn, args=[engine.isRunning]).start()
if pick.random() < 0.5:
    threading.Thread(target=churn, args=[lambda: True], daemon=True).start()
time.sleep(seconds or pick.random() * 0.1)
assert seconds == 0 or called > {*kinds}, called
exec(way)
"""
WAYS = {"": 0, "exit(7)": 7, "raise SystemExit(7)": 7, "threading.Thread(target=exit, args=[7]).start()": 7,
        "quitter = engine.addTimer(1, lambda: exit(7)); engine.waitUntilEnd()": 7,
        "os.kill(os.getpid(), signal.SIGTERM); engine.waitUntilEnd()": 0}


class UnderFire(unittest.TestCase):
    def assert_ends(self, seed, seconds=0):
        way, status = list(WAYS.items())[seed % len(WAYS)]
        result = programs.run_script(f"way, seconds, seed = {(way, seconds, seed)}\n{SCRIPT}",
                                     environment=programs.OUTLIVED, time_limit=programs.TIME_LIMIT + 2 * seconds)
        self.assertEqual((result.returncode, result.stdout + result.stderr), (status, ""), (way, seed))

    def test_churn(self):
        self.assert_ends(1, SECONDS)

    def test_programs_end(self):
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(self.assert_ends, range(END_RUNS)))
