# ctest: timeout=400
"""The console's package as a person sees it, on the development engine and on another one, and the way in."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import sys
import tempfile
import time
import unittest

from support import ENGINE, RUN, SLOWNESS, SOURCE, TIME_LIMIT
from support.console import Screen
from support.programs import OUTLIVED, PACKAGES, minimal_engine, run, run_script

CTL = [sys.executable, "-I", SOURCE / "python/sonetrix_console/ctl.py"]  # sees neither sonetrix nor the package
BLOCK = "def twice(x):\n    y = 2 * x\n\n    return y\n\ntwice(4)\ntwice(21)\n"


class TestWithScreens(unittest.TestCase):
    variables = {}

    def setUp(self):
        self.home = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def screen(self, *command, prompt="^engine>$", **options):
        environment = {
            "HOME": self.home, "XDG_STATE_HOME": self.home / "state", "XDG_CONFIG_HOME": self.home / "config",
            "PYTHONPATH": f"{self.home}:{PACKAGES}", "PYTHON_COLORS": "0", **self.variables}
        screen = self.enterContext(Screen(*command[1:], program=command[0], cwd=self.home, environment=environment,
                                          **options))
        screen.wait_for(prompt)
        return screen


class OnATerminal(TestWithScreens):
    def test_prompt(self):
        (self.home / "mine.py").write_text("value = 'imported'\n")
        startup = self.home / "config/sonetrix/startup.py"
        startup.parent.mkdir(parents=True)
        startup.write_text("started = 'start-up file'\n")
        for command in [ENGINE], [*RUN, minimal_engine()]:
            with self.subTest(command):
                screen = self.screen(*command)
                screen.wait_for(r"^SoneTrix \d+\.\d+\.\d+, Python 3\.[\d.]+, (clock at 48000 Hz|no driver); help")
                for typed, shown in (
                        ("import mine; mine.value, started", r"^\('imported', 'start-up file'\)$"),
                        ("import os; os.isatty(2), 'error output'", r"^\(True, 'error output'\)$"),
                        ("help()", r"^  ramp\(key, to, seconds\) +Moves a parameter"),
                        ("listKeyValue().append('a', 1.5)", r"^listKeyValue\(\{b'a': 1\.5\}\)$"),
                        ("exit", r"^exit\(\) stops the engine"),
                        ("get('system.gin')", "^sonetrix_console.Unknown: there is no parameter 'system.gin'"),
                        ("serve('socket')", "^'socket'$"),  # in place of that of the engine before, which was killed
                        ("top()", "^xruns +0")):
                    screen.type(typed + "\r", shows=shown)
                screen.type("q", shows=r"^engine>\Z")
                self.assertNotIn("words.py", "\n".join(screen.lines()))
                screen.type("import os, signal; os.kill(os.getpid(), signal.SIGKILL)\r")
                self.assertEqual(screen.end(), -signal.SIGKILL)
                self.assertEqual((self.home / "state/sonetrix/history").stat().st_mode & 0o777, 0o600)
                screen = self.screen(*command)  # the line that ended the engine is there
                screen.type("\x1b[A", shows="^engine> import os, signal; os.kill")

    def test_without_line_editing(self):
        (self.home / "readline.py").write_text("raise ImportError\n")
        screen = self.screen(ENGINE, terminal="vt100")
        screen.type("x = after(1, lambda: print('later'))\r", shows="^later\nengine>$")
        screen.type("paste()\r", shows="single dot$")
        screen.type(BLOCK.replace("\n", "\r") + ".\r", shows=r"^8\n42$")

    def test_completion(self):
        (self.home / "folder").mkdir()
        (self.home / "folder/file.txt").touch()
        screen = self.screen(ENGINE)
        screen.type("create('tone', 'sine_fcac'); create('gain', 'amp_mono'); create('gain2', 'amp_mono'); 'made'\r")
        screen.wait_for("^'made'\nengine>$")
        for typed, added in (
                ("engine.isR", "unning("), ("engine.METER_F", "AST"), ("import ctyp", "es"), ("from sonetrix_console import stat", "e"),
                ("link('x', 'gain:i", "nput'"), ("engine.newModule('tone', 'amp_m", "ono'"), ("'to", ""),
                ("engine.getParam(['tone.f", "requency'"), ("listKeyValue().append('gain2.g", "ain'"),
                ("open('fol", "der/file.txt'"), ("open('folder/f", "ile.txt'")):
            with self.subTest(typed):
                screen.type(f"\x05\x15{typed}\t", shows=f"^engine> {re.escape(typed + added)}$")
        screen.type("\x05\x15get('gain\t")  # several: they are shown
        screen.wait_for(r"^gain\.gain +gain\.plugin +gain2\.gain +gain2\.plugin\n+engine> get\('gain$")

    def test_pasted_blocks(self):
        for command in [ENGINE], [*RUN, minimal_engine()]:
            with self.subTest(command):
                screen = self.screen(*command)
                screen.type(f"\x1b[200~{BLOCK}1 / 0\n\x1b[201~", shows="^1 / 0$")
                screen.type("\r")
                screen.wait_for('^8\n42\nTraceback .*\n  File "<pasted 1>", line 8, in <module>\n'
                                '(    .*\n)*Zero.*\nengine>$')
                screen.type("\x1b[A")  # one entry of the history
                screen.wait_for(r"^engine> def twice\(x\):\n    y = 2 \* x\n\n    return y\n(.*\n)+1 / 0\Z")
                screen.type("\x03", shows=r"^KeyboardInterrupt\nengine>\Z")
                screen.type("for i in range(2):\r", shows=r"^\.\.\.\Z")
                screen.type("\x1b[200~    x = i\n\n    print('i', x)\n\x1b[201~\r\r", shows=r"^i 0\ni 1\nengine>$")

    def test_output_while_typing(self):
        """A thread, the log and a person, all at the same time."""
        setup = ("import threading\rgo = True; typed = []; noted = iter(range(10**6))\r"
                 "def work():\r while go: print('thread', next(noted)); time.sleep(.015); log.warn('logged')\r\r"
                 "threading.Thread(target=work).start()\r")
        typed = [f"typed.append({number}) # {'some words ' * (number % 4 * 2)}" for number in range(12)]
        for command, terminal, columns in (
                ([ENGINE], "xterm", 80), ([ENGINE], "vt100", 40), ([*RUN, minimal_engine()], "dumb", 80)):
            with self.subTest(terminal):
                screen = self.screen(*command, terminal=terminal, columns=columns)
                screen.type(setup, shows="^thread 9$")
                for number, line in enumerate(typed):
                    if number == 6:
                        time.sleep(1.5)  # the terminal takes nothing any more
                    screen.wait_for(r"^engine>\Z")  # what is typed before, the terminal itself echoes
                    screen.type(line + "\r", key_every=0.004)
                screen.type("go = False; sum(typed), 'end'\r", shows=r"^\(66, 'end'\)$")
                lines = screen.lines()
                lines = lines[lines.index("thread 9"):]
                self.assertEqual([line for line in lines if line.count("engine>") > 1], [])
                numbers = [int(line.split()[1]) for line in lines if re.fullmatch(r"thread \d+", line)]
                self.assertEqual(numbers, [*range(9, 9 + len(numbers))])  # each whole, and none missing
                if terminal == "xterm":
                    other = [line for line in lines if not re.fullmatch(r"thread \d+|.*python.*: logged", line)]
                    self.assertLessEqual({f"engine> {line}"[:columns].rstrip() for line in typed}, {*other})
                    self.assertLess(len(other), 30)


class Words(unittest.TestCase):
    def run_words(self, source, *printed):
        result = run_script("from sonetrix_console import *\ndef refused(f, *a, **k):\n    try: f(*a, **k)\n"
                            "    except Refused as error: return str(error)\n" + source)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual([words for words in printed if words not in result.stdout], [])
        return result

    def test_reading_and_writing(self):
        self.run_words("""
