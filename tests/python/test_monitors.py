"""cpu and usageInfo with stand-ins for the engine and the terminal, and on a terminal of 40 columns; memory.inspect."""

import contextlib
import io
import itertools
import os
import signal
import unittest
from unittest import mock

from support import console, record

HIDE, SHOW = "\x1b[?25l\r", "\x1b[?25h\n"
LINE = "  2.5% (   0.1234ms)   3.1% (   0.2000ms) [err:  6.8% maxtime:    2.5000ms]    "
FIGURES = 2.5, 3.1, 0.0001234, 0.0002, 0.0025, 0.5


class MonitorTest(record.TestCase):
    def shown(self, monitor, *arguments, columns=200, lines=50, **results):
        """What the monitor prints while a function of the engine gives these results; it sleeps after each."""
        rounds = sum(map(len, results.values()))
        size = os.terminal_size((columns, lines)) if columns is not None else OSError
        with contextlib.ExitStack() as stack:
            output = stack.enter_context(contextlib.redirect_stdout(io.StringIO()))
            for name, values in {"isRunning": [1] * rounds + [0], **results}.items():
                stack.enter_context(mock.patch.object(self.sonetrix.engine, name, side_effect=values))
            stack.enter_context(mock.patch("os.get_terminal_size", side_effect=itertools.repeat(size)))
            sleep = stack.enter_context(mock.patch("time.sleep"))
            self.assertIsNone(monitor(*arguments))
        self.assertEqual(sleep.mock_calls, [mock.call(0.1)] * rounds)
        return output.getvalue()

    def test_cpu(self):
        cpu = self.sonetrix.cpu
        self.assertEqual(self.shown(cpu), HIDE + SHOW)
        for columns, shown in (200, LINE), (40, LINE[:40]), (0, LINE):
            self.assertEqual(self.shown(cpu, cpuInfo=[list(FIGURES)], columns=columns), f"{HIDE}\r{shown}{SHOW}")
        self.assertIn("[err:  0.0% maxtime:    0.0000ms]", self.shown(cpu, cpuInfo=[(1, 2, 3, 4, 0, 0)]))
        falling = [FIGURES, (1.0, 5.0, 0.0001234, 0.0003, 0.0025, 0), (0, 0, 1e-3, 2e-3, 0.0025, 0)]
        shown = self.shown(cpu, [1], cpuInfo=falling).split("\r")[2:]
        self.assertEqual([(line[:5], line[8:17], line[21:26], line[29:38]) for line in shown], [
            ("  2.5", "   0.1234", "  3.1", "   0.2000"), ("  2.5", "   0.1234", "  5.0", "   0.3000"),
            ("  2.5", "   1.0000", "  5.0", "   2.0000")])

    def test_failures(self):
        cpu, usage = self.sonetrix.cpu, self.sonetrix.usageInfo
        for count, text in ((7, "too many values to unpack (expected 6)"), (5, "need more than 5 values to unpack"),
                            (1, "need more than 1 value to unpack")):
            self.assertRefused(ValueError, text, self.shown, cpu, cpuInfo=[range(count)])
        self.assertRaises(OSError, self.shown, cpu, columns=None, cpuInfo=[FIGURES])
        for odd in {"a": 5}, 5, {5: {}}, {b"a": {}}:
            self.assertRaises((TypeError, KeyError, AttributeError), self.shown, usage, getUsageInfo=[odd])
        with mock.patch("builtins.print", side_effect=UnicodeEncodeError("ascii", "", 0, 0, "")):
            self.assertEqual(self.shown(cpu), "")

    def test_the_cursor_comes_back_though_another_interrupt_strikes(self):
        printed = []
        def interrupted(text, **_):
            printed.append(text)
            if printed == [HIDE[:-1], SHOW[:-1]]:
                raise KeyboardInterrupt
        with mock.patch.object(self.sonetrix, "print", interrupted, create=True):
            self.assertRaises(KeyboardInterrupt, self.shown, self.sonetrix.cpu, cpuInfo=[KeyboardInterrupt])
        self.assertEqual(printed, [HIDE[:-1], *[SHOW[:-1]] * 2])

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
        small = self.shown(self.sonetrix.usageInfo, columns=9, lines=3, getUsageInfo=[usage])
        self.assertEqual([len(line.lstrip("\r")) for line in small.removeprefix(HIDE).split("\x1b[K\n")[:-1]], [9, 9])

    def test_memory(self):
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.assertIsNone(self.sonetrix.memory.inspect())
        self.assertEqual(output.getvalue(), "RT Memory Inspect:\n")
        self.assertEqual([call[:3] for call in record.calls()], [("sonetrix_memory_rt_inspect", (), False)])


class OnATerminal(unittest.TestCase):
    def test_monitors(self):
        """Cut to the terminal, which has no line for the fifth module."""
        for monitor, full in ("cpu", r"(\r[^\r]{40}){3}"), ("usageInfo", r"\x1b\[5A\r"):
            with self.subTest(monitor), console.Console(columns=40, rows=6) as terminal:
                for index in range(5):
                    terminal.ask(f"engine.newModule('module_{index}', 'amp_mono', None)")
                terminal.prompt()
                terminal.sendline(f"{monitor}()")
                terminal.expect_exact(HIDE[:-1])
                terminal.expect(f"(?={full})")
                terminal.process.send_signal(signal.SIGINT)
                terminal.expect_exact(SHOW[:-1])
                self.assertRegex(terminal.before, r"[^\r\n\x1b]{40}")
                self.assertNotRegex(terminal.before, r"[^\r\n\x1b]{41}")
                terminal.expect("KeyboardInterrupt\n")
                terminal.prompt()
                terminal.sendline(f"stop = engine.addTimer(500, exit); {monitor}()")
                terminal.expect_exact(SHOW[:-1])
                self.assertEqual(terminal.end(), 0)
