# ctest: timeout=200
"""listValue and listKeyValue against a model that is written from the rules, and where that does not reach: odd
records, other selectors, ownership, Python code and other threads within a call."""

import ctypes
import pickle
import threading
import types
import unittest
from unittest import mock

from support import TIME_LIMIT, generated, record
from support.generated import hypothesis, strategies
from support.record import Value

SELECTORS = strategies.sampled_from([None] * 9 + [
    "string", "int32", "uint32", "float", "double", "int", "uint", "afloat", "", "\ud800", b"int32", 0,
    type("Text", (str,), {})("int32"), ctypes.c_int32, ctypes.c_uint32, ctypes.c_float, ctypes.c_double,
    ctypes.c_char_p, ctypes.c_int8])
KEYS = (strategies.sampled_from(["a", "b.c", b"a", b"\xff\xfe", "", b"b\0d", "x" * 70, "é", 5, None])
        | generated.texts | generated.byte_strings)
INDEX = strategies.integers(0, 1)
WRITES = [(generated.values,), (generated.values, SELECTORS),
          (generated.integers | generated.tuples,
           strategies.sampled_from(["int32", "uint32", "int", "uint", None, ctypes.c_uint32]))]
ARRAYS = generated.integers | generated.tuples, strategies.sampled_from(["afloat", "aint32", "auint32"])


def step(method, *arguments):
    return strategies.tuples(strategies.just(method), INDEX, *arguments)


BOTH = step("dup") | step("merge", INDEX)
PLAIN = BOTH | strategies.one_of(*(step("append", *write) for write in WRITES))
KEYED = BOTH | strategies.one_of(
    *(step("append", KEYS, *write) for write in WRITES), step("remove", KEYS),
    step("appendFromDict", strategies.dictionaries(KEYS, generated.values, max_size=3)),
    *(step("appendFromDictType", strategies.dictionaries(KEYS, strategies.tuples(*pair), max_size=3))
      for pair in [*WRITES[1:], ARRAYS]))
STEPS = strategies.one_of(*(strategies.tuples(strategies.just(keyed), strategies.lists(steps, min_size=10, max_size=30))
                            for keyed, steps in enumerate([PLAIN, KEYED])))


def stored_array(value, keyed, selector):
    """(type name, elements)."""
    int32, uint32 = ("int", "uint") if keyed else ("int32", "uint32")
    integers, floats = (bool(value) and all(isinstance(item, kind) for item in value) for kind in (int, float))
    if selector is None:
        selector = int32 if integers else "float"
    if selector in (ctypes.c_int32, int32) and integers and all(-2**31 <= item < 2**31 for item in value):
        return "aint32", tuple(map(int, value))
    if selector in (ctypes.c_uint32, uint32) and integers and all(0 <= item < 2**32 for item in value) and keyed:
        return "auint32", tuple(map(int, value))
    if selector in (ctypes.c_float, "float") and floats:
        return "afloat", tuple(ctypes.c_float(item).value for item in value)
    raise Exception("tuple value type not supported")


def stored(value, keyed, selector):
    """(type name, value) as it is read back; the branches in the order of the rules."""
    if isinstance(value, str):
        value = value.encode()
    if isinstance(value, bytes) and selector in (None, "string", *[ctypes.c_char_p] * keyed):
        return "string", value.split(b"\0")[0]
    if isinstance(value, int) and selector in (None, ctypes.c_int32, "int32"):
        if not -2**31 <= value < 2**31:
            raise OverflowError("value too large to convert to int32_t")
        return "int32", int(value)
    if isinstance(value, int) and selector in (ctypes.c_uint32, "uint32"):
        if value < 0:
            raise OverflowError("can't convert negative value to uint32_t")
        if value >= 2**32:
            raise OverflowError("value too large to convert to uint32_t")
        return "uint32", int(value)
    if isinstance(value, float) and selector in (None, ctypes.c_float, "float"):
        return "float", ctypes.c_float(value).value
    if isinstance(value, float) and selector in (ctypes.c_double, "double"):
        return "double", float(value)
    if not isinstance(value, tuple):
        raise Exception("value type not supported")
    if type(value) is not tuple:
        raise TypeError(f"Expected tuple, got {type(value).__name__}")
    return stored_array(value, keyed, selector)


def stored_key(key):
    if isinstance(key, str):
        key = key.encode("ascii")
    if not isinstance(key, bytes):
        raise Exception("key type not supported")
    return key.split(b"\0")[0]


class Model(list):
    """Entries (key, type name, value); the methods are the list classes' own."""

    def append(self, value, selector=None):
        super().append((None, *stored(value, False, selector)))

    def dup(self):
        return type(self)(self)

    def merge(self, other):
        if other is not self:
            self[:], other[:] = self + other, []

    def read(self):
        pairs = [tuple((item, name) for item in value) if name in ("aint32", "auint32") else (value, name)
                 for _, name, value in self]
        return [value for *_, value in self], pairs