create("tone", "sine_fcac", frequency=220); create("gain", "amp_mono"); put("gain.gain", 0.1)
assert get("gain.") == {"gain.gain": 0.1, "gain.plugin": "amp_mono"} and get("tone.frequency") == 220.0
assert refused(put, "tone.frequency", 1e9).endswith("it takes 0 to 24000 Hz")
assert refused(put, "gain.gain", "loud") == "gain.gain takes a value of type float, not 'loud'"
assert "did you mean 'sine_fcac'" in refused(create, "x", "sine_fcax")
assert "did you mean 'tone:output'" in refused(connect, "tone.output", "gain")
assert connect("tone", "gain") == [("tone:output", "gain:input")] and connect("tone", "gain") == []
assert len(connect("gain", "system")) == 2
assert "system:playback_1 by gain:output" in refused(connect, "tone", "system:playback_1")
assert connect("tone", "system:playback_1", replace=True) == disconnect("tone", "system")
import json; assert json.loads(json.dumps(state()))["modules"]["gain"]["parameters"] == {"gain": 0.1}
graph(); plugins("plate"); info("sc4m")
""", "gain  amp_mono\n", "input   <- tone:output\n", "plate  Plate reverb\n", "1.5 to 400  ms")

    def test_sessions(self):
        with tempfile.TemporaryDirectory() as folder:
            self.run_words(f"""
