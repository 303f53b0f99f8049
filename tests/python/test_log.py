"""The class log: what reaches the engine's log, and that a refused call reaches nothing."""

import sys
import unittest
from unittest import mock

from support import record

LEVELS = "trace", "debug", "info", "warn", "error", "fatal"
WRONG_TYPE = "Argument 'message' has incorrect type (expected {}, got {})"
NEGATIVE = "can't convert negative value to enum sonetrix_log_level"
DIVISION = "division by zero" if sys.version_info >= (3, 14) else "integer division or modulo by zero"


class Number:
    """Has an integer and a truth value; None stands for one that raises."""

    def __init__(self, value=None):
        self.value = value

    def __int__(self):
        return 1 // 0 if self.value is None else self.value

    def __bool__(self):
        return int(self) != 0


class LogTest(record.TestCase):
    def assertSends(self, expected, call, *arguments, **keywords):
        """The engine's log functions are called so, with the interpreter lock released; the call returns None."""
        record.clear()
        self.assertIsNone(call(*arguments, **keywords))
        calls = record.calls("sonetrix_log*")
        self.assertEqual([(made.name.removeprefix("sonetrix_log_"), *made.args) for made in calls], expected)
        self.assertEqual({made.lock_held for made in calls}, {False})

    def test_messages(self):
        log = self.sonetrix.log
        for level, name in enumerate(LEVELS):
            self.assertSends([("LogString", level, b"python", 0, 1, b"\xc3\xa4")], getattr(log, name), "ä")
        for level in 0, 7, 2**32 - 1, True, 2.9, Number(5):
            self.assertSends([("LogString", int(level), b"python", 0, 1, b"%s")], log.log, level, "%s")
            self.assertSends([("LogString", int(level), b"python", 0, 1, b"a")], log.logb, message=b"a\0b", level=level)

    def test_settings(self):
        log = self.sonetrix.log
        for call, arguments, *expected in (
                (log.setLevel, (7,), ("SetLogLevel", 7)),
                (log.setLevelJournal, (2**32 - 1,), ("SetLogLevelJournal", 2**32 - 1)),
                (log.logTime, (-1,), ("time", -1), ("file_time", -1)),
                (log.logTime, (True,), ("time", 1), ("file_time", 1)),
                (log.logOnFile, ("/a",), ("filename", b"/a")),
                (log.logOnFile, (b"\xe4", -2**31), ("filename", b"\xe4")),
                (log.logOnFile, ("/a", 0), ("file_time", 0), ("filename", b"/a")),
                (log.logOnFile, ("",), ("filename", None)),
                (log.logOnFile, (b"", 2), ("file_time", 2), ("filename", None)),
                (log.logSysLog, (), ("syslog", 1)),
                (log.logSysLog, (None,), ("syslog", 0)), (log.logSysLog, ("no",), ("syslog", 1)),
                (log.logJournal, (), ("journald", 1)), (log.logJournal, (Number(0),), ("journald", 0))):
            self.assertSends(expected, call, *arguments)
        log.setLevel(log.WARN), log.setLevelJournal(log.FATAL)
        self.assertEqual((log.getLevel(), log.getLevelJournal()), (3, 5))
        record.result("sonetrix_log_GetLogLevel", 2**32 - 1)
        self.assertEqual(log.getLevel(), 2**32 - 1)
        self.assertEqual({call.lock_held for call in record.calls("sonetrix_log_Get*")}, {False})

    def test_what_is_looked_at_first(self):
        log = self.sonetrix.log
        for kind, text, call, *arguments in (
                (OverflowError, NEGATIVE, log.log, -10**30, b""), (OverflowError, NEGATIVE, log.logb, -1, ""),
                (OverflowError, "value too large to convert to int", log.logOnFile, 3, 2**31),
                (TypeError, WRONG_TYPE.format("str", "text"), log.info, type("text", (str,), {})()),
                (TypeError, WRONG_TYPE.format("bytes", "bytearray"), log.logb, 1, bytearray()),
                (ZeroDivisionError, DIVISION, log.logSysLog, Number())):
            self.assertRefused(kind, text, call, *arguments)
        self.assertEqual(record.calls("sonetrix_log*"), [])

    def test_replacements_are_honoured(self):
        log = self.sonetrix.log
        with mock.patch.object(log, "INFO", 9):
            self.assertSends([("LogString", 9, b"python", 0, 1, b"a")], log.info, "a")
        with mock.patch.object(log, "logb") as logb:
            log.info("ä"), log.log(Number(4), "b")
            self.assertEqual(logb.mock_calls, [mock.call(2, b"\xc3\xa4"), mock.call(4, b"b")])
        with mock.patch.object(log, "log") as write:
            log.warn("a"), log.warn(None)
            self.assertEqual(write.mock_calls, [mock.call(3, "a"), mock.call(3, None)])
        with mock.patch.object(self.sonetrix, "log") as other:
            log.error("a"), log.log(1, "b")
            self.assertEqual(other.mock_calls, [mock.call.log(other.ERROR, "a"), mock.call.logb(1, b"b")])


if __name__ == "__main__":
    unittest.main()
