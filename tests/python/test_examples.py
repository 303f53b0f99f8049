"""Every example, and the README's session, does what it says, run as a newcomer would run it."""

import pathlib
import re
import tempfile
import unittest

from support import SOURCE, in_real_time, sound
from support.console import Console
from support.programs import run, run_engine

EXAMPLES = SOURCE / "examples"


class Examples(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_example(self, name, *arguments, options=(), status=0, errors=""):
        result = run_engine(*options, EXAMPLES / name, *arguments)
        self.assertEqual((result.returncode, result.stderr), (status, errors), result.stdout)
        return result.stdout

    def record(self, name, *options, **how):
        """What it prints, and what is heard."""
        file = self.folder / "out.wav"
        printed = self.run_example(name, options=["--record", file, "--log-level", "error", *options], **how)
        return printed, sound.read(file)

    def test_there_is_a_test_for_each(self):
        tests = "".join(name for name in dir(self) if name.startswith("test_"))
        self.assertEqual([path.name for path in EXAMPLES.glob("*.py") if path.stem not in tests], [])

    def test_chain(self):
        _, heard = self.record("chain.py", "--offline", 3)
        for second, levels in enumerate([(0.25, 0.25), (0.0625, 0.0625), (0, 0.5)]):
            part = heard.part(second + 0.01, second + 1)
            for channel, (level, measured) in enumerate(zip(levels, part.amplitudes())):
                with self.subTest(second=second, channel=channel):
                    self.assertAlmostEqual(measured, level, delta=0.002)
                    self.assertAlmostEqual(part.frequency(channel), 440 if level else 0, delta=0.1)

    def test_graph_table_and_graph_dot(self):
        table = self.run_example("graph_table.py")
        for line in ("MODULE  KIND       DETAIL", "        sink       system:playback_1 <- gain:output",
                     "        source     system:capture_1 -> nothing", "        parameter  tone.frequency = 440.0",
                     "        source     gain:output -> system:playback_1, system:playback_2"):
            self.assertIn(line, table.splitlines())
        file = self.folder / "graph.dot"
        self.run_example("graph_dot.py", status=1, errors=f"usage: {EXAMPLES / 'graph_dot.py'} FILE\n")
        self.run_example("graph_dot.py", file)
        words = [line.split() for line in run("dot", "-Tplain", file).stdout.splitlines()]
        self.assertEqual([sum(line[0] == kind and "invis" not in line for line in words)
                          for kind in ("node", "edge")], [5, 4])
        # The picture of the documentation is made from this example.
        self.assertEqual((SOURCE / "docs" / "graph.svg").read_text().count('class="node"'), 5)

    def test_watch_parameter(self):
        changes = "gain.gain is now 0.4\ngain.gain is now 0.3\ngain.gain is now 0.2\n"
        self.assertEqual(self.run_example("watch_parameter.py"), changes)
        with Console("-i", EXAMPLES / "watch_parameter.py") as terminal:
            terminal.enter('chain.set_parameter("gain.gain", 0.75)', r"gain\.gain is now 0\.75\n")

    def test_level_meter(self):
        # The tone's peak of 0.25 is 12 dB below full scale, which is a fifth of the bar's 60.
        with Console(EXAMPLES / "level_meter.py") as terminal:
            terminal.expect(r"#{32}-{8}  -12\.0 dB")
            terminal.send("\x03")
            self.assertEqual(terminal.end(), 0)
            self.assertNotIn("Traceback", terminal.transcript)

    def test_ramp_gain(self):
        _, heard = self.record("ramp_gain.py")
        peaks = [max(heard.part(step / 50, (step + 1) / 50).channels[0]) for step in range(int(heard.seconds * 50))]
        self.assertAlmostEqual(peaks[-1], 0.5, delta=0.001)
        self.assertLess(max(a - b for a, b in zip(peaks, peaks[1:])), 0.001)

    @in_real_time
    def test_wait_for_event(self):
        tune = self.folder / "in.wav"
        sound.write_tone(tune, 1000, 0.5, 3.0)  # longer than it takes to start
        printed, heard = self.record("wait_for_event.py", "--input", tune)
        self.assertEqual((printed, *(round(max(channel), 2) for channel in heard.channels)), ("silence\n", 0.5, 0))

    def test_readme(self):
        blocks = re.findall(r"^```\n(engine> .*?)^```$", (SOURCE / "README.md").read_text(), re.M | re.S)
        *entries, last = re.split("^engine> ", "".join(blocks), flags=re.M)[1:]
        with Console(cwd=self.folder) as terminal:
            for line, shown in (entry.rstrip("\n").partition("\n")[::2] for entry in entries):
                with self.subTest(line):
                    answer = re.sub(r'"__engine__-\d+"', '"__engine__"', terminal.ask(line))  # from 3.14 on numbered
                    self.assertEqual(answer, shown)
            terminal.prompt()
            self.assertEqual((last, terminal.end("exit(3)")), ("exit(3)\n", 3))
