"""notifyChanges, notifyMeters and timeout in the running engine: callables that misbehave, registrations that come and
go under fire, and ends of engine and interpreter while everything fires.

SONETRIX_END_RUNS sets how many programs end under fire.
"""
# ctest: timeout=300

import concurrent.futures
import os
import re
import unittest

import support
from support import console, live, programs

KINDS = """\
KINDS = {
    "changes": lambda callback: notifyChanges(lambda d: callback()),
    "slow": lambda callback: notifyMeters(lambda d: callback(), engine.METER_SLOW),
    "fast": lambda callback: notifyMeters(lambda d: callback()),
    "timer": lambda callback: engine.addTimer(1, callback),
}

class Count:
    def __init__(self):
        self.calls = 0
    def __call__(self, *arguments):
        self.calls += 1
        self.last = arguments

def keep_going(seconds=None):
    '''Waits until each kind has been called anew, with something for it to tell.'''
    counts = {kind: Count() for kind in KINDS}
    alive = [KINDS[kind](count) for kind, count in counts.items()]
    wait_for(lambda: write() and all(count.calls > 2 for count in counts.values()))
"""

FAILURES = {
    "changes": "WARN  python: Exception whilee invoking notification callback registered from Python\n",
    "slow": "WARN  python: Exception whilee invoking meter callback registered from Python\n",
    "fast": "WARN  python: Exception whilee invoking meter callback registered from Python\n",
    "timer": "WARN  python: exception in callback timer: Traceback \\(most recent call last\\):\n(?:(?!WARN).*\n)*?",
}


class Callables(live.LiveTest):
    def test_each_may_fail_in_any_way(self):
        for kind, failure in FAILURES.items():
            for error in ("ValueError('é\\0')", "SystemExit(5)", "KeyboardInterrupt", "Hostile"):
                with self.subTest(kind=kind, error=error):
                    self.run_live(KINDS + f"""
class Hostile(Exception):
    def __str__(self): raise self
    __repr__ = __str__
calls = 0
def callback():
    global calls
    calls += 1
    if calls <= 2:
        raise {error}
registration = KINDS[{kind!r}](callback)
wait_for(lambda: write() and calls > 4)
keep_going()
""", log=re.compile(f"({failure})" + "{2}"))

    def test_a_slow_one_holds_up_nobody_else_and_dropping_waits_for_it(self):
        self.run_live(KINDS + """
for kind in KINDS:
    entered, leave, left = threading.Event(), threading.Event(), []
    def slow():
        entered.set()
        leave.wait()
        left.append(time.monotonic())
    registration = KINDS[kind](slow)
    wait_for(lambda: write() and entered.is_set())
    others = {other: Count() for other in KINDS if other not in (kind, {"slow": "fast", "fast": "slow"}.get(kind))}
    alive = [KINDS[other](count) for other, count in others.items()]
    wait_for(lambda: write() and all(count.calls > 3 for count in others.values()))
    assert not left
    threading.Timer(0.1, leave.set).start()
    del registration
    assert len(left) == 1, kind
    del alive
    keep_going()
    assert len(left) == 1, kind
""")

    def test_they_may_drop_themselves_and_others_and_register_more(self):
        self.run_live(KINDS + """
for kind in KINDS:
    for collected in (False, True):
        mine, calls, made, through = [], Count(), Count(), threading.Event()
        def once():
            if not mine:
                return  # called before there is something to drop
            calls()
            mine.clear()
            extra = [KINDS[other](made) for other in KINDS for _ in range(5)]
            extra.append(extra)
            del extra
            if collected:
                gc.collect()
            through.set()
        mine += [KINDS[kind](once), *(KINDS[other](made) for other in KINDS)]
        wait_for(lambda: write() and through.is_set())
        gc.collect()
        keep_going()
        before = made.calls
        keep_going()
        assert (calls.calls, made.calls) == (1, before), (kind, calls.calls, made.calls, before)
""")

    def test_two_may_drop_each_other_at_the_same_time(self):
        self.run_live(KINDS + """
for round in range(10):
    for one, other in ("timer", "fast"), ("timer", "changes"), ("fast", "changes"):
        for callables in ("own", "shared"):
            pool, both = {}, threading.Barrier(2)
            def drop(victim):
                try:
                    both.wait(0.2)
                except threading.BrokenBarrierError:
                    pass
                pool.pop(victim, None)
            class Shared:
                def __call__(self, meters=None):
                    drop(other if meters is None else one)
            if callables == "own":
                pool.update({one: KINDS[one](lambda: drop(other)), other: KINDS[other](lambda: drop(one))})
            elif "timer" in (one, other):
                shared = Shared()
                shared.__signature__ = signature(lambda meters: 0)
                pool[one] = engine.addTimer(1, shared)
                pool[other] = notifyChanges(shared) if other == "changes" else notifyMeters(shared)
            wait_for(lambda: write() and len(pool) < 2)
            pool.clear()
keep_going()
""")

    def test_they_may_use_the_whole_engine(self):
        self.run_live(KINDS + """
def everything():
    name = f"m{threading.get_ident()}_{random.random():.9f}".replace(".", "_")[:39]
    assert engine.newModule(name, "amp_mono", None) == 0
    assert engine.link("system:capture_1", name + ":input") == 0
    assert any(record["name"] == name.encode() for record in engine.getModuleInfos())
    assert write(name + ".gain", 0.5)
    engine.getUsageInfo(), engine.getPortNames(), engine.cpuInfo(), engine.getLastMeter("system")
    engine.addDebugMeter(name + ".x", 1)
    engine.delDebugMeter(name + ".x")
    engine.dot("/dev/null")
    assert engine.delModule(name) == 0
    done()
for kind in KINDS:
    done = Count()
    registration = KINDS[kind](everything)
    wait_for(lambda: write() and done.calls > 5)
    del registration
assert engine.getModuleNames() == [b"system"]
""")

    def test_changes_are_told_once_with_their_newest_value(self):
        self.run_live(KINDS + """
assert engine.newModule("amp", "amp_mono", None) == 0
told, newest = [], 0.0
watch = notifyChanges(told.append)
for newest in [number / 64 for number in range(1000)]:
    write("amp.gain", newest)
wait_for(lambda: told and told[-1] == {b"amp.gain": newest})
values = [change[b"amp.gain"] for change in told]
assert values == sorted(set(values)) and len(values) < 1000, values  # gathered, never an old one after a new one
before = len(told)
write("amp.gain", 1e9), write("amp.gain", 5), write("no.such", 1), write("engine.rate", 1)  # none is done
engine.setParams(listKeyValue().append("amp.gain", 0.25).append("engine.log.level", 3).append("amp.gain", 0.5))
wait_for(lambda: len(told) > before)
time.sleep(0.05)
assert told[before:] == [{b"amp.gain": 0.5, b"engine.log.level": 3}], told[before:]
""")


