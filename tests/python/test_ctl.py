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

from support import CONSOLE_HOST, ENGINE, MODULE, SLOWNESS, SOURCE, TIME_LIMIT
from support.programs import OUTLIVED
from support.screen import Screen

PACKAGES = SOURCE / "python"
CTL = [sys.executable, "-I", PACKAGES / "sonetrix_console" / "ctl.py"]  # sees neither sonetrix nor the package
START = f"import sys; sys.path.append('{PACKAGES}'); import sonetrix_console; sonetrix_console.install()"
HOST = CONSOLE_HOST, MODULE, os.devnull, -1, "", "text", "python.start"
OPERATIONS = "construct", "start", "run", "destroy"
COUNT = ("(__import__('threading').active_count(), len(os.listdir('/proc/self/fd')), "
         "[__import__('gc').collect(), len(__import__('gc').get_objects())][1])")
CONNECTIONS = contextlib.ExitStack()


class Client:
    def __init__(self, path):
        self.socket = CONNECTIONS.enter_context(socket.socket(socket.AF_UNIX))
        self.socket.settimeout(TIME_LIMIT)
        self.socket.connect(str(path))
        self.file = CONNECTIONS.enter_context(self.socket.makefile("r"))

    def send(self, text="", do="run"):
        self.socket.sendall(json.dumps({"do": do, "text": text}).encode() + b"\n")

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


def on_both(test):
    """Gives it the console of an engine, on a screen, and where the engine listens."""
    @functools.wraps(test)
    def run(self):
        for kind in ("engine", "host"):
            with self.subTest(kind), tempfile.TemporaryDirectory() as folder:
                path = pathlib.Path(folder, kind)
                start = f"{START}; sonetrix_console.serve('{path}')"
                command = [ENGINE, f"--listen={path}"] if kind == "engine" else [*HOST, start, *OPERATIONS]
                with Screen(*command, columns=40, lines=14, environment=OUTLIVED) as console, CONNECTIONS:
                    console.wait("^engine>$")
                    test(self, console, path)
                    console.wait("^engine>$|^ended")
                    begin = time.monotonic()
                    ctl(path, "eval", "exit(5)")
                    console.wait("^ended 5$" if kind == "engine" else "^ended 0$")
                    self.assertLess(time.monotonic() - begin, 5 * SLOWNESS)
                    self.assertFalse(path.exists())
    return run


class Clients(unittest.TestCase):
    maxDiff = None

    @on_both
    def test_commands(self, console, path):
        script, saved = path.with_name("script"), path.with_name("saved")
        script.write_text("import sys; print(sys.argv[1:], input('? ')); sys.exit(7)")
        graph = [] if path.name == "host" else [
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
        self.assertNotIn("begun", console.text())

    @on_both
    def test_a_hundred_clients_leave_nothing_behind_and_do_not_mix(self, console, path):
        def visit(rounds):
            clients = [Client(path) for _ in range(100)]
            for _ in range(rounds):
                for number, client in enumerate(clients):
                    client.send(f"for _ in range(50): print({number}, end=' '); print({number})")
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
        with Screen(*CTL, "--socket", path, "repl") as screen:
            screen.wait("^engine>$")
            screen.type("engine.isRun\t)\n")
            screen.wait("^True$")
            self.assertEqual(ctl(path, "eval", "exit(5)"), ("", 0))
            screen.wait("^sonetrix-ctl: the engine has ended\nended 69$")
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
        def watch(screen, at_end):
            screen.wait("^load +[0-9.]+ %")
            screen.resize(34)
            shown = screen.wait("^load +[0-9.]+ %(.|\n)*^worst +[0-9.]+ of [0-9.]+ ms\n^xruns +[0-9]+$")
            self.assertEqual(shown.count("load"), 1, shown)
            screen.type("q")
            self.assertNotIn("Traceback", screen.wait(at_end))

        with Screen(*CTL, "--socket", path, "top", columns=40) as screen:
            watch(screen, "^ended 0$")
        with Screen(*CTL, "--socket", path, "top", columns=40, environment={"TERM": "dumb"}) as screen:
            screen.wait("^xruns(.|\n)*^xruns")
            screen.type("\x03")
            screen.wait("^ended 0$")
        console.type("top()\n")
        watch(console, "^engine>$")
        if path.name == "engine":
            console.type("create('t', 'sine_fcac'); connect('t:output', 'system:playback_1')\n")
            console.type("ticks = every(100, lambda: print('tick'))\nmeters('play')\n")
            shown = console.wait("tick\ntick\n^.*playback_1 █+ +0[.]0\n^.*playback_2 +-60[.]0$")
            self.assertEqual(shown.count("playback_2"), 1, shown)
            console.type("\x03ticks.stop()\n")
            console.wait("^engine>$")
        console.type("'still ' + 'echoed'\n")
        shown = console.wait("^'still echoed'$")
        self.assertIn("engine> 'still ' + 'echoed'", shown)
        self.assertNotIn("KeyboardInterrupt", shown)


if __name__ == "__main__":
    unittest.main()
