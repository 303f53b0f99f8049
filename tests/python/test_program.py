"""The engine's program: its options, what it runs, how it ends."""

# ctest: timeout=180

import contextlib
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


@contextlib.contextmanager
def running(*arguments, stdin=subprocess.DEVNULL, **environment):
    """The program, once it has printed a line."""
    with subprocess.Popen([ENGINE, *arguments], stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, env=os.environ | environment) as process:
        try:
            process.stdout.readline()
            yield process
        finally:
            process.kill()


def outcome(process):
    output, errors = process.communicate(timeout=TIME_LIMIT)
    return process.returncode, output, errors


class Options(unittest.TestCase):
    def test_exit_statuses(self):
        for arguments, status, words in [
            (["--no-such"], 64, "--no-such"), (["--log-level", "loud"], 64, "--log-level"),
            (["--offline", "-1"], 64, "--offline"), (["--set", "=1"], 64, "KEY=VALUE"),
            (["--set", "a:bool=1"], 64, "bool"), (["--set", "a:int32=2147483648"], 64, "a:int32=2147483648"),
            (["no/such/script.py"], 66, "no/such/script.py"), (["--module", "no/such.so"], 69, "no/such.so"),
            (["--rate", "1"], 70, "rate"), (["--input", "no/such.wav"], 70, "no/such.wav"),
            (["--record", "no/such.wav"], 70, "no/such.wav"),
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
        result = run_script("found = engine.param().toDictType()\nprint({key: found[key.encode()] for key in 'abcdefgh'})",
                            *(word for setting in settings for word in ("--set", setting)))
        self.assertEqual((result.stdout, result.stderr), (f"{expected}\n", ""))


class Scripts(unittest.TestCase):
    def test_status(self):
        for source, status in [("exit(0)\n1/0", 1), ("import sys; sys.exit(5)", 5), ("raise KeyboardInterrupt", 130),
                               ("exit(3)\ntime.sleep(.2)\nprint('on')", 3)]:
            for run_it in run_script, lambda text: run_engine("-c", text):
                with self.subTest(source, way=run_it):
                    self.assertEqual(run_it(source).returncode, status)
        self.assertEqual(run_engine(text_input="exit(7)").returncode, 7)
        with running("--set", "python.start=print(1, flush=True); exit(3)", stdin=subprocess.PIPE) as process:
            self.assertEqual(process.wait(TIME_LIMIT), 3)  # standard input is left unread

    def test_what_a_script_finds_and_its_tracebacks(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        script = pathlib.Path(folder, "script.py")
        pathlib.Path(folder, "beside.py").write_text("name = 'found'")
        script.write_bytes("# coding: latin-1\nimport multiprocessing, sys, beside\nif __name__ == '__main__':\n"
                           "  print(sys.argv[1:], __file__ == sys.argv[0], beside.name, 'ä', first)\n"
                           "  print(multiprocessing.get_context('spawn').Pool(1).map(abs, [-1]))\n".encode("latin-1"))
        result = run_engine("-c", "first = 1", script, "--one", "-i", "two")
        self.assertEqual((result.stdout, result.stderr), ("['--one', '-i', 'two'] True found ä 1\n[1]\n", ""))
        for source in "def f():\n    1/0\nf()\n", "x = (\n", "import sys\nsys.exit('text')\n":
            with self.subTest(source):
                script.write_text(source)
                python = subprocess.run([sys.executable, "script.py"], cwd=folder, capture_output=True, text=True)
                ours = run_engine("script.py", cwd=folder)
                self.assertEqual((ours.stderr, ours.returncode), (python.stderr, python.returncode))

    def test_closed_streams(self):
        for closed, source, status in (("<&-", "pass", 0), (">&-", "print(1)", 0),
                                       ("2>&-", "import sys; print(2, file=sys.stderr)", 0),
                                       ("<&- >&- 2>&-", "input()", 1)):
            with self.subTest(closed):
                result = run("/bin/sh", "-c", f'exec "$0" -c "$1" {closed}', ENGINE, source)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (status, "", ""))

    def test_a_callable_that_does_not_return_is_left_behind(self):
        source = ("import threading\nt = engine.addTimer(1, threading.Event().wait)\ntime.sleep(.2)\n"
                  "exit(3)\nprint(flush=True)\n")
        for impatient in False, True:
            with self.subTest(impatient=impatient), running("-c", source, **OUTLIVED) as process:
                while "does not return" not in (line := process.stderr.readline()):
                    self.assertTrue(line)
                if impatient:
                    process.send_signal(signal.SIGINT)
                self.assertEqual(outcome(process)[0], 3)

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


class Signals(unittest.TestCase):
    def test_a_script_is_interrupted(self):
        deadly = "import signal\nsignal.signal(signal.SIGINT, signal.SIG_DFL)\nprint(flush=True)\n"
        for source, number, status in (
                ("print(flush=True)\nwhile True: time.sleep(60)", signal.SIGINT, 130),
                ("print(flush=True)\nwhile True: time.sleep(60)", signal.SIGTERM, 0),
                ("print(flush=True)\nwhile True: " + BUSY, signal.SIGINT, 130),
                ("print(flush=True)\nwhile True: " + BUSY, signal.SIGTERM, 0),
                (deadly + "engine.waitUntilEnd()\nexit(4)", signal.SIGHUP, 4)):
            with self.subTest(source, signal=number), running("-c", source) as process:
                time.sleep(0.1 * SLOWNESS)  # a signal just before the sleep would be noticed only after it
                process.send_signal(number)
                got, _, errors = outcome(process)
                self.assertEqual((got, "KeyboardInterrupt" in errors), (status, status == 130), errors)

    def test_a_start_script_before_the_console_is_interrupted_and_one_that_fails_is_not_the_end(self):
        with Console("-i", "-c", "print('begun')\nwhile True: time.sleep(60)") as console:
            console.expect("begun")
            time.sleep(0.1 * SLOWNESS)
            console.process.send_signal(signal.SIGTERM)
            self.assertEqual(console.end(), 0)
        with Console("-i", "-c", "a = 5\n1/0") as console:
            console.expect("ZeroDivisionError")
            self.assertEqual(console.ask("a"), "5")

    def test_a_signal_ends_the_engine_and_the_second_the_process(self):
        source = "print(flush=True)\nwhile engine.isRunning(): time.sleep(.01)\nprint('stopped', flush=True)\n"
        stubborn = "while True:\n  try: time.sleep(.01)\n  except KeyboardInterrupt: pass\n"
        for number, status in (signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129):
            for text, end in (source, 0), (source + stubborn, status):
                with self.subTest(text, signal=number), tempfile.TemporaryFile("w+") as script:
                    print(text, file=script)
                    script.seek(0)
                    with running(stdin=script, **OUTLIVED) as process:  # the second signal leaves threads behind
                        process.send_signal(number)
                        self.assertEqual(process.stdout.readline(), "stopped\n")
                        if end:
                            process.send_signal(number)
                        self.assertEqual(outcome(process), (end, "", ""))

    def test_nobody_listening_and_no_room_do_not_kill(self):
        closed = os.pipe()
        os.close(closed[0])
        command = ["sh", "-c", 'ulimit -f 100; exec "$0" --log-level trace --record cut.wav -c "time.sleep(1)"', ENGINE]
        with tempfile.TemporaryDirectory() as folder, open(closed[1], "wb") as errors:
            self.assertEqual(subprocess.run(command, stderr=errors, cwd=folder, timeout=TIME_LIMIT).returncode, 74)
