# ctest: timeout=240
"""The command-line module's record, driven as an engine drives it."""

import concurrent.futures
import itertools
import os
import random
import re
import sys
import tempfile
import time
import unittest

from support import BUSY, CONSOLE_HOST, MODULE, SLOWNESS, programs
from support.console import Console
from support.programs import run_console_host

DEBUG, INFO, WARN = range(1, 4)
ENDED, SUCCEEDED = -1, -2
REQUEST, SIGNAL, ALREADY = "request to stop cli", "SIGINT to python cli thread", "cli stop already send"
CLEARING = (DEBUG, "clearing sonetrix Python module")
STOP_LINES = [(DEBUG, REQUEST), (DEBUG, SIGNAL), CLEARING]
PYTHON_HANDLER = "interactive console (KeyboardInterrupt default python handler)"
IN_TIME = 12 * SLOWNESS  # seconds, on a machine that has other things to do, too
# Clear callbacks long enough to be hit by a signal that comes late.
CLEARED = """
def cleared():
    for step in range(2000): str(step)
    print("clea" + "red")
add_clear_callback(cleared)
"""


class Host(Console):
    """The console host on a terminal, with a line of command and a report at its end."""

    def __init__(self, *operations, start=CLEARED, flags=(), **keywords):
        self.folder = tempfile.TemporaryDirectory()
        self.report_path = os.path.join(self.folder.name, "report")
        read_end, self._commands = os.pipe()
        if "construct" not in operations:
            operations += "construct", "start", "run", "destroy"
        super().__init__(MODULE, "--report", self.report_path, "--commands", read_end, *flags,
                         "text", "python.start=" + start, *operations,
                         program=CONSOLE_HOST, pass_fds=(read_end,), **keywords)
        os.close(read_end)

    def __exit__(self, *arguments):
        self._commands is not None and os.close(self._commands)
        super().__exit__(*arguments)
        self.folder.cleanup()

    def command(self, *lines):
        os.write(self._commands, "".join(line + "\n" for line in lines).encode())

    def finish(self, warnings=()):
        """Waits for the end; returns the facts and the log, once what always has to be true has been checked."""
        os.close(self._commands)
        self._commands = None
        status = self.end()
        assert status == 0, (status, self.transcript)
        facts, log = programs.read_report(self.report_path)
        check_end(facts, log, self.transcript, warnings)
        # A stop that comes first leaves nothing to change.
        assert self.settings() == self.first_settings, (self.settings(), self.first_settings)
        return facts, log


def stop_after(milliseconds):
    return "construct", "start", "after", milliseconds, "stop", "run", "destroy"


def check_end(facts, log, output, warnings=()):
    assert output.count("cleared") == 1, output
    errors = set(re.findall(r"^(\w*(?:Error|Exit|Warning|Interrupt|Exception)\b.*)", output, re.M))
    assert errors <= {"KeyboardInterrupt"}, output
    assert not re.search("ignored|atal|terminate|wake_console", output), output
    assert "Traceback" not in output.split("cleared")[1], output
    assert [line for line in log if line[0] >= WARN] == list(warnings), log
    assert (facts["sigintAfter"], facts["blocks"]) == ("ignored", 0), facts


