"""notifyChanges, notifyMeters and timeout with callbacks fired at will: registration, delivery, lock order, removal."""

import gc
import pathlib
import re
import sys
import threading
import time
import unittest
import weakref
from unittest import mock

from support import SLOWNESS, record
from support.record import CHANGES, FAST_METERS, SLOW_METERS, TIMER, Value, fire, registrations

# The engine's functions to register and to remove, and what is registered with.
ENGINE = {CHANGES: ("notify_changes_addCallback", "notify_changes_rmCallback", ("engine",)),
          SLOW_METERS: ("addCallbackMeterManager", "rmCallbackMeterManager", ("engine", 0)),
          FAST_METERS: ("addCallbackMeterManager", "rmCallbackMeterManager", ("engine", 1)),
          TIMER: ("addTimer", "delTimer", ("engine", -5))}


def blocked_signals(thread_name):
    """The masks of this process's threads of that name."""
    for task in pathlib.Path("/proc/self/task").iterdir():
        if (task / "comm").read_text().strip() == thread_name:
            yield int(re.search(r"SigBlk:\s+(\w+)", (task / "status").read_text())[1], 16)


class CallbackTest(record.TestCase):
    def make(self, kind, callback):
        module = self.sonetrix
        return {CHANGES: module.notifyChanges, FAST_METERS: module.notifyMeters,
                SLOW_METERS: lambda one: module.notifyMeters(meters_type=0, callback=one),
                TIMER: lambda one: module.engine.addTimer(-5, one)}[kind](callback)

    def await_none(self, *kinds):
        end = time.monotonic() + 10 * SLOWNESS
        while any(map(registrations, kinds)):
            self.assertLess(time.monotonic(), end)

    def tearDown(self):
        super().tearDown()
        self.assertEqual([registrations(kind) for kind in ENGINE], [0] * 4)

    def test_life(self):
        for kind, (add, remove, sent) in ENGINE.items():
            received, threads = [], []
            made = self.make(kind, lambda *arguments: (received.append(arguments),
                                                       threads.append(threading.get_ident())))
            fire(kind, {"a": 5, "b": "x"}, threads=2), fire(kind, {})
            del made
            fire(kind)
            self.assertEqual(received, [()] * 3 if kind == TIMER else [({b"a": 5, b"b": b"x"},)] * 2 + [({},)])
            self.assertNotIn(threading.get_ident(), threads)
            calls = record.calls("sonetrix_engine_*", clear=True)
            self.assertEqual([(call.name, call.lock_held) for call in calls],
                             [("sonetrix_engine_" + name, False) for name in (add, remove)])
            self.assertEqual(calls[0].args, sent)

    def test_refusals_leave_no_registration(self):
        module = self.sonetrix
        self.assertRefused(OverflowError, "can't convert negative value to enum sonetrix_module_meters_type",
                           module.notifyMeters, 5, -1)
        with mock.patch.object(module, "signature", side_effect=KeyError):
            self.assertRaises(KeyError, module.notifyChanges, len)
        self.assertEqual(record.calls(), [])
        for add, *_ in ENGINE.values():
            record.null("sonetrix_engine_" + add)
        self.assertRefused(MemoryError, "", module.notifyChanges, len)
        self.assertRefused(MemoryError, "", module.notifyMeters, len)
        self.assertIsInstance(module.timeout(1, print), module.timeout)
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

    def test_callables_may_fail_in_any_way(self):
        class Hostile(Exception):
            def __str__(self): raise self
            __repr__ = __str__
        for kind in ENGINE:
            errors = [ValueError("\u00e9\0"), SystemExit(5), KeyboardInterrupt(), Hostile()]
            def callback(*_): raise errors.pop()
            made = self.make(kind, callback)
            record.clear()
            fire(kind, {}, times=4)
            self.assertEqual(([level for level, _ in record.log_lines()], errors), ([3] * 4, []))

    def test_removal(self):
        """By a cycle's collection; by the callable itself; by another thread while it runs; under a finalizer."""
        for kind in ENGINE:
            class Owner:
                def __init__(owner):
                    owner.made = self.make(kind, owner.call)
                def call(owner, *_):
                    seen.append("called")
            seen, owner = [], Owner()
            gone = weakref.ref(owner)
            fire(kind)
            del owner
            gc.collect()
            self.assertEqual((gone(), registrations(kind), seen), (None, 0, ["called"]))

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
            self.assertEqual(registrations(kind), 0)
            self.assertEqual(order, ["left", "removed"])

            base = type(self.make(kind, len))
            subclass = type("Subclass", (base,), {"__del__": lambda self: seen.append("finalized")})
            made = subclass(1, print) if kind == TIMER else subclass(len)
            made.cycle = made
            del made
            gc.collect()
            self.assertEqual(seen.pop(), "finalized")

    def test_a_drop_that_must_not_wait(self):
        """Inside a callable and in a collection, while another thread is in the callable of what is dropped."""
        class Owner:
            def __init__(self, made): self.made, self.me = made, self
            def __del__(self): self.made = None  # ahead of the guard's finalizer
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
            owner = Owner(self.make(kind, callback))  # the same callable: the worker goes ahead
            del owner
            gc.collect()
            self.assertLess(time.monotonic() - began, 4)
            leave.set(), inside.join()
            del dropping
            self.await_none(kind)

    def test_a_drop_waits_for_five_seconds_and_names_the_callable(self):
        alone, entered = threading.Lock(), threading.Event()
        def stuck(*_):
            entered.set()
            with alone:
                pass
        made = self.make(TIMER, stuck)
        inside = threading.Thread(target=fire, args=(TIMER,))
        with alone:
            inside.start(), entered.wait()
            record.calls(clear=True)
            began = time.monotonic()
            del made
            self.assertTrue(4 < time.monotonic() - began < 10 * SLOWNESS)
            masks = list(blocked_signals("sonetrix-remove"))
            line, = record.calls("sonetrix_log_LogString")
        self.assertIn("'CallbackTest.test_a_drop_waits", line.args[-1].decode())
        self.assertEqual(line.args[0], 3)
        self.assertTrue(masks and all(mask & 1 << 1 for mask in masks), masks)  # SIGINT is the console's
        inside.join()
        self.await_none(TIMER)

    def test_a_subclass_may_have_a_constructor_of_its_own(self):
        class Timer(self.sonetrix.timeout):
            def __init__(self, milliseconds, callback):
                super().__init__(milliseconds, callback)
                self.milliseconds = milliseconds
        self.assertEqual(Timer(-5, len).milliseconds, -5)

    def test_one_callable_for_slow_and_fast_meters_drops_both(self):
        """While the other call waits for a lock, or both at the same time."""
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(5)
        pool, alone, both = {}, threading.Lock(), threading.Barrier(2)
        def with_lock(_):
            with alone:
                until = time.monotonic() + 0.1
                while pool and time.monotonic() < until:
                    pass
                pool.clear()
        def at_once(entries):
            both.wait(10)
            pool.pop(entries[b"victim"])
        kinds = SLOW_METERS, FAST_METERS
        for drop in with_lock, at_once:
            pool.update({kind: self.make(kind, drop) for kind in kinds})
            threads = [threading.Thread(target=fire, args=(kind, {"victim": other}), daemon=True)
                       for kind, other in zip(kinds, reversed(kinds))]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(10)
            self.assertEqual(([thread.is_alive() for thread in threads], pool), ([False, False], {}))
            self.await_none(*kinds)  # each is ended when the other's call is over

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

    def test_threads_that_call_once_leave_nothing_behind(self):
        watch = self.sonetrix.notifyChanges(len)
        record.recording(False)
        grown, empty = [], record.List({})
        for _ in range(4):
            before = record.native_bytes()
            for _ in range(200):
                fire(CHANGES, empty)
            grown.append(record.native_bytes() - before)
        self.assertLess(min(grown), 200 * 100, grown)
        del watch

    def test_a_thread_that_has_called_back_is_joined_with_the_lock_held_elsewhere(self):
        called = []
        watch = self.sonetrix.notifyChanges(called.append)
        record.fire_on(1, CHANGES, {"a": 1}, times=2)
        record.join(1, lock_held=True)
        self.assertEqual(called, [{b"a": 1}] * 2)
        del watch


if __name__ == "__main__":
    unittest.main()
