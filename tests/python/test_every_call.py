# ctest: timeout=200
"""Each public call and each callback where something goes wrong: no memory, no lists from the engine, wrong arguments.

The error is a clean one, nothing stays behind, and the same call works afterwards.
"""

import _testcapi
import functools
import gc
import inspect
import itertools
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


# One for each kind of check; with two wrong arguments, which is looked at first.
REFUSALS = [
    ("log.log(-1, 'a')", OverflowError, "can't convert negative value to enum sonetrix_log_level"),
    ("log.logTime(-2**31 - 1)", OverflowError, "value too large to convert to int"),
    ("log.logTime(1.5)", TypeError, "an integer is required"),
    ("log.info(b'')", TypeError, "Argument 'message' has incorrect type (expected str, got bytes)"),
    ("log.info(None)", AttributeError, "'NoneType' object has no attribute 'encode'"),
    ("log.logb(1, None)", TypeError, "expected bytes, NoneType found"),
    ("log.logOnFile(5)", Exception, "filename type not supported"),
    ("exit(2**40)", OverflowError, "value too large to convert to int32_t"),
    ("timeout('1', len)", TypeError, "an integer is required"),
    ("timeout(1, 5)", ValueError, ""),
    ("notifyChanges(5)", TypeError, "5 is not a callable object"),
    ("notifyMeters(lambda a, b: None)", ValueError, "The callback must have only one parameter"),
    ("engine._writeLinesWithHeader(5, '', True)", TypeError,
     "Argument 'lineHeaderCount' has incorrect type (expected int, got bool)"),
    ("engine.newModule(1.5, 'é', 5)", TypeError, "cannot convert 'float' object to bytes"),
    ("engine.link(1, 'é')", ValueError, "p1 has to be string or bytes (<class 'int'>)"),
    ("engine.link('a', 2.5)", ValueError, "p2 has to be string or bytes or None (<class 'float'>)"),
    ("engine.getParam(5)", Exception, "only string/byte/list/tuple is accepted as input"),
    ("engine.getParam(('a', 5))", Exception, "only string is accepted"),
    ("engine.getParams(None)", AttributeError, "'NoneType' object has no attribute 'toListType'"),
    ("engine.getParams(listValue().append((1,)))", IndexError, "tuple index out of range"),
    ("engine.getLastMeter(5)", Exception, "only string/bytes is accepted as input"),
    ("engine.delDebugMeter(5, 2**32)", OverflowError, "value too large to convert to enum sonetrix_module_meters_type"),
    ("engine.addDebugMeter(5, [])", Exception, "key type not supported"),
    ("engine.addDebugMeter('k', 1, 'string')", Exception, "type not supported"),
    ("engine.addDebugMeter('k', '1', 'int')", Exception, "value type int incompatible with provided value 1"),
    ("listValue().append(10**25, 'int32')", OverflowError, "value too large to convert to int32_t"),
    ("listKeyValue().append('k', -1, 'uint32')", OverflowError, "can't convert negative value to uint32_t"),
    ("listKeyValue().append('k', 2**32, 'uint32')", OverflowError, "value too large to convert to uint32_t"),
    ("listValue().append(os.get_terminal_size())", TypeError, "Expected tuple, got os.terminal_size"),
    ("listValue().append(1.5, 'int32')", Exception, "value type not supported"),
    ("listKeyValue().append(5, None)", Exception, "key type not supported"),
    ("listKeyValue().appendFromDictType({'a': (1, 'aint32')})", ValueError, "aint32 as to contain a tuple"),
    ("listKeyValue().appendFromDictType({'a': 5})", TypeError, "cannot unpack non-iterable int object"),
    ("listKeyValue().appendFromDictType({'a': 'b'})", ValueError, "not enough values to unpack (expected 2, got 1)"),
    ("listKeyValue() == 5", TypeError,
     "Argument 'other' has incorrect type (expected sonetrix.listKeyValue, got int)"),
    ("hash(listValue())", TypeError, "unhashable type: 'sonetrix.listValue'"),
    ("listValue().__reduce__()", TypeError, "no default __reduce__ due to non-trivial __cinit__"),
]
# What parameters do not take: the value, the error, their names where it is not all of them.
TAKE_ANYTHING = {"on", "hold", "exitcode"}
BAD = [(object(), Exception, None),
       ("é", (UnicodeEncodeError, TypeError), {"name", "identifier", "p", "p1", "p2", "k"}),
       (10**30, OverflowError, {"level", "meters_type", "timeOn", "timeout_ms", "exitcode"})]


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

    def test_refusals(self):
        self.enterContext(mock.patch.object(self.sonetrix, "signature", inspect.signature))
        for call, kind, text in REFUSALS:
            with self.subTest(call):
                self.assertRefused(kind, text, eval, call, vars(self.sonetrix).copy())

    def test_bad_arguments_are_refused_before_the_engine_is_asked(self):
        self.enterContext(mock.patch.object(self.sonetrix, "signature", inspect.signature))
        del self.every["engine.getMeters"]  # which registers first
        for name, call in self.every.items():
            for (bad, kind, names), parameter in itertools.product(BAD, call.arguments):
                if parameter in (names or call.arguments.keys() - TAKE_ANYTHING):
                    record.clear()
                    with self.subTest(name, **{parameter: bad}):
                        self.assertRaises(kind, call, **{parameter: bad})
                        self.assertEqual(record.calls("sonetrix_engine_*", "sonetrix_log*"), [])

    def test_out_of_memory(self):
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