class StartParameters(unittest.TestCase):
    def test_every_combination(self):
        with tempfile.TemporaryDirectory() as folder:
            script = os.path.join(folder, "script.py")
            with open(script, "w") as file:
                file.write("print('file', __file__)\n")
            missing = os.path.join(folder, "missing.py")
            codes = {None: "", "print('code')": "code\n", "print('code'); 1/0": "code\n", "raise SystemExit(4)": ""}
            cases = list(itertools.product(codes, (None, script, missing), (None, 0, 1, 7)))
            with concurrent.futures.ThreadPoolExecutor(3) as pool:
                reports = pool.map(lambda case: self.run_host(*case), cases)
            for (code, path, sigint), report in zip(cases, reports):
                with self.subTest(code=code, path=path, sigint=sigint):
                    expected = [(DEBUG, "python.start: " + text) for text in (code, path) if text is not None]
                    expected += [] if sigint is None else [(DEBUG, f"python.sigint: {sigint}")]
                    expected += [(INFO, "not interactive console")]
                    expected += [(DEBUG, REQUEST)] if "Exit" in (code or "") else []
                    expected += [(WARN, f"execute script file: '{missing}' not done")] if path == missing else []
                    expected += [CLEARING]
                    # The stop request is another thread's, and comes when it comes: perhaps before the input is run.
                    exits = "Exit" in (code or "")
                    self.assertEqual(sorted(line for line in report.log if line[1] != SIGNAL), sorted(expected))
                    output = codes[code] + (f"file {script}\n" if path == script else "")
                    self.assertIn(report.result.stdout, [output + "input\n"] + [output] * exits)
                    self.assertEqual("ZeroDivisionError" in report.result.stderr, "1/0" in (code or ""))
                    facts = report.facts
                    self.assertIn(facts["run"], [SUCCEEDED] + [ENDED] * exits)
                    self.assertEqual(facts["exitCode"], 4 if exits else -1)
                    self.assertEqual(facts["sigintMode"], 1 if sigint is None else sigint)
                    self.assertTrue(facts["contextKept"] and facts["parametersConsumed"] and facts["interactive"] == 0)
                    self.assertEqual((facts["sigintWhileConstructed"], facts["sigintAfter"]), ("ignored", "ignored"))
                    self.assertEqual(facts["blocks"], 0)
                    self.assertEqual({args[3] for _, args, *_ in report.calls("sonetrix_log")}, {1})

    @staticmethod
    def run_host(code, path, sigint):
        texts = [(key, text) for key, text in (("start", code), ("file", path)) if text is not None]
        options = [part for key, text in texts for part in ("text", f"python.{key}={text}")]
        options += [] if sigint is None else ["uint", f"python.sigint={sigint}"]
        return run_console_host(*options, text_input="print('input')\n")

    def test_on_a_terminal(self):
        for options, mode, line, disposition in (
            ([], 1, PYTHON_HANDLER, "handler"),
            (["uint", "python.sigint=0"], 0, "interactive console", "ignored"),
            (["uint", "python.sigint=2"], 2, PYTHON_HANDLER, "handler"),
        ):
            with self.subTest(options), Host(*options) as host:
                host.prompt()
                host.control("D")
                facts, log = host.finish()
                parameter = [(DEBUG, f"python.sigint: {mode}")] if options else []
                self.assertEqual(log, [(DEBUG, "python.start: " + CLEARED), *parameter, (INFO, line), CLEARING])
                self.assertEqual((facts["interactive"], facts["sigintMode"], facts["run"]), (1, mode, ENDED))
                self.assertEqual(facts["sigintWhileConstructed"], disposition)

    def test_odd_surroundings(self):
        report = run_console_host("no-parameters")
        self.assertEqual(report.log, [(INFO, "not interactive console"), CLEARING])
        self.assertEqual((report.facts["sigintMode"], report.facts["run"]), (1, SUCCEEDED))
        report = run_console_host(preexec_fn=lambda: os.close(0))
        self.assertEqual(report.log, [(WARN, "not interactive console: 9 Bad file descriptor"), CLEARING])
        self.assertEqual(report.facts["run"], SUCCEEDED)
        # The host binds the library locally and has no libpython of its own.
        report = run_console_host(text_input="import _ctypes, _json, _decimal, zlib, _socket; print(_ctypes.__file__)")
        self.assertEqual((report.facts["run"], ".so" in report.result.stdout), (SUCCEEDED, True), report.result.stderr)

    def test_no_interpreter(self):
        report = run_console_host("text", "python.start=print(1)", "construct", "start", "stop", "run", "destroy", text_input="print(2)",
                                  environment={"PYTHONHOME": "/nonexistent"})
        self.assertEqual(report.log[1:], [(INFO, "not interactive console"), (WARN, "error init python"), (DEBUG, REQUEST)])
        facts = report.facts
        self.assertEqual((facts["constructed"], facts["run"], facts["blocks"]), (True, ENDED, 0))
        self.assertEqual((report.result.stdout, facts["sigintAfter"]), ("", "ignored"))
        for arguments in ((), ("-c", "print(1)")):
            result = programs.run_engine(*arguments, environment={"PYTHONHOME": "/nonexistent"})
            self.assertEqual((result.returncode in (1, 69), result.stdout), (True, ""), result.stderr)

    def test_a_second_record(self):
        refused = [(WARN, "could not extend in-built modules table"), (WARN, "error creating python cli")]
        report = run_console_host("construct", "second", "start", "run", "destroy", text_input="print(engine.isRunning())")
        lines = [(INFO, "not interactive console")]
        self.assertEqual(report.log, [*lines, *lines, *refused, CLEARING])
        self.assertEqual((report.facts["second"], report.facts["run"], report.facts["blocks"]), (False, SUCCEEDED, 0))
        with Host("construct", "second", "start", "run", "destroy") as host:
            host.prompt()
            host.control("D")
            facts, log = host.finish(warnings=refused)
            self.assertEqual((facts["second"], facts["sigintAfterSecond"]), (False, "handler"))


