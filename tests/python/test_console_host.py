# ctest: timeout=200 processors=3
"""The command-line module's record, driven as engines drive it: also in ways that the development engine does not."""

import concurrent.futures
import os
import pathlib
import random
import re
import sys
import tempfile
import time
import unittest

from support import BUSY, SLOWNESS, host, programs

DEBUG, INFO, WARN, ERROR = range(1, 5)
ENDED, SUCCEEDED = -1, -2
REQUEST, SIGNAL, ALREADY = "request to stop cli", "SIGINT to python cli thread", "cli stop already send"
CLEARING = (DEBUG, "clearing sonetrix Python module")
STOP_LINES = [(DEBUG, REQUEST), (DEBUG, SIGNAL), CLEARING]
PYTHON_HANDLER = "interactive console (KeyboardInterrupt default python handler)"
IN_TIME = 12 * SLOWNESS  # seconds, on a machine that has other things to do, too
NO_SIGINT = "uint", "python.sigint", 0
# Clear callbacks long enough to be hit by a signal that comes late.
CLEARED = """
def cleared():
    for step in range(2000): str(step)
    print("clea" + "red")
add_clear_callback(cleared)
"""


def start(code):
    return "text", "python.start", code


def check_end(facts, log, output):
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
            for parameters, log, output in (
                    ((*start("print('code')"), *NO_SIGINT),
                     [(DEBUG, "python.start: print('code')"), (DEBUG, "python.sigint: 0")], "code\n"),
                    (("text", "python.file", file.name), [(DEBUG, "python.start: " + file.name)],
                     f"file {file.name}\n"),
                    ((*start("1/0"), "text", "python.file", "/no/file", "uint", "python.sigint", 7),
                     [(DEBUG, "python.start: 1/0"), (DEBUG, "python.start: /no/file"), (DEBUG, "python.sigint: 7"),
                      (WARN, "execute script file: '/no/file' not done")], ""),
                    (("no-parameters",), [], "")):
                with self.subTest(parameters):
                    report = host.run(*parameters, text_input="print('input')\n")
                    self.assertEqual(sorted(report.log), sorted([*log, (INFO, "not interactive console"), CLEARING]))
                    self.assertEqual(report.result.stdout, output + "input\n")
                    facts = report.facts
                    self.assertEqual((facts["run"], facts["exitCode"], facts["interactive"]), (SUCCEEDED, -1, 0))
                    self.assertEqual(facts["sigintMode"], dict(zip(parameters, parameters[1:])).get("python.sigint", 1))
                    self.assertTrue(facts["contextKept"] and facts["parametersConsumed"] and not facts["handlesSigint"])

    def test_on_a_terminal(self):
        for parameters, line, handles in (((), PYTHON_HANDLER, True), (NO_SIGINT, "interactive console", False)):
            with self.subTest(parameters), host.Terminal(*parameters) as console:
                console.prompt()
                console.control("D")
                facts, log = console.finish()
                self.assertEqual([line for line in log if "python.sigint" not in line[1]], [(INFO, line), CLEARING])
                self.assertEqual((facts["interactive"], facts["run"], facts["handlesSigint"]), (1, ENDED, handles))

    def test_standard_input_closed_and_binding_that_is_local(self):
        report = host.run(preexec_fn=lambda: os.close(0))
        self.assertEqual(report.log, [(WARN, "not interactive console: 9 Bad file descriptor"), CLEARING])
        report = host.run(text_input="import _ctypes, _json, _decimal, zlib, _socket; print(_ctypes.__file__)")
        self.assertEqual((report.facts["run"], ".so" in report.result.stdout), (SUCCEEDED, True), report.result.stderr)

    def test_the_interpreters_settings(self):
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "imported.py").write_text("")
            pathlib.Path(folder, "engine").touch(0o755)  # the program's name in the interpreter's eyes
            report = host.run(text_input=f"""
import sys; sys.path.insert(0, {folder!r}); import imported
print(sys.argv, sys.orig_argv, sys.stdout.line_buffering, sys.stdout.write_through, sys.flags.interactive)
print(sys.executable)
""", environment={"PYTHONDONTWRITEBYTECODE": "", "PATH": folder})
            self.assertEqual(report.result.stdout, f"[''] [] False False 1\n{folder}/engine\n", report.result.stderr)
            self.assertEqual(sorted(os.listdir(folder)), ["engine", "imported.py"])

    def test_what_cannot_be_had(self):
        report = host.run("construct", "start", "stop", "run", "destroy", text_input="print(2)",
                          environment={"PYTHONHOME": "/nonexistent"})
        self.assertEqual(report.log, [(INFO, "not interactive console"), (WARN, "error init python"), (DEBUG, REQUEST)])
        self.assertEqual((report.facts["constructed"], report.facts["run"], report.result.stdout), (True, ENDED, ""))
        report = host.run("null", "sonetrix_malloc", "construct", "destroy")
        self.assertEqual((report.log, report.facts["constructed"]), ([(WARN, "error creating python cli")], False))
        report = host.run("null", "sonetrix_engineGet")
        self.assertIn((WARN, "error importing sonetrix"), report.log)
        report = host.run(*start("import builtins; builtins.globals = None"))
        self.assertIn((WARN, "problem while cleaning up CLI global variables"), report.log)
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "sitecustomize.py").write_text("""
import builtins
real = builtins.__import__
def no_sys(name, names=None, *rest):
    if name == "sys" and names and names.get("__name__") == "__main__": raise ImportError
    return real(name, names, *rest)
builtins.__import__ = no_sys
""")
            report = host.run(environment={"PYTHONPATH": folder})
            self.assertIn((WARN, "problem settings python prompt"), report.log)
        result = programs.run_engine("-c", "print(1)", environment={"PYTHONHOME": "/nonexistent"})
        self.assertEqual((result.returncode in (1, 69), result.stdout), (True, ""), result.stderr)

    def test_more_records(self):
        refused = [(WARN, "could not extend in-built modules table"), (WARN, "error creating python cli")]
        report = host.run("construct", "second", "start", "run", "destroy", text_input="print(engine.isRunning())")
        lines = [(INFO, "not interactive console")]
        self.assertEqual(report.log, [*lines, *lines, *refused, CLEARING])
        self.assertEqual((report.facts["second"], report.result.stdout), (False, "True\n"))
        report = host.run(*start("print(2 + 2)"), *host.USUAL, *host.USUAL)  # an interpreter, but not a second module
        self.assertEqual((report.result.stdout, report.log[-3:]), ("4\n4\n", [
            (DEBUG, "python.start: print(2 + 2)"), *lines, (WARN, "error importing sonetrix")]))

    def test_ctrl_c_while_it_is_constructed(self):
        interrupted = "after", 0, "interrupt", 500 * SLOWNESS, "construct", "start", "run", "destroy"
        with host.Terminal(*start("import time; time.sleep(1)"), *interrupted) as console:
            console.command("sleep %d" % (1000 * SLOWNESS), "stop")
            facts, log = console.finish()
            self.assertEqual(facts["run"], ENDED)


