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
NO_SIGINT = "uint python.sigint 0"
# Clear callbacks long enough to be hit by a signal that comes late.
CLEARED = """
def cleared():
    for step in range(2000): str(step)
    print("clea" + "red")
add_clear_callback(cleared)
"""


def start(code):
    return "text python.start " + code


def stopped_after(milliseconds):
    return "construct", "start", f"after {milliseconds} stop", "run", "destroy"


def check_end(log, output):
    assert output.count("cleared") == 1, output
    errors = set(re.findall(r"^(\w*(?:Error|Exit|Warning|Interrupt|Exception)\b.*)", output, re.M))
    assert errors <= {"KeyboardInterrupt"}, output
    assert not re.search("ignored|atal|terminate", output), output
    assert "Traceback" not in output.split("cleared")[1], output
    assert [line for line in log if line[0] >= WARN] == [], log


class Record(unittest.TestCase):
    def test_start_parameters(self):
        with tempfile.NamedTemporaryFile("w+", suffix=".py") as file:
            print("print('file', __file__)", file=file, flush=True)
            for parameters, mode, log, output in (
                    ([start("print('code')"), NO_SIGINT], 0,
                     [(DEBUG, "python.start: print('code')"), (DEBUG, "python.sigint: 0")], "code\n"),
                    (["text python.file " + file.name], 1, [(DEBUG, "python.start: " + file.name)],
                     f"file {file.name}\n"),
                    ([start("1/0"), "text python.file /no/file", "uint python.sigint 7"], 7,
                     [(DEBUG, "python.start: 1/0"), (DEBUG, "python.start: /no/file"), (DEBUG, "python.sigint: 7"),
                      (WARN, "execute script file: '/no/file' not done")], ""),
                    ([], 1, [], "")):
                with self.subTest(parameters):
                    facts, noted, result = host.run(*parameters, text_input="print('input')\n")
                    self.assertEqual(sorted(noted), sorted([*log, NOT_INTERACTIVE, CLEARING]))
                    self.assertEqual(result.stdout, output + "input\n")
                    self.assertEqual((facts["run"], facts["exitCode"], facts["interactive"]), (SUCCEEDED, -1, 0))
                    self.assertEqual((facts["sigintMode"], facts["handlesSigint"]), (mode, mode != 0))
                    self.assertTrue(facts["parametersConsumed"])

    def test_the_interpreters_settings(self):
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "imported.py").write_text("")
            pathlib.Path(folder, "engine").touch(0o755)  # the program's name in the interpreter's eyes
            report = host.run(text_input=f"""
import sys; sys.path.insert(0, {folder!r}); import imported
print(sys.argv, sys.orig_argv, sys.stdout.line_buffering, sys.stdout.write_through, sys.flags.interactive)
print(sys.executable)
import _ctypes, _json, _decimal, zlib, _socket  # although the library is bound locally
""", environment={"PYTHONDONTWRITEBYTECODE": "", "PATH": folder})
            self.assertEqual((report.result.stdout, report.result.stderr), (
                f"[''] [] False False 1\n{folder}/engine\n", ""))
            self.assertEqual(sorted(os.listdir(folder)), ["engine", "imported.py"])

    def test_what_cannot_be_had(self):
        report = host.run(*STOPPED_BEFORE, text_input="print(2)", environment={"PYTHONHOME": "/nonexistent"})
        self.assertEqual(report.log, [NOT_INTERACTIVE, (WARN, "error init python"), REQUEST, ALREADY])
        self.assertEqual((report.facts["constructed"], report.facts["run"], report.result.stdout), (True, ENDED, ""))
        report = host.run("null sonetrix_malloc", "construct", "destroy")
        self.assertEqual((report.log, report.facts["constructed"]), ([(WARN, "error creating python cli")], False))
        for operation, line in (("null sonetrix_engineGet", "error importing sonetrix"),
                                (start("import builtins; builtins.globals = None"),
                                 "problem while cleaning up CLI global variables")):
            self.assertIn((WARN, line), host.run(operation).log)
        report = host.run("close-input")
        self.assertEqual(report.log, [(WARN, "not interactive console: 9 Bad file descriptor"), CLEARING])
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "sitecustomize.py").write_text("import builtins; builtins.__import__ = None")
            self.assertIn((WARN, "problem settings python prompt"), host.run(environment={"PYTHONPATH": folder}).log)

    def test_more_records(self):
        refused = [(WARN, "could not extend in-built modules table"), (WARN, "error creating python cli")]
        report = host.run("construct", "second", "start", "run", "destroy", text_input="print(engine.isRunning())")
        self.assertEqual(report.log, [NOT_INTERACTIVE, NOT_INTERACTIVE, *refused, CLEARING])
        self.assertEqual((report.facts["second"], report.result.stdout), (False, "True\n"))
        again = start("print(2 + 2)"), *host.USUAL  # an interpreter, but not a second module
        report = host.run(*again, *again)
        self.assertEqual((report.result.stdout, report.log[-2:]), (
            "4\n4\n", [NOT_INTERACTIVE, (WARN, "error importing sonetrix")]))

    def test_ctrl_c_while_it_is_constructed(self):
        with host.Terminal(start("import time; time.sleep(1)")) as console:
            for _ in range(500 * SLOWNESS):
                console.process.send_signal(signal.SIGINT)
                time.sleep(0.001)
            time.sleep(0.5 * SLOWNESS)
            console.tell("stop")
            self.assertEqual(console.finish().facts["run"], ENDED)


