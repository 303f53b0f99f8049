# ctest: timeout=200
"""Each public call and each callback where something goes wrong: no memory, no lists from the engine, wrong arguments.

The error is a clean one, nothing stays behind, and the same call works afterwards.
"""

import _testcapi
import functools
import gc
import inspect
import sys
import unittest
from unittest import mock

from support import SANITIZER, calls, record

GIVE_POINTERS = {name for name, (result, _) in record.FUNCTIONS.items() if result.endswith("*")}
HARMLESS = 60  # allocations in a row, after which there are none any more
ROUNDS = 100 if SANITIZER else 500  # with a sanitizer, which replaces the allocator, it is the one that finds leaks
KEPT_FREE = 8192  # bytes that malloc has on its threads' lists, which count as allocated


def without_memory(call, number):
    """What a call raises whose allocation of that number fails."""
    list(enumerate(range(9)))  # pairs that stay free: a dict's iterator crashes where there is no memory for its own
    _testcapi.set_nomemory(number, number + 1)
    try:
        call()
    except BaseException as error:
        return error
    finally:
        _testcapi.remove_mem_hooks()


ODD = type("Odd", (), {"__eq__": lambda self, other: 1 / 0, "__hash__": None})()
UNWILLING = type("Unwilling", (), {"__int__": lambda self: [][1]})()
NO_INTEGER = TypeError, "an integer is required"
NOT_ASCII = UnicodeEncodeError, None
WRONG_TYPE = "Argument '{}' has incorrect type (expected {}, got {})"


def enumeration(name):
    return {-1: (OverflowError, "can't convert negative value to enum " + name), "1": NO_INTEGER, **dict.fromkeys(
        (2**32, 10**30), (OverflowError, "value too large to convert to enum " + name))}


def integer(name):
    return dict.fromkeys((2**31, -2**31 - 1), (OverflowError, "value too large to convert to " + name))


# What a parameter of this name does not take, and how that is refused; a type's name is what was expected. Where
# functions differ, theirs comes first; all other arguments are good.
NAME = {"é": NOT_ASCII, 1.5: (TypeError, "cannot convert 'float' object to bytes"), -1: (ValueError, "negative count")}
ONE_PARAMETER = dict.fromkeys((lambda: None, lambda a, b: None),
                              (ValueError, "The callback must have only one parameter"))
REFUSED = {
    "level": {**enumeration("sonetrix_log_level"), UNWILLING: (IndexError, "list index out of range")},
    "message": {None: (AttributeError, "'NoneType' object has no attribute 'encode'"), "\ud800": NOT_ASCII, b"": "str"},
    "log.logb.message": {None: (TypeError, "expected bytes, NoneType found"), "": "bytes"},
    "timeOn": {**integer("int"), 1.5: NO_INTEGER, None: NO_INTEGER}, "filename": {5: "str", b"a": "str"},
    "log.logOnFile.filename": {5: (Exception, "filename type not supported"), "ä": NOT_ASCII},
    "lines": {None: "str"}, "lineHeaderCount": {True: "int"},
    "exitcode": {2**40: (OverflowError, "value too large to convert to int32_t")},
    "callback": {5: (ValueError, "")}, "notifyMeters.callback": ONE_PARAMETER,
    "notifyChanges.callback": {5: (TypeError, "5 is not a callable object"), **ONE_PARAMETER},
    "timeout_ms": {**integer("int32_t"), "1": NO_INTEGER},
    "meters_type": enumeration("sonetrix_module_meters_type"), "engine.getMeters.meters_type": {},
    "engine.getMeterInfo.meters_type": {
        **dict.fromkeys((-1, 2), (Exception, "Meters type not valid")), **integer("int32_t"), "1": NO_INTEGER},
    "name": NAME, "identifier": NAME, "p": NAME, "info": {5: "sonetrix.listKeyValue"},
    "p1": {1: (ValueError, "p1 has to be string or bytes (<class 'int'>)"), "é": NOT_ASCII},
    "p2": {2.5: (ValueError, "p2 has to be string or bytes or None (<class 'float'>)"), "é": NOT_ASCII},
    "k": {**dict.fromkeys((5, None), (Exception, "key type not supported")), "é": NOT_ASCII},
    "v": {None: (Exception, "value type not supported"), "\udc80": NOT_ASCII,
          2**31: (OverflowError, "value too large to convert to int32_t")},
    "engine.getParam.k": {**dict.fromkeys((5, None), (Exception, "only string/byte/list/tuple is accepted as input")),
                          ("a", 5): (Exception, "only string is accepted"), "é": NOT_ASCII, ("é",): NOT_ASCII,
                          (None,): (Exception, "value type not supported")},
    "engine.getParams.k": {5: "sonetrix.listValue",
                           None: (AttributeError, "'NoneType' object has no attribute 'toListType'")},
    "engine.setParams.k": {5: "sonetrix.listKeyValue"}, "engine.setParamsCli.k": {5: "sonetrix.listKeyValue"},
    "engine.getLastMeter.k": {None: (Exception, "only string/bytes is accepted as input"), "é": NOT_ASCII},
    "engine.addDebugMeter.type": dict.fromkeys(("string", None, "double", 5), (Exception, "type not supported")),
    "listValue.merge.other": {5: "sonetrix.listValue"}, "listKeyValue.merge.other": {None: "sonetrix.listKeyValue"},
    "d": {5: "dict", None: "dict"},
}