class Script(unittest.TestCase):
    def test_results(self):
        for text, run, code, output, errors in (
            ("", SUCCEEDED, -1, "", "^$"),
            ("print(__name__, __file__)", SUCCEEDED, -1, "__main__ __engine__\n", "^$"),
            ("# coding: latin-1\nprint(ascii('\u00e9'))", SUCCEEDED, -1, "'\\xc3\\xa9'\n", "^$"),
            ("#" * 300_000 + "\nprint(len(engine.__name__))", SUCCEEDED, -1, "6\n", "^$"),
            ("print(1)\n1/0\nprint(2)", ENDED, -1, "1\n", r'File "__engine__", line 2, in <module>\nZeroDivisionError'),
            ("print(1)\nx = = 2", ENDED, -1, "", r'File "__engine__", line 2\n.*\n.*\nSyntaxError'),
            ("input()", ENDED, -1, "", "EOFError"),
            ("raise SystemExit", SUCCEEDED, 0, "", "^$"),
            ("import sys; sys.exit(3)\nprint(1)", ENDED, 3, "", "^$"),
            ("raise SystemExit(-2)", ENDED, -2, "", "^$"),
            ("raise SystemExit('good bye')", ENDED, 1, "", "^good bye\n$"),
            ("raise SystemExit(1, 2)", ENDED, 1, "", r"^\(1, 2\)\n$"),
            ("class Own(SystemExit): pass\nraise Own(8)", ENDED, 8, "", "^$"),
            ("import sys; sys.excepthook = print; sys.exit(3)", ENDED, 3, "<class 'SystemExit'> 3", "^$"),
            ("try: quit(5)\nfinally: print('final')", ENDED, 5, "final\n", "^$"),
            ("exit(7)\nprint('on')", SUCCEEDED, 7, "on\n", "^$"),
            ("import threading, sys\nt = threading.Thread(target=sys.exit, args=(6,)); t.start(); t.join()",
             SUCCEEDED, -1, "", "^$"),
        ):
            with self.subTest(text[-60:]):
                if "= =" in text and hasattr(sys, "gettotalrefcount"):
                    self.skipTest("a debug build of CPython asserts that only standard input itself has syntax errors")
                report = run_console_host(text_input=text)
                self.assertEqual((report.facts["run"], report.facts["exitCode"]), (run, code))
                self.assertTrue(report.result.stdout.startswith(output), report.result.stdout)
                self.assertRegex(report.result.stderr, errors)
                self.assertEqual(len(report.calls("sonetrix_engine_RequestStop")), code != -1)

    def test_a_signal_handler_that_raises_while_input_is_awaited(self):
        start = "import signal as s; s.signal(s.SIGALRM, lambda *_: 1 / 0); s.setitimer(s.ITIMER_REAL, 0.2)"
        silent = os.pipe()
        report = run_console_host("text", "python.start=" + start, text_input=None, stdin=silent[0])
        for end in silent:
            os.close(end)
        self.assertEqual(report.facts["run"], ENDED)
        self.assertRegex(report.result.stderr, "ZeroDivisionError: division by zero\n$")

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
                report = run_console_host(text_input=leave + text)
                self.assertEqual(report.facts["blocks"], 0)  # there is a report: destroy has returned


