"""The engine's program: its options, what it runs, its console on a terminal, how it ends."""

# ctest: timeout=180

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from support import BUSY, ENGINE, SANITIZER, SLOWNESS, TIME_LIMIT
from support.console import Console
from support.programs import OUTLIVED, run, run_engine, run_script

LOOP = "while True: time.sleep(9)"


class Program(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.script = pathlib.Path(self.folder, "script.py")

    def test_what_cannot_be_done(self):
        for arguments, status, words in [
            (["--no-such"], 64, "--no-such"), (["--set", "=1"], 64, "KEY=VALUE"), (["--set", "a:bool=1"], 64, "bool"),
            (["--set", "a:int32=2147483648"], 64, "a:int32=2147483648"),
            (["no/such/script.py"], 66, "no/such/script.py"), (["--module", "no/such.so"], 69, "no/such.so"),
            (["--rate", "1"], 70, "rate"), (["--record", "no/such.wav"], 70, "no/such.wav"),
        ]:
            with self.subTest(arguments):
                result = run_engine(*arguments)
                self.assertEqual((result.returncode, result.stdout), (status, ""))
                self.assertIn(words, result.stderr)
        for option in "--help", "--version":
            self.assertIn("sonetrix-engine", run_engine(option).stdout)

    def test_start_parameters_are_typed(self):
        expected = {"a": (1, "int32"), "b": (4294967295, "uint32"), "c": (b"4294967296", "string"),
                    "d": (-50.0, "float"), "e": (b"nan", "string"), "f": (b"b=c", "string"),
                    "g": (0.1, "double"), "h": (b"5", "string")}
        settings = "a=1 b=4294967295 c=4294967296 d=-.5e2 e=nan f=b=c g:double=0.1 h:string=5".split()
        source = "found = engine.param().toDictType()\nprint({key: found[key.encode()] for key in 'abcdefgh'})"
        result = run_script(source, *(word for setting in settings for word in ("--set", setting)))
        self.assertEqual((result.stdout, result.stderr), (f"{expected}\n", ""))

    def test_status(self):
        for source, status in [("exit(0)\n1/0", 1), ("import sys; sys.exit(5)", 5), ("raise KeyboardInterrupt", 130),
                               ("exit(3)\ntime.sleep(.2)\nprint('on')", 3)]:
            for run_it in run_script, lambda text: run_engine("-c", text):
                with self.subTest(source, way=run_it):
                    self.assertEqual(run_it(source).returncode, status)
        self.assertEqual(run_engine(text_input="exit(7)").returncode, 7)
        unread = run_engine("--set", "python.start=exit(3)", text_input=None, stdin=os.pipe()[0])
        self.assertEqual(unread.returncode, 3)

    def test_what_a_script_finds_and_its_tracebacks(self):
        pathlib.Path(self.folder, "beside.py").write_text("name = 'found'")
        self.script.write_text("# coding: latin-1\nimport multiprocessing, sys, beside\nif __name__ == '__main__':\n"
                               "  print(sys.argv[1:], __file__ == sys.argv[0], beside.name, 'ä', first)\n"
                               "  print(multiprocessing.get_context('spawn').Pool(1).map(abs, [-1]))\n", "latin-1")
        result = run_engine("-c", "first = 1", self.script, "--one", "-i", "two")
        self.assertEqual((result.stdout, result.stderr), ("['--one', '-i', 'two'] True found ä 1\n[1]\n", ""))
        for source in "def f():\n    1/0\nf()\n", "x = (\n", "import sys\nsys.exit('text')\n":
            with self.subTest(source):
                self.script.write_text(source)
                python, ours = (run(program, "script.py", cwd=self.folder) for program in (sys.executable, ENGINE))
                self.assertEqual((ours.stderr, ours.returncode), (python.stderr, python.returncode))

    def test_closed_streams(self):
        source = "import sys; print(1); print(2, file=sys.stderr); input()"
        result = run("/bin/sh", "-c", 'exec "$0" -c "$1" <&- >&- 2>&-', ENGINE, source)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", ""))

    @unittest.skipIf(SANITIZER == "thread", "the thread sanitizer knows no threads that a forked process starts")
    def test_a_forked_child_has_an_end_of_its_own(self):
        result = run_engine("-c", """
import os, signal, sys, time
for leave, number in (lambda: sys.exit(7), 0), (lambda: time.sleep(60), signal.SIGTERM):
    if (child := os.fork()) == 0:
        leave()
    time.sleep(0.2)
    os.kill(child, number)
    print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), engine.isRunning())
""")
        self.assertEqual((result.stdout, result.returncode), ("7 True\n-15 True\n", 0))

    def test_a_callable_that_does_not_return_is_left_behind(self):
        source = "import threading\nt = engine.addTimer(1, threading.Event().wait)\ntime.sleep(.2)\nexit(3)"
        for impatient in False, True:
            with self.subTest(impatient=impatient), Console("-c", source, environment=OUTLIVED) as console:
                console.expect("does not return")
                if impatient:
                    console.process.send_signal(signal.SIGINT)
                self.assertEqual(console.end(), 3)

    def test_a_script_is_interrupted(self):
        deadly = "import signal\nsignal.signal(signal.SIGINT, signal.SIG_DFL)\nengine.waitUntilEnd()\nexit(4)"
        for option, source, number, status, traceback in (
                ("-c", LOOP, signal.SIGINT, 130, True), ("-c", f"while True: {BUSY}", signal.SIGTERM, 0, False),
                ("-c", deadly, signal.SIGHUP, 4, False), ("-ic", LOOP, signal.SIGTERM, 0, True)):
            with self.subTest(source, signal=number), Console(option, "print('begun')\n" + source) as console:
                console.expect("begun\n")
                time.sleep(0.1 * SLOWNESS)  # a signal just before the sleep would be noticed only after it
                console.process.send_signal(number)
                self.assertEqual(console.end(), status, console.transcript)
                self.assertEqual("Traceback" in console.transcript, traceback, console.transcript)

    def test_a_signal_interrupts_a_script_and_the_second_ends_the_process(self):
        source = ("print('begun', flush=True)\ntry:\n  while True: time.sleep(.01)\nexcept KeyboardInterrupt: pass\n"
                  "print('stopped', flush=True)\n")
        stubborn = "while True:\n  try: time.sleep(.01)\n  except KeyboardInterrupt: pass\n"
        for text, number, end in ((source, signal.SIGINT, 0), (source, signal.SIGTERM, 0),
                                  (source + stubborn, signal.SIGTERM, 143), (source + stubborn, signal.SIGHUP, 129)):
            self.script.write_text(text)
            with (self.subTest(text, signal=number), Console("-c", 'exec "$0" <"$1"', ENGINE, self.script,
                                                             program="/bin/sh", environment=OUTLIVED) as console):
                for word in ["begun", "stopped"] if end else ["begun"]:
                    console.expect(word)
                    console.process.send_signal(number)
                self.assertEqual((console.end(), console.transcript), (end, "begun\nstopped\n"))

    def test_nobody_listening_and_no_room_do_not_kill(self):
        closed = os.pipe()
        os.close(closed[0])
        command = ["sh", "-c", 'ulimit -f 1000; exec "$0" --log-level trace --offline 9 --record cut.wav "$@"', ENGINE,
                   "-c", "engine.waitUntilEnd()"]
        with open(closed[1], "wb") as errors:
            result = subprocess.run(command, stderr=errors, cwd=self.folder, timeout=TIME_LIMIT)
        self.assertEqual(result.returncode, 74)


class OnATerminal(unittest.TestCase):
    def test_questions_and_answers(self):
        with Console("-i", "-c", "a = 5\n1/0", environment={"PAGER": "tail -n 1"}) as console:
            for line, answer in (
                ("a", "5"),
                ("'\u00e4\u20ac'; None; _", "'\u00e4\u20ac'\n'\u00e4\u20ac'"),
                ("import sys; sys.ps2, __name__, '__file__' in globals()", "('... ', '__main__', False)"),
                ("[name for name in globals() if 'sonetrix' in name]", "['sonetrix_console']"),
                ("x =", 'File "__engine__", line 1\n    x =\n       ^\nSyntaxError: invalid syntax'),
                ("from __future__ import annotations", ""),
                ("class Later: at: undefined = 4\n", "..."),
                ("Later.__annotations__", "{'at': 'undefined'}"),
            ):
                with self.subTest(line):
                    self.assertTrue(console.ask(line).endswith(answer), console.transcript)
            console.enter("def later():", r"\.\.\. ")
            console.send("\x04")  # ends the statement, not the console
            console.expect("IndentationError")
            self.assertGreater(console.ask("help(engine)").count("\n"), 100)  # none of it for a pager
            self.assertEqual(console.end("\4"), 0)

    def test_a_script_that_spoils_the_console(self):
        for spoil in ("sys.stdin.close()", "del sys.excepthook", "sys.modules.clear()", "globals().clear()",
                      "sys.last_value = 3", "import tty; _ = tty.setcbreak(0)",
                      "import signal; signal.signal(signal.SIGURG, signal.SIG_IGN)",
                      "import threading; threading._shutdown = None", "sys.displayhook = 3",
                      "import atexit; atexit.register(lambda: 1 / 0)"):
            with self.subTest(spoil), Console() as console:
                console.ask("import sys; " + spoil)
                console.ask("2 + 2")
                self.assertEqual(console.end("\4"), 0, console.transcript)

    def test_the_end_leaves_the_terminal_as_it_was(self):
        for line, status in (
            ("quit(3)", 3), ("exit('x')", 1), ("engine.exit()", 0), ("import sys; sys.exit(256 + 5)", 5),
            ("raise SystemExit('last words')", 1), ("import os, signal; os.kill(os.getpid(), signal.SIGTERM)", 0),
        ):
            with self.subTest(line), Console() as console:
                self.assertEqual(console.end(line), status, console.transcript)
                self.assertNotRegex(console.transcript.split("\n", 2)[2], "SystemExit|Error|ignored")
                self.assertEqual(console.transcript.count("\nlast words\n"), "last words" in line)
