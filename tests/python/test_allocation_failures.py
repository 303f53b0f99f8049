"""Out of memory at each allocation of each public method in turn: a clean Python error, nothing leaked, and the same
call works afterwards."""

import contextlib
import gc
import io
import os
import sys
import tempfile
import types
import unittest
import unittest.mock

from support import record
from support.record import Module, gives, modules, null

sonetrix = record.load()
engine, log, listValue, listKeyValue = sonetrix.engine, sonetrix.log, sonetrix.listValue, sonetrix.listKeyValue

_library = record._holding_lock

ENTRIES = {"a.gain": 0.5, "a.name": b"text", "a.table": ((1, 2), "aint32")}


def keys():
    return listValue().append("a.").append("b.gain")


def entries():
    return listKeyValue().append("k", 1).append("f", (1.0, 2.0)).append("s", "text")


def filled(value_list):
    return value_list.append("x").append(5).append(1.5).append((1, 2)).append((1.0, 2.0))


VALUES, MORE_VALUES, TABLE, KEYS, INFO = filled(listValue()), filled(listValue()), entries(), keys(), entries()
DOT_FILE = os.path.join(tempfile.mkdtemp(), "graph.dot")
NO_LINES = io.StringIO()

# Python code of the standard library is left out: what the interpreter makes of it without memory is not ours to test.
ONE_PARAMETER = types.SimpleNamespace(parameters=(1,))

CALLS = {
    "listValue": lambda: listValue(),
    "listValue.append": lambda: listValue().append("x").append(5).append(1.5, "double").append((1, 2)),
    "listValue.dup": VALUES.dup,
    "listValue.merge": lambda: listValue().merge(VALUES.dup()),
    "listValue.toList": VALUES.toList,
    "listValue.toListType": VALUES.toListType,
    "listKeyValue.append": lambda: listKeyValue().append("k", "x").append("l", 5, "uint32").append("m", (1.0,), "float"),
    "listKeyValue.remove": lambda: TABLE.dup().remove("k"),
    "listKeyValue.merge": lambda: listKeyValue().merge(TABLE.dup()),
    "listKeyValue.appendFromDict": lambda: listKeyValue().appendFromDict({"a": 1, "b": (1.0,)}),
    "listKeyValue.appendFromDictType": lambda: listKeyValue().appendFromDictType({"a": (1, "int32"), "b": [2.0, None]}),
    "listKeyValue.toDict": TABLE.toDict,
    "listKeyValue.toDict(cb)": lambda: TABLE.toDict(bool),
    "listKeyValue.toDictType": TABLE.toDictType,
    "engine.param": engine.param,
    "engine.cpuInfo": engine.cpuInfo,
    "engine.getDriverName": engine.getDriverName,
    "engine.getFrameRate": engine.getFrameRate,
    "engine.getParam": lambda: engine.getParam(["a.", b"b.gain"]),
    "engine.getParams": lambda: engine.getParams(KEYS),
    "engine.setParams": lambda: engine.setParams(INFO),
    "engine.listAvailableModules": engine.listAvailableModules,
    "engine.newModule": lambda: engine.newModule("a", b"id", INFO),
    "engine.delModule": lambda: engine.delModule(bytearray(b"a")),
    "engine.getModuleNames": engine.getModuleNames,
    "engine.getModuleInfos": engine.getModuleInfos,
    "engine.getUsageInfo": engine.getUsageInfo,
    "engine.getLink": lambda: engine.getLink("a:out"),
    "engine.link": lambda: engine.link("a:out", bytearray(b"b:in")),
    "engine.addDebugMeter": lambda: engine.addDebugMeter("a.level", 1, "uint32"),
    "engine.getLastMeter": lambda: engine.getLastMeter("a.g"),
    "engine.getMeterInfo": lambda: engine.getMeterInfo(engine.METER_FAST),
    "engine.dot": lambda: engine.dot(DOT_FILE),
    "engine._writeLinesWithHeader": lambda: engine._writeLinesWithHeader(NO_LINES, "a\nb", 2),
    "engine.addTimer": lambda: engine.addTimer(10, print),
    "notifyChanges": lambda: sonetrix.notifyChanges(len),
    "notifyMeters": lambda: sonetrix.notifyMeters(len, engine.METER_SLOW),
    "log.info": lambda: log.info("ü"),
    "log.log": lambda: log.log(log.WARN, "text"),
    "log.logOnFile": lambda: log.logOnFile("file", 1),
    "exit": lambda: sonetrix.exit(3),
    "add_clear_callback": lambda: sonetrix.add_clear_callback(len),
    "a refused argument": lambda: engine.link(1),
    "__annotations__": lambda: engine.link.__annotations__,
}