class Script(unittest.TestCase):
    def test_results(self):
        for text, run, code, output, errors in (
            ("", SUCCEEDED, -1, "", "^$"),
            ("print(__name__, __file__)", SUCCEEDED, -1, "__main__ __engine__\n", "^$"),
            ("# coding: latin-1\nprint(ascii('\u00e9'))", SUCCEEDED, -1, "'\\xc3\\xa9'\n", "^$"),
            ("#" * 300_000 + "\nprint(len(engine.__name__))", SUCCEEDED, -1, "6\n", "^$"),
            ("print(1)\n1/0\nprint(2)", ENDED, -1, "1\n", r'File "__engine__", line 2, in <module>\nZeroDivisionError'),
            ("x = = 2", ENDED, -1, "", r'File "__engine__", line 1\n.*\n.*\nSyntaxError'),
            ("input()", ENDED, -1, "", "EOFError"),
            ("import sys; sys.exit(3)\nprint(1)", ENDED, 3, "", "^$"),
            ("raise SystemExit('good bye')", ENDED, 1, "", "^good bye\n$"),
            ("class Own(SystemExit): pass\nraise Own(-8)", ENDED, -8, "", "^$"),
            ("import sys; sys.excepthook = print; sys.exit(3)", ENDED, 3, "<class 'SystemExit'> 3", "^$"),
            ("exit(7)\nprint('on')", SUCCEEDED, 7, "on\n", "^$"),
            ("import threading, sys\nt = threading.Thread(target=sys.exit, args=(6,)); t.start(); t.join()",
             SUCCEEDED, -1, "", "^$"),
        ):
            with self.subTest(text[-60:]):
                if "= =" in text and hasattr(sys, "gettotalrefcount"):
                    self.skipTest("a debug build of CPython asserts that only standard input itself has syntax errors")
                report = host.run(text_input=text)
                self.assertEqual((report.facts["run"], report.facts["exitCode"]), (run, code))
                self.assertTrue(report.result.stdout.startswith(output), report.result.stdout)
                self.assertRegex(report.result.stderr, errors)
                self.assertEqual(len(report.calls("sonetrix_engine_RequestStop")), code != -1)

    def test_what_the_engine_has_read_ahead_is_part_of_it(self):
        report = host.run(*start("import ctypes; ctypes.CDLL(None).getchar()"), text_input="#print(1)\nprint(2)\n")
        self.assertEqual(report.result.stdout, "1\n2\n")

    def test_system_exit_never_ends_the_process(self):
        leave = "import sys, atexit, gc; from sonetrix import *\n"
        for text in (
            "sys.excepthook = lambda *details: sys.exit(3)\n1/0",
            "atexit.register(sys.exit, 3)",
            "add_clear_callback(lambda: sys.exit(3))",
            "class Late:\n    def __del__(self, sys=sys): sys.exit(3)\nlate = Late()",
            "sys.displayhook = sys.unraisablehook = lambda *details: sys.exit(3)\ndel add_clear_callback",
            "class Err:\n    def write(self, text): sys.stderr = sys.__stderr__\n    def flush(self): pass\n"
            "sys.stderr = Err(); sys.exit('text')",
            "sys.ps1 = sys.ps2 = sys.stdout = sys.stderr = sys.stdin = None; sys.exit(3)",
        ):
            with self.subTest(text):
                host.run(text_input=leave + text)  # there is a report: destroy has returned

    def test_the_default_disposition_is_not_deadly(self):
        report = host.run(text_input="""
import signal, time
signal.signal(signal.SIGINT, signal.SIG_DFL); exit(3); time.sleep(0.5); signal.signal(signal.SIGINT, signal.SIG_IGN)
""")
        self.assertIn((DEBUG, "error in raise SIGINT"), report.log)
        self.assertEqual(report.facts["exitCode"], 3)


