# ctest: timeout=200
"""listValue and listKeyValue against a model that is written from the rules, and where that does not reach: odd
records, ownership, Python code within a call."""

import copy
import ctypes
import gc
import pickle
import threading
import types
from unittest import mock

from support import TIME_LIMIT, generated, record
from support.generated import strategies
from support.record import Value
from hypothesis.stateful import RuleBasedStateMachine, rule, run_state_machine_as_test

WRONG_TYPE = "Argument '{}' has incorrect type (expected {}, got {})"
TYPE_NAMES = ["string", "int32", "uint32", "float", "double", "afloat", "aint32", "auint32"]
SELECTORS = strategies.sampled_from([None] * 9 + [
    *TYPE_NAMES[:5], "int", "uint", "", b"int32", 0, ctypes.c_int32, ctypes.c_uint32, ctypes.c_float, ctypes.c_double,
    ctypes.c_char_p, ctypes.c_int8]) | generated.texts
KEYS = (strategies.sampled_from(["a", "b.c", b"a", b"\xff\xfe", "", b"b\0d", "x" * 70, "é", 5, None])
        | generated.texts | generated.byte_strings)
TYPED = strategies.tuples(generated.values, SELECTORS) | strategies.tuples(
    generated.integers | generated.tuples,
    strategies.sampled_from(["int32", "uint32", "int", "uint", None, ctypes.c_uint32]))
KEYED, ANY = strategies.integers(2, 3), strategies.integers(0, 3)


class Refused(Exception):
    """What is to be raised: the type and, unless None, the text."""


def refuse(condition, kind=Exception, text="value type not supported"):
    if condition:
        raise Refused(kind, text)


def encoded(text, codec):
    try:
        return text.encode(codec)
    except UnicodeEncodeError:
        refuse(True, UnicodeEncodeError, None)


def stored_array(value, keyed, selector):
    """(type name, elements), or None."""
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


def stored(value, keyed, selector):
    """(type name, value) as it is read back; the branches in the order of the rules."""
    if isinstance(value, str):
        value = encoded(value, "utf-8")
    if isinstance(value, bytes) and selector in (None, "string", *[ctypes.c_char_p] * keyed):
        return "string", value.split(b"\0")[0]
    if isinstance(value, int) and selector in (None, ctypes.c_int32, "int32"):
        refuse(not -2**31 <= value < 2**31, OverflowError, "value too large to convert to int32_t")
        return "int32", int(value)
    if isinstance(value, int) and selector in (ctypes.c_uint32, "uint32"):
        refuse(value < 0, OverflowError, "can't convert negative value to uint32_t")
        refuse(value >= 2**32, OverflowError, "value too large to convert to uint32_t")
        return "uint32", int(value)
    if isinstance(value, float) and selector in (None, ctypes.c_float, "float"):
        return "float", ctypes.c_float(value).value
    if isinstance(value, float) and selector in (ctypes.c_double, "double"):
        return "double", float(value)
    refuse(not isinstance(value, tuple))
    refuse(type(value) is not tuple, TypeError, f"Expected tuple, got {type(value).__name__}")
    result = stored_array(value, keyed, selector)
    refuse(result is None, text="tuple value type not supported")
    return result


def stored_key(key):
    if isinstance(key, str):
        key = encoded(key, "ascii")
    refuse(not isinstance(key, bytes), text="key type not supported")
    return key.split(b"\0")[0]


class Model(list):
    """Entries (key, type name, value); the methods are the list classes' own."""

    keyed = False

    def append(self, value, selector=None, key=None):
        super().append((key, *stored(value, self.keyed, selector)))

    def merge(self, other):
        if other is not self:
            self[:], other[:] = self + other, []

    def read(self):
        pairs = [tuple((item, name) for item in value) if name in ("aint32", "auint32") else (value, name)
                 for _, name, value in self]
        return [value for *_, value in self], pairs


class KeyedModel(Model):
    keyed = True

    def append(self, key, value, selector=None):
        Model.append(self, value, selector, stored_key(key))

    def remove(self, key):
        key = stored_key(key)
        self[:] = [entry for entry in self if entry[0] != key]

    def appendFromDict(self, items):
        for key, value in items.items():
            self.append(key, value)

    def appendFromDictType(self, items):
        for key, (value, selector) in items.items():
            array = selector if selector in ("afloat", "aint32", "auint32") else None
            refuse(array and not isinstance(value, tuple), ValueError, f"{array} as to contain a tuple")
            self.append(key, value, array[1:] if array else selector)

    def read(self):
        return {key: value for key, _, value in self}, {key: (value, name) for key, name, value in self}


