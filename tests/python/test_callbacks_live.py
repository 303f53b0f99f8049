# ctest: timeout=200 processors=2
"""notifyChanges, notifyMeters and timeout in the running engine: registrations that come and go under fire, and ends of
engine and interpreter while everything fires.

SONETRIX_CHURN_SECONDS and SONETRIX_END_RUNS set for how long, and how many programs end under fire.
"""

import concurrent.futures
import os
import tempfile
import unittest

from support import console, live, programs

KINDS = """
KINDS = {
    "changes": lambda callback: notifyChanges(lambda d: callback()),
    "slow": lambda callback: notifyMeters(lambda d: callback(), engine.METER_SLOW),
    "fast": lambda callback: notifyMeters(lambda d: callback()),
    "timer": lambda callback: engine.addTimer(1, callback),
}
def keep_going():
    "Waits until each kind has been called anew, with something for it to tell."
    calls = {kind: [] for kind in KINDS}
    alive = [KINDS[kind](lambda kind=kind: calls[kind].append(1)) for kind in KINDS]
    wait_for(lambda: write() and all(len(made) > 2 for made in calls.values()))
"""
# Registrations of all kinds, and modules with links and meters, come and go in many threads while everything fires.
CHURN = """
log.setLevel(log.ERROR)
counts, pools = collections.Counter(), collections.Counter()
def edit(name):
    assert engine.newModule(name, "amp_mono", None) == 0 and engine.link("system:capture_1", name + ":input") == 0
    assert any(info["name"] == name.encode() for info in engine.getModuleInfos())
    assert write(name + ".gain", 0.5)
    engine.getUsageInfo(), engine.getPortNames(), engine.cpuInfo(), engine.getLastMeter("system")
    engine.addDebugMeter(name + ".x", 1), engine.delDebugMeter(name + ".x"), engine.dot("/dev/null")
    assert engine.delModule(name) == 0
def editing(end):
    while time.monotonic() < end:
        edit(f"m{threading.get_ident()}")
        pools["edits"] += 1
def registering(seed, end):
    pick, pool = random.Random(seed), []
    def drops():  # itself and others, and registers more
        if pool and time.monotonic() < end:
            pool.pop()
            pool.append(KINDS[pick.choice(list(KINDS))](lambda: None))
    while time.monotonic() < end:
        kind = pick.choice(list(KINDS))
        pool.append(KINDS[kind](pick.choice([lambda: counts.update([kind]), drops])))
        pools["made"] += 1
        if pick.random() < 0.1:  # one that only the collector can drop
            cycle = [KINDS["timer"](lambda: None)]
            cycle.append(cycle)
        for _ in range(len(pool) - pick.randrange(30)):
            pool and pool.pop(0)
        write()
def size():
    "Resident kilobytes, threads and open files."
    with open("/proc/self/status") as file:
        status = file.read()
    figures = [int(re.search(name + r":\\s+(\\d+)", status)[1]) for name in ("VmRSS", "Threads")]
    return [*figures, len(os.listdir("/proc/self/fd"))]
sizes = []
for _ in range(10):
    end = time.monotonic() + SECONDS / 10
    editor = KINDS["timer"](lambda: edit(f"c{threading.get_ident()}"))
    in_threads(lambda: editing(end), *(lambda seed=seed: registering(seed, end) for seed in range(4)))
    del editor
    gc.collect()
    sizes.append(size())
assert pools["made"] > 20 and pools["edits"] and len(counts) == 4, (pools, counts)
keep_going()
before = counts.copy()
keep_going()
assert before == counts and engine.getModuleNames() == [b"system"]
if SECONDS > 60:  # by then all is at rest
    assert sizes[9][0] < sizes[4][0] * 1.02 + 500 and sizes[9][1:] == sizes[4][1:], sizes
"""


class Callables(live.LiveTest):
    def test_changes_are_told_once_with_their_newest_value(self):
        self.run_live("""
assert engine.newModule("amp", "amp_mono", None) == 0
told, newest = [], 0.0
watch = notifyChanges(told.append)
for newest in [number / 64 for number in range(1000)]:
    write("amp.gain", newest)
wait_for(lambda: told and told[-1] == {b"amp.gain": newest})
values = [change[b"amp.gain"] for change in told]
assert values == sorted(set(values)) and len(values) < 1000, values  # gathered, never an old one after a new one
""")

    def test_churn(self):
        seconds = float(os.environ.get("SONETRIX_CHURN_SECONDS", 4))
        self.run_live(f"import collections, re\nSECONDS = {seconds}\n" + KINDS + CHURN,
                      time_limit=programs.TIME_LIMIT + 2 * seconds)


