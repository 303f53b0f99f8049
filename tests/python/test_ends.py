# ctest: timeout=100
"""Registrations, engine threads, forked children and interpreters that end in the midst of something."""

import concurrent.futures
import unittest

from support import programs

PRELUDE = """
import atexit, ctypes, gc, os, signal, sys, threading, time
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
class Late:
    def __del__(self, sleep=time.sleep): sleep(0.3)
sys.late = Late()  # gives the other threads time in the interpreter's end
"""
# What each is about, what it runs, and the lines that it is to print.
PROGRAMS = [
    ("A finalizer that registers its object again does not wait for itself.", """
class Again(Callable):
    def __del__(self, kept=[]):
        if not kept: kept.append(self), timed(lambda: kept.append(sonetrix.timeout(1, self)))
sonetrix.timeout(1, Again())
""", "at once"),
    ("One that is still at work is no hindrance for the end, which leaves its thread where it is.", """
class Slow(Callable):
    def __del__(self, sleep=time.sleep):
        entered.set()
        while True: sleep(0.001)
background(lambda: sonetrix.timeout(1, Slow())), entered.wait()
"""),
    ("One may come when the module is gone, which may have held its object.", """
class Last(Callable):
    def __del__(self, table=sonetrix.listKeyValue, engine=sonetrix.engine, write=os.write, RuntimeError=RuntimeError):
        try: engine.addTimer(1, write)
        except RuntimeError: pass
        write(1, f"{table().append('a', (1,), 'int').dup().toDict()} {engine.isRunning()}\\n".encode())
sys.last, sonetrix.engine.last = Last(), Last()
sonetrix.add_clear_callback(type("Held", (Last,), {"module": sonetrix})())
""", *["{b'a': (1,)} True"] * 3),
    ("A callable that does not return is named without asking it, which wants the lock. Others do not wait.", """
class Locked:
    __call__ = wait
    def __getattr__(self, name):
        with lock: raise AttributeError(name)
call = Locked()
watch, stuck = [sonetrix.notifyChanges(call)], [sonetrix.timeout(1, call)]
others = [sonetrix.timeout(1, each) for each in [Callable()] * 2]
with lock:
    inside = fire()
    for registrations in watch, stuck, others: timed(registrations.pop)
    print(*record.log_lines())
inside.join()
""", "at once", "late", "at once",
     "(3, \"the callable 'Locked' does not return: its registration is removed when it has\")"),
    ("It waits for a lock that is held during a collection which finds the object.", """
cycle = Callable()
cycle.made, cycle.cycle = sonetrix.timeout(1, wait), cycle
del cycle
gc.disable()
with lock:
    inside = fire()
    timed(gc.collect)
inside.join()
""", "at once"),
    ("What ended engine threads leave behind goes in the removal worker, which takes no signals; told once.", """
class Left:
    def __del__(self):
        blocked.append(signal.pthread_sigmask(signal.SIG_BLOCK, [])), entered.set(), leave.wait(60)
blocked, made = [], sonetrix.timeout(1, lambda: setattr(local, "left", Left()))
several = [sonetrix.timeout(1, call) for call in [Callable()] * 3]
record.fire(record.TIMER), record.fire(record.TIMER), entered.wait()
several.pop()
timed(several.pop)
print(signal.SIGINT in blocked[0], *record.log_lines()), leave.set()
""", "at once", "True (3, 'registrations cannot be removed at present: a finalizer does not return')"),
    ("It may ask for the interpreter lock that its thread has.", """
class Left:
    def __del__(self, call=ctypes.PYFUNCTYPE(None)(lambda: left.append(1))): call()
left, made = [], sonetrix.timeout(1, lambda: setattr(local, "left", Left()))
for act in record.fire_on, lambda thread, _: record.join(thread, lock_held=True):
    for thread in range(3): act(thread, record.TIMER)
record.fire(record.TIMER)
while len(left) < 3: time.sleep(0.001)
"""),
    *(("The end comes in the midst of a call.", f"""
made = sonetrix.timeout(1, lambda: (entered.set(), time.sleep({seconds})))
fire()
""") for seconds in (1, 60)),
    ("Registrations end in their order, and no new ones are made; a refused call is no hindrance.", """
def end():
    sonetrix.timeout(1, print)
    print(*(call.name.split("_")[-1] for call in record.calls("*_rm*", "*Timer")), time.monotonic() - began < 2.5)
older.append(end)
kept = [sonetrix.notifyChanges(len), sonetrix.timeout(1, print), sonetrix.notifyMeters(repr)]
record.fire(record.CHANGES, threads=0, lock_held=True)
began = time.monotonic()
""", "addTimer rmCallback delTimer rmCallbackMeterManager True"),
    ("Other threads are told.", """
def use(call):
    try:
        while True: call(), entered.set()
    except RuntimeError as error:
        print(f"{error}\\n", end="")
table = sonetrix.listKeyValue()
users = [background(use, call) for call in (table.toDict, lambda: sonetrix.timeout(1, print))]
entered.wait()
older.append(lambda: timed(lambda: [user.join() for user in users]))
""", *["the interpreter is ending"] * 2, "at once"),
    ("Only the process ends, in C.", """
made = sonetrix.timeout(1, len)
ctypes.CDLL(None).exit(0)
"""),
    ("A forked child has the registrations that its parent has not begun to remove, and a worker of its own.", """
kept, made = sonetrix.timeout(1, len), [sonetrix.timeout(1, lambda: (entered.set(), leave.wait(60)))]
inside, dropping = fire(), background(made.clear)
time.sleep(0.1)  # it waits
if (child := os.fork()) == 0:
    timed(lambda: globals().pop("kept")), timed(lambda: sonetrix.timeout(1, inside.join))
    print(len(record.calls("*delTimer")), flush=True)  # for its own
    os._exit(0)
print("child", os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
leave.set(), inside.join(), dropping.join()
""", "at once", "at once", "1", "child 0"),
]


class Ends(unittest.TestCase):
    def test_programs(self):
        """Side by side: some wait."""
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            def run(program):
                return programs.run_python(PRELUDE + program[1], **programs.OUTLIVED)
            for (about, _, *lines), result in zip(PROGRAMS, pool.map(run, PROGRAMS)):
                with self.subTest(about):
                    self.assertEqual((result.returncode, result.stderr, result.stdout.splitlines()), (0, "", lines))
