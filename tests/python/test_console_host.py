# ctest: timeout=200 processors=3
"""The command-line module's record, driven as engines drive it: also in ways that the development engine does not."""

import concurrent.futures
import os
import pathlib
import random
import re
import signal
import subprocess
import tempfile
import time
import unittest

from support import BUSY, SLOWNESS, host, programs

DEBUG, INFO, WARN, ERROR = range(1, 5)
ENDED, SUCCEEDED = -1, -2
NOT_INTERACTIVE, CLEARING = (INFO, "not interactive console"), (DEBUG, "clearing sonetrix Python module")
REQUEST, ALREADY = (DEBUG, "request to stop cli"), (DEBUG, "cli stop already send")
STOP_LINES = [REQUEST, (DEBUG, "SIGINT to python cli thread"), CLEARING]
STOPPED_BEFORE = "construct", "start", "stop", "stop", "run", "destroy"
NO_SIGINT = "python.sigint 0"
# Clear callbacks long enough to be hit by a signal that comes late.
CLEARED = """
def cleared():
    for step in range(2000): str(step)
    print("clea" + "red")
add_clear_callback(cleared)
"""


def start(code):
    return "python.start " + code


def stop_after(seconds):
    """A script's line that has an engine thread stop the console."""
    return f"import signal; signal.setitimer(signal.ITIMER_REAL, {seconds + 1e-6:.6f})\n"


def check_end(report, output):
    assert output.count("cleared") == 1, output
    assert not re.search(r"^\w*(Error|Exit|Warning|Exception)\b|ignored|atal|terminate", output, re.M), output
    assert "Traceback" not in output.split("cleared")[1], output
    assert all(level < WARN for level, _ in report.log), report.log


