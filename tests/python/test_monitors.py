"""cpu and usageInfo with stand-ins for the engine and the terminal, and on a terminal of 40 columns; memory.inspect."""

import contextlib
import io
import os
import re
import unittest
from unittest import mock

from support import console, record

HIDE, SHOW = "\x1b[?25l\r", "\x1b[?25h\n"
LINE = "  2.5% (   0.1234ms)   3.1% (   0.2000ms) [err:  6.8% maxtime:    2.5000ms]    "
REDRAWN = {
    "cpu": r"(\r *\d+\.\d% \( *\d+\.\d{4}ms\) .{19})+",
    # Modules of which the engine knows no load yet are not in the first tables.
    "usageInfo": r"((\x1b\[[2-5]A)?\r    pid  relative  absolute  share  modu\x1b\[K\n"
                 r"( *\d+ +\d+\.\d\d% +\d+\.\d\d% +\d+%  .{4}\x1b\[K\n){1,4}\x1b\[J)+",
}
FULL = {"cpu": "(?s)(?=\x1b.*%.*%.*%.*%)", "usageInfo": r"(?s)(?=\x1b.*\x1b\[5A)"}
FIGURES = 2.5, 3.1, 0.0001234, 0.0002, 0.0025, 0.5


class MonitorTest(record.TestCase):
    def shown(self, monitor, *arguments, rounds=(), columns=200, lines=50, **stand_ins):
        """What the monitor prints while engine functions give these values; each round sleeps a tenth of a second."""
        output = io.StringIO()
        with contextlib.ExitStack() as stack:
            stack.enter_context(contextlib.redirect_stdout(output))
            for name, values in {"isRunning": [*rounds, 0], **stand_ins}.items():
                stack.enter_context(mock.patch.object(self.sonetrix.engine, name, side_effect=values))
            size = os.terminal_size((columns, lines)) if columns is not None else OSError
            stack.enter_context(mock.patch("os.get_terminal_size", side_effect=size if columns is None
                                           else lambda: size))
            sleep = stack.enter_context(mock.patch("time.sleep"))
            try:
                self.assertIsNone(monitor(*arguments))
                self.assertEqual(sleep.mock_calls, [mock.call(0.1)] * len(rounds))
            finally:
                self.output = output.getvalue()
        return self.output

    def test_cpu(self):
        cpu = self.sonetrix.cpu
        self.assertEqual(self.shown(cpu), HIDE + SHOW)
        self.assertEqual(self.shown(cpu, rounds=[1], cpuInfo=[FIGURES]), f"{HIDE}\r{LINE}{SHOW}")
        self.assertEqual(self.shown(cpu, False, rounds=[1], columns=40, cpuInfo=[list(FIGURES)]),
                         f"{HIDE}\r{LINE[:40]}{SHOW}")
        self.assertEqual(self.shown(cpu, rounds=[1], columns=0, cpuInfo=[FIGURES]), f"{HIDE}\r{LINE}{SHOW}")
        self.assertIn("[err:  0.0% maxtime:    0.0000ms]", self.shown(cpu, rounds=[1], cpuInfo=[(1, 2, 3, 4, 0, 0)]))
        falling = [FIGURES, (1.0, 5.0, 0.0001234, 0.0003, 0.0025, 0), (0, 0, 1e-3, 2e-3, 0.0025, 0)]
        shown = self.shown(cpu, [1], rounds=[1] * 3, cpuInfo=falling).split("\r")[2:]
        self.assertEqual([(line[:5], line[8:17], line[21:26], line[29:38]) for line in shown], [
            ("  2.5", "   0.1234", "  3.1", "   0.2000"), ("  2.5", "   0.1234", "  5.0", "   0.3000"),
            ("  2.5", "   1.0000", "  5.0", "   2.0000")])

    def test_cpu_failures(self):
        for figures, text in ((range(7), "too many values to unpack (expected 6)"),
                              (range(5), "need more than 5 values to unpack"),
                              ((1,), "need more than 1 value to unpack")):
            self.assertRefused(ValueError, text, self.shown, self.sonetrix.cpu, rounds=[1], cpuInfo=[figures])
        self.assertRaises(OSError, self.shown, self.sonetrix.cpu, rounds=[1], columns=None, cpuInfo=[FIGURES])
        self.assertRaises(ZeroDivisionError, self.shown, self.sonetrix.cpu, rounds=[ZeroDivisionError])
        self.assertTrue(self.output.startswith(HIDE))
        with mock.patch("builtins.print", side_effect=UnicodeEncodeError("ascii", "", 0, 0, "")) as print_:
            self.assertEqual(self.shown(self.sonetrix.cpu), "")
            self.assertEqual(len(print_.mock_calls), 2)

    def test_the_cursor_comes_back_though_another_interrupt_strikes(self):
        printed = []
        def interrupted(text, **_):
            printed.append(text)
            if printed.count(SHOW.strip()) == 1 and text == SHOW.strip():
                raise KeyboardInterrupt
        with mock.patch.object(self.sonetrix, "print", interrupted, create=True):
            self.assertRaises(KeyboardInterrupt, self.shown, self.sonetrix.cpu, rounds=[KeyboardInterrupt])
        self.assertEqual(printed.count(SHOW.strip()), 2)

    def test_usage(self):
        usage = {b"idle": {"absolute": 0.0, "relative": 0.0, "processId": 1},
                 "b\xe4".encode(): {"absolute": 30.0, "relative": 60.0, "processId": 2**32 - 1},
                 b"\xff": {"absolute": 10.0, "relative": 40.0, "processId": 7}}
        shown = self.shown(self.sonetrix.usageInfo, rounds=[1, 1], getUsageInfo=[usage, {}])
        first, second = shown.removeprefix(HIDE).removesuffix(SHOW).split("\x1b[J")[:2]
        self.assertEqual([line.split() for line in first.replace("\x1b[K", "").split("\n")[1:4]], [
            ["4294967295", "60.00%", "30.00%", "75%", "b\xe4"], ["7", "40.00%", "10.00%", "25%", "\ufffd"],
            ["1", "0.00%", "0.00%", "0%", "idle"]])
        self.assertTrue(second.startswith("\x1b[4A\r"))  # over the first table
        small = self.shown(self.sonetrix.usageInfo, rounds=[1], columns=9, lines=3, getUsageInfo=[usage])
        self.assertEqual([len(line.lstrip("\r")) for line in small.removeprefix(HIDE).split("\x1b[K\n")[:-1]], [9, 9])
        for odd in ({"a": 5}, 5, {5: usage[b"idle"]}, {b"a": {}}):
            self.assertRaises((TypeError, KeyError, AttributeError), self.shown, self.sonetrix.usageInfo, rounds=[1],
                              getUsageInfo=[odd])

    def test_memory(self):
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.assertIsNone(self.sonetrix.memory.inspect())
        self.assertEqual(output.getvalue(), "RT Memory Inspect:\n")
        self.assertEqual([call[:3] for call in record.calls()], [("sonetrix_memory_rt_inspect", (), False)])


class OnATerminal(unittest.TestCase):
    def test_monitors(self):
        """Ended by an interrupt, and by the engine's stop."""
        for monitor in REDRAWN:
            with self.subTest(monitor), console.Console(columns=40, rows=6) as terminal:
                for index in range(5):  # more than there are lines for
                    terminal.ask(f"engine.newModule('module_{index}', 'amp_mono', None)")
                for call in f"{monitor}()", f"stop = engine.addTimer(500, exit); {monitor}()":
                    terminal.prompt()
                    terminal.send(call)
                    terminal.expect(r"(?=\x1b)")
                    if call[0] != "s":
                        terminal.expect(FULL[monitor])
                        terminal.signal()
                    shown = terminal.expect(re.escape(SHOW[:-1]))
                    self.assertRegex(shown, r"^\x1b\[\?25l\r" + REDRAWN[monitor] + "$")
                    if call[0] != "s":
                        terminal.expect("KeyboardInterrupt\n")
                self.assertEqual(terminal.end(), 0)


if __name__ == "__main__":
    unittest.main()