def outcome(target, method, arguments):
    try:
        getattr(target, method)(*arguments)
    except Refused as refused:
        return refused.args
    except Exception as error:
        return type(error), None if isinstance(error, UnicodeEncodeError) else str(error)


def read(real):
    return (real.toDict(), real.toDictType()) if hasattr(real, "toDict") else (real.toList(), real.toListType())


class Lists(RuleBasedStateMachine):
    """Two lists of each kind and what they have to hold. Values are compared by their text: NaN and -0.0 count, too."""

    def __init__(self):
        super().__init__()
        sonetrix = record.load()
        record.recording(False)
        self.pairs = [(kind(), model()) for kind, model in (
            (sonetrix.listValue, Model), (sonetrix.listKeyValue, KeyedModel)) for _ in range(2)]

    def check(self, index, method, *arguments):
        real, model = self.pairs[index]
        expected, given = outcome(model, method, arguments), outcome(real, method, arguments)
        assert given == expected, (given, expected)

    @rule(index=ANY, key=KEYS, typed=TYPED, named=strategies.booleans())
    def append(self, index, key, typed, named):
        value, selector = typed
        self.check(index, "append", *[key] * (index > 1), value, *[selector] * named)

    @rule(index=KEYED, key=KEYS)
    def remove(self, index, key):
        self.check(index, "remove", key)

    @rule(index=KEYED, items=strategies.dictionaries(KEYS, generated.values, max_size=3))
    def append_from_dict(self, index, items):
        self.check(index, "appendFromDict", items)

    @rule(index=KEYED, items=strategies.dictionaries(KEYS, strategies.tuples(
        generated.values, strategies.sampled_from(TYPE_NAMES) | SELECTORS), max_size=3))
    def append_from_dict_type(self, index, items):
        self.check(index, "appendFromDictType", items)

    @rule(index=KEYED)
    def append_what_is_read(self, index):
        self.check(index, "appendFromDictType", self.pairs[index ^ 1][1].read()[1])

    @rule(index=ANY)
    def dup(self, index):
        real, model = self.pairs[index]
        self.pairs[index ^ 1] = real.dup(), type(model)(model)

    @rule(index=ANY, itself=strategies.booleans())
    def merge(self, index, itself):
        (real, model), (other, other_model) = self.pairs[index], self.pairs[index if itself else index ^ 1]
        real.merge(other)
        model.merge(other_model)

    @rule(index=KEYED)
    def filter(self, index):
        keep = lambda item: len(item[0]) & 1
        real, model = self.pairs[index]
        for read, expected in zip((real.toDict, real.toDictType), model.read()):
            assert repr(read(keep)) == repr(dict(filter(keep, expected.items())))

    def teardown(self):
        for real, model in self.pairs:
            read = (real.toDict(), real.toDictType()) if model.keyed else (real.toList(), real.toListType())
            assert repr(read) == repr(model.read()), (read, model.read())


class Selector:
    """Equal to what `equals` says, which may do anything."""

    def __init__(self, equals):
        self.equals = equals

    def __eq__(self, other):
        return self.equals(other)


class ListTestCase(record.TestCase):
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

    def handle(self, target):
        """The engine list inside: the address in the record of a read."""
        self.values(target)
        return record.calls("*ForEach")[-1].args[0]