class Script(unittest.TestCase):
    def test_results(self):
        for text, run, code, output, errors in (
            ("print(__name__, __file__)", SUCCEEDED, -1, "__main__ __engine__\n", "^$"),
            ("#" * 300_000 + "\nprint(len(engine.__name__))", SUCCEEDED, -1, "6\n", "^$"),
            ("print(1)\n1/0\nprint(2)", ENDED, -1, "1\n", r'File "__engine__", line 2, in <module>\nZeroDivisionError'),
            ("input()", ENDED, -1, "", "EOFError"),
            ("import sys; sys.exit(3)\nprint(1)", ENDED, 3, "", "^$"),
            ("class Own(SystemExit): pass\nraise Own(-8)", ENDED, -8, "", "^$"),
            ("import sys; sys.excepthook = print; sys.exit(3)", ENDED, 3, "<class 'SystemExit'> 3", "^$"),
            ("exit(7)\nprint('on')", SUCCEEDED, 7, "on\n", "^$"),
            ("import threading, sys\nt = threading.Thread(target=sys.exit, args=(6,)); t.start(); t.join()",
             SUCCEEDED, -1, "", "^$"),
        ):
            with self.subTest(text[-60:]):
                facts, _, result = host.run(text_input=text)
                self.assertEqual((facts["run"], facts["exitCode"], facts["stopsAsked"]), (run, code, code != -1))
                self.assertTrue(result.stdout.startswith(output), result.stdout)
                self.assertRegex(result.stderr, errors)

    def test_what_the_engine_has_read_ahead_is_part_of_it_and_a_pipe_need_not_wait(self):
        ahead = start("import ctypes, os; os.set_blocking(0, False); ctypes.CDLL(None).getchar()")
        command = ["sh", "-c", "echo '#print(1)'; sleep 0.3; echo 'print('; sleep 0.3; echo '2)'"]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as pieces:
            self.assertEqual(host.run(ahead, text_input=None, stdin=pieces.stdout).result.stdout, "1\n2\n")

    def test_system_exit_never_ends_the_process(self):
        for text in (
            "sys.excepthook = lambda *details: sys.exit(3)\n1/0",
            "atexit.register(sys.exit, 3); add_clear_callback(lambda: sys.exit(3))",
            "class Late:\n    def __del__(self, sys=sys): sys.exit(3)\nlate = Late()\nsys.unraisablehook = sys.exit",
            "class Err:\n    def write(self, text): sys.stderr = sys.__stderr__\n    def flush(self): pass\n"
            "sys.stderr = Err(); sys.exit('text')",
            "sys.ps1 = sys.ps2 = sys.stdout = sys.stderr = sys.stdin = None; sys.exit(3)",
        ):
            with self.subTest(text):  # there is a report: destroy has returned
                host.run(text_input="import sys, atexit; from sonetrix import *\n" + text)

    def test_the_default_disposition_is_not_deadly(self):
        report = host.run(text_input="""
import signal, time
python = signal.signal(signal.SIGINT, signal.SIG_DFL); exit(3); time.sleep(0.5); signal.signal(signal.SIGINT, python)
""")
        self.assertIn((DEBUG, "error in raise SIGINT"), report.log)
        self.assertEqual(report.facts["exitCode"], 3)


