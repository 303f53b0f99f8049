"""The way into a running engine, by sonetrix-ctl and by ruder clients, and live views."""

import contextlib
import json
import os
import pathlib
import socket
import sys
import tempfile
import time
import unittest

from support import ENGINE, RUN, SLOWNESS, SOURCE, TIME_LIMIT
from support.console import Screen
from support.programs import OUTLIVED, PACKAGES, minimal_engine, run

CTL = [sys.executable, "-I", SOURCE / "python/sonetrix_console/ctl.py"]  # sees neither sonetrix nor the package
COUNT = ("(__import__('threading').active_count(), len(os.listdir('/proc/self/fd')), "
         "[__import__('gc').collect(), len(__import__('gc').get_objects())][1])")


class Client:
    def __init__(self, path):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(TIME_LIMIT)
            connection.connect(str(path))
            self.file = connection.makefile("rw")  # which keeps the connection

    def send(self, text="", do="run", **more):
        print(json.dumps({"do": do, "text": text, **more}), file=self.file, flush=True)

    def receive(self):
        return json.loads(self.file.readline() or "null")

    def finish(self):
        """What the text has printed, and how it ended."""
        printed = ""
        while "done" not in (message := self.receive()):
            printed += message.get("out", "") + message.get("err", "")
        return printed, message["done"]


def ctl(path, *arguments, text_input=""):
    result = run(*CTL, "--socket", path, *arguments, text_input=text_input)
    return result.stdout + result.stderr, result.returncode


