"""The class log: what reaches the engine's log, and that what a script puts in its place is honoured."""

import decimal
from unittest import mock

from support import record


def message(level, text):
    return "LogString", level, b"python", 0, 1, text


class LogTest(record.TestCase):
    def assertSends(self, call, arguments, *expected):
        record.clear()
        self.assertIsNone(call(*arguments))
        calls = record.calls("sonetrix_log*")
        self.assertEqual([(made.name.removeprefix("sonetrix_log_"), *made.args) for made in calls], [*expected])

    def test_calls(self):
        log, whole = self.sonetrix.log, decimal.Decimal  # which has __int__ and no __index__
        for level, name in enumerate(["trace", "debug", "info", "warn", "error", "fatal"]):
            self.assertSends(getattr(log, name), ["ä"], message(level, b"\xc3\xa4"))
        for level in 2**32 - 1, 2.9, whole(5):
            self.assertSends(log.log, [level, "%s"], message(int(level), b"%s"))
        self.assertSends(log.logb, [7, b"a\0b"], message(7, b"a"))
        self.assertSends(log.logTime, [-1], ("time", -1), ("file_time", -1))
        self.assertSends(log.logOnFile, ["/a", 0], ("file_time", 0), ("filename", b"/a"))
        self.assertSends(log.logOnFile, [b"\xe4", -1], ("filename", b"\xe4"))
        self.assertSends(log.logOnFile, [""], ("filename", None))
        self.assertSends(log.logSysLog, ["no"], ("syslog", 1))
        self.assertSends(log.logJournal, [], ("journald", 1))
        self.assertSends(log.logJournal, [whole(0)], ("journald", 0))
        log.setLevel(2**32 - 1), log.setLevelJournal(log.FATAL)
        self.assertEqual((log.getLevel(), log.getLevelJournal()), (2**32 - 1, 5))

    def test_replacements_are_honoured(self):
        log = self.sonetrix.log
        with mock.patch.object(log, "INFO", 9):
            self.assertSends(log.info, ["a"], message(9, b"a"))
        with mock.patch.object(log, "logb") as logb:
            log.info("ä"), log.log(2.9, "b")
            self.assertEqual(logb.mock_calls, [mock.call(2, b"\xc3\xa4"), mock.call(2, b"b")])
        with mock.patch.object(self.sonetrix, "log") as other:
            log.error("a"), log.log(1, "b")
            self.assertEqual(other.mock_calls, [mock.call.log(other.ERROR, "a"), mock.call.logb(1, b"b")])
