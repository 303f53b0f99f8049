# ctest: timeout=100
"""Registrations, engine threads, forked children and interpreters that end in the midst of something."""

import concurrent.futures
import unittest

from support import programs

PRELUDE = """
import atexit, ctypes, gc, logging, os, pathlib, re, signal, sys, threading, time
from support import record
older = []  # exit handlers that run after the library's
atexit.register(lambda: [call() for call in older])
sonetrix = record.load()
def timed(call):
    began = time.monotonic()
    call()
    print("at once" if time.monotonic() - began < 2.5 else "late")
def background(call, *arguments):
    thread = threading.Thread(target=call, args=arguments, daemon=True)
    thread.start()
    return thread
def in_child(call):
    if (pid := os.fork()) == 0:
        call(), sys.stdout.flush(), os._exit(0)
    print("child", os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
def fire():
    thread = background(record.fire, record.TIMER)
    entered.wait()
    return thread
entered, leave, local, lock = threading.Event(), threading.Event(), threading.local(), threading.Lock()
def wait(*_):
    entered.set()
    with lock: pass
class Callable:
    def __call__(self): pass
class Slow(Callable):
    def __del__(self, sleep=time.sleep):
        entered.set()
        while True: sleep(0.001)
class Late:
    def __del__(self, sleep=time.sleep): sleep(0.3)
"""
LATE_END = "sys.late = Late()\n"


