"""cpu() and usageInfo() on a terminal of 40 columns, ended by Ctrl-C and by the engine's stop."""

import fcntl
import re
import struct
import termios
import unittest

from support import console

COLUMNS, LINES = 40, 6
SHOW = "\x1b[?25h"
REDRAWN = {
    "cpu": r"\x1b\[\?25l\r(\r *\d+\.\d% \( *\d+\.\d{4}ms\) .{19})+",
    # Modules of which the engine knows no load yet are not in the first tables.
    "usageInfo": r"\x1b\[\?25l\r((\x1b\[[2-5]A)?\r    pid  relative  absolute  share  modu\x1b\[K\n"
                 r"( *\d+ +\d+\.\d\d% +\d+\.\d\d% +\d+%  .{4}\x1b\[K\n){1,4}\x1b\[J)+",
}
FULL = {"cpu": "(?s)(?=\x1b.*%.*%.*%.*%)", "usageInfo": r"(?s)(?=\x1b.*\x1b\[5A)"}


class Monitors(unittest.TestCase):
    def check_drawn(self, terminal, monitor):
        """Checks what the monitor draws until it shows the cursor again."""
        shown = terminal.expect(re.escape(SHOW)).replace("^C", "")  # which the terminal echoes
        self.assertRegex(shown, f"^{REDRAWN[monitor]}$")
        for line in re.split(r"[\r\n]", re.sub(r"\x1b\[[?\d]*[A-Za-z]", "", shown)):
            self.assertLessEqual(len(line), COLUMNS)

    def test_monitors(self):
        for monitor in REDRAWN:
            with self.subTest(monitor), console.Console() as terminal:
                fcntl.ioctl(terminal._terminal, termios.TIOCSWINSZ, struct.pack("HHHH", LINES, COLUMNS, 0, 0))
                for index in range(5):  # more than there are lines for
                    terminal.ask(f"engine.newModule('module_{index}', 'amp_mono', None)")
                for hasty, call in enumerate((f"{monitor}()", "cpu(hold=True)" if monitor == "cpu" else "usageInfo()")):
                    terminal.prompt()
                    terminal.send(call)
                    terminal.expect(re.escape(call) + "\n")
                    terminal.expect(FULL[monitor])
                    if hasty:  # without the key: at its second press the terminal forgets what was just printed
                        terminal.signal()
                        terminal.signal()
                    else:
                        terminal.control("C")
                    self.check_drawn(terminal, monitor)
                    terminal.expect("KeyboardInterrupt\n")
                terminal.send("engine.isRunning()")
                terminal.expect("True\n")
                terminal.prompt()
                terminal.send(f"stop = engine.addTimer(500, exit); {monitor}()")
                terminal.expect(r"exit\); \w+\(\)\n")
                self.check_drawn(terminal, monitor)
                self.assertEqual(terminal.end(), 0)


if __name__ == "__main__":
    unittest.main()