create("tone", "sine_fcac", frequency=220); create("gain", "amp_mono"); put("gain.gain", 0.3)
connect("tone", "gain"); connect("gain", "system:playback_1"); saved = state()
save("{folder}/s.py"); reset()
assert list(state()["modules"]) == ["system"]
load("{folder}/s.py"); assert state() == saved
os.mkfifo("{folder}/fifo"); fifo = os.open("{folder}/fifo", os.O_RDWR); save("{folder}/fifo")
assert b'A graph' in os.read(fifo, 99) and len(os.listdir("{folder}")) == 2
calls = []
for name in "newModule", "delModule", "link", "setParams":
    real = getattr(engine, name)
    setattr(engine, name, staticmethod(lambda *a, name=name, real=real: (calls.append(name), real(*a))[1]))
put("gain.gain", 0.9); create("echo", "delay_n"); connect("tone", "system:playback_2"); calls.clear()
load("{folder}/s.py")
assert state() == saved and calls == ["setParams", "link", "delModule"], calls
load("{folder}/s.py"); assert len(calls) == 3
open("{folder}/s.py", "a").write("    session.module('x', 'no_such')\\n")
assert "no_such" in refused(load, "{folder}/s.py") and state() == saved
""")

    def test_callbacks(self):
        result = self.run_words("""
create("gain", "amp_mono"); seen = []
watch = on_change(seen.append); bad = every(20, lambda: 1 / 0); once = after(20, lambda: seen.append("once"))
slow = every(20, lambda: time.sleep(.06)); levels = on_meters(seen.append)
put("gain.gain", 0.5); time.sleep(1); callbacks(); bad.stop(); slow.stop()
assert seen.count("once") == once.calls == 1 and bad.errors == bad.calls > 1
assert {"gain.gain": 0.5} in seen and any("system.playback_1.peak" in each for each in seen)
""")
        self.assertEqual(result.stderr.count("ZeroDivisionError"), 1)  # the same one once, with its traceback
        self.assertRegex(result.stderr, r'every <lambda> #\d+:\nTraceback .*\n  File ".*\.py", line 7, in <lambda>')
        self.assertRegex(result.stderr, r"the callback every <lambda> #\d+ took \d\d ms")
        self.assertRegex(result.stdout, r"(?m)^every <lambda> #\d+  \d+ calls  mean .* errors, the last ZeroDivision")

    def test_a_ramp_goes_by_the_time_of_what_is_rendered(self):
        with tempfile.TemporaryDirectory() as folder:  # the words come with serve(), too
            result = run_script(f"""
import sonetrix_console; sonetrix_console.serve("{folder}/socket")
create("gain", "amp_mono"); ramp("gain.gain", 9.0, 60); ramp("gain.gain", 0.0, 0.5)
put("engine.offline.run", 0.25); print(round(get("gain.gain"), 1))
put("engine.offline.run", 0.3); print(get("gain.gain"))
""", "--offline", "1", environment=OUTLIVED)
        self.assertEqual((result.stdout, result.stderr), ("0.5\n0.0\n", ""))

    def test_completion_among_ten_thousand_ports(self):
        result = run_script("""
from sonetrix_console.completion import candidates
for number in range(5000): engine.newModule(f"m{number}", "amp_mono", None)
for line in ("link('m", "get('m") * 5:
    begin = time.process_time(); found = candidates(line, "m")
    print(time.process_time() - begin); assert len(found) == 10_000