def run_with_failure(call, number):
    """The exception of a call whose allocation of that number fails, and how many allocations it made."""
    _library.record_failAllocation(number)
    try:
        result, error = call(), None
    except BaseException as caught:
        result, error = None, caught
    count = _library.record_endAllocationFailure()
    return error, count


class AllocationFailures(unittest.TestCase):
    def setUp(self):
        self.enterContext(unittest.mock.patch.object(sonetrix, "signature", lambda callback: ONE_PARAMETER))
        for name in ("sonetrix_engine_GetModulesList", "sonetrix_engine_GetLinkPort"):
            gives(name, [b"one", b"two"])
        for name in ("GetParams", "GetLastMeters", "meterInfoList"):
            gives("sonetrix_engine_" + name, ENTRIES)
        modules(Module.of(b"system", 0, sources=[(b"system:in", 0)], sinks=[(b"system:out", 0, b"a:out")]),
                Module.of(b"a", 1, sources=[(b"a:out", 0)], sinks=[(b"a:in", 0)]))
        record.recording(False)
        self.addCleanup(record.recording, True)
        self.addCleanup(record.reset)

    def test_each_allocation_of_each_method(self):
        faults = 0
        for name, call in CALLS.items():
            with self.subTest(name):
                for _ in range(3):  # caches and free lists settle
                    usual, _ = run_with_failure(call, -1)
                gc.collect()
                lists = record.lists()
                number, count = 0, 1
                while number < count:
                    with contextlib.redirect_stderr(io.StringIO()):
                        error, made = run_with_failure(call, number)
                    count = max(made, count) if number == 0 else count
                    if error is not None:
                        # A module that cannot be described is left out, and with it the port that a link names.
                        allowed = (MemoryError, type(usual), KeyError if name == "engine.dot" else MemoryError)
                        self.assertIsInstance(error, allowed, f"allocation {number}: {error!r}")
                        error = None
                    number += 1
                    faults += 1
                gc.collect()
                self.assertEqual(record.lists(), lists, "lists left behind")
                again, _ = run_with_failure(call, -1)
                self.assertIs(type(again), type(usual), again)
        self.assertEqual(record.violations(), [])
        print(f"{faults} allocation failures in {len(CALLS)} calls", file=sys.stderr)

    def test_a_null_from_the_engine_wherever_it_makes_something(self):
        for name, call, error in (
            ("sonetrix_valueListNew", CALLS["listValue.append"], MemoryError),
            ("sonetrix_valueListNew", lambda: engine.getParam("a"), MemoryError),
            ("sonetrix_valueListDeepCopy", VALUES.dup, Exception),
            ("sonetrix_keyValueListNew", CALLS["listKeyValue.append"], MemoryError),
            ("sonetrix_keyValueListNew", CALLS["engine.setParams"], MemoryError),
            ("sonetrix_keyValueListDeepCopy", TABLE.dup, Exception),
            ("sonetrix_engine_notify_changes_addCallback", CALLS["notifyChanges"], MemoryError),
            ("sonetrix_engine_addCallbackMeterManager", CALLS["notifyMeters"], MemoryError),
            ("sonetrix_engine_meterInfoList", CALLS["engine.getMeterInfo"], Exception),
        ):
            with self.subTest(name):
                lists = record.lists()
                null(name)
                with self.assertRaises(error):
                    call()
                null(name, 0)
                call()
                gc.collect()
                self.assertEqual(record.lists(), lists)


if __name__ == "__main__":
    unittest.main()
