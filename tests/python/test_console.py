"""The console on a terminal, as somebody at the keyboard finds it in the development engine."""

import os
import re
import subprocess
import tempfile
import time
import unittest

from support import BUSY, ENGINE
from support.console import Console
from support.programs import OUTLIVED


class ConsoleTest(unittest.TestCase):
    def console(self, *arguments, environment={}, **options):
        home = self.enterContext(tempfile.TemporaryDirectory())
        environment = {"HOME": home, "XDG_STATE_HOME": home, "PYTHON_COLORS": "0", **environment}
        return Console(*arguments, environment=environment, **options)

    def assertEnds(self, console, line="\4", status=0):
        """By Ctrl-D, or by what is typed."""
        console.prompt()
        self.assertEqual(console.end(line), status, console.transcript)
        self.assertEqual(console.settings(), console.first_settings)

    def test_questions_and_answers(self):
        with self.console() as console:
            for line, answer in (
                ("1 + 1", "2"), ("x = 3", ""), ("x; None; _", "3\n3"), ("'\u00e4\u20ac'", "'\u00e4\u20ac'"),
                ("import sys; sys.ps2, __name__, '__file__' in globals()", "('... ', '__main__', False)"),
                ("[name for name in globals() if 'sonetrix' in name]", "['sonetrix_console']"),
                ("engine.isRunning(), exit.__module__", "(True, 'sonetrix')"),
                ("1 / 0", "ZeroDivisionError: division by zero"),
                ("x =", 'File "__engine__", line 1\n    x =\n       ^\nSyntaxError: invalid syntax'),
                ("from __future__ import annotations", ""),
                ("class Later: at: undefined = 4\n", "..."),
                ("Later.__annotations__", "{'at': 'undefined'}"),
                ("(1,\n2)", "(1, 2)"),
            ):
                with self.subTest(line):
                    self.assertTrue(console.ask(line).endswith(answer), console.transcript)
            console.prompt()
            console.send("def later():")
            console.expect(r"\.\.\. ")
            console.control("D")  # ends the statement, not the console
            console.expect("IndentationError")
            self.assertGreater(console.ask("help(engine)").count("\n"), 100)  # and no key is pressed
            self.assertEnds(console)

    def test_a_script_that_spoils_the_console(self):
        for spoil in ("sys.stdin.close()", "sys.excepthook = None", "del sys.excepthook", "sys.modules.clear()",
                      "globals().clear()", "sys.last_value = 3",
                      "import signal; signal.signal(signal.SIGURG, signal.SIG_IGN)",
                      "import threading; threading._shutdown = None", "sys.displayhook = 3",
                      "import atexit; atexit.register(lambda: 1 / 0)"):
            with self.subTest(spoil), self.console() as console:
                console.ask("import sys; " + spoil)
                console.ask("2 + 2")
                self.assertEnds(console)

    def test_control_c(self):
        for typed, under_way, traceback in (
            ("1 + ", r"1 \+ ", False),
            ("if True:\n", r"\.\.\. ", False),
            (f"exec(\"print('go' + 'ing')\\nwhile True: {BUSY}\")\n", "going", True),
            ("import time; print('go' + 'ing'); time.sleep(1000)\n", "going", True),
            ("import threading; print('go' + 'ing'); threading.Event().wait()\n", "going", True),
            ("input('go' + 'ing')\n", "going", True),
            ("print('go' + 'ing'); engine.waitUntilEnd()\n", "going", True),
            ("cpu()\n", "maxtime", True),
        ):
            with self.subTest(typed), self.console() as console:
                for _ in range(2):  # the first leaves the console as it was
                    console.prompt()
                    console.write(typed)
                    console.expect(under_way)
                    before = console.interrupt()
                    self.assertEqual("Traceback" in before, traceback, console.transcript)
                self.assertEqual(console.ask("engine.isRunning()"), "True")
                self.assertEnds(console)

    def test_control_c_held_down_at_the_end(self):
        # Twice, once the console has given SIGINT back: the engine's own hurried end.
        for _ in range(5):
            with self.console(environment=OUTLIVED) as console:
                console.prompt()
                console.send("add_clear_callback(lambda: print('clea' + 'ring', flush=True)); exit(5)")
                console.expect("clearing\r?\n")  # before that, Ctrl-C may strike the line
                while console.process.poll() is None:
                    console.signal()
                    time.sleep(0.001)
                self.assertEqual(console.end(), 5, console.transcript)

    def test_the_end_leaves_the_terminal_as_it_was(self):
        for line, status in (
            ("quit()", 0), ("quit(3)", 3), ("exit()", 0), ("exit(4)", 4), ("exit('x')", 1), ("engine.exit()", 0),
            ("raise SystemExit", 0), ("import sys; sys.exit(256 + 5)", 5), ("raise SystemExit('last words')", 1),
            ("import os, signal; os.kill(os.getpid(), signal.SIGTERM)", 0),
        ):
            with self.subTest(line), self.console() as console:
                self.assertEnds(console, line, status)
                self.assertNotRegex(console.transcript.split("\n", 2)[2], "SystemExit|Error|ignored")
                self.assertEqual(len(re.findall("(?m)^last words$", console.transcript)), "last words" in line)

    def test_a_terminal_for_input_only(self):
        with tempfile.NamedTemporaryFile("r") as output, self.console(
                "-c", 'exec "$0" > "$1"', ENGINE, output.name, program="/bin/sh") as console:
            console.prompt()
            console.send("print('out' + 'put')")
            console.prompt()
            console.write("half")
            console.interrupt()
            self.assertEnds(console, "exit(3)", 3)
            self.assertEqual(output.read(), "output\n")

    def test_closed_streams(self):
        for closed, command, status in ((0, None, 0), (1, "print(1)", 0),
                                        (2, "import sys; print(2, file=sys.stderr)", 0),
                                        ("012", "input()", 1)):
            with self.subTest(closed):
                shut = " ".join(f"{number}>&-" for number in str(closed))
                options = [] if command is None else ["-c", command]
                result = subprocess.run(["/bin/sh", "-c", f'exec "$0" "$@" {shut}', ENGINE, *options],
                                        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (status, "", ""))

    def test_standard_input_in_pieces_that_does_not_wait(self):
        read_end, write_end = os.pipe()
        os.set_blocking(read_end, False)
        with subprocess.Popen([ENGINE, "--set", "python.start=print('ready', flush=True)"], stdin=read_end,
                              stdout=subprocess.PIPE, text=True) as process:
            os.close(read_end)
            self.assertEqual(process.stdout.readline(), "ready\n")
            for piece in ("print('", "a" * 10_000, "')\nprint(2)"):
                os.write(write_end, piece.encode())
            os.close(write_end)
            self.assertEqual(process.communicate(timeout=60)[0], "a" * 10_000 + "\n2\n")
        self.assertEqual(process.returncode, 0)