class KeyedModel(Model):
    def append(self, key, value, selector=None):
        key = stored_key(key)
        list.append(self, (key, *stored(value, True, selector)))

    def remove(self, key):
        key = stored_key(key)
        self[:] = [entry for entry in self if entry[0] != key]

    def appendFromDict(self, items):
        for key, value in items.items():
            self.append(key, value)

    def appendFromDictType(self, items):
        for key, (value, selector) in items.items():
            array = selector in ("afloat", "aint32", "auint32")
            if array and not isinstance(value, tuple):
                raise ValueError(f"{selector} as to contain a tuple")
            self.append(key, value, selector[1:] if array else selector)

    def read(self):
        return {key: value for key, _, value in self}, {key: (value, name) for key, name, value in self}


def read(real):
    return (real.toDict(), real.toDictType()) if hasattr(real, "toDict") else (real.toList(), real.toListType())


def raised(target, method, arguments):
    try:
        getattr(target, method)(*arguments)
    except Exception as error:
        return type(error), str(error)


class Selector:
    """Equal to what `equals` says, which may do anything."""

    def __init__(self, equals):
        self.equals = equals

    def __eq__(self, other):
        return self.equals(other)


class ListTestCase(record.TestCase):
    """That nothing is destroyed twice, used after its end or left behind is checked after each test."""

    def setUp(self):
        super().setUp()
        self.kinds = self.sonetrix.listValue, self.sonetrix.listKeyValue

    @staticmethod
    def put(target, value, *rest, key="k"):
        """Appends to either kind."""
        return target.append(key, value, *rest) if hasattr(target, "remove") else target.append(value, *rest)

    @staticmethod
    def values(target):
        return list(target.toDict().values()) if hasattr(target, "remove") else target.toList()


