"""Runs a test file in a debug build of CPython, and each group of tests in it again and again in the one process: the
interpreter's count of references and of allocated blocks must come back to where it was.

    python -m support.leaks FILE     instead of python -m unittest

Groups that only start programs (those not of the recording engine) run once.
"""

import gc
import importlib.util
import io
import sys
import unittest

WARM_UP, ROUNDS = 3, 3


def passes(case):
    """What the group prints of itself is shown only if it does not."""
    output = io.StringIO()
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(case)
    result = unittest.TextTestRunner(output, verbosity=0).run(tests)
    if not result.wasSuccessful():
        print(output.getvalue(), file=sys.stderr)
    return result.wasSuccessful()


def counts():
    sys._clear_type_cache()
    for _ in range(3):
        gc.collect()
    return sys.gettotalrefcount(), sys.getallocatedblocks()


def is_sound(case, rounds):
    growth = []
    for _ in range(rounds):
        before = counts()
        if not passes(case):
            return False
        after = counts()  # before there is anything more of our own
        growth.append([b - a for a, b in zip(before, after)])
    grown = [kind for kind in zip(*growth[WARM_UP:]) if min(kind) > 0]
    if grown:
        print(f"{case.__qualname__}: references or blocks left behind in each of {ROUNDS} rounds: {grown}",
              file=sys.stderr)
    return not grown


def main(file):
    from support import record
    found = importlib.util.spec_from_file_location("tests_to_count", file)
    module = sys.modules[found.name] = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    groups = [case for case in vars(module).values() if isinstance(case, type) and issubclass(case, unittest.TestCase)
              and case.__module__ == module.__name__]
    rounds = [WARM_UP + ROUNDS if issubclass(case, record.TestCase) else 1 for case in groups]
    return not all([is_sound(case, count) for case, count in zip(groups, rounds)])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