class Ends(unittest.TestCase):
    def run_all(self, scripts):
        """Runs the scripts, each with the lines that it is to print, side by side: some wait."""
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            def run(script):
                return programs.run_python(PRELUDE + script[0], **programs.OUTLIVED)
            for (source, *lines), result in zip(scripts, pool.map(run, scripts)):
                with self.subTest(source):
                    self.assertEqual((result.returncode, result.stderr), (0, ""))
                    self.assertEqual(result.stdout.splitlines(), lines)

    def test_finalizers_of_callables(self):
        self.run_all([
            # One that registers its object again does not wait for itself.
            ("""
class Again(Callable):
    def __del__(self, kept=[]):
        if not kept: kept.append(self), timed(lambda: kept.append(sonetrix.timeout(1, self)))
sonetrix.timeout(1, Again())
""", "at once"),
            # One that is still at work is no hindrance for the end, which leaves its thread where it is.
            ("""
background(lambda: sonetrix.timeout(1, Slow())), entered.wait()
""" + LATE_END,),
            ("""
class Last:
    def __del__(self, calls=((sonetrix.add_clear_callback, len), (sonetrix.engine.addTimer, 1, len)),
                engine=sonetrix.engine,
                lists=(sonetrix.listValue, sonetrix.listKeyValue), write=os.write, RuntimeError=RuntimeError):
        try:
            for call, *arguments in calls: call(*arguments)
        except RuntimeError: pass  # the module is gone
        read = lists[0]().append(1, "int32").dup().toList(), lists[1]().append("a", (1,), "int").dup().toDict()
        write(1, f"{read} {engine.isRunning()}\\n".encode())
sys.last, sonetrix.engine.last, kept = Last(), Last(), type("Cycle", (), {})()
kept.me, kept.last = kept, Last()
""", *["([1], {b'a': (1,)}) True"] * 3)])

    def test_locks_that_the_callable_waits_for(self):
        self.run_all([
            # It is named without asking it: to answer, it would want the lock. Signals are the console's.
            ("""
class Locked:
    __call__ = wait
    def __getattr__(self, name):
        with lock: raise AttributeError(name)
made = sonetrix.timeout(1, Locked())
with lock:
    inside = fire()
    timed(lambda: globals().pop("made"))
    print(*record.log_lines()[-1])
    for thread in pathlib.Path("/proc/self/task").iterdir():
        if (thread / "comm").read_text() == "sonetrix-remove\\n":
            blocked = int(re.search(r"SigBlk:\\s+(\\w+)", (thread / "status").read_text())[1], 16)
            print(blocked >> signal.SIGINT - 1 & 1)
inside.join()
""", "late", "3 the callable 'Locked' does not return: its registration is removed when it has", "1"),
            # A collection in the midst of logging finds the object.
            ("""
lock, cycle = logging.StreamHandler().lock, Callable()
cycle.made, cycle.cycle = sonetrix.timeout(1, wait), cycle
del cycle
gc.disable()
with lock:
    inside = fire()
    timed(gc.collect)
inside.join()
""", "at once"),
            # What an ended engine thread leaves behind waits for it when the next thread calls.
            ("""
class Left: __del__ = wait
made = sonetrix.timeout(1, lambda: setattr(local, "left", Left()))
record.fire(record.TIMER)
with lock:
    inside = fire()
    del made
inside.join()
""",),
            # Or asks for the interpreter lock that its thread has.
            ("""
class Left:
    def __del__(self, call=ctypes.PYFUNCTYPE(None)(lambda: left.append(1))): call()
left, made = [], sonetrix.timeout(1, lambda: setattr(local, "left", Left()))
for act in record.fire_on, lambda thread, _: record.join(thread):
    for thread in range(3): act(thread, record.TIMER)
record.fire(record.TIMER)
while len(left) < 3: time.sleep(0.001)
""",),
            # It does not return: that is told once.
            ("""
class Left:
    def __del__(self): entered.set(), leave.wait(60)
made = sonetrix.timeout(1, lambda: setattr(local, "left", Left()))
several = [sonetrix.timeout(1, call) for call in [Callable()] * 3]
record.fire(record.TIMER), record.fire(record.TIMER), entered.wait()
several.pop()
timed(several.pop)
print(*record.log_lines()), leave.set()
""", "at once", "(3, 'registrations cannot be removed at present: a finalizer does not return')"),
            # It holds the removals up that come after; nobody waits for those, or is named in its place.
            ("""
class Stuck:
    def call(self, *_): entered.set(), leave.wait(60)
call = Stuck().call
stuck, innocent = ([sonetrix.timeout(1, each) for each in [callable] * 2] for callable in (call, Callable()))
watch, inside = [sonetrix.notifyChanges(call)], fire()
timed(watch.pop)  # in the engine, the call is another registration's
del stuck[0]
timed(lambda: innocent.pop(0))
leave.set(), inside.join()
only, = record.log_lines()
print(*only)
""", *["at once"] * 2, "3 the callable 'Stuck.call' does not return: its registration is removed when it has")])

    def test_interpreter_end_in_the_midst_of_calls(self):
        self.run_all([
            (f"made = sonetrix.timeout(1, lambda: (entered.set(), time.sleep({seconds})))\n"
             "fire()\n" + LATE_END,) for seconds in (1, 60)
        ] + [
            # Registrations end in their order, and no new ones are made; a refused call is no hindrance.
            ("""
def end():
    late = sonetrix.timeout(1, print)
    print([call.name.split("_")[-1] for call in record.calls("*_rm*", "*Timer")], *map(record.registrations, range(4)))
    print(time.monotonic() - began < 2.5)
older.append(end)
kept = [sonetrix.notifyChanges(len), sonetrix.timeout(1, lambda: None), sonetrix.notifyMeters(lambda meters: kept)]
def fire():
    while True:
        for kind in range(4):
            record.fire(kind, {"a": 1}, threads=2)
background(fire), background(fire)
record.fire(record.CHANGES, {"a": 1}, threads=0, lock_held=True)
began = time.monotonic()
""" + LATE_END, "['addTimer', 'rmCallback', 'delTimer', 'rmCallbackMeterManager'] 0 0 0 0", "True"),
            ("""
def use(call):
    try:
        while True: call(), entered.set()
    except RuntimeError as error:
        print(f"{error}\\n", end="")
table = sonetrix.listKeyValue()
users = [background(use, call) for call in (table.toDict, lambda: sonetrix.timeout(1, print))]
entered.wait()
older.append(lambda: timed(lambda: [user.join() for user in users]))
""", *["the interpreter is ending"] * 2, "at once")])

    def test_forked_children(self):
        self.run_all([("""
kept = sonetrix.timeout(1, len)
made = sonetrix.timeout(1, lambda: (entered.set(), leave.wait(60)))
inside, dropping = fire(), background(globals().pop, "made")
time.sleep(0.1)  # the removal worker is at it
def drop_and_make():
    timed(lambda: globals().pop("kept")), timed(lambda: sonetrix.timeout(1, inside.join))
    print(len(record.calls("*delTimer")))  # for its own
in_child(drop_and_make)
leave.set(), inside.join(), dropping.join()
""", "at once", "at once", "1", "child 0")])
