"""The console on a terminal, as somebody at the keyboard finds it in the development engine."""

import re
import signal
import time
import unittest

from support.console import Console
from support.programs import OUTLIVED


class ConsoleTest(unittest.TestCase):
    def test_questions_and_answers(self):
        with Console(environment={"PAGER": "tail -n 1"}) as console:
            for line, answer in (
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

    def test_control_c_held_down_at_the_end(self):
        # Twice, once the console has given SIGINT back: the engine's own hurried end.
        for _ in range(5):
            with Console(environment=OUTLIVED) as console:
                console.enter("add_clear_callback(lambda: print('clea' + 'ring', flush=True)); exit(5)",
                              "clearing\r?\n")  # before that, Ctrl-C may strike the line
                while console.process.poll() is None:
                    console.process.send_signal(signal.SIGINT)
                    time.sleep(0.001)
                self.assertEqual(console.end(), 5, console.transcript)

    def test_the_end_leaves_the_terminal_as_it_was(self):
        for line, status in (
            ("quit(3)", 3), ("exit('x')", 1), ("engine.exit()", 0), ("import sys; sys.exit(256 + 5)", 5),
            ("raise SystemExit('last words')", 1), ("import os, signal; os.kill(os.getpid(), signal.SIGTERM)", 0),
        ):
            with self.subTest(line), Console() as console:
                self.assertEqual(console.end(line), status, console.transcript)
                self.assertNotRegex(console.transcript.split("\n", 2)[2], "SystemExit|Error|ignored")
                self.assertEqual(len(re.findall("(?m)^last words$", console.transcript)), "last words" in line)
