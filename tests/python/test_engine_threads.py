"""Engine threads that call back: before a registration is there, once and never again, and while it is dropped."""

import pathlib
import re
import subprocess
import sys
import threading
import time
import unittest

from support import BUILD, MODULE, SANITIZER, SLOWNESS, SOURCE, record
from support.record import CHANGES, FAST_METERS, TIMER, fire, registrations

ADD = {CHANGES: "notify_changes_addCallback", FAST_METERS: "addCallbackMeterManager", TIMER: "addTimer"}


def blocked_signals(thread_name):
    """The masks of this process's threads of that name."""
    for task in pathlib.Path("/proc/self/task").iterdir():
        if (task / "comm").read_text().strip() == thread_name:
            yield int(re.search(r"SigBlk:\s+(\w+)", (task / "status").read_text())[1], 16)


class EngineThreads(record.TestCase):
    def make(self, kind, callback):
        module = self.sonetrix
        return {CHANGES: module.notifyChanges, FAST_METERS: module.notifyMeters,
                TIMER: lambda one: module.timeout(5, one)}[kind](callback)

    def test_a_call_before_the_registration_has_returned(self):
        for kind, add in ADD.items():
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

    def test_a_drop_waits_for_five_seconds_at_most(self):
        entered, leave = threading.Event(), threading.Event()
        made = self.make(TIMER, lambda: (entered.set(), leave.wait(60)))
        inside = threading.Thread(target=fire, args=(TIMER,))
        inside.start()
        entered.wait()
        began = time.monotonic()
        del made
        waited = time.monotonic() - began
        masks = list(blocked_signals("sonetrix-remove"))
        leave.set()
        inside.join()
        self.assertTrue(4 < waited < 10 * SLOWNESS, waited)
        self.assertTrue(masks and all(mask & 1 << 1 for mask in masks), masks)  # SIGINT is the console's
        while registrations(TIMER):
            time.sleep(0.001)


@unittest.skipIf(SANITIZER, "the other interpreter has no sanitizer")
class OtherPythons(unittest.TestCase):
    def test_a_module_built_for_another_version_is_refused(self):
        other = "/usr/bin/python3"
        asked = subprocess.run([other, "-c", "import sys; print(*sys.version_info[:2])"], capture_output=True, text=True)
        if asked.returncode or asked.stdout.split() == list(map(str, sys.version_info[:2])):
            self.skipTest("there is no other Python")
        paths = {"PYTHONPATH": f"{SOURCE / 'tests'}:{MODULE.parent}", "SONETRIX_SOURCE": SOURCE, "SONETRIX_BUILD": BUILD}
        result = subprocess.run([other, "-c", "from support import record; record.load()"], capture_output=True, text=True,
                                env={name: str(value) for name, value in paths.items()})
        self.assertRegex(result.stderr, r"ImportError: Module 'sonetrix' was built for Python 3\.\d+, not for 3\.\d+")


if __name__ == "__main__":
    unittest.main()
