"""cpu and usageInfo with stand-ins for the engine and the terminal, and on a terminal of 40 columns; memory.inspect."""

import contextlib
import io
import os
import re
import signal
import unittest
from unittest import mock

from support import console, record

HIDE, SHOW = "\x1b[?25l\r", "\x1b[?25h\n"
LINE = "  2.5% (   0.1234ms)   3.1% (   0.2000ms) [err:  6.8% maxtime:    2.5000ms]    "
FIGURES = 2.5, 3.1, 0.0001234, 0.0002, 0.0025, 0.5


class MonitorTest(record.TestCase):
    def shown(self, monitor, *arguments, columns=200, **results):
        """What the monitor prints while a function of the engine gives these results; it sleeps after each."""
        rounds = sum(map(len, results.values()))
        results["isRunning"] = [1] * rounds + [0]
        stand_ins = {name: mock.Mock(side_effect=values) for name, values in results.items()}
        with (mock.patch.multiple(self.sonetrix.engine, **stand_ins), mock.patch("time.sleep") as sleep,
              mock.patch("os.get_terminal_size", return_value=os.terminal_size((columns, 50))),
              contextlib.redirect_stdout(io.StringIO()) as output):
            self.assertIsNone(monitor(*arguments))
        self.assertEqual(sleep.mock_calls, [mock.call(0.1)] * rounds)
        return output.getvalue()

    def test_cpu(self):
        cpu = self.sonetrix.cpu
        for columns in 200, 0:
            self.assertEqual(self.shown(cpu, cpuInfo=[[*FIGURES]], columns=columns), f"{HIDE}\r{LINE}{SHOW}")
        self.assertIn("[err:  0.0% maxtime:    0.0000ms]", self.shown(cpu, cpuInfo=[(1, 2, 3, 4, 0, 0)]))
        changing = [FIGURES, (1.0, 5.0, 0.0001234, 0.0003, 0.0025, 0), (0, 0, 1e-3, 2e-3, 0.0025, 0)]
        shown = self.shown(cpu, [1], cpuInfo=changing).split("\r")[2:]
        self.assertEqual([(line[:5], line[8:17], line[21:26], line[29:38]) for line in shown], [
            ("  2.5", "   0.1234", "  3.1", "   0.2000"), ("  2.5", "   0.1234", "  5.0", "   0.3000"),
            ("  2.5", "   1.0000", "  5.0", "   2.0000")])

    def test_failures(self):
        cpu, usage = self.sonetrix.cpu, self.sonetrix.usageInfo
        for count, text in ((7, "too many values to unpack (expected 6)"), (5, "need more than 5 values to unpack"),
                            (1, "need more than 1 value to unpack")):
            self.assertRefused(ValueError, text, self.shown, cpu, cpuInfo=[range(count)])
        self.assertRaises(KeyError, self.shown, usage, getUsageInfo=[{b"a": {}}])
        with mock.patch("builtins.print", side_effect=UnicodeEncodeError("ascii", "", 0, 0, "")):
            self.assertEqual(self.shown(cpu), "")

    def test_the_cursor_comes_back_though_another_interrupt_strikes(self):
        print_ = mock.Mock(side_effect=[None, KeyboardInterrupt, None])
        with mock.patch.object(self.sonetrix, "print", print_, create=True):
            self.assertRaises(KeyboardInterrupt, self.shown, self.sonetrix.cpu, cpuInfo=[KeyboardInterrupt])
        self.assertEqual([call.args[0] for call in print_.mock_calls], [HIDE[:-1], *[SHOW[:-1]] * 2])

    def test_usage(self):
        usage = {b"idle": {"absolute": 0.0, "relative": 0.0, "processId": 1},
                 "b\xe4".encode(): {"absolute": 30.0, "relative": 60.0, "processId": 2**32 - 1},
                 b"\xff": {"absolute": 10.0, "relative": 40.0, "processId": 7}}
        shown = self.shown(self.sonetrix.usageInfo, getUsageInfo=[usage, {}])
        first, second = shown.removeprefix(HIDE).removesuffix(SHOW).split("\x1b[J")[:2]
        self.assertEqual([line.split() for line in first.replace("\x1b[K", "").split("\n")[1:4]], [
            ["4294967295", "60.00%", "30.00%", "75%", "b\xe4"], ["7", "40.00%", "10.00%", "25%", "\ufffd"],
            ["1", "0.00%", "0.00%", "0%", "idle"]])
        self.assertTrue(second.startswith("\x1b[4A\r"))  # over the first table

    def test_memory(self):
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.assertIsNone(self.sonetrix.memory.inspect())
        self.assertEqual(output.getvalue(), "RT Memory Inspect:\n")
        self.assertEqual([call[:3] for call in record.calls()], [("sonetrix_memory_rt_inspect", (), False)])


class OnATerminal(unittest.TestCase):
    def test_monitors(self):
        """Cut to the terminal, which has no line for the fifth module, until Ctrl-C or the engine's end."""
        for monitor, full in ("cpu", r"(\r[^\r]{40}){3}"), ("usageInfo", r"\x1b\[5A\r"):
            with self.subTest(monitor), console.Console(columns=40, rows=6) as terminal:
                for index in range(5):
                    terminal.ask(f"engine.newModule('module_{index}', 'amp_mono', None)")
                terminal.enter(f"{monitor}()", f"(?={full})")
                terminal.process.send_signal(signal.SIGINT)
                terminal.expect_exact(SHOW[:-1])
                self.assertRegex(terminal.before, r"[^\r\n\x1b]{40}")
                self.assertNotRegex(terminal.before, r"[^\r\n\x1b]{41}")
                terminal.enter(f"stop = engine.addTimer(500, exit); {monitor}()", re.escape(SHOW[:-1]))
                self.assertEqual(terminal.end(), 0)
