"""Every example does what it says, run as a newcomer would run it."""

import itertools
import math
import pathlib
import subprocess
import tempfile
import unittest

import support
from support import console, in_real_time, programs, sound

EXAMPLES = support.SOURCE / "examples"
ROOT_2 = math.sqrt(2)


class Examples(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_example(self, name, *arguments, options=(), status=0, errors=""):
        result = programs.run_engine(*options, EXAMPLES / name, *arguments)
        self.assertEqual((result.returncode, result.stderr), (status, errors), result.stdout)
        return result.stdout

    def test_there_is_a_test_for_each(self):
        tests = "".join(name for name in dir(self) if name.startswith("test_"))
        self.assertEqual([path.name for path in EXAMPLES.glob("*.py") if path.stem not in tests], [])

    def test_chain(self):
        recording = self.folder / "chain.wav"
        self.run_example("chain.py", options=["--record", recording, "--offline", 3])
        heard = sound.read(recording)
        self.assertEqual(heard.seconds, 3)
        for second, levels in enumerate([(0.25, 0.25), (0.0625, 0.0625), (0, 0.5)]):
            part = heard.part(second + 0.01, second + 1)
            for channel, (level, measured) in enumerate(zip(levels, part.levels())):
                with self.subTest(second=second, channel=channel):
                    self.assertAlmostEqual(measured, level / ROOT_2, delta=0.001)
                    self.assertAlmostEqual(part.frequency(channel), 440 if level else 0, delta=0.1)

    @in_real_time
    def test_chain_in_real_time(self):
        recording = self.folder / "chain.wav"
        self.run_example("chain.py", options=["--record", recording, "--log-level", "error"])
        heard = sound.read(recording)
        windows = [heard.part(index / 50, (index + 1) / 50) for index in range(int(heard.seconds * 50))]
        peaks = [tuple(round(max(channel), 2) for channel in window.channels) for window in windows]
        lasting = [levels for levels, group in itertools.groupby(peaks) if len(list(group)) >= 25 and any(levels)]
        self.assertEqual(lasting, [(0.25, 0.25), (0.06, 0.06), (0, 0.5)])

    def test_graph_table(self):
        self.assertEqual(self.run_example("graph_table.py"), """\
MODULE  KIND       DETAIL
system  driver
        sink       system:playback_1 <- gain:output
        sink       system:playback_2 <- gain:output
        source     system:capture_1 -> nothing
        source     system:capture_2 -> nothing
tone    sine_fcac
        parameter  tone.frequency = 440.0
        parameter  tone.amplitude = 0.5
        source     tone:output -> gain:input
gain    amp_mono
        parameter  gain.gain = 0.5
        sink       gain:input <- tone:output
        source     gain:output -> system:playback_1, system:playback_2
""")

    def test_graph_dot(self):
        file = self.folder / "graph.dot"
        self.run_example("graph_dot.py", status=1, errors=f"usage: {EXAMPLES / 'graph_dot.py'} FILE\n")
        self.run_example("graph_dot.py", file)
        plain = subprocess.run(["dot", "-Tplain", file], capture_output=True, text=True, check=True).stdout
        words = [line.split() for line in plain.splitlines()]
        self.assertEqual(sum(line[0] == "node" for line in words), 5)
        self.assertEqual(sum(line[0] == "edge" and "invis" not in line for line in words), 4)
        # The picture of the documentation is made from this example.
        picture = (support.SOURCE / "docs" / "graph.svg").read_text()
        self.assertEqual(picture.count('class="node"'), 5)
        for port in ("tone:output", "gain:input", "echo:output", "system:playback_2"):
            self.assertIn(f">{port}<", picture)

    def test_watch_parameter(self):
        changes = "gain.gain is now 0.4\ngain.gain is now 0.3\ngain.gain is now 0.2\n"
        self.assertEqual(self.run_example("watch_parameter.py"), changes)
        with console.Console("-i", EXAMPLES / "watch_parameter.py") as terminal:
            terminal.prompt()
            terminal.send('chain.set_parameter("gain.gain", 0.75)')
            terminal.expect(r"gain\.gain is now 0\.75\n")
            terminal.send('del watch; print("unwatched")')
            terminal.expect("\nunwatched\n")
            terminal.send('chain.set_parameter("gain.gain", 0.5); time.sleep(0.2); print("written")')
            self.assertNotIn("is now", terminal.expect("\nwritten\n"))
            self.assertEqual(terminal.end("exit(3)"), 3)

    def test_level_meter(self):
        # The tone's peak of 0.25 is 12 dB below full scale, which is a fifth of the bar's 60.
        reading = r"\n#*-* +-\d+\.\d dB"  # subprocess makes the carriage return a line feed
        self.assertRegex(self.run_example("level_meter.py", 1.5 * support.SLOWNESS),
                         rf"^({reading})*(\n#{{32}}-{{8}}  -12\.0 dB)+\n$")
        with console.Console(EXAMPLES / "level_meter.py") as terminal:
            terminal.expect(r"-12\.0 dB")
            terminal.control("C")
            self.assertEqual(terminal.end(), 0)
            self.assertNotIn("Traceback", terminal.transcript)

    def test_ramp_gain(self):
        recording = self.folder / "ramp.wav"
        self.run_example("ramp_gain.py", options=["--record", recording, "--log-level", "error"])
        heard = sound.read(recording)
        peaks = [max(heard.part(step / 50, (step + 1) / 50).channels[0]) for step in range(int(heard.seconds * 50))]
        self.assertAlmostEqual(peaks[-1], 0.5, delta=0.001)
        self.assertLess(max(a - b for a, b in zip(peaks, peaks[1:])), 0.001)
        # What turns a 440 Hz tone of that level from one sample to the next is 0.0017; a click would be far more.
        samples = heard.channels[0]
        self.assertLess(max(abs(a - 2 * b + c) for a, b, c in zip(samples, samples[1:], samples[2:])), 0.0025)

    @in_real_time
    def test_wait_for_event(self):
        tune, recording = self.folder / "in.wav", self.folder / "out.wav"
        sound.write_tone(tune, 1000, 0.5, 1.0)
        self.assertEqual(self.run_example("wait_for_event.py", options=[
            "--input", tune, "--record", recording, "--log-level", "error"]), "silence\n")
        for channel, peak in zip(sound.read(recording).channels, [0.5, 0]):  # the file has one channel
            self.assertAlmostEqual(max(channel), peak, delta=0.001)


if __name__ == "__main__":
    unittest.main()
