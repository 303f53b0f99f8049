"""Runs test files in a debug build of CPython, and each group of tests in them again and again in the one process: the
interpreter's count of references and of allocated blocks must come back to where it was.

    python -m support.leaks FILE...     instead of python -m unittest

Groups that only start programs (those not of the recording engine) run once.
"""

import gc
import importlib.util
import io
import os
import pathlib
import sys
import unittest

WARM_UP, ROUNDS = 3, 3


def groups(files):
    for file in files:
        found = importlib.util.spec_from_file_location(pathlib.Path(file).stem, file)
        module = sys.modules[found.name] = importlib.util.module_from_spec(found)
        found.loader.exec_module(module)
        for case in list(vars(module).values()):
            if isinstance(case, type) and issubclass(case, unittest.TestCase) and case.__module__ == module.__name__:
                yield case


def run(case):
    """Whether the group passes; what it prints of itself is shown only if it does not."""
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


def leak(case):
    """How much both counts grew in each round, if one of them did in every round; None if the tests fail."""
    growth = []
    for number in range(WARM_UP + ROUNDS):
        before = counts()
        if not run(case):
            return None
        after = counts()
        if number >= WARM_UP:
            growth.append([b - a for a, b in zip(before, after)])
    return [kind for kind in zip(*growth) if min(kind) > 0]


def main(files):
    from support import record
    failed = []
    for case in groups(files):
        name = f"{case.__module__}.{case.__qualname__}"
        if not issubclass(case, record.TestCase):
            found = [] if run(case) else None
        else:
            found = leak(case)
        if found:
            print(f"{name}: references or blocks left behind in each of {ROUNDS} rounds: {found}", file=sys.stderr)
        print(f"{name}: {'failed' if found is None else 'LEAKS' if found else 'ok'}")
        if found != []:
            failed.append(name)
    return bool(failed)


if __name__ == "__main__":
    if not hasattr(sys, "gettotalrefcount"):
        sys.exit(f"{os.path.basename(sys.executable)} is no debug build")
    sys.exit(main(sys.argv[1:]))
