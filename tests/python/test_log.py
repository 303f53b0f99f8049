"""The class log: what reaches the engine's log, and that a refused call reaches nothing."""

import sys
import unittest
from unittest import mock

from support import record

LEVELS = "trace", "debug", "info", "warn", "error", "fatal"
WRONG_TYPE = "Argument 'message' has incorrect type (expected {}, got {})"
NO_ENCODE = "'NoneType' object has no attribute 'encode'"
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

    def test_refusals(self):
        """Where two arguments are wrong, the text shows which is looked at first."""
        log = self.sonetrix.log
        rows = [(AttributeError, NO_ENCODE, getattr(log, name), None) for name in LEVELS]
        rows += [(TypeError, WRONG_TYPE.format("str", "bytes"), getattr(log, name), b"") for name in LEVELS]
        for call, *rest in (log.setLevel,), (log.setLevelJournal,), (log.log, b""), (log.logb, ""):
            for kind, text, level in ((OverflowError, "can't convert negative value to enum sonetrix_log_level", -1),
                                      (OverflowError, "can't convert negative value to enum sonetrix_log_level",
                                       -10**30),
                                      (OverflowError, "value too large to convert to enum sonetrix_log_level", 2**32),
                                      (OverflowError, "value too large to convert to enum sonetrix_log_level", 10**30),
                                      (TypeError, "an integer is required", "1"),
                                      (ZeroDivisionError, DIVISION, Number())):
                rows.append((kind, text, call, level, *rest))
        rows += [
            (TypeError, WRONG_TYPE.format("str", "text"), log.info, type("text", (str,), {})()),
            (TypeError, WRONG_TYPE.format("bytes", "bytearray"), log.logb, 1, bytearray()),
            (TypeError, "expected bytes, NoneType found", log.logb, 1, None),
            (AttributeError, NO_ENCODE, log.log, 1, None),
            (Exception, "filename type not supported", log.logOnFile, bytearray(b"a"), 1),
            *((OverflowError, "value too large to convert to int", *call)
              for call in ((log.logOnFile, 3, 2**31), (log.logTime, 2**31), (log.logTime, -2**31 - 1))),
            *((TypeError, "an integer is required", call, *arguments) for call, *arguments in (
                (log.logTime, None), (log.logTime, 1.5), (log.logOnFile, "a", 1.5))),
            (ZeroDivisionError, DIVISION, log.logSysLog, Number())]
        for kind, text, call, *arguments in rows:
            with self.subTest(call=call, arguments=arguments):
                self.assertRefused(kind, text, call, *arguments)
        for call, *arguments in (log.info, "\ud800"), (log.log, 1, "\ud800"), (log.logOnFile, "ä"):
            self.assertRaises(UnicodeEncodeError, call, *arguments)
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