class ValueTest(ListTestCase):
    def test_against_the_model(self):
        self.enterContext(record.unraisables())
        settings = generated.settings(150, stateful_step_count=20)
        generated.run(lambda: run_state_machine_as_test(Lists, settings=settings))

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

    def test_refusals(self):
        keyed = self.sonetrix.listKeyValue()
        odd = type("OddItems", (dict,), {"items": lambda self: self["items"]})
        for kind, text, call, argument in (
                (TypeError, "cannot unpack non-iterable int object", keyed.appendFromDictType, {"a": 5}),
                (ValueError, "not enough values to unpack (expected 2, got 1)", keyed.appendFromDictType, {"a": "x"}),
                (ValueError, "too many values to unpack (expected 2)", keyed.appendFromDictType, {"a": (1, 2, 3)}),
                (ValueError, "not enough values to unpack (expected 2, got 1)", keyed.appendFromDict, odd(items=["a"])),
                (TypeError, "cannot unpack non-iterable int object", keyed.appendFromDict, odd(items=[5]))):
            self.assertRefused(kind, text, call, argument)

    def test_conversion_errors_are_unraisable(self):
        class Failing(int):
            def fail(self, *_):
                raise KeyError("failing")
            __int__ = __lt__ = fail
        for target, value, selector, place, error in (
                (0, (2**31,), "int32", "tupleToInt32", OverflowError),
                (0, (1, Failing(2)), None, "tupleToInt32", KeyError),
                (0, (2**32,), "uint32", "tupleToUInt32", OverflowError),
                (1, (Failing(1),), "uint", "tupleToUInt32", KeyError),
                (0, (1,), "int", "listValue.appendTuple", Exception),
                (1, (1,), "int32", "listKeyValue.appendTuple", Exception),
                (1, (1,), Selector(lambda other: 1 / 0), "listKeyValue.appendTuple", ZeroDivisionError)):
            with self.subTest(value=value, selector=selector), record.unraisables() as reports:
                refused = "tuple value type not supported"
                self.assertRefused(Exception, refused, self.put, self.kinds[target](), value, selector)
                self.assertEqual([(name, type(kind)) for name, kind in reports], [("sonetrix." + place, error)])

    def test_selectors_compare_by_equality(self):
        for name, value, expected in (("uint32", 5, "uint32"), (ctypes.c_uint32, 5, "uint32"), (None, 5, "int32"),
                                      ("double", 0.5, "double"), (ctypes.c_float, 0.5, "float"),
                                      ("string", b"x", "string")):
            plain, keyed = (self.put(kind(), value, Selector(lambda other: other == name)) for kind in self.kinds)
            self.assertEqual([plain.toListType()[0], keyed.toDictType()[b"k"]], [(value, expected)] * 2)
        with mock.patch.object(self.sonetrix, "ctypes", types.SimpleNamespace(c_int32=int, c_uint32=float)):
            self.assertEqual(self.sonetrix.listValue().append(2**31, float).toListType(), [(2**31, "uint32")])
        with mock.patch.object(self.sonetrix, "ctypes", types.SimpleNamespace(c_int32="i", c_uint32="u")):
            self.assertEqual(self.sonetrix.listValue().append(2**31, "u").toListType(), [(2**31, "uint32")])
        with mock.patch.object(self.sonetrix, "ctypes"):
            del self.sonetrix.ctypes
            self.assertRefused(NameError, "name 'ctypes' is not defined", self.sonetrix.listValue().append, 5, "int32")

    def test_comparison_and_copies(self):
        for kind in self.kinds:
            name = f"sonetrix.{kind.__name__}"
            one, empty = self.put(kind(), 1), kind()
            self.assertTrue(one == one and empty == kind() and one != None and None != one and not one == None)
            self.assertFalse(one == one.dup() or one != one)
            self.assertRefused(TypeError, WRONG_TYPE.format("other", name, "int"), one.__eq__, 5)
            self.assertRefused(TypeError, f"'<' not supported between instances of '{name}' and '{name}'",
                               lambda: one < one)
            self.assertRefused(TypeError, f"unhashable type: '{name}'", hash, one)
            for refused in pickle.dumps, copy.copy, copy.deepcopy:
                self.assertRefused(TypeError, "no default __reduce__ due to non-trivial __cinit__", refused, one)
            other = self.put(one.dup(), 2, key="other")
            self.assertIsNone(empty.merge(other))
            empty.merge(empty), empty.merge(kind())
            self.assertEqual([self.values(each) for each in (one, empty, self.put(other, 3))], [[1], [1, 2], [3]])

    def test_subclasses(self):
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

    def test_replaced_methods(self):
        with mock.patch.object(self.sonetrix.listKeyValue, "append") as append:
            self.sonetrix.listKeyValue().appendFromDict({"a": 1}).appendFromDictType({"b": (2, "int32")})
        self.assertEqual(append.mock_calls, [mock.call("a", 1), mock.call("b", 2, "int32")])
        with mock.patch.object(self.sonetrix.listValue, "toListType", return_value=[(1, "int32")]):
            keys = self.sonetrix.listValue().append("a")
            self.assertRefused(Exception, "only string is accepted", self.sonetrix.engine.getParams, keys)
        self.assertEqual(self.sonetrix.listKeyValue().appendFromDict({"a": 1}).toDict(), {b"a": 1})


