"""The README's console session, typed line by line: what it shows is what the console answers."""

import re
import tempfile
import unittest

from support import SOURCE
from support.console import Console


def session():
    """(line typed, output shown) for each prompt in the README's blocks, in order."""
    blocks = re.findall(r"^```\n(engine> .*?)^```$", (SOURCE / "README.md").read_text(), re.M | re.S)
    entries = re.split(r"^engine> ", "".join(blocks), flags=re.M)[1:]
    return [entry.rstrip("\n").partition("\n")[::2] for entry in entries]


class ReadmeSession(unittest.TestCase):
    def test_the_console_answers_as_shown(self):
        lines = session()
        self.assertEqual(lines[-1], ("exit(3)", ""))
        with tempfile.TemporaryDirectory() as folder, Console(cwd=folder) as console:
            for line, shown in lines[:-1]:
                with self.subTest(line):
                    answer = re.sub(r'"__engine__-\d+"', '"__engine__"', console.ask(line))  # from 3.14 on numbered
                    self.assertEqual(answer, shown)
            console.prompt()
            self.assertEqual(console.end(lines[-1][0]), 3)


if __name__ == "__main__":
    unittest.main()
