"""notifyChanges, notifyMeters and timeout with callbacks fired at will: registration, delivery, lock order, removal."""

import ctypes
import gc
import threading
import time
import unittest
from unittest import mock

from support import SLOWNESS, record
from support.record import CHANGES, FAST_METERS, SLOW_METERS, TIMER, Value, fire, registrations

# The engine's functions to register and to remove, and what is registered with.
ENGINE = {CHANGES: ("notify_changes_addCallback", "notify_changes_rmCallback", ("engine",)),
          SLOW_METERS: ("addCallbackMeterManager", "rmCallbackMeterManager", ("engine", 0)),
          FAST_METERS: ("addCallbackMeterManager", "rmCallbackMeterManager", ("engine", 1)),
          TIMER: ("addTimer", "delTimer", ("engine", -5))}


class CallbackTest(record.TestCase):
    def make(self, kind, callback):
        module = self.sonetrix
        return {CHANGES: module.notifyChanges, FAST_METERS: module.notifyMeters,
                SLOW_METERS: lambda one: module.notifyMeters(meters_type=0, callback=one),
                TIMER: lambda one: module.engine.addTimer(-5, one)}[kind](callback)

    def tearDown(self):
        super().tearDown()
        self.assertEqual([registrations(kind) for kind in ENGINE], [0] * 4)

    def test_life(self):
        for kind, (add, remove, sent) in ENGINE.items():
            received = []
            made = self.make(kind, lambda *arguments: received.append(arguments))
            fire(kind, {"a": 5, "b": "x"}, threads=2), fire(kind, {})
            del made
            fire(kind)
            self.assertEqual(received, [()] * 3 if kind == TIMER else [({b"a": 5, b"b": b"x"},)] * 2 + [({},)])
            calls = record.calls("sonetrix_engine_*", clear=True)
            self.assertEqual([call.name for call in calls], ["sonetrix_engine_" + name for name in (add, remove)])
            self.assertEqual(calls[0].args, sent)

    def test_an_engine_that_refuses(self):
        for add, *_ in ENGINE.values():
            record.null("sonetrix_engine_" + add)
        self.assertRefused(MemoryError, "", self.sonetrix.notifyChanges, len)
        self.assertRefused(MemoryError, "", self.sonetrix.notifyMeters, len)
        self.assertIsInstance(self.sonetrix.timeout(1, print), self.sonetrix.timeout)
        self.assertEqual(record.calls("*rmCallback*", "*delTimer"), [])

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
        with mock.patch.object(self.sonetrix, "log", None), record.unraisables() as reports:
            fire(TIMER)
        self.assertEqual([(name, type(error)) for name, error in reports],
                         [("sonetrix.timeout.timerCb", AttributeError)])

    def test_removal_by_collection(self):
        """Before anything of the cycle is cleared; a subclass's finalizer takes the place of one of the class."""
        ctypes.pythonapi.PyCapsule_New.restype = ctypes.py_object
        clearing = ctypes.PYFUNCTYPE(None, ctypes.c_void_p)(lambda capsule: fire(TIMER))
        seen, base = [], self.sonetrix.timeout
        finalized = type("Finalized", (base,), {"__init__": lambda self, *given: base.__init__(self, *given),
                                                "__del__": lambda self: seen.append("finalized")})

        def make():
            cycle = []  # it is cleared first, and from its end
            cycle += (finalized(1, lambda: seen.append("called") or cycle),
                      ctypes.pythonapi.PyCapsule_New(1, None, clearing))
        make()
        fire(TIMER)
        gc.collect()
        self.assertEqual((seen, registrations(TIMER)), (["called", "finalized"], 0))

    def test_removal(self):
        """By the callable itself; by another thread while it runs."""
        for kind in ENGINE:
            kept, drops = [], []
            def drop(*_):
                kept.clear()
                gc.collect()
                drops.append(drop)
            kept.append(self.make(kind, drop))
            fire(kind, times=2)
            self.assertEqual((len(drops), registrations(kind)), (1, 0))

            entered, leave, order = threading.Event(), threading.Event(), []
            made = [self.make(kind, lambda *_: (entered.set(), leave.wait(), order.append("left")))]
            firing = threading.Thread(target=fire, args=(kind,))
            removing = threading.Thread(target=lambda: (made.clear(), order.append("removed")))
            firing.start(), entered.wait(), removing.start()
            removing.join(0.1)
            self.assertEqual((removing.is_alive(), registrations(kind)), (True, 1))
            leave.set(), firing.join(), removing.join()
            self.assertEqual((order, registrations(kind)), (["left", "removed"], 0))

    def test_a_drop_inside_a_callable_does_not_wait(self):
        """While another thread is in the callable of what is dropped."""
        for kind in ENGINE:
            entered, leave, called = threading.Event(), threading.Event(), []
            def callback(*_):
                called.append(kind)
                entered.set(), leave.wait()
            other = CHANGES if kind == TIMER else TIMER
            kept = [self.make(kind, callback)]
            dropping = self.make(other, lambda *_: kept.clear())
            inside = threading.Thread(target=fire, args=(kind, {}))
            inside.start(), entered.wait()
            began = time.monotonic()
            fire(other, {})
            fire(kind, {})  # the engine has it still, but nothing is called
            self.assertEqual((registrations(kind), kept, called), (1, [], [kind]))
            self.assertLess(time.monotonic() - began, 4)
            leave.set(), inside.join()
            del dropping
            while registrations(kind):  # until the worker is through
                self.assertLess(time.monotonic() - began, 10 * SLOWNESS)

    def test_a_call_before_the_registration_has_returned(self):
        for kind in ENGINE:
            for times in 1, 3, -1:
                received = threading.Semaphore(0)
                record.calls_inside(times)
                made = self.make(kind, lambda *_: received.release())
                for _ in range(abs(times)):
                    self.assertTrue(received.acquire(timeout=10 * SLOWNESS))
                del made
                self.assertEqual(registrations(kind), 0)

    def test_a_thread_that_has_called_back_is_joined_with_the_lock_held_elsewhere(self):
        called = []
        watch = self.sonetrix.notifyChanges(called.append)
        record.fire_on(1, CHANGES, {"a": 1}, times=2)
        record.join(1, lock_held=True)
        self.assertEqual(called, [{b"a": 1}] * 2)
        del watch