""")
        ports, parameters = (map(float, result.stdout.split()[kind::2]) for kind in range(2))
        self.assertEqual(result.stderr, "")
        self.assertLess(max(min(ports), min(parameters)), 0.05 * SLOWNESS)

    def test_types(self):
        checked = run("mypy", "--strict", "--cache-dir", os.devnull, SOURCE / "python/sonetrix_console",
                      environment={"MYPYPATH": f"{SOURCE}/interface/sonetrix"})
        self.assertEqual(checked.returncode, 0, checked.stdout)


def send(client, text="", do="run", **more):
    print(json.dumps({"do": do, "text": text, **more}), file=client, flush=True)


def receive(client):
    return json.loads(client.readline() or "null")


def finish(client):
    """What the text has printed, and how it ended."""
    printed = ""
    while "done" not in (message := receive(client)):
        printed += message.get("out", "") + message.get("err", "")
    return printed, message["done"]


class Clients(TestWithScreens):
    variables = OUTLIVED

    def setUp(self):
        super().setUp()
        self.connections = self.enterContext(contextlib.ExitStack())
        self.path = self.home / "engine"
        self.console = self.screen(ENGINE, f"--listen={self.path}", columns=40, rows=14)

    def tearDown(self):
        self.ctl("eval", "exit(5)")
        self.console.timeout = 5 * SLOWNESS
        self.assertEqual(self.console.end(), 5)
        self.assertFalse(self.path.exists())

    def ctl(self, *arguments, text_input=""):
        result = run(*CTL, "--socket", self.path, *arguments, text_input=text_input)
        return result.stdout + result.stderr, result.returncode

    def ctl_screen(self, *arguments, **options):
        return self.screen(*CTL, "--socket", self.path, *arguments, columns=40, rows=14, **options)

    def client(self):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(TIME_LIMIT)
            connection.connect(str(self.path))
            return self.connections.enter_context(connection.makefile("rw"))  # which keeps the connection

    def test_commands(self):
        script, saved = self.home / "script", self.home / "saved"
        script.write_text("# coding: latin-1\nimport copy, sys; sys.argv += ['ä']; sys.argv.copy().clear()\n"
                          "print(sys.argv[1:], copy.copy([1] + sys.argv + [2])[3:], input('? ')); sys.exit(7)", "latin-1")
        for arguments, given, printed, status in (
                (["eval", "create('a', 'amp_mono'); create('b', 'amp_mono')"], "", "", 0),
                (["set", "a.gain=2", "b.gain=0.5"], "", "", 0), (["get", "a.gain"], "", "2.0\n", 0),
                (["set", "a.gian=1"], "", "there is no parameter 'a.gian'; did you mean 'a.gain'", 1),
                (["link", "a", "b", "--json"], "", '[["a:output", "b:input"]]\n', 0),
                (["graph"], "", "-> b:input\n", 0), (["save", saved], "", "", 0), (["unlink", "a"], "", "", 0),
                (["load", saved], "", "1 change\n", 0), (["ports"], "", "b:output\nb:input\n", 0),
                (["meters"], "", "system.playback_1 ", 0), (["eval", "x = 6\n7 * x"], "", "42\n", 0),
                (["repl"], "def f():\n    return x\n\nf()\nf(", "6\n", 0),
                (["--json", "eval", "{b'a': (b'b', {2.0**31}), (1, 2): None}"], "",
                 '{"a": ["b", [2147483648.0]], "(1, 2)": null}\n', 0),
                (["set", "engine.log.level=0x3"], "", "", 0), (["get", "system."], "", "", 0),
                (["eval", "1 / 0"], "", '  File "<ctl>", line 1, in <module>\nZeroDivisionError: division', 1),
                (["run", script, "-a", "b"], "typed\n", "['-a', 'b', 'ä'] ['b', 'ä', 2] typed\n", 7),
                (["run", "-"], "print(__name__, 'x' in globals())", "__main__ False\n", 0),
                (["run", "/nonexistent"], "", "/nonexistent", 66), (["link"], "", "required: FROM, TO", 64),
                (["--socket", "/nonexistent", "ports"], "", "No such file", 69)):
            with self.subTest(arguments):
                shown = self.ctl(*arguments, text_input=given)
                self.assertIn(printed, shown[0])
                self.assertEqual((shown[0] != "", shown[1]), (printed != "", status))

    def test_rude_clients_harm_nobody(self):
        polite, stuck = self.client(), self.client()
        for rude in (b"\x00\xff garbage\n", b"{}\n[]\n5\n", b'{"do": "finish"}\n', b"[" * 100_000 + b"\n",
                     b"x" * 3_000_000, b'{"do": "run", "te', b'{"do": "run", "text": "while True: pass"}\n',
                     b'{"do": "run", "text": "while True: print(1)"}\n', b'{"do": "nothing"}\n' * 20_000):
            with socket.socket(socket.AF_UNIX) as connection, contextlib.suppress(OSError):
                connection.settimeout(0.2)
                connection.connect(str(self.path))
                connection.sendall(rude)
            send(polite, "1 + 1")
            self.assertEqual(finish(polite), ("2\n", 0))
        send(stuck, "print('begun'); time.sleep(20)")
        self.assertEqual(receive(stuck), {"out": "begun\n"})
        send(stuck, "1")
        self.assertIn("error", receive(stuck))
        self.console.type("engine.isRunning()\r", shows="^True$")
        self.assertNotIn("begun", self.console.transcript)

    def test_a_hundred_clients_leave_nothing_behind_and_do_not_mix(self):
        def count():
            text = "len(os.listdir('/proc/self/fd')), __import__('gc').collect(), len(__import__('gc').get_objects())"
            return json.loads(self.ctl("--json", "eval", text)[0])

        text = "import sys\nfor _ in range(50): print(sys.argv[1], end=' ')"
        counts = [count()]
        for _ in range(2):
            clients = [self.client() for _ in range(100)]
            for number, client in enumerate(clients):
                send(client, text, space="own", arguments=[str(number)])
            for number, client in enumerate(clients):
                self.assertEqual(finish(client), (f"{number} " * 50, 0))
            self.connections.close()
            end = time.monotonic() + TIME_LIMIT
            while count()[0] != counts[0][0]:
                self.assertLess(time.monotonic(), end, "file descriptors")
            counts.append(count())
        self.assertLess(counts[2][2] - counts[1][2], 50, "objects")

    def test_the_end_of_the_engine_is_that_of_all_clients(self):
        idle, busy = [self.client() for _ in range(20)], self.client()
        send(busy, "print('begun')\nwhile True: time.sleep(0.01)")
        receive(busy)
        repl = self.ctl_screen("repl")
        repl.type("\x1b[200~def twice(x):\n\n    return 2 * x\n\ntwice(4)\n\x1b[201~\r", shows="^8$")
        repl.type("twice(5)\r", shows=r"^10\nengine>\Z")
        repl.type("import sys; print('?'); sys.stdin.readline()\r", shows=r"^\?\Z")
        repl.type("\x03", shows=r"^KeyboardInterrupt\nengine>\Z")
        repl.type("engine.isRun\t)\r", shows="^True$")
        repl.type("import threading; held = threading.Lock()\rheld.acquire(); print('begun'); held.acquire()\r")
        repl.wait_for("^begun$")
        repl.type("\x03\x03", key_every=0.5, shows=r"\^C\^C\nKeyboardInterrupt\nengine>\Z")
        repl.type("6 * 7\r", shows="^RuntimeError: another text")
        self.ctl("eval", "held.release()")
        repl.type("6 * 7\r", shows=r"^42\nengine>\Z")
        self.assertEqual(self.ctl("eval", "exit(5)"), ("", 0))
        repl.wait_for("^sonetrix-ctl: the engine has ended$")
        self.assertEqual(repl.end(), 69)
        self.assertEqual((finish(busy)[1], receive(busy)), (130, None))
        self.assertEqual({receive(client) for client in idle}, {None})

    def test_the_socket_is_its_users_alone(self):
        other = self.home / "other"
        other.touch()
        for place in self.path, other:
            self.assertIn("listens there already, or it is no", self.ctl("eval", f"serve('{place}')")[0])
        self.assertEqual(self.path.stat().st_mode & 0o777, 0o600)
        if os.getuid() == 0:  # who can be somebody else for a moment
            self.home.chmod(0o777)
            self.path.chmod(0o777)
            os.seteuid(65534)
            self.addCleanup(os.seteuid, 0)
            theirs = self.client()
            os.seteuid(0)
            self.assertEqual(receive(theirs), None)

    def test_views_at_forty_columns(self):
        def watch(screen):
            screen.wait_for("^load +[0-9.]+ %", shown=True)
            screen.resize(34)
            screen.wait_for("^load +[0-9.]+ %(.|\n)*^worst +[0-9.]+ of [0-9.]+ ms\n^xruns +[0-9]+$", shown=True)
            self.assertEqual("".join(screen.shown()).count("load"), 1)
            screen.type("q")

        client = self.ctl_screen("top", prompt="load")
        watch(client)
        self.assertEqual(client.end(), 0)
        client = self.ctl_screen("top", prompt="load")
        self.console.process.send_signal(signal.SIGSTOP)  # Ctrl-C is a key there that nobody reads
        client.type("\x03\x03")
        status = client.end()
        self.console.process.send_signal(signal.SIGCONT)
        self.assertEqual(status, 130)
        client = self.ctl_screen("top", prompt="^xruns(.|\n)*^xruns", terminal="dumb")
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
        for screen in client, self.console:
            self.assertNotRegex(screen.transcript, "KeyboardInterrupt\n|Traceback")