class Stop(unittest.TestCase):
    # What is typed, and what is printed when it is under way.
    STATES = {
        "prompt": ("", "engine> "),
        "continuation": ("if True:", r"\.\.\. "),
        "sleep": ("import time; print('go' + 'ing'); time.sleep(1000)", "going"),
        "lock": ("import threading; print('go' + 'ing'); threading.Event().wait()", "going"),
        "compute": (f"exec(\"print('go' + 'ing')\\nwhile True: {BUSY}\")", "going"),
        "input": ("input('go' + 'ing')", "going"),
        "silent pipe": ("import os; ends = os.pipe(); print('go' + 'ing'); os.read(ends[0], 1)", "going"),
        "swallowed": ("exec(\"import time\\nprint('go' + 'ing')\\nfor _ in range(2):\\n  try: time.sleep(1000)\\n"
                      "  except KeyboardInterrupt: pass\\nprint('both')\")", "going"),
        "help": ("help()", "help> "),
    }

    def enter(self, host, text, pattern):
        if text:
            host.prompt()
            host.send(text)
        host.expect(pattern)

    def test_in_every_state(self):
        for (state, (text, pattern)), editing in itertools.product(self.STATES.items(), (False, True)):
            start = CLEARED + ("import readline" if editing else "")
            with self.subTest(state=state, editing=editing), Host(start=start) as host:
                self.enter(host, text, pattern)
                began = time.monotonic()
                host.command("stop", "stop")
                facts, log = host.finish()
                self.assertLess(time.monotonic() - began, IN_TIME)
                self.assertEqual((facts["run"], facts["stopRequested"]), (ENDED, 1))
                stopping = [text for level, text in log[-4:]]
                self.assertEqual(sorted(stopping), sorted([REQUEST, SIGNAL, ALREADY, CLEARING[1]]))
                self.assertEqual((stopping[0], stopping[-1]), (REQUEST, CLEARING[1]))
                self.assertEqual("both" in host.transcript.split("going")[-1], state == "swallowed")

    def test_where_the_engine_keeps_sigint(self):
        for state, editing in itertools.product(("prompt", "continuation"), (False, True)):
            start = CLEARED + ("import readline" if editing else "")
            with self.subTest(state=state, editing=editing), Host("uint", "python.sigint=0", start=start) as host:
                self.enter(host, *self.STATES[state])
                began = time.monotonic()
                host.command("stop")
                facts, log = host.finish()
                self.assertLess(time.monotonic() - began, IN_TIME)
                self.assertEqual((facts["run"], facts["sigintWhileConstructed"], log[-3:]), (ENDED, "ignored", STOP_LINES))
        with Host("uint", "python.sigint=0") as host:
            host.prompt()
            host.send("import time; print('go' + 'ing'); time.sleep(2.5); print('re' + 'sted'); input('no prompt')")
            host.expect("going")
            host.command("stop")
            host.expect("rested")
            host.send("")  # running code is not interrupted, nor what it reads
            facts, log = host.finish()
            self.assertNotIn("KeyboardInterrupt", host.transcript)

    def test_without_a_terminal(self):
        for text, file, errors in (
            ("print('going', flush=True)\nimport time; time.sleep(1000)", True, "KeyboardInterrupt\n$"),
            (f"while True: {BUSY}", True, "KeyboardInterrupt\n$"),
            (f"def busy():\n  while True: {BUSY}\ntry: busy()\nexcept KeyboardInterrupt: print('caught')", True, "^$"),
            ("import time\nwhile True:\n  try: time.sleep(9)\n  except KeyboardInterrupt: pass", True, "^$"),
            ("", False, "^$"),
            ("print('never')\n", False, "^$"),
        ):
            with self.subTest(text), tempfile.TemporaryFile("w+") as script:
                script.write(text)
                script.seek(0)
                silent = os.pipe()
                os.write(silent[1], text.encode())
                began = time.monotonic()
                report = run_console_host("text", "python.start=" + CLEARED, *stop_after(300),
                                          text_input=None, stdin=script if file else silent[0])
                for end in silent:
                    os.close(end)
                self.assertLess(time.monotonic() - began, IN_TIME)
                self.assertEqual(report.facts["run"], SUCCEEDED if "caught" in text else ENDED)
                self.assertRegex(report.result.stderr, errors)
                self.assertEqual([line for line in report.log if line[1] in (REQUEST, SIGNAL)], STOP_LINES[:2])
                check_end(report.facts, report.log, report.result.stdout)

    def test_while_an_exception_is_shown(self):
        report = run_console_host("uint", "python.sigint=0", text_input="""
exit(0)
error = ValueError()
error.__notes__ = list(map(str, range(20000)))
raise error
""")
        self.assertRegex(report.result.stderr, "^Traceback(.*\n)*19999\n$")
        self.assertNotIn("KeyboardInterrupt", report.result.stderr)

    def test_before_and_without_a_run(self):
        twice = [(DEBUG, REQUEST), (DEBUG, ALREADY), CLEARING]
        report = run_console_host("construct", "start", "stop", "stop", "run", "destroy", text_input="print('input')")
        self.assertEqual((report.log[1:], report.facts["run"], report.result.stdout), (twice, SUCCEEDED, "input\n"))
        report = run_console_host("construct", "stop", "stop", "destroy")
        self.assertEqual((report.log[1:], report.facts["stopRequested"]), (twice, 1))
        with Host("construct", "start", "stop", "stop", "run", "destroy") as host:
            host.send("print('in' + 'put')")
            facts, log = host.finish()
            self.assertEqual((facts["run"], log[-3:]), (ENDED, twice))
            self.assertNotRegex(host.transcript, "(?m)^input")

    def test_in_the_start_script(self):
        # Each step has time to tidy up before it is interrupted.
        for sleep, interrupted in (("time.sleep(1000)", True), ("time.sleep(2)", False)):
            with self.subTest(sleep):
                source = CLEARED + f"import time; exit(3); {sleep}; print('rested')"
                report = run_console_host("text", "python.start=" + source)
                self.assertEqual("KeyboardInterrupt" in report.result.stderr, interrupted)
                self.assertEqual("rested" in report.result.stdout, not interrupted)
                self.assertNotIn((DEBUG, SIGNAL), report.log)
                self.assertEqual((report.facts["exitCode"], report.facts["run"]), (3, SUCCEEDED))
                check_end(report.facts, report.log, report.result.stdout)

    def test_at_random_moments(self):
        """Whatever the moment: the end comes, in time and whole, and every clear callback has run once."""
        loops = "import time\nwhile True: time.sleep(0.0003)", "while True: [str(i) for i in range(50)]"

        def attempt(seed):
            pick = random.Random(seed)
            delay = int(pick.expovariate(1 / 25)) * SLOWNESS
            if pick.random() < 0.25:
                report = run_console_host("text", "python.start=" + CLEARED, *stop_after(20 * SLOWNESS + delay),
                                          text_input=pick.choice(loops))
                check_end(report.facts, report.log, report.result.stdout)
                return report.facts["run"], report.log
            keep = pick.random() < 0.2
            options = ["uint", "python.sigint=0"] if keep else []
            with Host(*options, *stop_after(delay), start=CLEARED + pick.choice(["", "import readline\n"])) as host:
                for _ in range(pick.randrange(8)):
                    host.send(pick.choice(["1 + 1", "if True: pass\n", "", "input()", "def f(): pass\n"]))
                # What the engine keeps from being interrupted ends by itself.
                host.send("\n" * 20 if keep else pick.choice(["", f"exec({pick.choice(loops)!r})"]))
                facts, log = host.finish()
                return facts["run"], log

        count = int(os.environ.get("SONETRIX_STOPS", 200)) // SLOWNESS
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for seed, outcome in enumerate([pool.submit(attempt, seed) for seed in range(count)]):
                with self.subTest(seed=seed):
                    run, log = outcome.result()
                    self.assertEqual(run, ENDED)
                    # A request that is faster than the run sends no signal.
                    self.assertIn([line for line in log if line in STOP_LINES], (STOP_LINES, STOP_LINES[::2]))