# What is typed, and what is printed when it is under way.
STATES = {
    "prompt": ("1", "engine> "),
    "continuation": ("if True:", r"\.\.\. "),
    "sleep": ("import time; print('go' + 'ing'); time.sleep(1000)", "going"),
    "lock": ("import threading; print('go' + 'ing'); threading.Event().wait()", "going"),
    "compute": (f"exec(\"print('go' + 'ing')\\nwhile True: {BUSY}\")", "going"),
    "input": ("input('go' + 'ing')", "going"),
    "help": ("help()", "help> "),
}


class Stop(unittest.TestCase):
    def stop(self, state, *operations, code=""):
        with (self.subTest(state, operations=operations, code=code),
              host.Terminal(*operations, start(CLEARED + code)) as console):
            handles = NO_SIGINT not in operations
            for interrupted in [True, False] if handles and state != "help" else [False]:
                console.enter(*STATES[state])
                if interrupted:  # which leaves the console as it was
                    going = STATES[state][1] == "going"
                    self.assertEqual("Traceback" in console.interrupt(), going, console.transcript)
            console.tell("stop\nstop")
            facts, log, _ = console.finish()
            self.assertIn((INFO, "interactive console" + " (KeyboardInterrupt default python handler)" * handles), log)
            self.assertEqual((facts["interactive"], facts["run"], facts["stopRequested"], facts["handlesSigint"]),
                             (1, ENDED, 1, handles))
            lines = [line for line in log if line != ALREADY][-3:]  # the second one may find nobody any more
            self.assertEqual(sorted(lines), sorted(STOP_LINES))
            self.assertEqual((lines[0], lines[-1]), (STOP_LINES[0], CLEARING))
            self.assertNotIn("KeyboardInterrupt", console.before)  # it is the stop's own
            check_end(log, console.transcript)

    def test_in_every_state(self):
        for state in STATES:
            self.stop(state)
        for state in "prompt", "continuation":
            self.stop(state, code="import readline")
            self.stop(state, NO_SIGINT)

    def test_elsewhere_than_on_a_main_thread_with_nothing_blocked(self):
        for operations in ["other-thread"], ["block"], ["other-thread", "block"]:
            for state in "prompt", "compute", "sleep":
                self.stop(state, *operations)
            self.stop("prompt", *operations, NO_SIGINT)

    def test_in_the_background(self):
        with host.Terminal(*STOPPED_BEFORE, launch=["/bin/bash", "-mc", '"$@" & wait $!', "bash"]) as console:
            console.finish()

    def test_what_the_engine_keeps_from_being_interrupted(self):
        with host.Terminal(NO_SIGINT) as console:
            console.enter("import time; print('go' + 'ing'); time.sleep(1); print('re' + 'sted'); input('no prompt')",
                          "going")
            console.tell("stop")
            console.expect("rested")
            console.sendline("")  # running code is not interrupted, nor what it reads
            console.finish()
            self.assertNotIn("KeyboardInterrupt", console.transcript)

    def test_without_a_terminal(self):
        silent = os.pipe()
        for text, errors in (
            ("print('going', flush=True)\nimport time; time.sleep(1000)", "KeyboardInterrupt\n$"),
            (f"def busy():\n  while True: {BUSY}\ntry: busy()\nexcept KeyboardInterrupt: print('caught')", "^$"),
            (None, "^(.*\n)*KeyboardInterrupt\n$"),
        ):
            with self.subTest(text):
                facts, log, result = host.run(start(CLEARED), *stopped_after(300), text_input=text,
                                              **({} if text else {"stdin": silent[0]}))
                self.assertEqual(facts["run"], SUCCEEDED if "caught" in (text or "") else ENDED)
                self.assertRegex(result.stderr, errors)
                self.assertEqual([line for line in log if line in STOP_LINES], STOP_LINES)
                check_end(log, result.stdout)

    def test_before_and_without_a_run(self):
        twice = [REQUEST, ALREADY, CLEARING]
        facts, log, result = host.run(*STOPPED_BEFORE, text_input="print('input')")
        self.assertEqual((log[1:], facts["run"], result.stdout), (twice, SUCCEEDED, "input\n"))
        facts, log, _ = host.run("construct", "stop", "stop", "destroy")
        self.assertEqual((log[1:], facts["stopRequested"]), (twice, 1))
        with host.Terminal(*STOPPED_BEFORE) as console:
            console.sendline("print('in' + 'put')")
            facts, log, _ = console.finish()
            self.assertEqual((facts["run"], log[-3:]), (ENDED, twice))
            self.assertNotRegex(console.transcript, "(?m)^input")

    def test_at_random_moments(self):
        """Whatever the moment: the end comes, in time and whole, and every clear callback has run once."""
        loops = "import time\nwhile True: time.sleep(0.0003)", "while True: [str(i) for i in range(50)]"

        def attempt(seed):
            pick = random.Random(seed)
            delay, loop = int(pick.expovariate(1 / 25)) * SLOWNESS, pick.choice(loops)
            where = pick.choice([[], [], ["other-thread"], ["other-thread", "block"]])
            if pick.random() < 0.25:
                # By the script itself: a stop that comes before the run, it does not see.
                timer = f"import threading; threading.Timer({delay / 1000}, exit).start()\n"
                facts, log, result = host.run(*where, start(CLEARED), text_input=timer + loop)
                return facts, log, result.stdout
            keep = pick.random() < 0.2
            code = start(CLEARED + pick.choice(["", "import readline\n"]))
            with host.Terminal(*where, code, *[NO_SIGINT] * keep, *stopped_after(delay)) as console:
                for _ in range(pick.randrange(8)):
                    console.sendline(pick.choice(["1 + 1", "if True: pass\n", "", "input()", "def f(): pass\n"]))
                # What the engine keeps from being interrupted ends by itself.
                console.sendline("\n" * 20 if keep else pick.choice(["", f"exec({loop!r})"]))
                facts, log, _ = console.finish()
                return facts, log, console.transcript

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for seed, (facts, log, output) in enumerate(pool.map(attempt, range(80 // SLOWNESS))):
                with self.subTest(seed=seed):
                    check_end(log, output)
                    self.assertEqual(facts["run"], ENDED)
                    # A request that is faster than the run sends no signal.
                    self.assertIn([line for line in log if line in STOP_LINES], (STOP_LINES, STOP_LINES[::2]))


class End(unittest.TestCase):
    def test_an_engine_thread_may_end_whenever_it_likes(self):
        code = start("import time; called = []; kept = timeout(1, lambda: called.append(1))\n"
                     "while not called: time.sleep(0.01)")
        for rest in ("join 1", "run", "destroy"), ("run", "join 1", "destroy"), ("run", "destroy", "join 1"):
            with self.subTest(rest):
                report = host.run(code, "construct", "after 300 on 1 9", "start", *rest,
                                  text_input="print(len(called))")
                self.assertRegex(report.result.stdout, "^\\d+\n$", report.result.stderr)

    def test_threads_that_do_not_end_are_named_and_left_behind(self):
        stuck = start("import time; kept = engine.addTimer(5, lambda: time.sleep(1000))")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            python = pool.submit(host.run, environment=programs.OUTLIVED, text_input="""
import threading
threading.Thread(target=threading.Event().wait, name="st\u00e4y", daemon=False).start()
""")
            engine = pool.submit(host.run, stuck, "construct", "start", "on 1 1", "run", "destroy",
                                 environment=programs.OUTLIVED, preexec_fn=host.ignore_sigint,
                                 text_input="time.sleep(0.2); add_clear_callback(lambda: print('buffered', end=''))")
        self.assertEqual([line for line in python.result().log if "python thread" in line[1]], [
            (WARN, "waiting for python thread 'st\u00e4y'"),
            (ERROR, "python thread 'st\u00e4y' is still running and is left behind")])
        self.assertEqual((engine.result().log[-1], engine.result().result.stdout), (
            (ERROR, "a thread does not return from Python: the interpreter is left as it is"), "buffered"))

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
        self.assertEqual((report.facts["exitCode"], report.result.stdout), (5, "first\nsecond\n"))
        error = (ERROR, "error while running clean callback registered from user: failing")
        self.assertEqual([line for line in report.log if line[0] > DEBUG], [NOT_INTERACTIVE, error, error])
        self.assertRegex(report.result.stderr, "^Exception ignored in: 'sonetrix.clear_python_sonetrix'\n(.*\n)*"
                         "AttributeError: 'functools.partial' object has no attribute '__name__'.*\n$")
