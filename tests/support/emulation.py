"""Runs test files for another architecture under qemu's user emulation, without what it cannot serve.

    python -m support.emulation FILE...     instead of python -m unittest
    python -m support.emulation --list      what is left out, and why
"""

import pathlib
import sys
import unittest

# Test (file.class.method): what it needs that emulation has not.
TOO_SLOW = "plays in real time, while the emulated interpreter takes longer to start than the sound lasts"
UNSUITABLE = {
    "test_examples.Examples.test_chain_in_real_time": TOO_SLOW,
    "test_examples.Examples.test_wait_for_event": TOO_SLOW,
}


class Loader(unittest.TestLoader):
    def __init__(self):
        super().__init__()
        self.left_out = set()

    def loadTestsFromTestCase(self, case):
        for name in self.getTestCaseNames(case):
            key = f"{case.__module__.rpartition('.')[2]}.{case.__qualname__}.{name}"
            if reason := UNSUITABLE.get(key):
                setattr(case, name, unittest.skip(reason)(getattr(case, name)))
                self.left_out.add(key)
        return super().loadTestsFromTestCase(case)


def main(files):
    loader = Loader()
    program = unittest.main(None, argv=["emulation", "-v", *files], testLoader=loader, exit=False)
    stems = {pathlib.Path(file).stem for file in files}
    stale = {key for key in UNSUITABLE if key.partition(".")[0] in stems} - loader.left_out
    if stale:
        print("no such tests:", *sorted(stale), file=sys.stderr)
    return not program.result.wasSuccessful() or bool(stale)


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        for test, reason in UNSUITABLE.items():
            print(f"not run in emulation: {test}: {reason}")
    else:
        sys.exit(main(sys.argv[1:]))