class End(unittest.TestCase):
    def test_forgotten_threads(self):
        for target, output, named in (
                ("lambda: (time.sleep(0.3), print('finished'))", "finished\n", False),
                ("lambda: time.sleep(1000)", "", True),
                ("lambda: (setattr(threading, 'enumerate', lambda: ()), time.sleep(1000))", "", False)):
            with self.subTest(target):
                began = time.monotonic()
                report = run_console_host(text_input=f"""
import threading, time
threading.Thread(target={target}, name="some \\udc80 thread").start()
threading.Thread(target=lambda: time.sleep(1000), name="daemon", daemon=True).start()
""", environment=programs.OUTLIVED)
                self.assertLess(time.monotonic() - began, IN_TIME)
                left_behind = [(WARN, "python thread 'some \\udc80 thread' is still running and is left behind")]
                self.assertEqual([line for line in report.log if line[0] == WARN], left_behind if named else [])
                self.assertEqual((report.result.stdout, report.result.stderr), (output, ""))
                self.assertEqual(report.facts["blocks"], 0)

    def test_daemon_threads_inside_the_library_survive_the_end(self):
        for attempt in range(30 // SLOWNESS):
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

    def test_exit_handlers_find_the_library_and_a_thread_that_stays_inside_is_left_there(self):
        result = programs.run_script("""
import atexit, threading, time
class Never:
    def __index__(self, sleep=time.sleep):
        while True: sleep(0.01)
def work(over, engine=engine):
    while not over.is_set(): engine.now()
def leave(over, worker, engine=engine, print=print): over.set(); worker.join(); print("left", engine.getModuleNames())
over = threading.Event()
worker = threading.Thread(target=work, args=(over,), daemon=True); worker.start()
atexit.register(leave, over, worker)
threading.Thread(target=lambda log=log, Never=Never: log.setLevel(Never()), daemon=True).start()
time.sleep(0.1)
""", "--log-level", "error", environment=programs.OUTLIVED)
        self.assertEqual((result.returncode, result.stdout), (0, "left [b'system']\n"))
        self.assertRegex(result.stderr, "^ERROR .*a thread does not return from Python: the interpreter is left as it is\n$")

    def test_a_failing_clear_callback_without_a_name(self):
        report = run_console_host(text_input="""
from functools import partial
for callback in (partial(print, "first"), partial(int, "x"), partial(print, "never")): add_clear_callback(callback)
""")
        self.assertEqual(report.result.stdout, "first\n")
        self.assertRegex(report.result.stderr, "^Exception ignored in: 'sonetrix.clear_python_sonetrix'\n(.*\n)*"
                         "AttributeError: 'functools.partial' object has no attribute '__name__'\n$")

    def test_stop_and_exit_in_clear_callbacks(self):
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