class ValueTest(ListTestCase):
    def test_against_the_model(self):
        self.enterContext(record.unraisables())
        generated.run(self.compare)

    @generated.settings(250)
    @hypothesis.given(STEPS)
    def compare(self, given):
        """Two lists and what they have to hold. Values are compared by their text: NaN and -0.0 count, too."""
        keyed, steps = given
        kind, model = self.kinds[keyed], [Model, KeyedModel][keyed]
        record.recording(False)
        pairs = [(kind(), model()), (kind(), model())]
        for method, index, *arguments in steps:
            real, expected = pairs[index]
            if method == "dup":
                pairs[1 - index] = real.dup(), expected.dup()
            elif method == "merge":
                other, other_expected = pairs[arguments[0]]
                real.merge(other), expected.merge(other_expected)
            else:
                self.assertEqual(raised(real, method, arguments), raised(expected, method, arguments))
        for real, expected in pairs:
            self.assertEqual(repr(read(real)), repr(expected.read()))

    def test_empty_objects_make_no_engine_calls(self):
        plain, keyed = (kind() for kind in self.kinds)
        self.assertEqual((plain.toList(), plain.toListType(), plain.dup().toList()), ([], [], []))
        self.assertEqual((keyed.toDict(), keyed.toDictType(), keyed.dup().remove("a").toDict(len)), ({},) * 3)
        self.assertEqual(keyed.appendFromDict({}).appendFromDictType(d={}).toDict(), {})
        self.assertEqual(record.calls(), [])

    def test_long_lists(self):
        for count in 10, 1_000, 200_000, 300, 3_000:  # the reading's room is kept for the next
            values = [float(number) if number % 3 else (number, -number) for number in range(count)]
            listed, keyed = self.sonetrix.listValue(), self.sonetrix.listKeyValue()
            for number, value in enumerate(values):
                listed.append(value), keyed.append(f"key{number}", value)
            self.assertEqual(listed.toList(), values)
            self.assertEqual(keyed.toDict(), {b"key%d" % number: value for number, value in enumerate(values)})
            self.assertEqual(listed.dup().toList(), values)

    def test_items_that_are_no_pairs(self):
        keyed = self.sonetrix.listKeyValue()
        odd = type("OddItems", (dict,), {"items": lambda self: ["a"]})
        for kind, text, call, argument in (
                (TypeError, "cannot unpack non-iterable int object", keyed.appendFromDictType, {"a": 5}),
                (ValueError, "too many values to unpack (expected 2)", keyed.appendFromDictType, {"a": (1, 2, 3)}),
                (ValueError, "not enough values to unpack (expected 2, got 1)", keyed.appendFromDict, odd())):
            self.assertRefused(kind, text, call, argument)

    def test_conversion_errors_are_unraisable(self):
        failing = type("Failing", (int,), {"__int__": lambda self: [][1], "__lt__": lambda *_: {}[1]})
        for kind, value, selector, place, error in (
                (0, (2**31,), "int32", "tupleToInt32", OverflowError),
                (0, (1, failing(2)), None, "tupleToInt32", IndexError),
                (1, (failing(1),), "uint", "tupleToUInt32", KeyError),
                (0, (1,), "int", "listValue.appendTuple", Exception),
                (1, (1,), Selector(lambda other: 1 / 0), "listKeyValue.appendTuple", ZeroDivisionError)):
            with self.subTest(value=value, selector=selector), record.unraisables() as reports:
                refused = "tuple value type not supported"
                self.assertRefused(Exception, refused, self.put, self.kinds[kind](), value, selector)
                self.assertEqual([(name, type(kind)) for name, kind in reports], [("sonetrix." + place, error)])

    def test_selectors_compare_by_equality(self):
        for name, value, expected in (("uint32", 5, "uint32"), (ctypes.c_uint32, 5, "uint32"), (None, 5, "int32"),
                                      ("double", 0.5, "double"), ("string", b"x", "string")):
            plain, keyed = (self.put(kind(), value, Selector(lambda other: other == name)) for kind in self.kinds)
            self.assertEqual([plain.toListType()[0], keyed.toDictType()[b"k"]], [(value, expected)] * 2)
        append = self.sonetrix.listValue().append
        with mock.patch.object(self.sonetrix, "ctypes", types.SimpleNamespace(c_int32="i", c_uint32="u")):
            self.assertEqual(append(2**31, "u").toListType(), [(2**31, "uint32")])
        with mock.patch.object(self.sonetrix, "ctypes"):
            del self.sonetrix.ctypes
            self.assertRefused(NameError, "name 'ctypes' is not defined", append, 5, "int32")

    def test_comparison_and_copies(self):
        for kind in self.kinds:
            name = f"sonetrix.{kind.__name__}"
            one = self.put(kind(), 1)
            self.assertTrue(one == one and kind() == kind() and one != None and None != one and not one == None)
            self.assertFalse(one == one.dup() or one != one)
            wrong_type = f"Argument 'other' has incorrect type (expected {name}, got int)"
            self.assertRefused(TypeError, wrong_type, one.__eq__, 5)
            self.assertRaises(TypeError, lambda: one < one)
            self.assertRefused(TypeError, f"unhashable type: '{name}'", hash, one)
            self.assertRefused(TypeError, "no default __reduce__ due to non-trivial __cinit__", pickle.dumps, one)

    def test_subclasses_and_replaced_methods(self):
        class Sub(self.sonetrix.listKeyValue):
            def __init__(self, *names):
                self.names, self.cycle = list(names), self
            def append(self, k, v, *type):
                self.names.append((k, *type))
                return super().append(k, v, *type)
        sub = Sub("x").appendFromDict({"a": 1}).appendFromDictType({"b": (2.5, "double"), "c": (3, None)})
        self.assertEqual(sub.names, ["x", ("a",), ("b", "double"), ("c", None)])
        self.assertEqual(sub.toDictType(), {b"a": (1, "int32"), b"b": (2.5, "double"), b"c": (3, "int32")})
        self.assertIs(type(sub.dup()), self.sonetrix.listKeyValue)
        with mock.patch.object(self.sonetrix.listKeyValue, "append") as append:
            self.sonetrix.listKeyValue().appendFromDict({"a": 1}).appendFromDictType({"b": (2, "int32")})
        self.assertEqual(append.mock_calls, [mock.call("a", 1), mock.call("b", 2, "int32")])