# What is typed, and what is printed when it is under way.
STATES = {
    "prompt": ("", "engine> "),
    "continuation": ("if True:", r"\.\.\. "),
    "sleep": ("import time; print('go' + 'ing'); time.sleep(1000)", "going"),
    "lock": ("import threading; print('go' + 'ing'); threading.Event().wait()", "going"),
    "compute": (f"exec(\"print('go' + 'ing')\\nwhile True: {BUSY}\")", "going"),
    "input": ("input('go' + 'ing')", "going"),
    "silent pipe": ("import os; ends = os.pipe(); print('go' + 'ing'); os.read(ends[0], 1)", "going"),
    "help": ("help()", "help> "),
}


def enter(console, state):
    text, pattern = STATES[state]
    if text:
        console.prompt()
        console.send(text)
    console.expect(pattern)


class Stop(unittest.TestCase):
    def stop(self, state, *parameters, code="", flags=""):
        with (self.subTest(state, code=code, flags=flags),
              host.Terminal(*start(CLEARED + code), *parameters, flags=flags) as console):
            enter(console, state)
            began = time.monotonic()
            console.command("stop", "stop")
            facts, log = console.finish()
            self.assertLess(time.monotonic() - began, IN_TIME)
            self.assertEqual((facts["run"], facts["stopRequested"]), (ENDED, 1))
            lines = [line for line in log if line != (DEBUG, ALREADY)][-3:]  # the second one may find nobody any more
            self.assertEqual(sorted(lines), sorted(STOP_LINES))
            self.assertEqual((lines[0], lines[-1]), (STOP_LINES[0], CLEARING))
            self.assertNotIn("KeyboardInterrupt", console.transcript)  # it is the stop's own
            check_end(facts, log, console.transcript)

    def test_in_every_state(self):
        for state in STATES:
            self.stop(state)
        for state in "prompt", "continuation":
            self.stop(state, code="import readline")
            self.stop(state, *NO_SIGINT)

    def test_elsewhere_than_on_a_main_thread_with_nothing_blocked(self):
        for flags in "t", "b", "tb":
            for state in "prompt", "compute", "sleep":
                self.stop(state, flags=flags)
            self.stop("prompt", *NO_SIGINT, flags=flags)
        with host.Terminal("construct", "start", "stop", "run", "destroy", flags="g") as console:
            console.finish()  # in the background

    def test_what_the_engine_keeps_from_being_interrupted(self):
        with host.Terminal(*NO_SIGINT) as console:
            console.prompt()
            console.send("import time; print('go' + 'ing'); time.sleep(1); print('re' + 'sted'); input('no prompt')")
            console.expect("going")
            console.command("stop")
            console.expect("rested")
            console.send("")  # running code is not interrupted, nor what it reads
            console.finish()
            self.assertNotIn("KeyboardInterrupt", console.transcript)

    def test_without_a_terminal(self):
        for text, file, errors in (
            ("print('going', flush=True)\nimport time; time.sleep(1000)", True, "KeyboardInterrupt\n$"),
            (f"def busy():\n  while True: {BUSY}\ntry: busy()\nexcept KeyboardInterrupt: print('caught')", True, "^$"),
            ("", False, "^(.*\n)*KeyboardInterrupt\n$"), ("print('never')\n", False, "^(.*\n)*KeyboardInterrupt\n$"),
        ):
            with self.subTest(text), tempfile.TemporaryFile("w+") as script:
                script.write(text)
                script.seek(0)
                silent = os.pipe()
                os.write(silent[1], text.encode())
                began = time.monotonic()
                report = host.run(*start(CLEARED), *host.after(300, "stop"), flags="d", text_input=None,
                                  stdin=script if file else silent[0])
                for end in silent:
                    os.close(end)
                self.assertLess(time.monotonic() - began, IN_TIME)
                self.assertEqual(report.facts["run"], SUCCEEDED if "caught" in text else ENDED)
                self.assertRegex(report.result.stderr, errors)
                self.assertEqual([line for line in report.log if line in STOP_LINES], STOP_LINES)
                check_end(report.facts, report.log, report.result.stdout)

    def test_before_and_without_a_run(self):
        twice = [(DEBUG, REQUEST), (DEBUG, ALREADY), CLEARING]
        stopped = "construct", "start", "stop", "stop", "run", "destroy"
        report = host.run(*stopped, text_input="print('input')")
        self.assertEqual((report.log[1:], report.facts["run"], report.result.stdout), (twice, SUCCEEDED, "input\n"))
        report = host.run("construct", "stop", "stop", "destroy")
        self.assertEqual((report.log[1:], report.facts["stopRequested"]), (twice, 1))
        with host.Terminal(*stopped) as console:
            console.send("print('in' + 'put')")
            facts, log = console.finish()
            self.assertEqual((facts["run"], log[-3:]), (ENDED, twice))
            self.assertNotRegex(console.transcript, "(?m)^input")

    def test_at_random_moments(self):
        """Whatever the moment: the end comes, in time and whole, and every clear callback has run once."""
        loops = "import time\nwhile True: time.sleep(0.0003)", "while True: [str(i) for i in range(50)]"

        def attempt(seed):
            pick = random.Random(seed)
            delay = int(pick.expovariate(1 / 25)) * SLOWNESS
            flags = pick.choice(["", "", "t", "tb"])
            if pick.random() < 0.25:
                # By the script itself: a stop that comes before the run, it does not see.
                report = host.run(*start(CLEARED), flags=flags + "d", text_input=(
                    f"import threading; threading.Timer({delay / 1000}, exit).start()\n" + pick.choice(loops)))
                check_end(report.facts, report.log, report.result.stdout)
                return report.facts["run"], report.log
            keep = pick.random() < 0.2
            code = CLEARED + pick.choice(["", "import readline\n"])
            with host.Terminal(*start(code), *NO_SIGINT * keep, *host.after(delay, "stop"), flags=flags) as console:
                for _ in range(pick.randrange(8)):
                    console.send(pick.choice(["1 + 1", "if True: pass\n", "", "input()", "def f(): pass\n"]))
                # What the engine keeps from being interrupted ends by itself.
                console.send("\n" * 20 if keep else pick.choice(["", f"exec({pick.choice(loops)!r})"]))
                facts, log = console.finish()
                check_end(facts, log, console.transcript)
                return facts["run"], log

        count = int(os.environ.get("SONETRIX_STOPS", 80)) // SLOWNESS
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for seed, outcome in enumerate([pool.submit(attempt, seed) for seed in range(count)]):
                with self.subTest(seed=seed):
                    run, log = outcome.result()
                    self.assertEqual(run, ENDED)
                    # A request that is faster than the run sends no signal.
                    self.assertIn([line for line in log if line in STOP_LINES], (STOP_LINES, STOP_LINES[::2]))


