"""The way into a running engine, by sonetrix-ctl and by ruder clients, and live views; on two different engines."""

import contextlib
import functools
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from support import ENGINE, RUN, SLOWNESS, SOURCE, TIME_LIMIT
from support.programs import OUTLIVED, PACKAGES, minimal_engine
from support.emulator import Screen

CTL = [sys.executable, "-I", SOURCE / "python/sonetrix_console/ctl.py"]  # sees neither sonetrix nor the package
COUNT = ("(__import__('threading').active_count(), len(os.listdir('/proc/self/fd')), "
         "[__import__('gc').collect(), len(__import__('gc').get_objects())][1])")
CONNECTIONS = contextlib.ExitStack()


class Client:
    def __init__(self, path):
        self.socket = CONNECTIONS.enter_context(socket.socket(socket.AF_UNIX))
        self.socket.settimeout(TIME_LIMIT)
        self.socket.connect(str(path))
        self.file = CONNECTIONS.enter_context(self.socket.makefile("r"))

    def send(self, text="", do="run", **more):
        self.socket.sendall(json.dumps({"do": do, "text": text, **more}).encode() + b"\n")

    def receive(self):
        return json.loads(self.file.readline() or "null")

    def finish(self):
        """What the text has printed, and how it ended."""
        printed = ""
        while "done" not in (message := self.receive()):
            printed += message.get("out", "") + message.get("err", "")
        return printed, message["done"]


def ctl(path, *arguments, text_input=""):
    result = subprocess.run([*CTL, "--socket", path, *map(str, arguments)], input=text_input, text=True,
                            capture_output=True, timeout=TIME_LIMIT)
    return result.stdout + result.stderr, result.returncode


def screen(program, *arguments, **options):
    return Screen(*arguments, program=program, rows=14, **options)


def on_both(test):
    """Gives it the console of an engine, on a screen, and where the engine listens."""
    @functools.wraps(test)
    def run(self):
        for kind in ("engine", "minimal"):
            with self.subTest(kind), tempfile.TemporaryDirectory() as folder:
                path = pathlib.Path(folder, kind)
                command = [ENGINE, f"--listen={path}"] if kind == "engine" else [*RUN, minimal_engine()]
                variables = {**OUTLIVED, "PYTHONPATH": PACKAGES, "XDG_STATE_HOME": folder}
                with screen(*command, columns=40, environment=variables) as console, CONNECTIONS:
                    console.wait_for("^engine>$")
                    if kind == "minimal":
                        console.type(f"serve('{path}')\r")
                        console.wait_for(r"'\nengine>\Z")
                    test(self, console, path)
                    begin = time.monotonic()
                    ctl(path, "eval", "exit(5)")
                    self.assertEqual(console.end(), 5)
                    self.assertLess(time.monotonic() - begin, 5 * SLOWNESS)
                    self.assertFalse(path.exists())
    return run