class ReadTest(ListTestCase):
    ODD = [Value(99), Value.of(1), Value(3), Value.of((), "auint32"), Value.of((), "aint32"), Value.of((), "afloat"),
           Value.of((1, 2**32 - 1), "auint32"), Value(8), Value.of("x"), Value.of(2**32 - 1, "uint32"),
           Value(5, count=3)]
    KEYED_ODD = {str(index): value for index, value in enumerate(ODD)}
    PLAIN = [1, (), (), (), (1, 2**32 - 1), b"x", 2**32 - 1]
    PAIRS = list(zip(PLAIN, ("int32", "auint32", "aint32", "afloat", "auint32", "string", "uint32")))
    TYPED = [PAIRS[0], (), (), PAIRS[3], ((1, "auint32"), (2**32 - 1, "auint32")), *PAIRS[5:]]

    def test_odd_records_are_left_out(self):
        plain, keyed = (self.put(kind(), 0) for kind in self.kinds)
        record.extend_list(self.handle(plain), self.ODD)
        record.extend_list(self.handle(keyed), self.KEYED_ODD)
        self.assertEqual((plain.toList()[1:], plain.toListType()[1:]), (self.PLAIN, self.TYPED))
        self.assertEqual(list(keyed.toDict().items())[1:],
                         list(zip([b"1", b"3", b"4", b"5", b"6", b"8", b"9"], self.PLAIN)))
        self.assertEqual(list(keyed.toDictType().values())[1:], self.PAIRS)
        for name in "sonetrix_valueListForEach", "sonetrix_keyValueListForEach":
            record.iteration(name, stops_on_error=True)  # the first odd record ends the reading
        self.assertEqual((plain.toList(), plain.toListType(), keyed.toDict()), ([0], [(0, "int32")], {b"k": 0}))

    def test_callbacks_with_and_without_the_lock(self):
        plain, keyed = (self.put(kind(), 0) for kind in self.kinds)
        for read, entries, expected, report in (
                (plain.toList, self.ODD, self.PLAIN, None),
                (plain.toListType, self.ODD, self.TYPED, "create_list_value"),
                (keyed.toDict, self.KEYED_ODD, self.PLAIN, None),
                (keyed.toDictType, self.KEYED_ODD, self.PAIRS, "create_list_keyvalue")):
            name = f"sonetrix_{'keyValue' if entries is self.KEYED_ODD else 'value'}ListForEach"
            for mode in {"lock_held": True}, {"lock_held": False}, {"native_thread": True}:
                record.iteration(name)
                container = type(read())()
                self.assertEqual(record.read_again(name, entries, container, **mode), 4)
                self.assertEqual(list(container.values()) if isinstance(container, dict) else container, expected)
                with record.unraisables() as reports:  # and with a container that is none
                    self.assertEqual(record.read_again(name, entries, (), **mode), 0 if report else len(entries))
                place = f"sonetrix.{read.__qualname__.split('.')[0]}.{report}_type_nogil"
                text = f"Expected {type(container).__name__}, got tuple"
                self.assertEqual([(where, str(error)) for where, error in reports],
                                 [(place, text)] * (report and len(entries) or 0))
        plain, keyed = (self.put(kind(), 0) for kind in self.kinds)
        for number in range(1, 6):
            self.put(plain, number), self.put(keyed, number, key=str(number))
        for every in 1, 2, 3:  # some elements come through the reading, and some from elsewhere
            for name in "sonetrix_valueListForEach", "sonetrix_keyValueListForEach":
                record.iteration(name, gives_lock_up=every)
            pairs = [(number, "int32") for number in range(6)]
            self.assertEqual((plain.toList(), plain.toListType()), (list(range(6)), pairs))
            self.assertEqual((list(keyed.toDict().values()), list(keyed.toDictType().values())),
                             (list(range(6)), pairs))
        other = [5]
        record.iteration("sonetrix_valueListForEach", user=other)
        self.assertEqual((plain.toList(), other), ([], [5, *range(6)]))


