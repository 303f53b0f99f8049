"""The fuzz targets that need no console of their own, on their corpus and on random bytes."""

import importlib
import random
import sys
import unittest

from support import SOURCE, record

FUZZ = SOURCE / "tests" / "fuzz"
INPUTS = 1000


class FuzzTest(unittest.TestCase):
    def run_target(self, name):
        self.addCleanup(record.reset)
        self.addCleanup(setattr, sys, "stderr", sys.stderr)
        self.addCleanup(setattr, sys, "unraisablehook", sys.unraisablehook)
        sys.path.insert(0, str(FUZZ))
        self.addCleanup(sys.path.remove, str(FUZZ))
        target = importlib.import_module(name)
        corpus = sorted((FUZZ / "corpus" / name).iterdir())
        self.assertGreater(len(corpus), 5)
        generator = random.Random(20240229)
        for data in [path.read_bytes() for path in corpus] + [generator.randbytes(512) for _ in range(INPUTS)]:
            try:
                target.run(data)
            except Exception as error:
                error.add_note(f"the input: {data.hex()}")
                raise

    def test_values(self):
        self.run_target("values")

    def test_arguments(self):
        self.run_target("arguments")


if __name__ == "__main__":
    unittest.main()