class Churn(live.LiveTest):
    def test_registrations_come_and_go_in_many_threads_under_fire(self):
        seconds = float(os.environ.get("SONETRIX_CHURN_SECONDS", 6))
        self.run_live(KINDS + f"""
end = time.monotonic() + {seconds}
counts, made = {{kind: Count() for kind in KINDS}}, Count()
def churn(seed):
    pick, pool = random.Random(seed), []
    while time.monotonic() < end:
        kind = pick.choice(list(KINDS))
        pool.append(KINDS[kind](counts[kind]))
        made()
        if pick.random() < 0.1:  # one that only the collector can drop
            cycle = [KINDS["timer"](counts["timer"])]
            cycle.append(cycle)
        while len(pool) > pick.randrange(30):
            pool.pop(pick.randrange(len(pool)))
        write()
blocks = []
def watch():
    while time.monotonic() < end:
        gc.collect()
        blocks.append(sys.getallocatedblocks())
        time.sleep(0.1)
in_threads(watch, *(lambda seed=seed: churn(seed) for seed in range(4)))
gc.collect()
assert made.calls > 200 and all(count.calls > 20 for count in counts.values()), (made.calls, counts)
assert max(blocks[len(blocks) // 2:]) < max(blocks[:len(blocks) // 2]) * 1.1 + 2000, blocks
keep_going()
before = [count.calls for count in counts.values()]
keep_going()
assert before == [count.calls for count in counts.values()]
""")


    def test_cycles_of_a_subclass_with_a_finalizer_of_its_own(self):
        self.run_live("""
class Own(timeout):
    def __del__(self): pass
def function():
    def called(): return time, sys
    return called
gc.disable()
end = time.monotonic() + 2
while time.monotonic() < end:
    functions = [function() for _ in range(40)]
    timers = [Own(1, one) for one in functions]
    for one in functions:
        one.timers = timers
    del functions, timers, one
    time.sleep(0.003)
    gc.collect()
""")


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
elif way == "exit and wait":
    exit(7)
    engine.waitUntilEnd()
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
WAYS = {"end of script": 0, "exit": 7, "exit and wait": 7, "SystemExit": 7, "stop from a callback": 7,
        "stop from a thread": 7, "SIGTERM": 0}


class Ends(live.LiveTest):
    def test_programs_end_under_fire(self):
        ways = list(WAYS.items())
        runs = [(seed, *ways[seed % len(ways)]) for seed in range(int(os.environ.get("SONETRIX_END_RUNS", 60)))]
        script = self.enterContext(ScriptFile(UNDER_FIRE))

        def end(seed, way, status):
            threads = 1 + seed // len(ways) % 2  # the second is a daemon
            result = programs.run_engine(script, way, seed, threads, environment=programs.OUTLIVED if threads == 2 else None)
            return result.returncode == status and not result.stdout + result.stderr or f"{way}, {seed}: {result}"

        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            outcomes = list(pool.map(lambda run: end(*run), runs))
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
        script = self.enterContext(ScriptFile(UNDER_FIRE))
        for seed, (line, status) in enumerate([("exit(7)", 7), ("engine.exit()", 0), ("raise SystemExit(7)", 7),
                                               ("\4", 0), ("cpu() # exit", 7)]):
            with self.subTest(line), console.Console(
                    "-i", script, "end of script", seed, 2, environment=programs.OUTLIVED) as terminal:
                terminal.prompt()
                if line.startswith("cpu"):
                    terminal.send("quitter = timeout(300, lambda: exit(7))")
                    terminal.prompt()
                terminal.send(line)
                self.assertEqual(terminal.end(), status)
                ended = terminal.transcript.split(line, 1)[-1]
                self.assertNotRegex(ended, "Error|Exception|WARN|Fatal")


class ScriptFile(programs.tempfile.TemporaryDirectory):
    def __init__(self, source):
        super().__init__()
        self.source = source

    def __enter__(self):
        path = os.path.join(super().__enter__(), "script.py")
        with open(path, "w") as file:
            file.write(self.source)
        return path


if __name__ == "__main__":
    unittest.main()
