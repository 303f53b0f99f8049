# ctest: timeout=200
"""Each public call, and each callback, where something goes wrong: no memory, no lists from the engine, wrong arguments.

The error is a clean one, nothing stays behind, and the same call works afterwards.
"""

import functools
import gc
import inspect
import re
import sys
import unittest
from unittest import mock

from support import SANITIZER, SOURCE, calls, record

HEADER = (SOURCE / "include/sonetrix/engine_api.h").read_text()
GIVE_POINTERS = re.findall(r"\*\s*(sonetrix_\w+)\(", HEADER)
ROUNDS = 100 if SANITIZER else 500  # with a sanitizer, which replaces the allocator, it is the one that finds leaks
KEPT_FREE = 8192  # bytes that malloc has on its threads' lists, which count as allocated


def with_failure(call, number):
    """The exception of a call whose allocation of that number fails, and how many allocations it made."""
    record._holding_lock.record_failAllocation(number)
    try:
        call()
        error = None
    except BaseException as caught:
        error = caught
    return error, record._holding_lock.record_endAllocationFailure()

ODD = type("Odd", (), {"__eq__": lambda self, other: 1 / 0, "__hash__": None})()

class EveryCall(record.TestCase):
    def setUp(self):
        super().setUp()
        calls.prepare(self)
        self.every = calls.every(self.sonetrix)
        self._lists = record.lists()  # with those that the calls keep
        self.enterContext(mock.patch("sys.stderr", None))
        self.enterContext(mock.patch("sys.unraisablehook", lambda report: None))

    def tearDown(self):
        for kept in gc.get_referents(self.sonetrix):
            if type(kept) is list:
                kept.clear()  # the clear callbacks
        super().tearDown()

    def test_all_are_there(self):
        self.assertGreater(len(self.every), 80, sorted(self.every))
        for name, call in self.every.items():
            with self.subTest(name):
                call()

    def test_out_of_memory(self):
        record.recording(False)
        faults = 0
        for name, call in self.every.items():
            with self.subTest(name):
                lists, number, count = record.lists(), 0, 1
                usual, _ = with_failure(call, -1)
                while number < count:
                    error, made = with_failure(call, number)
                    count = max(made, count) if number == 0 else count
                    # A module that cannot be described is left out, and with it the port that a link names.
                    allowed = MemoryError, KeyError if name == "engine.dot" else MemoryError
                    self.assertTrue(error is None or isinstance(error, allowed), f"allocation {number}: {error!r}")
                    number += 1
                    faults += 1
                    error = None
                gc.collect()
                self.assertEqual(record.lists(), lists, "lists left behind")
                self.assertIs(type(with_failure(call, -1)[0]), type(usual))
        self.assertGreater(faults, 400)

    def test_callbacks_out_of_memory(self):
        module, received = self.sonetrix, []
        kept = [module.notifyChanges(received.append), module.notifyMeters(received.append),
                module.timeout(5, lambda: received.append({b"a": 1}))]
        for kind in record.CHANGES, record.FAST_METERS, record.TIMER:
            fire = functools.partial(record._library.record_fire, kind, record.List({"a": 1}), 0, 1)
            _, count = with_failure(fire, -1)
            received.clear()
            for number in range(count):
                with_failure(fire, number)
            if kind != record.TIMER:
                self.assertIn({}, received)  # it is told that there is something, at least
            received.clear()
            fire()
            self.assertEqual(received, [{b"a": 1}])
        del kept

    def test_nothing_from_the_engine(self):
        for name, call in self.every.items():
            record.clear()
            call()
            asked = {made.name for made in record.calls()} & set(GIVE_POINTERS)
            for function in asked - {"sonetrix_engineGet"}:
                with self.subTest(name, function=function):
                    record.null(function)
                    try:
                        call()
                    except Exception as error:
                        self.assertIn(type(error), (MemoryError, Exception))
                    record.null(function, 0)
                    call()

    def test_nothing_grows(self):
        record.recording(False)
        work = dict(self.every)
        for name, owner, function in calls.functions(self.sonetrix):
            count = len(inspect.signature(function).parameters)
            work[name + " refused"] = lambda function=function, count=count: self.refused(function, count)
        kept = [self.sonetrix.notifyChanges(lambda changes: 1 / 0), self.sonetrix.timeout(1, int)]
        changed = record.List({"a": 1})
        work["fired"] = lambda: (record.fire(record.CHANGES, changed, threads=0), record.fire(record.TIMER, changed))
        del work["add_clear_callback"]
        gc.disable()
        self.addCleanup(gc.enable)
        leaks = []
        for name, call in work.items():
            for _ in range(50):
                call()
            for attempt in range(3):  # a table of the interpreter's may grow once
                gc.collect()
                blocks, native = sys.getallocatedblocks(), record.native_bytes()
                for _ in range(ROUNDS):
                    call()
                gc.collect()
                grown = sys.getallocatedblocks() - blocks, record.native_bytes() - native
                if grown[0] <= ROUNDS / 10 and grown[1] <= ROUNDS * 4 + KEPT_FREE:
                    break
            else:
                leaks.append((name, grown))
        self.assertEqual(leaks, [])
        del kept

    @staticmethod
    def refused(function, count):
        for arguments in [ODD] * count, [ODD] * (count + 1), ["\udc80"] * count, [2**70] * min(count, 1):
            try:
                function(*arguments)
            except Exception:
                pass


if __name__ == "__main__":
    unittest.main()
