# ctest: timeout=200
"""Each public call and each callback where something goes wrong: no memory, no lists from the engine, wrong arguments.

The error is a clean one, nothing stays behind, and the same call works afterwards.
"""

import _testcapi
import functools
import gc
import inspect
import sys
from unittest import mock

from support import calls, record

HARMLESS = 60  # allocations in a row, after which there are none any more


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


UNWILLING = type("Unwilling", (), {"__int__": lambda self: [][1]})()
NO_INTEGER = TypeError, "an integer is required"
NOT_ASCII = UnicodeEncodeError, None
WRONG_TYPE = "Argument '{}' has incorrect type (expected {}, got {})"


def enumeration(name):
    return {-1: (OverflowError, f"can't convert negative value to enum {name}"),
            2**32: (OverflowError, f"value too large to convert to enum {name}")}


def integer(name):
    return {-2**31 - 1: (OverflowError, f"value too large to convert to {name}"), "1": NO_INTEGER}


# What a parameter of this name does not take, and how that is refused; a type's name is what was expected. Where
# functions differ, theirs comes first; all other arguments are good.
NAME = {"é": NOT_ASCII, 1.5: (TypeError, "cannot convert 'float' object to bytes")}
ONE_PARAMETER = {lambda a, b: None: (ValueError, "The callback must have only one parameter")}
REFUSED = {
    "level": {**enumeration("sonetrix_log_level"), UNWILLING: (IndexError, "list index out of range")},
    "message": {None: (AttributeError, "'NoneType' object has no attribute 'encode'"), "\ud800": NOT_ASCII, b"": "str"},
    "log.logb.message": {None: (TypeError, "expected bytes, NoneType found"), "": "bytes"},
    "timeOn": {**integer("int"), 1.5: NO_INTEGER}, "filename": {5: "str"}, "lines": {None: "str"},
    "log.logOnFile.filename": {5: (Exception, "filename type not supported"), "ä": NOT_ASCII},
    "lineHeaderCount": {True: "int"}, "exitcode": {2**40: (OverflowError, "value too large to convert to int32_t")},
    "callback": {5: (ValueError, "")}, "notifyMeters.callback": ONE_PARAMETER,
    "notifyChanges.callback": {5: (TypeError, "5 is not a callable object"), **ONE_PARAMETER},
    "timeout_ms": integer("int32_t"), "meters_type": enumeration("sonetrix_module_meters_type"),
    "engine.getMeterInfo.meters_type": {2: (Exception, "Meters type not valid"), **integer("int32_t")},
    "engine.getMeters.meters_type": {}, "name": NAME, "identifier": NAME, "p": NAME,
    "info": {5: "sonetrix.listKeyValue"}, "engine.setParams.k": {5: "sonetrix.listKeyValue"},
    "engine.setParamsCli.k": {5: "sonetrix.listKeyValue"},
    "p1": {1: (ValueError, "p1 has to be string or bytes (<class 'int'>)"), "é": NOT_ASCII},
    "p2": {2.5: (ValueError, "p2 has to be string or bytes or None (<class 'float'>)"), "é": NOT_ASCII},
    "k": {5: (Exception, "key type not supported"), "é": NOT_ASCII},
    "v": {None: (Exception, "value type not supported"), "\udc80": NOT_ASCII},
    "engine.getParam.k": {5: (Exception, "only string/byte/list/tuple is accepted as input"), ("é",): NOT_ASCII,
                          ("a", 5): (Exception, "only string is accepted")},
    "engine.getParams.k": {5: "sonetrix.listValue",
                           None: (AttributeError, "'NoneType' object has no attribute 'toListType'")},
    "engine.getLastMeter.k": {5: (Exception, "only string/bytes is accepted as input")},
    "engine.addDebugMeter.type": {"string": (Exception, "type not supported")},
    "listValue.merge.other": {5: "sonetrix.listValue"}, "listKeyValue.merge.other": {None: "sonetrix.listKeyValue"},
    "d": {5: "dict"},
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
            # A module that cannot be described is left out, and with it the port that a link names.
            allowed = MemoryError, KeyError if name == "engine.dot" else MemoryError
            lists, number, last = record.lists(), 0, 0
            with self.subTest(name):
                while number <= last + HARMLESS:
                    if error := without_memory(call.ready(), number):
                        self.assertIsInstance(error, allowed, number)
                        faults += 1
                        last = number
                    number += 1
                gc.collect()
                self.assertEqual(record.lists(), lists, "lists left behind")
                call()
        self.assertGreater(faults, 400)

    def test_callbacks_out_of_memory(self):
        received = []
        kept = [self.sonetrix.notifyChanges(received.append), self.sonetrix.notifyMeters(received.append)]
        for kind in record.CHANGES, record.FAST_METERS:
            fire = functools.partial(record.fire, kind, record.List({"a": 1}), threads=0)
            received.clear()
            for number in range(HARMLESS):
                without_memory(fire, number)
            self.assertIn({}, received)  # it is told that there is something, at least
            fire()
            self.assertEqual(received[-1], {b"a": 1})
        del kept

    def test_nothing_from_the_engine(self):
        self.assertGreater(len(self.every), 80, sorted(self.every))
        for name, call in self.every.items():
            record.clear()
            call()
            asked = {made.name for made in record.calls() if record.FUNCTIONS[made.name][0].endswith("*")}
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
        """Memory of the interpreter's; the engine's lists are counted anyway."""
        record.recording(False)
        del self.every["add_clear_callback"]
        for name, _, function in calls.functions(self.sonetrix):
            if not inspect.isfunction(function):  # as a stand-in is
                arguments = [None] * (len(inspect.signature(function).parameters) + 1)
                self.every[name + " refused"] = functools.partial(self.assertRaises, TypeError, function, *arguments)
        for name, call in self.every.items():
            blocks = []
            for rounds in 50, 200:  # what is kept for the next time is there after the first ones
                for _ in range(rounds):
                    call()
                gc.collect()
                blocks.append(sys.getallocatedblocks())
            self.assertLess(blocks[1] - blocks[0], 50, name)