class OwnershipTest(ListTestCase):
    """That nothing is destroyed twice or stays behind is checked after each test of this file."""

    def test_engine_without_memory(self):
        for kind, family, text in zip(self.kinds, ("value", "keyValue"), ("listvalue", "listkey")):
            one, empty = self.put(kind(), 1), kind()
            record.null(f"sonetrix_{family}ListNew")
            record.null(f"sonetrix_{family}ListDeepCopy")
            self.assertRefused(Exception, text + " cannot be NULL on init", one.dup)
            self.assertRaises(MemoryError, self.put, empty, 1)
            self.assertRaises(MemoryError, empty.merge, one)
            self.assertEqual((self.values(one), self.values(empty)), ([1], []))

    def test_destroyed_at_once(self):
        for kind in self.kinds:
            made = [self.put(kind(), 1), self.put(kind(), 2), kind()]
            made.append(made[0].dup())
            made[2].merge(made[1])
            handles = sorted(map(self.handle, made))
            self.assertRaises(Exception, self.put, made[2], [])
            record.clear()
            del made
            self.assertEqual(sorted(call.args[0] for call in record.calls("*ListDestroy")), handles)

    def test_python_code_in_the_middle(self):
        """A selector, filter or element that changes the very list, or takes its contents away."""
        for kind in self.kinds:
            for change in (lambda one, other: self.put(one, 9), lambda one, other: other.merge(one),
                           lambda one, other: one.merge(other), lambda one, other: (one.__init__(), gc.collect())):
                one, other = self.put(kind(), 1), self.put(kind(), 2, key="o")
                def act(*_):
                    change(one, other)
                element = type("Element", (int,), {"__int__": lambda self: act() or 5})
                self.assertRaises(Exception, self.put, one, 5, Selector(act))
                self.put(one, (element(1), element(2)))
                if kind is self.sonetrix.listKeyValue:
                    self.assertEqual(one.toDict(act), {})
                    one.appendFromDictType({"a": [(element(3),), Selector(lambda name: act() or name == "int")]})
                self.values(one), self.values(other)
        keyed = self.sonetrix.listKeyValue().append("a", 1)
        self.assertEqual(keyed.toDict(lambda item: keyed.remove("a") and keyed.append("b", 2)), {b"a": 1})
        growing = {"c": [3, Selector(lambda name: growing.update({len(growing): 1}) or name == "int32")]}
        self.assertEqual(keyed.appendFromDictType(growing).toDict(), {b"b": 2, b"c": 3})

    def test_other_thread_changes_a_list_that_the_engine_reads(self):
        """The engine goes on with the list as it was, which the layer checks; the change is made at once."""
        engine, (plain, keyed) = self.sonetrix.engine, self.kinds
        for kind, name, call in ((plain, "GetParams", engine.getParams), (keyed, "SetParamsFull", engine.setParams),
                                 (keyed, "SetParamsFullCli", engine.setParamsCli),
                                 (keyed, "ModuleNew", lambda info: engine.newModule("a", "b", info))):
            for change, expected in ((lambda one, other: self.put(one, "new", key="n"), ["old", "new"]),
                                     (lambda one, other: one.merge(other), ["old", "other"]),
                                     (lambda one, other: other.merge(one), [])):
                name = "sonetrix_engine_" + name.removeprefix("sonetrix_engine_")
                one, other = self.put(kind(), "old"), self.put(kind(), "other", key="o")
                record.reset()
                record.result("sonetrix_engine_ModuleNew", 0)
                record.delay(name, TIME_LIMIT)
                readers = [threading.Thread(target=call, args=(one,)) for _ in "12"]
                for reader in readers:
                    reader.start()
                while len(record.calls(name)) < 2:
                    self.assertTrue(readers[0].is_alive())
                change(one, other)
                self.assertEqual(self.values(one), [value.encode() for value in expected])
                record.delay(name, 0)
                for reader in readers:
                    reader.join()

    def test_other_thread_changes_a_list_that_is_being_read(self):
        for kind, family in zip(self.kinds, ("value", "keyValue")):
            one = kind()
            for number in range(9):
                self.put(one, number, key=str(number))
            def change():
                thread = threading.Thread(target=self.put, args=(one, -1), kwargs={"key": "late"})
                thread.start(), thread.join()
            for every in 0, 1, 3:
                record.iteration(f"sonetrix_{family}ListForEach", gives_lock_up=every, meanwhile=change)
                self.assertEqual(self.values(one)[:9], list(range(9)))
            record.reset()
            self.assertIn(-1, self.values(one)[9:])


if __name__ == "__main__":
    unittest.main()