class Clients(unittest.TestCase):
    def setUp(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.connections = self.enterContext(contextlib.ExitStack())
        self.path, self.variables = folder / "engine", {**OUTLIVED, "PYTHONPATH": PACKAGES, "XDG_STATE_HOME": folder}
        self.console = self.screen(ENGINE, f"--listen={self.path}")

    def tearDown(self):
        ctl(self.path, "eval", "exit(5)")
        self.console.timeout = 5 * SLOWNESS
        self.assertEqual(self.console.end(), 5)
        self.assertFalse(self.path.exists())

    def screen(self, program, *arguments, prompt="^engine>$", **options):
        screen = self.enterContext(Screen(*arguments, program=program, columns=40, rows=14, environment=self.variables,
                                          **options))
        screen.wait_for(prompt)
        return screen

    def ctl(self, *arguments, **options):
        return self.screen(*CTL, "--socket", self.path, *arguments, **options)

    def client(self):
        client = Client(self.path)
        self.connections.enter_context(client.file)
        return client

    def test_another_engine(self):
        path = self.path.with_name("minimal")
        console = self.screen(*RUN, minimal_engine())
        console.type(f"serve('{path}')\r", shows=r"'\nengine>\Z")
        self.assertIn("xruns  ", ctl(path, "top")[0])
        ctl(path, "eval", "exit(5)")
        self.assertEqual(console.end(), 5)

    def test_commands(self):
        script, saved = self.path.with_name("script"), self.path.with_name("saved")
        script.write_text("import sys; print(sys.argv[1:], input('? ')); sys.exit(7)")
        for arguments, given, printed, status in (
                (["eval", "create('a', 'amp_mono'); create('b', 'amp_mono')"], "", "", 0),
                (["set", "a.gain=2", "b.gain=0.5"], "", "", 0), (["get", "a.gain"], "", "2.0\n", 0),
                (["set", "a.gian=1"], "", "there is no parameter 'a.gian'; did you mean 'a.gain'", 1),
                (["link", "a", "b", "--json"], "", '[["a:output", "b:input"]]\n', 0),
                (["graph"], "", "-> b:input\n", 0), (["save", saved], "", "", 0), (["unlink", "a"], "", "", 0),
                (["load", saved], "", "1 change\n", 0), (["ports"], "", "b:output\nb:input\n", 0),
                (["meters"], "", "system.playback_1 ", 0), (["eval", "x = 6\n7 * x"], "", "42\n", 0),
                (["repl"], "def f():\n    return x\n\nf()\nf(", "6\n", 0),
                (["--json", "eval", "{b'a': (1, b'b', None)}"], "", '{"a": [1, "b", null]}\n', 0),
                (["eval", "1 / 0"], "", '  File "<ctl>", line 1, in <module>\nZeroDivisionError: division', 1),
                (["run", script, "-a", "b"], "typed\n", "? ['-a', 'b'] typed\n", 7),
                (["run", "-"], "print(__name__, 'x' in globals())", "__main__ False\n", 0),
                (["run", "/nonexistent"], "", "/nonexistent", 66), (["link"], "", "required: FROM, TO", 64),
                (["--socket", "/nonexistent", "ports"], "", "No such file", 69)):
            with self.subTest(arguments):
                shown = ctl(self.path, *arguments, text_input=given)
                self.assertIn(printed, shown[0])
                self.assertEqual(shown[1], status)

    def test_rude_clients_harm_nobody(self):
        polite, stuck = self.client(), self.client()
        for rude in (b"\x00\xff garbage\n", b"{}\n[]\n5\n", b'{"do": "finish"}\n', b"[" * 100_000 + b"\n",
                     b"x" * 3_000_000, b'{"do": "run", "te', b'{"do": "run", "text": "while True: pass"}\n',
                     b'{"do": "run", "text": "while True: print(1)"}\n', b'{"do": "nothing"}\n' * 20_000):
            with socket.socket(socket.AF_UNIX) as connection, contextlib.suppress(OSError):
                connection.settimeout(0.2)
                connection.connect(str(self.path))
                connection.sendall(rude)
            polite.send("1 + 1")
            self.assertEqual(polite.finish(), ("2\n", 0))
        stuck.send("print('begun'); time.sleep(20)")
        self.assertEqual(stuck.receive(), {"out": "begun\n"})
        stuck.send("1")
        self.assertIn("error", stuck.receive())
        self.console.type("engine.isRunning()\r", shows="^True$")
        self.assertNotIn("begun", self.console.transcript)

    def test_a_hundred_clients_leave_nothing_behind_and_do_not_mix(self):
        def count():
            return json.loads(ctl(self.path, "--json", "eval", COUNT)[0])

        counts = [count()]
        for rounds in 2, 8:
            clients = [self.client() for _ in range(100)]
            for _ in range(rounds):
                for number, client in enumerate(clients):
                    client.send(f"import sys\nfor _ in range(50): print(sys.argv[1], end=' '); print({number})",
                                space="own", arguments=[str(number)])
                for number, client in enumerate(clients):
                    self.assertEqual(client.finish(), (f"{number} {number}\n" * 50, 0))
            self.connections.close()
            end = time.monotonic() + TIME_LIMIT
            while (counted := count())[:2] != counts[0][:2]:
                self.assertLess(time.monotonic(), end, counted)
            counts.append(counted)
        self.assertLess(counts[2][2] - counts[1][2], 100, "objects")

    def test_the_end_of_the_engine_is_that_of_all_clients(self):
        idle, busy = [self.client() for _ in range(20)], self.client()
        busy.send("print('begun')\nwhile True: time.sleep(0.01)")
        busy.receive()
        repl = self.ctl("repl")
        repl.type("\x1b[200~def twice(x):\n\n    return 2 * x\n\ntwice(4)\n\x1b[201~\r", shows="^8$")
        repl.type("twice(5)\r", shows=r"^10\nengine>\Z")
        repl.type("\x1b[A\r", shows="^10\nengine> twice\\(5\\)\n10$")
        repl.type("engine.isRun\t)\r", shows="^True$")
        self.assertEqual(ctl(self.path, "eval", "exit(5)"), ("", 0))
        repl.wait_for("^sonetrix-ctl: the engine has ended$")
        self.assertEqual(repl.end(), 69)
        self.assertEqual((busy.finish()[1], busy.receive()), (130, None))
        self.assertEqual({client.receive() for client in idle}, {None})

    def test_the_socket_is_its_users_alone(self):
        stale, other = self.path.with_name("stale"), self.path.with_name("other")
        other.touch()
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(str(stale))
        for place, printed in ((self.path, "an engine listens there already"), (stale, ""),
                               (other, "else than a socket")):
            self.assertIn(printed, ctl(self.path, "eval", f"_ = serve('{place}')")[0])
        self.assertEqual([place.stat().st_mode & 0o777 for place in (self.path, stale)], [0o600, 0o600])
        if os.getuid() == 0:  # who can be somebody else for a moment
            self.path.parent.chmod(0o777)
            self.path.chmod(0o777)
            os.seteuid(65534)
            self.addCleanup(os.seteuid, 0)
            theirs = self.client()
            os.seteuid(0)
            self.assertEqual(theirs.receive(), None)

    def test_views_at_forty_columns(self):
        def watch(screen):
            screen.wait_for("^load +[0-9.]+ %", shown=True)
            screen.resize(34)
            screen.wait_for("^load +[0-9.]+ %(.|\n)*^worst +[0-9.]+ of [0-9.]+ ms\n^xruns +[0-9]+$", shown=True)
            self.assertEqual("".join(screen.shown()).count("load"), 1)
            screen.type("q")

        client = self.ctl("top", prompt="load")
        watch(client)
        self.assertEqual(client.end(), 0)
        client = self.ctl("top", prompt="^xruns(.|\n)*^xruns", terminal="dumb")
        client.type("\x03")
        self.assertEqual(client.end(), 0)
        self.console.type("top()\r")
        watch(self.console)
        self.console.wait_for(r"^engine>\Z")
        self.console.type("create('t', 'sine_fcac'); connect('t:output', 'system:playback_1')\r")
        self.console.type("ticks = every(100, lambda: print('tick'))\rmeters('play')\r")
        self.console.wait_for("tick\ntick\n^.*playback_1 █+ +0[.]0\n^.*playback_2 +-60[.]0$", shown=True)
        self.assertEqual("".join(self.console.shown()).count("playback_2"), 1)
        self.console.type("\x03", shows=r"^engine>\Z")
        self.console.type("ticks.stop()\r")
        self.console.type("'still ' + 'echoed'\r", shows="^engine> 'still ' \\+ 'echoed'\n'still echoed'$")
        for screen in client, self.console:
            self.assertNotRegex(screen.transcript, "KeyboardInterrupt\n|Traceback")
