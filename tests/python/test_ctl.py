"""The way into a running engine, by sonetrix-ctl and by ruder clients; live views. On two different engines."""

import contextlib
import functools
import json
import os
import pathlib
import re
import socket
import stat
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from support import CONSOLE_HOST, ENGINE, MODULE, SLOWNESS, SOURCE, TIME_LIMIT
from support.screen import Screen

PACKAGES = SOURCE / "python"
CTL = [sys.executable, "-I", PACKAGES / "sonetrix_console" / "ctl.py"]  # sees neither sonetrix nor the package


def command(kind, path):
    """An engine that listens there, with a console."""
    if kind == "engine":
        return [ENGINE, f"--listen={path}"]
    start = f"import sys; sys.path.append('{PACKAGES}'); import sonetrix_console as c; c.install(); c.serve('{path}')"
    return [CONSOLE_HOST, MODULE, os.devnull, -1, "", *("text", "python.start", start), "construct", "start", "run",
            "destroy"]


class Running:
    """An engine with clients, and a console that waits for its standard input."""

    def __init__(self, kind, folder):
        self.kind, self.path, self.cleanup = kind, os.path.join(folder, kind), contextlib.ExitStack()
        self.process = subprocess.Popen([str(word) for word in command(kind, self.path)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        for _ in range(int(TIME_LIMIT * 50)):
            with contextlib.suppress(OSError):
                Client(self)
                break
            time.sleep(0.02)

    def ctl(self, *arguments, text_input=""):
        return subprocess.run([*CTL, "--socket", self.path, *map(str, arguments)], input=text_input, text=True,
                              capture_output=True, timeout=TIME_LIMIT)

    def evaluate(self, text):
        return json.loads(self.ctl("--json", "eval", text).stdout)

    def end(self):
        """Its status and what it has printed itself; with the seconds that it took."""
        begin = time.monotonic()
        self.ctl("eval", "exit(5)")
        output = self.process.communicate(timeout=TIME_LIMIT)
        return self.process.returncode, *output, time.monotonic() - begin


class Client:
    def __init__(self, engine):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(TIME_LIMIT)
        engine.cleanup.callback(self.close)
        self.socket.connect(engine.path)
        self.file = self.socket.makefile("r")

    def close(self):
        self.socket.close()
        getattr(self, "file", self.socket).close()

    def send(self, **message):
        self.socket.sendall(json.dumps(message).encode() + b"\n")

    def receive(self):
        return json.loads(self.file.readline() or "null")

    def run(self, text, **options):
        """What the text has printed and how it ended."""
        self.send(do="run", text=text, **options)
        printed = ""
        while "done" not in (message := self.receive()):
            printed += message.get("out", "") + message.get("err", "")
        return printed, message["done"]


def on_both(test):
    @functools.wraps(test)
    def run(self):
        for kind in ("engine", "host"):
            with self.subTest(kind), tempfile.TemporaryDirectory() as folder:
                running = Running(kind, folder)
                try:
                    test(self, running)
                    status, output, errors, seconds = running.end()
                finally:
                    running.process.kill()
                    running.process.communicate()
                    running.cleanup.close()
                self.assertEqual((status, output, errors), (5 if kind == "engine" else 0, "", ""))
                self.assertLess(seconds, 5 * SLOWNESS)
                self.assertFalse(os.path.exists(running.path))
    return run


class Clients(unittest.TestCase):
    maxDiff = None

    @on_both
    def test_commands(self, engine):
        script = pathlib.Path(engine.path).with_suffix(".py")
        script.write_text("import sys; print(sys.argv[1:], input('? ')); sys.exit(7)")
        for arguments, given, printed, status in (
                (["eval", "x = 6\n7 * x"], "", "42\n", 0),
                (["eval", "listValue().append(x)"], "", "listValue([6])\n", 0),
                (["--json", "eval", "{b'a': (1, b'b', None)}"], "", '{"a": [1, "b", null]}\n', 0),
                (["eval", "1 / 0"], "", "  File \"<ctl>\", line 1, in <module>\nZeroDivisionError: division", 1),
                (["run", script, "-a", "b"], "typed\n", "? ['-a', 'b'] typed\n", 7),
                (["run", "-"], "print(__name__, 'x' in globals())", "__main__ False\n", 0),
                (["run", "/nonexistent"], "", "/nonexistent", 66),
                (["repl"], "def f():\n    return x\n\nf(); _last = 1\nf(", "6\n", 0),
                (["link"], "", "required: FROM, TO", 64),
                (["--socket", "/nonexistent", "ports"], "", "No such file", 69)):
            with self.subTest(arguments):
                result = engine.ctl(*arguments, text_input=given)
                self.assertIn(printed, result.stdout + result.stderr)
                self.assertEqual(result.returncode, status)
        self.assertGreaterEqual(json.loads(engine.ctl("top", "--json").stdout)["xruns"], 0)
        self.assertIn("xruns  ", engine.ctl("top").stdout)

    @on_both
    def test_output_goes_to_whom_it_belongs(self, engine):
        clients = [Client(engine) for _ in range(4)]
        printed = {}

        def run(number):
            printed[number] = clients[number].run(f"for i in range(2000): print({number}, end=' '); print({number})")[0]

        threads = [threading.Thread(target=run, args=(number,)) for number in range(len(clients))]
        for step in (threading.Thread.start, threading.Thread.join):
            for thread in threads:
                step(thread)
        self.assertEqual(printed, {number: f"{number} {number}\n" * 2000 for number in range(len(clients))})

    @on_both
    def test_rude_clients_harm_nobody(self, engine):
        polite = Client(engine)
        for rude in (b"\x00\xff garbage\n", b"{}\n[]\n5\n", b'{"do": "finish"}\n', b"[" * 100_000 + b"\n",
                     b"x" * 3_000_000, b'{"do": "run", "te', b'{"do": "run", "text": "while True: pass"}\n',
                     b'{"do": "run", "text": "while True: print(1)"}\n', b'{"do": "nothing"}\n' * 20_000):
            client = Client(engine)
            client.socket.settimeout(0.2)
            with contextlib.suppress(OSError):
                client.socket.sendall(rude)
            self.assertEqual(polite.run("1 + 1"), ("2\n", 0))
            client.close()
        stuck, interrupted = Client(engine), Client(engine)
        stuck.send(do="run", text="print('begun'); time.sleep(20)")
        self.assertEqual(stuck.receive(), {"out": "begun\n"})
        stuck.send(do="run", text="1")
        self.assertIn("error", stuck.receive())
        interrupted.send(do="run", text="print('begun')\nwhile True: pass")
        interrupted.receive()
        interrupted.send(do="interrupt")
        self.assertIn("KeyboardInterrupt", interrupted.receive()["err"])
        self.assertEqual(interrupted.receive(), {"done": 130})
        self.assertEqual(interrupted.run("2"), ("2\n", 0))

    @on_both
    def test_a_hundred_clients_leave_nothing_behind(self, engine):
        count = ("(threading.active_count(), len(os.listdir('/proc/self/fd')), "
                 "int(open('/proc/self/statm').read().split()[1]))")

        def visit(rounds):
            clients = [Client(engine) for _ in range(100)]
            for _ in range(rounds):
                for client in clients:
                    client.send(do="run", text="print(sum(range(1000)))")
                for client in clients:
                    self.assertEqual([client.receive(), client.receive()], [{"out": "499500\n"}, {"done": 0}])
            for client in clients:
                client.close()
            end = time.monotonic() + TIME_LIMIT
            while (counted := engine.evaluate(count))[0] > before[0] and time.monotonic() < end:
                time.sleep(0.01)
            return counted

        engine.ctl("eval", "import threading")
        before = engine.evaluate(count)
        first, second = visit(5), visit(20)
        self.assertEqual(second[:2], before[:2])
        self.assertLess(second[2] - first[2], 256 * SLOWNESS, "pages")

    @on_both
    def test_the_end_of_the_engine_is_that_of_all_clients(self, engine):
        idle, busy = [Client(engine) for _ in range(20)], Client(engine)
        busy.send(do="run", text="print('begun')\nwhile True: time.sleep(0.01)")
        busy.receive()
        with Screen(*CTL, "--socket", engine.path, "repl") as screen:
            screen.wait("^engine>$")
            self.assertEqual(engine.ctl("eval", "exit(5)").returncode, 0)
            screen.wait("^sonetrix-ctl: the engine has ended\nended 69$")
        self.assertIn("KeyboardInterrupt", busy.receive()["err"])
        self.assertEqual([busy.receive(), busy.receive()], [{"done": 130}, None])
        self.assertEqual({client.receive() for client in idle}, {None})

    @on_both
    def test_the_socket_is_its_users_alone(self, engine):
        self.assertEqual(stat.S_IMODE(os.stat(engine.path).st_mode), 0o600)
        refused = engine.ctl("eval", f"import sonetrix_console; sonetrix_console.serve('{engine.path}')")
        self.assertIn("an engine listens there already", refused.stderr)
        stale, other = engine.path + ".stale", engine.path + ".file"
        pathlib.Path(other).touch()
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(stale)
        for path, printed in ((stale, ""), (other, "something else than a socket")):
            self.assertIn(printed, engine.ctl("eval", f"_ = sonetrix_console.serve('{path}')").stderr)
        if os.getuid() == 0:  # who can be somebody else for a moment
            for path in (os.path.dirname(engine.path), engine.path):
                os.chmod(path, 0o777)
            os.seteuid(65534)
            try:
                theirs = Client(engine)
            finally:
                os.seteuid(0)
            self.assertEqual(theirs.receive(), None)


class Views(unittest.TestCase):
    def check(self, screen, at_end):
        """top() at 40 columns, on what may be a narrower terminal soon; ended by q."""
        screen.wait("^load +[0-9.]+ %")
        screen.resize(34)
        shown = screen.wait("^load +[0-9.]+ %(.|\n)*^worst +[0-9.]+ of [0-9.]+ ms\n^xruns +[0-9]+$")
        self.assertEqual(shown.count("load"), 1, shown)
        screen.type("q")
        self.assertNotIn("Traceback", screen.wait(at_end))

    def test_views_at_forty_columns(self):
        for kind in ("engine", "host"):
            with self.subTest(kind), tempfile.TemporaryDirectory() as folder:
                path = os.path.join(folder, "socket")
                with Screen(*command(kind, path), columns=40, lines=12) as console:
                    console.wait("^engine>$")
                    with Screen(*CTL, "--socket", path, "top", columns=40) as screen:
                        self.check(screen, "^ended 0$")
                    with Screen(*CTL, "--socket", path, "meters", columns=40, environment={"TERM": "dumb"}) as screen:
                        screen.wait("^system.playback_2 +-60.0\n\n.*[0-9]$")
                        screen.type("\x03")
                        screen.wait("^ended 0$")
                    console.type("top()\n")
                    self.check(console, "^engine>$")
                    if kind == "engine":
                        console.type("engine.newModule('t', 'sine_fcac', None)\n")
                        console.type("engine.link('t:output', 'system:playback_1')\n")
                        console.type("meters('play')\n")
                        console.wait("^.*playback_1 █+ +0[.]0\n^.*playback_2 +-60[.]0$")
                        console.type("\x03")
                        console.wait("^engine>$")
                    console.type("'still ' + 'echoed'\n")
                    shown = console.wait("^'still echoed'$")
                    self.assertIn("engine> 'still ' + 'echoed'", shown)
                    self.assertNotIn("KeyboardInterrupt", shown)


if __name__ == "__main__":
    unittest.main()