# Ends in the way that the first argument names, with registrations alive in globals, in cycles and in threads.
UNDER_FIRE = """\
import os, random, signal, sys, threading
from sonetrix import *

way, pick, counts = sys.argv[1], random.Random(sys.argv[2]), [0]

def write(engine=engine, listKeyValue=listKeyValue):
    engine.setParams(listKeyValue().append("engine.log.level", 3))

def called(*_, counts=counts):
    counts[0] += 1

def make(callback, pick=pick, engine=engine, notifyChanges=notifyChanges, notifyMeters=notifyMeters):
    return [lambda: notifyChanges(lambda d: callback()), lambda: notifyMeters(lambda d: callback(), pick.randrange(2)),
            lambda: engine.addTimer(pick.randrange(3), callback)][pick.randrange(3)]()

class Cycle:
    def __init__(self):
        self.registration = make(self.call)
    def call(self):
        called()

def forgotten(daemon, engine=engine, make=make, called=called, write=write, pick=pick):
    mine = []
    while daemon or engine.isRunning():
        mine.append(make(called))
        if len(mine) > 10:
            mine.pop(pick.randrange(10))
        write()

in_globals = [make(called) for _ in range(20)] + [engine.addTimer(1, write)]
cycles = [Cycle() for _ in range(5)]
if pick.random() < 0.5:
    del cycles
for daemon in [False, True][:int(sys.argv[3])]:
    threading.Thread(target=forgotten, args=[daemon], daemon=daemon).start()
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
    killer = engine.addTimer(1, lambda: next(at_most_once, called)())
    engine.waitUntilEnd()
"""
WAYS = {"end of script": 0, "exit": 7, "SystemExit": 7, "stop from a callback": 7, "stop from a thread": 7,
        "SIGTERM": 0}


class Ends(live.LiveTest):
    def setUp(self):
        self.script = os.path.join(self.enterContext(tempfile.TemporaryDirectory()), "script.py")
        with open(self.script, "w") as file:
            file.write(UNDER_FIRE)

    def test_programs_end_under_fire(self):
        def end(seed):
            way, status = list(WAYS.items())[seed % len(WAYS)]
            threads = 1 + seed // len(WAYS) % 2  # the second is a daemon
            result = programs.run_engine(self.script, way, seed, threads, environment=programs.OUTLIVED)
            return result.returncode == status and not result.stdout + result.stderr or f"{way}, {seed}: {result}"

        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            outcomes = list(pool.map(end, range(int(os.environ.get("SONETRIX_END_RUNS", 36)))))
        self.assertEqual([outcome for outcome in outcomes if outcome is not True], [])

    def test_the_process_may_exit_in_c_with_everything_there(self):
        result = programs.run_script("""
import ctypes, threading
done, kept = threading.Event(), [timeout(10_000, int)]
dropping = timeout(1, lambda: (kept.clear(), done.set()))
done.wait()
ctypes.CDLL(None).exit(3)
""", environment=programs.OUTLIVED)
        self.assertEqual((result.returncode, result.stdout + result.stderr), (3, ""))

    def test_consoles_end_under_fire(self):
        for seed, (line, status) in enumerate([
                ("exit(7)", 7), ("raise SystemExit(7)", 7), ("\4", 0), ("cpu() # exit", 7)]):
            with self.subTest(line), console.Console("-i", self.script, "end of script", seed, 2,
                                                     environment=programs.OUTLIVED) as terminal:
                terminal.prompt()
                if line.startswith("cpu"):
                    terminal.sendline("quitter = timeout(300, lambda: exit(7))")
                    terminal.prompt()
                terminal.sendline(line)
                self.assertEqual(terminal.end(), status)
                ended = terminal.transcript.split(line, 1)[-1]
                self.assertNotRegex(ended, "Error|Exception|WARN|Fatal")


if __name__ == "__main__":
    unittest.main()
