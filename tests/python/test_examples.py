"""Every example, and the README's session, does what it says, run as a newcomer would run it."""

import re

from support import SOURCE, in_real_time, live, programs, sound
from support.console import Console

EXAMPLES = SOURCE / "examples"


class Examples(live.LiveTest):
    def run_example(self, name, *arguments, options=(), **expected):
        return self.printed(programs.run_engine(*options, EXAMPLES / name, *arguments), **expected)

    def record_example(self, name, *options):
        printed = self.run_example(name, options=["--record", "out.wav", "--log-level", "error", *options])
        return printed, sound.read("out.wav")

    def test_chain(self):
        _, heard = self.record_example("chain.py", "--offline", 3)
        for second, levels in enumerate([(0.25, 0.25), (0.0625, 0.0625), (0, 0.5)]):
            for channel, level in enumerate(levels):
                with self.subTest(second=second, channel=channel):
                    self.assert_tone(heard.part(second + 0.01, second + 1), 440 if level else 0, level, channel)

    def test_graph_table_and_graph_dot(self):
        self.assertRegex(self.run_example("graph_table.py"), r"(?s)\AMODULE  KIND       DETAIL\n.*"
                         r" parameter  gain.gain = 0.5\n {8}sink       gain:input <- tone:output\n"
                         r" {8}source     gain:output -> system:playback_1, system:playback_2\n\Z")
        self.run_example("graph_dot.py", status=1, log="usage: .*graph_dot.py FILE\n")
        self.run_example("graph_dot.py", "graph.dot")
        # The picture of the documentation is made from this example.
        for picture in programs.run("dot", "-Tsvg", "graph.dot").stdout, (SOURCE / "docs" / "graph.svg").read_text():
            self.assertEqual([picture.count(f'class="{kind}"') for kind in ("node", "edge")], [5, 4])

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

    def test_ramp_gain_does_not_click(self):
        _, heard = self.record_example("ramp_gain.py")
        self.assert_tone(heard.part(-0.1), 440, 0.5)
        self.assertLess(heard.part(-0.8, -0.7).amplitudes()[0], 0.4)
        self.assertLess(heard.sharpest_bend(), 0.0025)  # the steps of the fade are 0.005 high

    @in_real_time
    def test_wait_for_event(self):
        sound.write_tone("in.wav", 1000, 0.5, 3.0)  # longer than it takes to start
        printed, heard = self.record_example("wait_for_event.py", "--input", "in.wav")
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