class Record(unittest.TestCase):
    def test_start_parameters(self):
        file = self.enterContext(tempfile.NamedTemporaryFile("w+"))
        print("print('file', __file__)", file=file, flush=True)
        not_done = WARN, "execute script file: '/no/file' not done"
        for code, path, mode, warnings, output in (
                ("print('code')", file.name, 7, [], f"code\nfile {file.name}\n"),
                ("1/0", "/no/file", 0, [not_done], "")):
            with self.subTest(mode=mode):
                report = host.run(start(code), f"python.file {path}", f"python.sigint {mode}",
                                  text_input="import ctypes; print(ctypes.CDLL(None).signal(2, None) != 0)")
                told = f"python.start: {code}", f"python.start: {path}", f"python.sigint: {mode}"
                self.assertEqual(report.log, [*((DEBUG, text) for text in told), NOT_INTERACTIVE, *warnings, CLEARING])
                places = {args[1:4] for name, args, *_ in report.calls if name == "sonetrix_log"}
                self.assertEqual(sorted((file, flag) for file, _, flag in places), [
                    *[(b"cli_module.cpp", 1)] * 3, *[(b"interpreter_session.cpp", 1) for _ in warnings]])
                self.assertEqual(report.stdout, f"{output}{mode != 0}\n")  # whether SIGINT has a handler
                self.assertEqual((report.run, report.exitCode, report.sigintMode, report.parametersConsumed),
                                 (SUCCEEDED, -1, mode, True))

    def test_the_interpreters_settings(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        pathlib.Path(folder, "engine").touch(0o755)  # the program's name in the interpreter's eyes
        report = host.run(text_input="""
import _ctypes, _json, _decimal, zlib, _socket  # although the library is bound locally
import sys
print(sys.argv, sys.orig_argv, sys.flags.interactive, sys.dont_write_bytecode)
print(sys.stdout.line_buffering, sys.stdout.write_through, sys.executable)
""", environment={"PYTHONDONTWRITEBYTECODE": "", "PATH": folder})
        self.assertEqual((report.stdout, report.stderr), (f"[''] [] 1 True\nFalse False {folder}/engine\n", ""))

    def test_what_cannot_be_had(self):
        report = host.run(*STOPPED_BEFORE, text_input="print(2)", environment={"PYTHONHOME": "/nonexistent"})
        self.assertEqual(report.log, [NOT_INTERACTIVE, (WARN, "error init python"), REQUEST, ALREADY])
        self.assertEqual((report.constructed, report.run, report.stdout), (True, ENDED, ""))
        report = host.run("sonetrix_malloc", "construct")
        self.assertEqual((report.log, report.constructed), ([(WARN, "error creating python cli")], False))
        folder = self.enterContext(tempfile.TemporaryDirectory())
        pathlib.Path(folder, "sitecustomize.py").write_text("import builtins; builtins.__import__ = None")
        self.assertIn((WARN, "problem settings python prompt"), host.run(environment={"PYTHONPATH": folder}).log)
        for operation, warning in (
                ("sonetrix_engineGet", "error importing sonetrix"),
                (start("import builtins; builtins.globals = 0"), "problem while cleaning up CLI global variables"),
                ("close-input", "not interactive console: 9 Bad file descriptor")):
            self.assertIn((WARN, warning), host.run(operation).log)

    def test_more_records(self):
        refused = [(WARN, "could not extend in-built modules table"), (WARN, "error creating python cli")]
        report = host.run("construct", "second", "start", "run", "destroy", text_input="print(engine.isRunning())")
        self.assertEqual(report.log, [NOT_INTERACTIVE, NOT_INTERACTIVE, *refused, CLEARING])
        self.assertEqual((report.second, report.stdout), (False, "True\n"))
        again = start("print(2 + 2)"), *host.USUAL  # an interpreter, but not a second module
        report = host.run(*again, *again)
        self.assertEqual(report.stdout, "4\n4\n")
        self.assertEqual(report.log[-2:], [NOT_INTERACTIVE, (WARN, "error importing sonetrix")])

    def test_ctrl_c_held_down_all_the_time(self):
        hold = 'for i in $(seq 9999); do kill -INT "$0" || break; sleep 0.001; done'
        ignored = signal.signal(signal.SIGINT, signal.SIG_IGN)  # in the host, until it has its handler
        self.addCleanup(signal.signal, signal.SIGINT, ignored)
        with (host.Terminal() as console,
              subprocess.Popen(["sh", "-c", hold, str(console.process.pid)], stderr=subprocess.DEVNULL)):
            time.sleep(0.5 * SLOWNESS)
            console.process.terminate()
            self.assertEqual(console.finish().run, ENDED)


class Script(unittest.TestCase):
    def test_results(self):
        for text, run, code, output, errors in (
            ("print(__name__, __file__)", SUCCEEDED, -1, "__main__ __engine__\n", "^$"),
            ("#" * 300_000 + "\nprint(len(engine.__name__))", SUCCEEDED, -1, "6\n", "^$"),
            ("print(1)\n1/0\nprint(2)", ENDED, -1, "1\n", r'File "__engine__", line 2, in <module>\nZeroDivisionError'),
            ("input()", ENDED, -1, "", "EOFError"),
            ("sys.exit(3)\nprint(1)", ENDED, 3, "", "^$"),
            ("raise SystemExit", SUCCEEDED, 0, "", "^$"),
            ("class Own(SystemExit): pass\nraise Own(-8)", ENDED, -8, "", "^$"),
            ("exit(7)\nprint('on')", SUCCEEDED, 7, "on\n", "^$"),
            ("t = threading.Thread(target=sys.exit, args=(6,)); t.start(); t.join()", SUCCEEDED, -1, "", "^$"),
            # Nothing of this ends the process: there is a report.
            ("sys.excepthook = print; sys.exit(3)", ENDED, 3, "<class 'SystemExit'> 3", "^$"),
            ("sys.excepthook = lambda *details: sys.exit(3)\n1/0", ENDED, -1, "", "SystemExit"),
            ("atexit.register(sys.exit, 3); add_clear_callback(lambda: sys.exit(3))", SUCCEEDED, -1, "", "SystemExit"),
            ("class Late:\n    def __del__(self, sys=sys): sys.exit(3)\nlate = Late()\nsys.unraisablehook = sys.exit",
             SUCCEEDED, -1, "", "SystemExit"),
            ("class Err:\n    def write(self, text): sys.stderr = sys.__stderr__\n    def flush(self): pass\n"
             "sys.stderr = Err(); sys.exit('text')", ENDED, 1, "", "^$"),
            ("sys.ps1 = sys.ps2 = sys.stdout = sys.stderr = sys.stdin = None; sys.exit(3)", ENDED, 3, "", "^$"),
        ):
            with self.subTest(text[-60:]):
                report = host.run(start("import atexit, sys, threading"), text_input=text)
                self.assertEqual((report.run, report.exitCode, report.stopsAsked), (run, code, code != -1))
                self.assertTrue(report.stdout.startswith(output), report.stdout)
                self.assertRegex(report.stderr, errors)

    def test_what_the_engine_has_read_ahead_is_part_of_it_and_a_pipe_need_not_wait(self):
        ahead = start("import ctypes, os; os.set_blocking(0, False); ctypes.CDLL(None).getchar()")
        command = ["sh", "-c", "echo '#print(1)'; sleep 0.3; echo 'print('; sleep 0.3; echo '2)'"]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as pieces:
            self.assertEqual(host.run(ahead, text_input=None, stdin=pieces.stdout).stdout, "1\n2\n")

    def test_the_default_disposition_is_not_deadly(self):
        report = host.run(text_input="""
import signal, time
python = signal.signal(signal.SIGINT, signal.SIG_DFL); exit(3); time.sleep(0.5); signal.signal(signal.SIGINT, python)
""")
        self.assertIn((DEBUG, "error in raise SIGINT"), report.log)
        self.assertEqual(report.exitCode, 3)


PLACES = [], ["other-thread"], ["block"], ["other-thread", "block"]
# What is typed, and what is printed when it is under way.
STATES = (
    ("1", "engine> "), ("if True:", r"\.\.\. "), (f"exec(\"print('go' + 'ing')\\nwhile True: {BUSY}\")", "going"),
    ("import time; print('go' + 'ing'); time.sleep(1000)", "going"),
    ("import threading; print('go' + 'ing'); threading.Event().wait()", "going"), ("input('go' + 'ing')", "going"),
)


class Stop(unittest.TestCase):
    def stop(self, state, *operations, code=""):
        with (self.subTest(state, operations=operations, code=code),
              host.Terminal(*operations, start(CLEARED + code)) as console):
            console.enter(*state)
            console.process.terminate()
            report = console.finish()
            self.assertEqual((report.run, report.stopRequested, report.log[-3:]), (ENDED, 1, STOP_LINES))
            self.assertNotIn("KeyboardInterrupt", console.transcript)
            check_end(report, console.transcript)

    def test_in_every_state(self):
        for place in PLACES:
            for state in STATES[:4] if place else STATES:
                self.stop(state, *place)
            for state in STATES[:2]:
                self.stop(state, *place, NO_SIGINT)
        for state in STATES[:2]:
            self.stop(state, code="import readline")
        self.stop(("help()", "help> "))
        # As if SIGINT had come a moment before the read.
        self.stop(STATES[-1], code="import signal; signal.siginterrupt(signal.SIGINT, False)")

    def test_ctrl_c_leaves_the_console_as_it_was(self):
        for place in PLACES:
            with self.subTest(place), host.Terminal(*place) as console:
                for typed, shown in STATES:
                    console.enter(typed, shown)
                    self.assertEqual("Traceback" in console.interrupt(), shown == "going", console.transcript)
                console.process.terminate()
                self.assertEqual(console.finish().run, ENDED)

    def test_in_the_background(self):
        with host.Terminal(*STOPPED_BEFORE, launch=["bash", "-mc", '"$@" & wait $!', "bash"]) as console:
            console.finish()

    def test_what_the_engine_keeps_from_being_interrupted(self):
        with host.Terminal(NO_SIGINT) as console:
            console.enter("import time; print('go' + 'ing'); time.sleep(1); print('re' + 'sted'); input()", "going")
            console.process.terminate()
            console.expect("rested")
            console.sendline("")  # running code is not interrupted, nor what it reads
            self.assertEqual(console.finish().log[1], (INFO, "interactive console"))
            self.assertNotIn("KeyboardInterrupt", console.transcript)

    def test_without_a_terminal(self):
        silent = os.pipe()[0]
        for run, errors, how in (
            (ENDED, "KeyboardInterrupt\n$", {"text_input": "import time; time.sleep(1000)"}),
            (SUCCEEDED, "^$", {"text_input": f"def busy():\n  while True: {BUSY}\n"
                                             "try: busy()\nexcept KeyboardInterrupt: pass"}),
            (ENDED, "KeyboardInterrupt\n$", {"text_input": None, "stdin": silent}),
        ):
            with self.subTest(how):
                report = host.run(start(CLEARED + stop_after(0.3)), **how)
                self.assertEqual((report.run, report.log[-3:]), (run, STOP_LINES))
                self.assertRegex(report.stderr, errors)
                check_end(report, report.stdout)

    def test_before_a_run(self):
        twice = [REQUEST, ALREADY, CLEARING]
        report = host.run(*STOPPED_BEFORE, text_input="print('input')")
        self.assertEqual((report.log[1:], report.run, report.stdout), (twice, SUCCEEDED, "input\n"))
        with host.Terminal(*STOPPED_BEFORE) as console:
            console.sendline("print('in' + 'put')")
            report = console.finish()
            interactive = INFO, "interactive console (KeyboardInterrupt default python handler)"
            self.assertEqual((report.log, report.run, report.interactive), ([interactive, *twice], ENDED, 1))
            self.assertNotRegex(console.transcript, "(?m)^input")

    def test_at_random_moments(self):
        """Whatever the moment: the end comes, in time and whole, and every clear callback has run once."""
        loops = "import time\nwhile True: time.sleep(0.0003)", "while True: [str(i) for i in range(50)]"
        lines = "1 + 1", "if True: pass\n", "", "input()", "def f(): pass\n", *(f"exec({loop!r})" for loop in loops)

        def attempt(seed):
            pick = random.Random(seed)
            stop = stop_after(pick.expovariate(1 / 0.025) * SLOWNESS)
            place = pick.choice(PLACES)
            if seed % 4 == 0:
                report = host.run(*place, start(CLEARED), text_input=stop + pick.choice(loops))
                return report, report.stdout
            code = start(CLEARED + pick.choice(["", "import readline\n"]) + stop)
            with host.Terminal(*place, code) as console:
                for _ in range(pick.randrange(8)):
                    console.sendline(pick.choice(lines))
                return console.finish(), console.transcript

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for seed, (report, output) in enumerate(pool.map(attempt, range(80 // SLOWNESS))):
                with self.subTest(seed=seed):
                    check_end(report, output)
                    self.assertEqual(report.run, ENDED)
                    # A request that is faster than the run sends no signal.
                    self.assertIn([line for line in report.log if line in STOP_LINES], (STOP_LINES, STOP_LINES[::2]))


class End(unittest.TestCase):
    def test_an_engine_thread_may_end_whenever_it_likes(self):
        code = start("import ctypes; called = []; kept = timeout(1, lambda: called.append(1))\n"
                     "ctypes.CDLL(None).record_fireOn(1, 3, None, 9, 60_000)")
        for rest in ("run", "join", "destroy"), ("run", "destroy", "join"):
            with self.subTest(rest):
                report = host.run(code, "construct", "start", *rest, text_input="print(len(called))")
                self.assertEqual(report.stdout, "9\n", report.stderr)

    def test_threads_that_do_not_end_are_named_and_left_behind(self):
        stuck = start("import ctypes; library = ctypes.CDLL(None); kept = timeout(5, library.pause)\n"
                      "library.record_fireOn(1, 3, None, 1, 200)")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            python = pool.submit(host.run, environment=programs.OUTLIVED, text_input="""
import threading
threading.Thread(target=threading.Event().wait, name="st\u00e4y", daemon=False).start()
""")
            engine = pool.submit(host.run, stuck, environment=programs.OUTLIVED, launch=["env", "--ignore-signal=INT"],
                                 text_input="add_clear_callback(lambda: print('buffered', end=''))")
        self.assertEqual([line for line in python.result().log if "python thread" in line[1]], [
            (WARN, "waiting for python thread 'st\u00e4y'"),
            (ERROR, "python thread 'st\u00e4y' is still running and is left behind")])
        left = ERROR, "a thread does not return from Python: the interpreter is left as it is"
        held = WARN, "the callable '_FuncPtr' does not return: its registration is removed when it has"
        self.assertEqual((engine.result().log[-2:], engine.result().stdout), ([held, left], "buffered"))

    def test_clear_callbacks(self):
        report = host.run(text_input="""
from functools import partial
def first():
    exit(5)
    time.sleep(0.2)
    print("first")
def failing(): 1/0
for callback in (first, failing, failing, partial(print, "second"), partial(int, "x"), partial(print, "never")):
    add_clear_callback(callback)
""")
        self.assertEqual((report.exitCode, report.stdout), (5, "first\nsecond\n"))
        error = ERROR, "error while running clean callback registered from user: failing"
        self.assertEqual([line for line in report.log if line[0] > DEBUG], [NOT_INTERACTIVE, error, error])
        self.assertRegex(report.stderr, "^Exception ignored in: 'sonetrix.clear_python_sonetrix'\n(.*\n)*"
                         "AttributeError: 'functools.partial' object has no attribute '__name__'.*\n$")
