"""notifyChanges, notifyMeters and timeout with callbacks fired at will: registration, delivery, lock order, removal."""

import contextlib
import gc
import threading
import time

from support import SLOWNESS, record
from support.record import CHANGES, FAST_METERS, SLOW_METERS, TIMER, Value, fire, registrations

KINDS = CHANGES, SLOW_METERS, FAST_METERS, TIMER


class CallbackTest(record.TestCase):
    def make(self, kind, callback):
        module = self.sonetrix
        return {CHANGES: module.notifyChanges, FAST_METERS: module.notifyMeters,
                SLOW_METERS: lambda one: module.notifyMeters(meters_type=0, callback=one),
                TIMER: lambda one: module.engine.addTimer(-5, one)}[kind](callback)

    def tearDown(self):
        super().tearDown()
        self.assertEqual([*map(registrations, KINDS)], [0] * 4)

    def test_life(self):
        for kind in KINDS:
            received = []
            made = self.make(kind, lambda *arguments: received.append(arguments))
            fire(kind, {"a": 5, "b": "x"}, threads=2), fire(kind, {})
            del made
            fire(kind)
            self.assertEqual(received, [()] * 3 if kind == TIMER else [({b"a": 5, b"b": b"x"},)] * 2 + [({},)])
        self.assertEqual(record.calls("*addTimer")[0].args, ("engine", -5))

    def test_an_engine_that_refuses(self):
        record.null("sonetrix_engine_notify_changes_addCallback"), record.null("sonetrix_engine_addTimer")
        self.assertRefused(MemoryError, "", self.sonetrix.notifyChanges, len)
        self.assertIsInstance(self.sonetrix.timeout(1, print), self.sonetrix.timeout)
        self.assertEqual(record.calls("*rmCallback", "*delTimer"), [])

    def test_lock_order_and_failing_callables(self):
        for kind, label, word in (CHANGES, "notify", "notification"), (FAST_METERS, "meters", "meter"):
            received = []
            made = self.make(kind, lambda entries: received.append(entries) or 1 / entries[b"a"])
            record.clear()
            fire(kind, {"a": 1}, threads=0, lock_held=True)
            fire(kind, {"a": 0})
            fire(kind, {"odd": Value(99), "a": 1}, threads=0)  # this thread, without the lock
            self.assertEqual(received, [{b"a": 0}, {b"a": 1}])
            self.assertEqual(record.log_lines(), [
                (4, f"GIL LOCK ORDER ERROR! {label} callback invoked with the GIL already acquired"),
                (3, f"Exception whilee invoking {word} callback registered from Python")])
            self.assertEqual([call.lock_held for call in record.calls("sonetrix_log_LogString")], [True, False])
        made = self.make(TIMER, lambda: [][1])
        record.clear()
        fire(TIMER, threads=0, lock_held=True)  # no lock order for timers
        (level, text), = record.log_lines()
        self.assertEqual(level, 3)
        self.assertRegex(text,
                         r"(?s)^exception in callback timer: Traceback \(most.*IndexError: list index out of range\n$")

    def test_removal_by_collection(self):
        """Before anything of the cycle is cleared; a subclass's finalizer takes the place of one of the class."""
        seen = []

        class Finalized(self.sonetrix.timeout):
            def __init__(self, *given):
                super().__init__(*given)

            def __del__(self):
                seen.append("finalized")

        class Cleared:
            __slots__ = ()  # else it would be of those that are finalized

            def __del__(self):
                fire(TIMER)

        def make():
            cycle = []  # it is cleared first, and from its end
            cycle += Finalized(1, lambda: seen.append("called") or cycle), Cleared()
        make()
        fire(TIMER)
        gc.collect()
        self.assertEqual(seen, ["called", "finalized"])

    def test_removal(self):
        """By the callable itself; by another thread, and by another callable, while one is in it."""
        for kind in KINDS:
            kept, calls = [], []
            kept.append(self.make(kind, lambda *_: calls.append(kept.clear())))
            fire(kind, times=2)
            self.assertEqual(len(calls), 1)

            with self.stay(kind) as (made, calls):
                removing = threading.Thread(target=made.clear)
                removing.start(), removing.join(0.1)
                self.assertEqual((removing.is_alive(), registrations(kind)), (True, 1))
            removing.join()

            other = CHANGES if kind == TIMER else TIMER
            with self.stay(kind) as (made, calls):
                dropping, began = self.make(other, lambda *_: made.clear()), time.monotonic()
                fire(other)
                fire(kind)  # the engine has it still, but nothing is called
                self.assertEqual((registrations(kind), made, len(calls)), (1, [], 1))
                self.assertLess(time.monotonic() - began, 4)
            del dropping
            while registrations(kind):  # until the worker is through
                self.assertLess(time.monotonic() - began, 10 * SLOWNESS)

    @contextlib.contextmanager
    def stay(self, kind):
        """A registration, in a list, and the calls of its callable, in which a thread stays meanwhile."""
        entered, leave, calls = threading.Event(), threading.Event(), []
        made = [self.make(kind, lambda *_: (calls.append(kind), entered.set(), leave.wait(60)))]
        inside = threading.Thread(target=fire, args=(kind,))
        inside.start(), entered.wait()
        yield made, calls
        leave.set(), inside.join()

    def test_a_call_before_the_registration_has_returned(self):
        for kind in KINDS:
            for times in 3, -1:
                received = threading.Semaphore(0)
                record.calls_inside(times)
                made = self.make(kind, lambda *_: received.release())
                for _ in range(abs(times)):
                    self.assertTrue(received.acquire(timeout=10 * SLOWNESS))
                del made
