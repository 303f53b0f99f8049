"""Hundreds of thousands of calls of every public method, refused ones included, leave the memory as it was."""

import contextlib
import ctypes
import gc
import io
import os
import sys
import unittest
from unittest import mock

from support import SANITIZER, record
from support.record import CHANGES, FAST_METERS, TIMER, Module, Value

ROUNDS = 300 if SANITIZER else 2500  # with a sanitizer, which replaces the allocator, it is the one that finds leaks
STATEMENTS = r"""
engine.isRunning(), engine.getXrunCounter(), engine.getFrameRate(), engine.hasDriver(), engine.initEngine()
engine.exit(), engine.now(), engine.getLastAudioTimeStamp(), engine.cpuInfo(), engine.getDriverName(), engine.waitUntilEnd()
engine.param().append('a', 1).toDict(), engine.getParam(['a', b'b']), engine.getParams(L().append('x'))
engine.getLastMeter('k').toDictType(), engine.getLastMeter('k.a'), engine.getMeters(b'm', 0), engine.getMeterInfo(1)
engine.unregisterMetersManager()
no(engine.getParam, ['a', (1,)]), no(engine.getParam, 'é'), no(engine.getParam, 5), no(engine.getMeterInfo, 5)
engine.setParams(K().append('a', (1, 2))), engine.setParamsCli(K().append('a', 'ä')), no(engine.setParams, 5)
engine.addDebugMeter('k', 'x'), engine.addDebugMeter('k', 5, 'uint'), engine.addDebugMeter(b'k', 1.5)
engine.delDebugMeter('k'), no(engine.addDebugMeter, 'k', 1.5, 'int'), no(engine.addDebugMeter, 'k', 'é' * 99, 'string')
engine.getPortNames(), engine.listAvailableModules(), engine.getLink(bytearray(b'p'))
engine.getModuleNames(), engine.getModuleInfos(), engine.getUsageInfo()
engine.newModule(bytearray(b'n'), [65], K().append('a', 1)), engine.delModule(3), engine.link('a', bytearray(b'b'))
no(engine.newModule, bytearray(b'n'), 'i', 5), no(engine.link, 'a', 5), no(lambda: engine.link(p3=5))
engine.dot('/dev/null'), no(engine.dot, '/nonexistent/folder'), engine._writeLinesWithHeader(io.StringIO(), 'a\nb', 2)
L().append('ä').append((1.0,)).append(1, 'uint32').append(1.5, ctypes.c_double).append((True, 2)).dup().toListType()
l = L().append(1); l.merge(L().append(b'x')); l.toList(); l == l.dup(); l != None; no(l.__eq__, 5); no(l.__reduce__)
no(L().append, 2**31), no(L().append, (2**31,)), no(L().append, (1, 2), Odd()), no(L, 5)
k = K().append('a', 1).append(b'b', 'x', ctypes.c_char_p).append('c', (1,), 'uint').remove('a'); k.toDict(bool)
k = K().appendFromDict({'a': 1}); k.merge(K().append('b', 2)); k.appendFromDictType(k.toDictType(None))
no(K().appendFromDictType, {'a': ([1], 'aint32')}), no(K().append('a', 1).toDict, lambda item: 1 / 0)
log.info('ä'), log.log(True, 'a'), log.logb(Index(), b'a'), log.logTime(1), log.logOnFile('')
log.setLevel(1), log.getLevel(), log.setLevelJournal(1), log.getLevelJournal(), log.logSysLog(Index())
log.logJournal(), no(log.info, '\udc80'), no(log.setLevel, -1)
exit(1), exit(), exit('x'), memory.inspect(), cpu(), usageInfo(), no(exit, 2**40), no(add_clear_callback, 5)
notifyChanges(len), notifyMeters(len, 0), timeout(1, print), engine.addTimer(1, print), no(notifyChanges, lambda: 0)
x = notifyChanges(lambda c: 1 / 0); fire(CHANGES); x = notifyMeters(len); fire(FAST_METERS)
x = timeout(1, lambda: 1 / 0); fire(TIMER)
repr(engine.link), engine.link.__doc__, L().append
"""


class Odd:
    def __eq__(self, other):
        raise KeyError


class Index:
    def __index__(self):
        return 3


def no(call, *arguments):
    try:
        call(*arguments)
    except Exception:
        return
    raise AssertionError(f"{call}{arguments} is not refused")


class LeakTest(record.TestCase):
    def native_bytes(self):
        fields = ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks",
                  "keepcost")
        info = type("mallinfo2", (ctypes.Structure,), {"_fields_": [(name, ctypes.c_size_t) for name in fields]})
        mallinfo2 = ctypes.CDLL(None).mallinfo2
        mallinfo2.restype = info
        return (lambda now: now.uordblks + now.hblkhd)(mallinfo2())

    def test_every_method(self):
        record.modules(Module.of(b"a", 1), Module.of(b"b", 2, sources=[(b"b:1", 1)],
                                                            sinks=[(b"b:2", 1, b"b:1")]))
        for name in "GetParams", "GetLastMeters", "meterInfoList", "getStartParameter", "ModuleGetStartParameter":
            record.gives("sonetrix_engine_" + name, {"k.a": 5, "k.b": Value(99), "k.c": ((1.5,), "afloat"),
                                                            "k.d": "x"})
        for name in "GetModulesList", "GetAllPortNames", "GetLinkPort":
            record.gives("sonetrix_engine_" + name, ["x", 5, Value(99)])
        record.result("sonetrix_engine_IsRunning", 0)
        record.recording(False)
        entries = record.make_list({"a": 1})
        fire = lambda kind: record.fire(kind, entries, threads=0)
        names = {**globals(), **vars(self.sonetrix), "L": self.sonetrix.listValue, "K": self.sonetrix.listKeyValue,
                 "fire": fire}
        gc.disable()
        self.addCleanup(gc.enable)
        leaks = []
        with (mock.patch("sys.stderr", None), mock.patch("sys.unraisablehook", lambda report: None),
              open(os.devnull, "w") as nowhere, contextlib.redirect_stdout(nowhere)):
            for statement in STATEMENTS.strip().split("\n"):
                exec(f"def run(rounds):\n for _ in range(rounds):\n  {statement}", names)
                names["run"](200)
                gc.collect()
                growth = []
                for _ in range(2):  # a table of the interpreter's may grow once
                    blocks, native = sys.getallocatedblocks(), self.native_bytes()
                    names["run"](ROUNDS)
                    gc.collect()
                    blocks, native = sys.getallocatedblocks() - blocks, self.native_bytes() - native
                    growth.append((blocks / ROUNDS, native / ROUNDS))
                    if blocks <= ROUNDS / 10 and native <= ROUNDS * 4:
                        break
                else:
                    leaks.append((statement, growth))
        self.assertEqual(leaks, [])


if __name__ == "__main__":
    unittest.main()