class Clients(unittest.TestCase):
    maxDiff = None

    @on_both
    def test_commands(self, console, path):
        script, saved = path.with_name("script"), path.with_name("saved")
        script.write_text("import sys; print(sys.argv[1:], input('? ')); sys.exit(7)")
        graph = [] if path.name == "minimal" else [
            (["eval", "create('a', 'amp_mono'); create('b', 'amp_mono')"], "", "", 0),
            (["set", "a.gain=2", "b.gain=0.5"], "", "", 0), (["get", "a.gain"], "", "2.0\n", 0),
            (["set", "a.gian=1"], "", "there is no parameter 'a.gian'; did you mean 'a.gain'", 1),
            (["link", "a", "b", "--json"], "", '[["a:output", "b:input"]]\n', 0), (["graph"], "", "-> b:input\n", 0),
            (["save", saved], "", "", 0), (["unlink", "a"], "", "", 0), (["load", saved], "", "1 change\n", 0),
            (["ports"], "", "b:output\nb:input\n", 0), (["meters"], "", "system.playback_1 ", 0)]
        for arguments, given, printed, status in (
                *graph, (["eval", "x = 6\n7 * x"], "", "42\n", 0),
                (["repl"], "def f():\n    return x\n\nf()\nf(", "6\n", 0),
                (["eval", "listValue().append(x)"], "", "listValue([6])\n", 0), (["top"], "", "xruns  ", 0),
                (["--json", "eval", "{b'a': (1, b'b', None)}"], "", '{"a": [1, "b", null]}\n', 0),
                (["eval", "1 / 0"], "", '  File "<ctl>", line 1, in <module>\nZeroDivisionError: division', 1),
                (["run", script, "-a", "b"], "typed\n", "? ['-a', 'b'] typed\n", 7),
                (["run", "-"], "print(__name__, 'x' in globals())", "__main__ False\n", 0),
                (["run", "/nonexistent"], "", "/nonexistent", 66), (["link"], "", "required: FROM, TO", 64),
                (["--socket", "/nonexistent", "ports"], "", "No such file", 69)):
            with self.subTest(arguments):
                shown = ctl(path, *arguments, text_input=given)
                self.assertIn(printed, shown[0])
                self.assertEqual(shown[1], status)

    @on_both
    def test_rude_clients_harm_nobody(self, console, path):
        polite, stuck, interrupted = (Client(path) for _ in range(3))
        for rude in (b"\x00\xff garbage\n", b"{}\n[]\n5\n", b'{"do": "finish"}\n', b"[" * 100_000 + b"\n",
                     b"x" * 3_000_000, b'{"do": "run", "te', b'{"do": "run", "text": "while True: pass"}\n',
                     b'{"do": "run", "text": "while True: print(1)"}\n', b'{"do": "nothing"}\n' * 20_000):
            client = Client(path)
            client.socket.settimeout(0.2)
            with client.socket, client.file, contextlib.suppress(OSError):
                client.socket.sendall(rude)
            polite.send("1 + 1")
            self.assertEqual(polite.finish(), ("2\n", 0))
        stuck.send("print('begun'); time.sleep(20)")
        self.assertEqual(stuck.receive(), {"out": "begun\n"})
        stuck.send("1")
        self.assertIn("error", stuck.receive())
        interrupted.send("print('begun')\nwhile True: pass")
        interrupted.receive()
        interrupted.send(do="interrupt")
        printed, status = interrupted.finish()
        self.assertEqual((printed[-18:], status), ("KeyboardInterrupt\n", 130))
        console.type("engine.isRunning()\r")
        console.wait_for("^True$")
        self.assertNotIn("begun", console.transcript)

    @on_both
    def test_a_hundred_clients_leave_nothing_behind_and_do_not_mix(self, console, path):
        def visit(rounds):
            clients = [Client(path) for _ in range(100)]
            for _ in range(rounds):
                for number, client in enumerate(clients):
                    client.send(f"import sys\nfor _ in range(50): print(sys.argv[1], end=' '); print({number})",
                                space="own", arguments=[str(number)])
                for number, client in enumerate(clients):
                    self.assertEqual(client.finish(), (f"{number} {number}\n" * 50, 0))
            CONNECTIONS.close()
            end = time.monotonic() + TIME_LIMIT
            while (counted := count())[0] > before[0] and time.monotonic() < end:
                time.sleep(0.01)
            return counted

        count = lambda: json.loads(ctl(path, "--json", "eval", COUNT)[0])
        before = count()
        first, second = visit(2), visit(8)
        self.assertEqual(second[:2], before[:2])
        self.assertLess(second[2] - first[2], 100, "objects")

    @on_both
    def test_the_end_of_the_engine_is_that_of_all_clients(self, console, path):
        idle, busy = [Client(path) for _ in range(20)], Client(path)
        busy.send("print('begun')\nwhile True: time.sleep(0.01)")
        busy.receive()
        variables = {"XDG_STATE_HOME": path.parent}
        with screen(*CTL, "--socket", path, "repl", environment=variables) as repl:
            repl.wait_for("^engine>$")
            repl.type("\x1b[200~def twice(x):\n\n    return 2 * x\n\ntwice(4)\n\x1b[201~\r")
            repl.wait_for("^8$")
            repl.type("twice(5)\r")
            repl.wait_for(r"^10\nengine>\Z")
            repl.type("\x04")
            self.assertEqual(repl.end(), 0)
        with screen(*CTL, "--socket", path, "repl", environment=variables) as repl:
            repl.wait_for("^engine>$")
            repl.type("\x1b[A\r")
            repl.wait_for("^engine> twice\\(5\\)\n10$")
            repl.type("engine.isRun\t)\r")
            repl.wait_for("^True$")
            self.assertEqual(ctl(path, "eval", "exit(5)"), ("", 0))
            repl.wait_for("^sonetrix-ctl: the engine has ended$")
            self.assertEqual(repl.end(), 69)
        self.assertEqual((busy.finish()[1], busy.receive()), (130, None))
        self.assertEqual({client.receive() for client in idle}, {None})

    @on_both
    def test_the_socket_is_its_users_alone(self, console, path):
        stale, other = path.with_name("stale"), path.with_name("other")
        other.touch()
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(str(stale))
        for place, printed in ((path, "an engine listens there already"), (stale, ""), (other, "else than a socket")):
            self.assertIn(printed, ctl(path, "eval", f"_ = serve('{place}')")[0])
        self.assertEqual([place.stat().st_mode & 0o777 for place in (path, stale)], [0o600, 0o600])
        if os.getuid() == 0:  # who can be somebody else for a moment
            path.parent.chmod(0o777)
            path.chmod(0o777)
            os.seteuid(65534)
            try:
                theirs = Client(path)
            finally:
                os.seteuid(0)
            self.assertEqual(theirs.receive(), None)

    @on_both
    def test_views_at_forty_columns(self, console, path):
        def watch(screen, ends):
            screen.wait_for("^load +[0-9.]+ %", screen.shown)
            screen.resize(34)
            screen.wait_for("^load +[0-9.]+ %(.|\n)*^worst +[0-9.]+ of [0-9.]+ ms\n^xruns +[0-9]+$", screen.shown)
            self.assertEqual("".join(screen.shown()).count("load"), 1)
            screen.type("q")
            ends()
            self.assertNotIn("Traceback", screen.transcript)

        with screen(*CTL, "--socket", path, "top", columns=40) as client:
            watch(client, lambda: self.assertEqual(client.end(), 0))
        with screen(*CTL, "--socket", path, "top", columns=40, terminal="dumb") as client:
            client.wait_for("^xruns(.|\n)*^xruns")
            client.type("\x03")
            self.assertEqual(client.end(), 0)
        console.type("top()\r")
        watch(console, lambda: console.wait_for(r"^engine>\Z"))
        if path.name == "engine":
            console.type("create('t', 'sine_fcac'); connect('t:output', 'system:playback_1')\r")
            console.type("ticks = every(100, lambda: print('tick'))\rmeters('play')\r")
            console.wait_for("tick\ntick\n^.*playback_1 █+ +0[.]0\n^.*playback_2 +-60[.]0$", console.shown)
            self.assertEqual("".join(console.shown()).count("playback_2"), 1)
            console.type("\x03")
            console.wait_for(r"^engine>\Z")
            console.type("ticks.stop()\r")
        console.type("'still ' + 'echoed'\r")
        console.wait_for("^engine> 'still ' \\+ 'echoed'\n'still echoed'$")
        self.assertNotIn("KeyboardInterrupt\n", console.transcript)


if __name__ == "__main__":
    unittest.main()