class End(unittest.TestCase):
    def test_an_engine_thread_may_end_whenever_it_likes(self):
        code = "import time; called = []; kept = notifyChanges(called.append)\nwhile not called: time.sleep(0.01)"
        begin = "construct", "after", 300, "on", 1, 0, 9, "after", 3000 * SLOWNESS, "on", 2, 0, 9, "start"
        for rest in ("join", 1, "run", "destroy"), ("run", "join", 1, "destroy"), ("run", "destroy", "join", 1):
            with self.subTest(rest):
                report = host.run(*start(code), *begin, *rest, text_input="print(len(called))")
                self.assertRegex(report.result.stdout, "^\\d+\n$", report.result.stderr)

    def test_daemon_threads_inside_the_library_survive_the_end(self):
        for attempt in range(20 // SLOWNESS):
            result = programs.run_script("""
def begin():
    import random, sonetrix, threading, time
    class Slow:
        def __index__(self, random=random, time=time):
            time.sleep(random.random() * 0.002)
            return 4
    def calls(log=sonetrix.log, engine=sonetrix.engine, Slow=Slow):
        while True: log.setLevel(Slow()); engine.getModuleInfos(); engine.getMeterInfo(0); log.debug("x")
    def objects(notify=sonetrix.notifyChanges, timeout=sonetrix.timeout, List=sonetrix.listKeyValue):
        def called(changes): pass
        while True: notify(called); timeout(1, called); List().appendFromDict({"a": 1.5})
    for index in range(6): threading.Thread(target=(calls, objects)[index % 2], daemon=True).start()
    time.sleep(random.random() * 0.05)
begin()
""", "--log-level", "fatal", environment=programs.OUTLIVED)
            self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_threads_that_do_not_end_are_named_and_left_behind(self):
        stuck = start("import time; kept = engine.addTimer(5, lambda: time.sleep(1000))")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            python = pool.submit(host.run, "construct", "no-parameters", "start", "run", "destroy",
                                 environment=programs.OUTLIVED, text_input="""
import threading
threading.Thread(target=threading.Event().wait, name="st\u00e4y", daemon=False).start()
""")
            engine = pool.submit(host.run, *stuck, "construct", "no-parameters", "start", "on", 1, 3, 1, "sleep", 200,
                                 "run",
                                 "destroy", environment=programs.OUTLIVED, text_input="print('in the buffer', end='')")
        self.assertEqual([line for line in python.result().log if "python thread" in line[1]], [
            (WARN, "waiting for python thread 'st\u00e4y'"),
            (ERROR, "python thread 'st\u00e4y' is still running and is left behind")])
        self.assertEqual((engine.result().log[-1], engine.result().result.stdout), (
            (ERROR, "a thread does not return from Python: the interpreter is left as it is"), "in the buffer"))

    def test_clear_callbacks(self):
        report = host.run(text_input="""
from functools import partial
for callback in (partial(print, "first"), partial(int, "x"), partial(print, "never")): add_clear_callback(callback)
""")
        self.assertEqual(report.result.stdout, "first\n")
        self.assertRegex(report.result.stderr, "^Exception ignored in: 'sonetrix.clear_python_sonetrix'\n(.*\n)*"
                         "AttributeError: 'functools.partial' object has no attribute '__name__'.*\n$")
        result = programs.run_script("""
import os, signal, time
def first():
    exit(5)
    os.kill(os.getpid(), signal.SIGTERM)
    time.sleep(0.2)
    print("first")
def failing(): 1/0
for callback in (first, failing, failing, lambda: print("second")): add_clear_callback(callback)
""", "--log-level", "error")
        self.assertEqual((result.returncode, result.stdout), (5, "first\nsecond\n"))
        self.assertEqual(result.stderr.count("error while running clean callback registered from user: failing\n"), 2)


if __name__ == "__main__":
    unittest.main()
