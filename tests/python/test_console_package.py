# ctest: timeout=240
"""The console's package on a terminal, as a person sees it: on the development engine and on another one."""

import os
import pathlib
import re
import signal
import tempfile
import time
import unittest

from support import ENGINE, RUN, SOURCE
from support.console import Screen
from support.programs import PACKAGES, minimal_engine, run, run_script

BLOCK = "def twice(x):\n    y = 2 * x\n\n    return y\n\ntwice(4)\ntwice(21)\n"


class OnATerminal(unittest.TestCase):
    def setUp(self):
        self.home = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.history = self.home / "state/sonetrix/history"

    def screen(self, program=ENGINE, **options):
        options["environment"] = {
            "HOME": self.home, "XDG_STATE_HOME": self.home / "state", "XDG_CONFIG_HOME": self.home / "config",
            "PYTHONPATH": f"{self.home}:{PACKAGES}", "PYTHON_COLORS": "0"}
        first, *rest = [program] if program == ENGINE else [*RUN, program]
        screen = self.enterContext(Screen(*rest, program=first, cwd=self.home, **options))
        screen.wait_for("^engine>$")
        return screen

    def test_prompt(self):
        (self.home / "mine.py").write_text("value = 'imported'\n")
        startup = self.home / "config/sonetrix/startup.py"
        startup.parent.mkdir(parents=True)
        startup.write_text("started = 'start-up file'\n")

        for program in ENGINE, minimal_engine():
            with self.subTest(program.name):
                screen = self.screen(program)
                screen.wait_for(r"^SoneTrix \d+\.\d+\.\d+, Python 3\.[\d.]+, (clock at 48000 Hz|no driver); help")
                for typed, shown in {
                    "import mine; mine.value, started": r"^\('imported', 'start-up file'\)$",
                    "listKeyValue().append('a', 1.5)": r"^listKeyValue\(\{b'a': 1\.5\}\)$",
                    "exit": r"^exit\(\) stops the engine",
                    "get('system.gin')": "^sonetrix_console.Unknown: there is no parameter 'system.gin'",
                }.items():
                    screen.type(typed + "\r", shows=shown)
                self.assertNotIn("words.py", "\n".join(screen.lines()))
                screen.type("import os, signal; os.kill(os.getpid(), signal.SIGKILL)\r")
                self.assertEqual(screen.end(), -signal.SIGKILL)
                self.assertEqual(self.history.stat().st_mode & 0o777, 0o600)
                screen = self.screen(program)  # the line that ended the engine is there
                screen.type("\x1b[A", shows="^engine> import os, signal; os.kill")

    def test_without_line_editing(self):
        (self.home / "readline.py").write_text("raise ImportError\n")
        screen = self.screen(terminal="vt100")
        screen.type("x = after(1, lambda: print('later'))\r", shows="^later\nengine>$")
        screen.type("paste()\r", shows="single dot$")
        screen.type(BLOCK.replace("\n", "\r") + ".\r", shows=r"^8\n42$")

    def test_completion(self):
        (self.home / "folder").mkdir()
        (self.home / "folder/file.txt").touch()
        screen = self.screen()
        screen.type("create('tone', 'sine_fcac'); create('gain', 'amp_mono'); create('gain2', 'amp_mono'); 'made'\r")
        screen.wait_for("^'made'\nengine>$")
        for typed, shown in {
            "engine.isR": "engine.isRunning(", "import ctyp": "import ctypes",
            "from sonetrix_console import stat": "from sonetrix_console import state",
            "link('x', 'gain:i": "link('x', 'gain:input'", "engine.newModule('tone', 'amp_m":
            "engine.newModule('tone', 'amp_mono'", "engine.getParam(['tone.f": "engine.getParam(['tone.frequency'",
            "engine.setParams(listKeyValue().append('gain2.g": "engine.setParams(listKeyValue().append('gain2.gain'",
            "open('fol": "open('folder/file.txt'", "open('folder/f": "open('folder/file.txt'", "'to": "'to",
        }.items():
            with self.subTest(typed):
                screen.type(f"\x05\x15{typed}\t", shows=f"^engine> {re.escape(shown)}$")
        screen.type("\x05\x15get('gain\t")  # several: they are shown
        screen.wait_for(r"^gain\.gain +gain\.plugin +gain2\.gain +gain2\.plugin\n+engine> get\('gain$")

    def test_pasted_blocks(self):
        for program in ENGINE, minimal_engine():
            with self.subTest(program.name):
                screen = self.screen(program)
                screen.type(f"\x1b[200~{BLOCK}1 / 0\n\x1b[201~", shows="^1 / 0$")
                screen.type("\r")
                screen.wait_for('^8\n42\nTraceback .*\n  File "<pasted 1>", line 8, in <module>\n(    .*\n)*Zero.*\nengine>$')
                screen.type("\x1b[A")  # one entry of the history
                screen.wait_for(r"^engine> def twice\(x\):\n    y = 2 \* x\n\n    return y\n(.*\n)+1 / 0\Z")
                screen.type("\x03", shows=r"^KeyboardInterrupt\nengine>\Z")
                screen.type("for i in range(2):\r", shows=r"^\.\.\.\Z")
                screen.type("\x1b[200~    x = i\n\n    print('i', x)\n\x1b[201~\r\r", shows=r"^i 0\ni 1\nengine>$")

    def test_output_while_typing(self):
        """A timer, the log, a thread and a person, all at the same time."""
        setup = ("import threading\rgo = True; typed = []; noted = iter(range(10**6))\r"
                 "def work():\r while go: print('thread', next(noted)); time.sleep(.02); log.warn('logged')\r\r"
                 "threading.Thread(target=work).start()\r")
        ticks = "count = iter(range(10**6)); x = every(30, lambda: print('tick', next(count)))\r"
        typed = [f"typed.append({number}) # {'some words ' * (number % 4 * 2)}" for number in range(12)]
        for program, terminal, columns in (
                (ENGINE, "xterm", 80), (ENGINE, "vt100", 40), (minimal_engine(), "xterm", 80), (ENGINE, "dumb", 80)):
            with self.subTest(program.name, terminal=terminal):
                screen = self.screen(program, terminal=terminal, columns=columns)
                screen.type(setup + ticks * (program == ENGINE), shows="^thread 9$")
                for number, line in enumerate(typed):
                    if number == 6:
                        time.sleep(1.5)  # the terminal takes nothing any more
                    screen.wait_for(r"^engine>\Z")  # what is typed before, the terminal itself echoes
                    screen.type(line + "\r", key_every=0.004)
                screen.type("go = False; callbacks(); [each.stop() for each in [globals().get('x')] if each]\r")
                screen.type("sum(typed), 'end'\r", shows=r"^\(66, 'end'\)$")
                lines = screen.lines()
                lines = lines[lines.index("thread 9"):]
                self.assertEqual([line for line in lines if line.count("engine>") > 1], [])
                for word in ("thread", "tick") if program == ENGINE else ("thread",):  # each whole, and none missing
                    numbers = [int(line.split()[1]) for line in lines if re.fullmatch(rf"{word} \d+", line)]
                    self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))
                if terminal == "xterm":
                    other = [line for line in lines if not re.fullmatch(r"thread \d+|tick \d+|.*python.*: logged", line)]
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
create("tone", "sine_fcac", frequency=220); create("gain", "amp_mono")
assert get("tone.frequency") == 220.0 and get("gain.") == {"gain.gain": 1.0, "gain.plugin": "amp_mono"}
put("gain.gain", 0.1); put("tone.frequency", 330)
assert (get("gain.gain"), get("tone.frequency")) == (0.1, 330.0)
assert issubclass(Unknown, LookupError) and issubclass(Unfit, TypeError)
assert refused(put, "tone.frequency", 1e9).endswith("it takes 0 to 24000 Hz")
assert refused(put, "gain.gain", "loud") == "gain.gain takes a value of type float, not 'loud'"
assert "did you mean 'sine_fcac'" in refused(create, "x", "sine_fcax")
assert refused(create, "tone", "sine_fcac") == "there is a module 'tone' already"
assert connect("tone", "gain") == [("tone:output", "gain:input")] and connect("tone", "gain") == []
assert len(connect("gain", "system")) == 2
assert "system:playback_1 by gain:output" in refused(connect, "tone", "system:playback_1")
assert connect("tone", "system:playback_1", replace=True) == [("tone:output", "system:playback_1")]
assert "did you mean 'tone:output'" in refused(connect, "tone.output", "gain")
assert disconnect("tone", "system") == [("tone:output", "system:playback_1")]
import json; plain = json.loads(json.dumps(state()))["modules"]
assert plain["tone"]["sources"] == {"tone:output": ["gain:input"]} and plain["gain"]["parameters"] == {"gain": 0.1}
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
ramp("gain.gain", 0.0, 60); ramp("gain.gain", 0.5, 0.1)
time.sleep(1); callbacks(); bad.stop(); slow.stop(); levels.stop(); watch.stop()
assert seen.count("once") == once.calls == 1 and bad.errors == bad.calls > 1
assert get("gain.gain") == 0.5 and {"gain.gain": 0.5} in seen and any("system.playback_1.peak" in each for each in seen)
assert refused(ramp, "gain.gian", 1, 1)
""")
        self.assertEqual(result.stderr.count("ZeroDivisionError"), 1)  # the same one once, with its traceback
        self.assertRegex(result.stderr, r'every <lambda> #\d+:\nTraceback .*\n  File ".*\.py", line 7, in <lambda>')
        self.assertRegex(result.stderr, r"the callback every <lambda> #\d+ took \d\d ms")
        self.assertRegex(result.stdout, r"(?m)^every <lambda> #\d+  \d+ calls  mean .* errors, the last ZeroDivision")

    def test_a_ramp_goes_by_the_time_of_what_is_rendered(self):
        result = run_script("""
from sonetrix_console import *
create("gain", "amp_mono"); ramp("gain.gain", 0.0, 0.5)
put("engine.offline.run", 0.25); print(round(get("gain.gain"), 1)); put("engine.offline.run", 0.3); print(get("gain.gain"))
""", "--offline", "1")
        self.assertEqual((result.stdout, result.stderr), ("0.5\n0.0\n", ""))

    def test_types(self):
        checked = run("mypy", "--strict", "--cache-dir", os.devnull, SOURCE / "python/sonetrix_console",
                      environment={"MYPYPATH": f"{SOURCE}/interface/sonetrix"})
        self.assertEqual(checked.returncode, 0, checked.stdout)
