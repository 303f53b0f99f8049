"""The class log: what reaches the engine's log, and that what a script puts in its place is honoured."""

import decimal
import unittest
from unittest import mock

from support import record

LEVELS = "trace", "debug", "info", "warn", "error", "fatal"


def message(level, text):
    return "LogString", level, b"python", 0, 1, text


class LogTest(record.TestCase):
    def assertSends(self, expected, call, *arguments):
        record.clear()
        self.assertIsNone(call(*arguments))
        calls = record.calls("sonetrix_log*")
        self.assertEqual([(made.name.removeprefix("sonetrix_log_"), *made.args) for made in calls], expected)

    def test_calls(self):
        log, whole = self.sonetrix.log, decimal.Decimal  # which has __int__ and no __index__
        for call, arguments, *expected in (
                *((getattr(log, name), ("ä",), message(level, b"\xc3\xa4")) for level, name in enumerate(LEVELS)),
                *((log.log, (level, "%s"), message(int(level), b"%s")) for level in (2**32 - 1, True, 2.9, whole(5))),
                (log.logb, (7, b"a\0b"), message(7, b"a")),
                (log.setLevel, (7,), ("SetLogLevel", 7)),
                (log.setLevelJournal, (2**32 - 1,), ("SetLogLevelJournal", 2**32 - 1)),
                (log.logTime, (-1,), ("time", -1), ("file_time", -1)),
                (log.logOnFile, ("/a",), ("filename", b"/a")),
                (log.logOnFile, (b"\xe4", -2**31), ("filename", b"\xe4")),
                (log.logOnFile, ("/a", 0), ("file_time", 0), ("filename", b"/a")),
                (log.logOnFile, ("",), ("filename", None)),
                (log.logSysLog, (), ("syslog", 1)), (log.logSysLog, ("no",), ("syslog", 1)),
                (log.logJournal, (), ("journald", 1)), (log.logJournal, (whole(0),), ("journald", 0))):
            self.assertSends(expected, call, *arguments)
        log.setLevel(log.WARN), log.setLevelJournal(log.FATAL)
        self.assertEqual((log.getLevel(), log.getLevelJournal()), (3, 5))
        record.result("sonetrix_log_GetLogLevel", 2**32 - 1)
        self.assertEqual(log.getLevel(), 2**32 - 1)

    def test_replacements_are_honoured(self):
        log = self.sonetrix.log
        with mock.patch.object(log, "INFO", 9):
            self.assertSends([message(9, b"a")], log.info, "a")
        with mock.patch.object(log, "logb") as logb:
            log.info("ä"), log.log(2.9, "b")
            self.assertEqual(logb.mock_calls, [mock.call(2, b"\xc3\xa4"), mock.call(2, b"b")])
        with mock.patch.object(log, "log") as write:
            log.warn("a"), log.warn(None)
            self.assertEqual(write.mock_calls, [mock.call(3, "a"), mock.call(3, None)])
        with mock.patch.object(self.sonetrix, "log") as other:
            log.error("a"), log.log(1, "b")
            self.assertEqual(other.mock_calls, [mock.call.log(other.ERROR, "a"), mock.call.logb(1, b"b")])