class ReadTest(ListTestCase):
    ODD = [Value(99), Value.of(1), Value(3), Value.of((), "auint32"), Value.of((), "aint32"), Value.of((), "afloat"),
           Value.of((1, 2**32 - 1), "auint32"), Value(8), Value.of("x"), Value.of(2**32 - 1, "uint32"),
           Value(5, count=3)]
    PLAIN = [0, 1, (), (), (), (1, 2**32 - 1), b"x", 2**32 - 1]
    PAIRS = list(zip(PLAIN, ("int32", "int32", "auint32", "aint32", "afloat", "auint32", "string", "uint32")))
    TYPED = [*PAIRS[:2], (), (), PAIRS[4], ((1, "auint32"), (2**32 - 1, "auint32")), *PAIRS[6:]]

    def odd_lists(self):
        plain, keyed = (self.put(kind(), 0) for kind in self.kinds)
        plain.toList(), keyed.toDict()
        plain_handle, keyed_handle = (call.args[0] for call in record.calls("*ForEach"))
        record.extend_list(plain_handle, self.ODD)
        record.extend_list(keyed_handle, {str(index): value for index, value in enumerate(self.ODD)})
        return plain, keyed

    @staticmethod
    def iterate(**how):
        for name in "sonetrix_valueListForEach", "sonetrix_keyValueListForEach":
            record.iteration(name, **how)

    def test_odd_records_are_left_out(self):
        plain, keyed = self.odd_lists()
        for every in 0, 1, 2, 3:  # some elements come without the interpreter lock
            self.iterate(gives_lock_up=every)
            self.assertEqual((plain.toList(), plain.toListType()), (self.PLAIN, self.TYPED))
            self.assertEqual(list(keyed.toDict().items()),
                             list(zip([b"k", b"1", b"3", b"4", b"5", b"6", b"8", b"9"], self.PLAIN)))
            self.assertEqual(list(keyed.toDictType().values()), self.PAIRS)
        self.iterate(stops_on_error=True)  # the first odd record ends the reading
        self.assertEqual((plain.toList(), plain.toListType(), keyed.toDict()),
                         ([0], [(0, "int32")], {b"k": 0}))

    def test_other_containers(self):
        (plain, keyed), other = self.odd_lists(), [5]
        self.iterate(user=other)
        self.assertEqual((plain.toList(), other), ([], [5, *self.PLAIN]))
        self.iterate(user=())
        for read, report, kind in ((plain.toListType, "listValue.create_list_value", "list"),
                                   (keyed.toDictType, "listKeyValue.create_list_keyvalue", "dict")):
            with record.unraisables() as reports:
                self.assertFalse(read())
            self.assertEqual([(place, str(error)) for place, error in reports],
                             [(f"sonetrix.{report}_type_nogil", f"Expected {kind}, got tuple")] * (len(self.ODD) + 1))


class OwnershipTest(ListTestCase):
    def test_engine_without_memory(self):
        for kind, family, text in zip(self.kinds, ("value", "keyValue"), ("listvalue", "listkey")):
            one, empty = self.put(kind(), 1), kind()
            record.null(f"sonetrix_{family}ListNew")
            record.null(f"sonetrix_{family}ListDeepCopy")
            self.assertRefused(Exception, text + " cannot be NULL on init", one.dup)
            self.assertRaises(MemoryError, self.put, empty, 1)
            self.assertRaises(MemoryError, empty.merge, one)
            self.assertEqual((self.values(one), self.values(empty)), ([1], []))

    def test_python_code_in_the_middle(self):
        """A filter, selector or element that changes what is being read or written to."""
        plain, keyed = self.sonetrix.listValue(), self.sonetrix.listKeyValue().append("a", 1)
        self.assertEqual(keyed.toDict(lambda item: keyed.remove("a") and keyed.append("b", 2)), {b"a": 1})
        growing = {"c": [3, Selector(lambda name: growing.update({len(growing): 1}) or name == "int32")]}
        self.assertEqual(keyed.appendFromDictType(growing).toDict(), {b"b": 2, b"c": 3})
        element = type("Element", (int,), {"__int__": lambda self: plain.append(0.5) and 5})
        self.assertEqual(plain.append((element(1), element(2))).toList(), [0.5, 0.5, (5, 5)])

    def test_other_thread_changes_a_list_that_the_engine_reads(self):
        """The engine goes on with the list as it was, which the layer checks; the change is made at once."""
        engine, (plain, keyed) = self.sonetrix.engine, self.kinds
        for kind, name, call in ((plain, "GetParams", engine.getParams), (keyed, "SetParamsFull", engine.setParams),
                                 (keyed, "SetParamsFullCli", engine.setParamsCli),
                                 (keyed, "ModuleNew", lambda info: engine.newModule("a", "b", info))):
            for change, expected in ((lambda one, other: self.put(one, "new", key="n"), [b"old", b"new"]),
                                     (lambda one, other: one.merge(other), [b"old", b"other"]),
                                     (lambda one, other: other.merge(one), [])):
                one, other = self.put(kind(), "old"), self.put(kind(), "other", key="o")
                record.reset()
                record.result("sonetrix_engine_ModuleNew", 0)
                record.delay("sonetrix_engine_" + name, TIME_LIMIT)
                reader = threading.Thread(target=call, args=(one,))
                reader.start()
                while not record.calls("sonetrix_engine_" + name):
                    self.assertTrue(reader.is_alive())
                change(one, other)
                self.assertEqual(self.values(one), expected)
                record.delay("sonetrix_engine_" + name, 0)
                reader.join()

    def test_other_thread_empties_a_list_that_is_being_read(self):
        for kind, family in zip(self.kinds, ("value", "keyValue")):
            for every in 0, 1, 3:
                one = kind()
                for number in range(9):
                    self.put(one, number, key=str(number))

                def empty():
                    thread = threading.Thread(target=kind().merge, args=(one,))
                    thread.start(), thread.join()
                record.iteration(f"sonetrix_{family}ListForEach", gives_lock_up=every, meanwhile=empty)
                self.assertEqual(self.values(one), list(range(9)))
                record.reset()
                self.assertEqual(self.values(one), [])