class EveryCall(record.TestCase):
    def setUp(self):
        super().setUp()
        self.every = calls.every(self.sonetrix)
        calls.prepare(self)
        self._lists = record.lists()  # with those that the calls keep
        self.enterContext(mock.patch("sys.stderr", None))
        self.enterContext(mock.patch("sys.unraisablehook", lambda report: None))

    def tearDown(self):
        for kept in gc.get_referents(self.sonetrix):
            if type(kept) is list:
                kept.clear()  # the clear callbacks
        super().tearDown()

    def test_wrong_arguments_are_refused_before_the_engine_is_asked(self):
        self.enterContext(mock.patch.object(self.sonetrix, "signature", inspect.signature))
        for name, call in self.every.items():
            for parameter in call.arguments:
                for wrong, refusal in REFUSED.get(f"{name}.{parameter}", REFUSED.get(parameter, {})).items():
                    record.clear()
                    with self.subTest(name, **{parameter: wrong}):
                        if isinstance(refusal, str):
                            refusal = TypeError, WRONG_TYPE.format(parameter, refusal, type(wrong).__name__)
                        with self.assertRaises(refusal[0]) as caught:
                            call(**{parameter: wrong})
                        said = str(caught.exception) if refusal[1] is not None else None
                        self.assertEqual((type(caught.exception), said), refusal)
                        self.assertEqual(record.calls("sonetrix_engine_*", "sonetrix_log*"), [])

    def test_out_of_memory(self):
        record.recording(False)
        faults = 0
        for name, call in self.every.items():
            with self.subTest(name):
                lists, number, harmless = record.lists(), 0, 0
                while harmless < HARMLESS:
                    error = without_memory(call.ready(), number)
                    # A module that cannot be described is left out, and with it the port that a link names.
                    allowed = MemoryError, KeyError if name == "engine.dot" else MemoryError
                    self.assertTrue(error is None or isinstance(error, allowed), f"allocation {number}: {error!r}")
                    number += 1
                    faults += error is not None
                    harmless = 0 if error else harmless + 1
                    error = None
                gc.collect()
                self.assertEqual(record.lists(), lists, "lists left behind")
                call()
        self.assertGreater(faults, 400)

    def test_callbacks_out_of_memory(self):
        module, received = self.sonetrix, []
        kept = [module.notifyChanges(received.append), module.notifyMeters(received.append),
                module.timeout(5, lambda: received.append({b"a": 1}))]
        for kind in record.CHANGES, record.FAST_METERS, record.TIMER:
            fire = functools.partial(record._library.record_fire, kind, record.List({"a": 1}), 0, 1)
            received.clear()
            for number in range(HARMLESS):
                without_memory(fire, number)
            if kind != record.TIMER:
                self.assertIn({}, received)  # it is told that there is something, at least
            received.clear()
            fire()
            self.assertEqual(received, [{b"a": 1}])
        del kept

    def test_nothing_from_the_engine(self):
        self.assertGreater(len(self.every), 80, sorted(self.every))
        for name, call in self.every.items():
            record.clear()
            call()
            asked = {made.name for made in record.calls()} & set(GIVE_POINTERS)
            for function in asked - {"sonetrix_engineGet"}:
                with self.subTest(name, function=function):
                    record.null(function)
                    try:
                        call()
                    except Exception as error:
                        self.assertIn(type(error), (MemoryError, Exception))
                    record.null(function, 0)
                    call()

    def test_nothing_grows(self):
        record.recording(False)
        work = dict(self.every)
        for name, owner, function in calls.functions(self.sonetrix):
            count = len(inspect.signature(function).parameters)
            work[name + " refused"] = lambda function=function, count=count: self.refused(function, count)
        kept = [self.sonetrix.notifyChanges(lambda changes: 1 / 0), self.sonetrix.timeout(1, int)]
        changed = record.List({"a": 1})
        work["fired"] = lambda: (record.fire(record.CHANGES, changed, threads=0), record.fire(record.TIMER, changed))
        del work["add_clear_callback"]
        gc.disable()
        self.addCleanup(gc.enable)
        leaks = []
        for name, call in work.items():
            for _ in range(50):
                call()
            for attempt in range(3):  # a table of the interpreter's may grow once
                gc.collect()
                blocks, native = sys.getallocatedblocks(), record.native_bytes()
                for _ in range(ROUNDS):
                    call()
                gc.collect()
                grown = sys.getallocatedblocks() - blocks, record.native_bytes() - native
                if grown[0] <= ROUNDS / 10 and grown[1] <= ROUNDS * 4 + KEPT_FREE:
                    break
            else:
                leaks.append((name, grown))
        self.assertEqual(leaks, [])
        del kept

    @staticmethod
    def refused(function, count):
        for arguments in [ODD] * count, [ODD] * (count + 1), ["\udc80"] * count, [2**70] * min(count, 1):
            try:
                function(*arguments)
            except Exception:
                pass
