# ctest: timeout=200
"""listValue and listKeyValue: what is stored of which values, and what becomes of it; what the engine does with a list,
and Python code within a call."""

import ctypes
import functools
import itertools
import operator
from unittest import mock

from support import generated, record
from support.generated import hypothesis, strategies
from support.record import Value


class Selector:
    """Equal to what `equals` says, which may do anything."""

    def __init__(self, equals):
        self.equals = equals

    def __eq__(self, other):
        return self.equals(other)


Text, Integer = (type(kind.__name__.title(), (kind,), {}) for kind in (str, int))
# (given, as it is read, the types that it can be stored as)
VALUES = [
    ("é\0x", "é".encode(), ["string"]), (Text("a"), b"a", ["string"]), (b"\xff\0x", b"\xff", ["string"]),
    (True, 1, ["int32", "uint32"]), (Integer(2**31 - 1), 2**31 - 1, ["int32", "uint32"]), (-2**31, -2**31, ["int32"]),
    (2**32 - 1, 2**32 - 1, ["uint32"]), (0.1, 0.1, ["float", "double"]),
    ((1, True), (1, 1), ["aint32", "auint32"]), ((-1,), (-1,), ["aint32"]), ((0.5, 2.0), (0.5, 2.0), ["afloat"]),
    *((refused, None, []) for refused in ((), (1, 0.5), ("a",), [1], None))]
# Which selectors a type is stored by: in both kinds of list, then in each.
SELECTORS = {"string": [None, "string"], "int32": [None, "int32", ctypes.c_int32],
             "uint32": ["uint32", ctypes.c_uint32], "float": [None, "float", ctypes.c_float],
             "double": ["double", ctypes.c_double], "afloat": [None, "float", ctypes.c_float]}
PLAIN = {**SELECTORS, "aint32": [None, "int32", ctypes.c_int32], "auint32": []}
KEYED = {**SELECTORS, "aint32": [None, "int", ctypes.c_int32], "auint32": ["uint", ctypes.c_uint32],
         "string": [None, "string", ctypes.c_char_p]}
NAMES = [None, "string", "int32", "uint32", "float", "double", "int", "uint", "afloat", "", "\ud800", b"int32", 0,
         ctypes.c_int32, ctypes.c_uint32, ctypes.c_float, ctypes.c_double, ctypes.c_char_p, ctypes.c_int8]
EVERY_SELECTOR = NAMES + [Selector(functools.partial(operator.eq, name)) for name in NAMES]

# For the model: keys with what is read of them, and what is read as it was written.
KEYS = {"a": b"a", Text("b.c"): b"b.c", b"\xff\0d": b"\xff", "": b"", "x" * 70: b"x" * 70}
FLOATS = strategies.floats(width=32)
KEPT = (strategies.integers(-2**31, 2**31 - 1) | FLOATS | strategies.lists(FLOATS, min_size=1).map(tuple)
        | strategies.binary().map(lambda text: text.replace(b"\0", b"")))
STEPS = strategies.lists(strategies.tuples(
    strategies.sampled_from(["append", "append", "append", "remove", "dup", "merge"]), strategies.integers(0, 1),
    strategies.integers(0, 1), strategies.sampled_from(list(KEYS)), KEPT), min_size=5, max_size=30)

FAMILIES = "sonetrix_valueList", "sonetrix_keyValueList"  # of the engine's functions
# What an engine may give, with type codes and null pointers that nobody knows, and how the good ones are read.
ODD = {"a": Value(99), "b": Value(8), "c": Value(3), "d": Value(5, count=3), "e": Value.of((), "auint32"),
       "f": Value.of((), "afloat"), "g": Value.of((1, 2), "auint32"), "h": Value.of("x")}
ODD_VALUES = [(), (), (1, 2), b"x"]
ODD_TYPED = ([(), ((), "afloat"), ((1, "auint32"), (2, "auint32")), (b"x", "string")],
             [((), "auint32"), ((), "afloat"), ((1, 2), "auint32"), (b"x", "string")])
NO_CONTAINER = [("sonetrix.listValue.create_list_value_type_nogil", "Expected list, got tuple"),
                ("sonetrix.listKeyValue.create_list_keyvalue_type_nogil", "Expected dict, got tuple")]


class ListTest(record.TestCase):
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

    @staticmethod
    def typed(target):
        return list(target.toDictType().values()) if hasattr(target, "remove") else target.toListType()

    def test_what_is_stored_and_what_is_refused(self):
        for kind, selectors in zip(self.kinds, (PLAIN, KEYED)):
            for (value, read, types), selector in itertools.product(VALUES, EVERY_SELECTOR):
                one, stored_as = kind(), [name for name in types if selector in selectors[name]]
                with self.subTest(kind=kind, value=value, selector=selector):
                    if not stored_as:
                        with record.unraisables(), self.assertRaisesRegex(Exception, "not supported$|to u?int32_t$"):
                            self.put(one, value, selector)
                        self.assertEqual(self.values(one), [])
                        continue
                    name, = stored_as
                    expected = ctypes.c_float(read).value if name == "float" else read
                    self.put(one, value, selector)
                    self.assertEqual(self.values(one), [expected])
                    pairs = selectors is PLAIN and name == "aint32"
                    self.assertEqual(self.typed(one), [tuple((item, name) for item in read) if pairs else
                                                       (expected, name)])

    def test_conversion_errors_are_unraisable(self):
        failing = type("Failing", (int,), {"__int__": lambda self: [][1], "__lt__": lambda *_: {}[1]})
        for kind, value, selector, place, error in (
                (0, (1, failing(2)), None, "tupleToInt32", IndexError),
                (1, (failing(1),), "uint", "tupleToUInt32", KeyError),
                (1, (1,), Selector(lambda other: 1 / 0), "listKeyValue.appendTuple", ZeroDivisionError)):
            with self.subTest(value=value, selector=selector), record.unraisables() as reports:
                refused = "tuple value type not supported"
                self.assertRefused(Exception, refused, self.put, self.kinds[kind](), value, selector)
                (name, raised), = reports
                frame = raised.__traceback__.tb_frame.f_code.co_name
                self.assertEqual((name, type(raised), frame), ("sonetrix." + place, error, "sonetrix." + place))

    def test_against_a_model(self):
        generated.run(self.compare)

    @generated.settings(250)
    @hypothesis.given(strategies.booleans(), STEPS)
    def compare(self, keyed, steps):
        """Two lists and the entries that they have to hold. They are compared as text: NaN and -0.0 count, too."""
        record.clear()
        pairs = [(self.kinds[keyed](), []), (self.kinds[keyed](), [])]
        for method, index, other, key, value in steps:
            real, entries = pairs[index]
            if method == "append":
                self.assertIs(self.put(real, value, key=key), real)
                entries.append((KEYS[key], value))
            elif method == "remove" and keyed:
                self.assertIs(real.remove(key), real)
                entries[:] = [entry for entry in entries if entry[0] != KEYS[key]]
            elif method == "dup":
                pairs[1 - index] = real.dup(), entries.copy()
            elif method == "merge":
                merged, taken = pairs[other]
                real.merge(merged)
                if other != index:
                    entries += taken
                    taken.clear()
        for real, entries in pairs:
            expected = dict(entries) if keyed else [value for _, value in entries]
            self.assertEqual(repr(real.toDict() if keyed else real.toList()), repr(expected))

    def test_long_lists(self):
        for first, count in *((first, 90) for first in range(0, 9000, 90)), (0, 200_000):
            plain, keyed = (kind() for kind in self.kinds)
            entries = {b"key%d" % number: float(number) for number in range(first, first + count)}
            for key, value in entries.items():
                plain.append(value)
                keyed.append(key, value)
            self.assertEqual((plain.toList(), keyed.toDict()), (list(entries.values()), entries))

    def test_comparison(self):
        for kind in self.kinds:
            one = self.put(kind(), 1)
            self.assertTrue(one == one and kind() == kind() and one != None and not one == None)
            self.assertFalse(one == one.dup() or one != one)

    def test_dicts(self):
        base = self.sonetrix.listKeyValue
        given = {"a": (1, "uint32"), "b": (2.5, "double"), "c": ((1.0,), "afloat"), "d": ("x", None)}
        read = {b"a": (1, "uint32"), b"b": (2.5, "double"), b"c": ((1.0,), "afloat"), b"d": (b"x", "string")}
        self.assertEqual(base().appendFromDictType(given).toDictType(), read)
        self.assertEqual(base().appendFromDictType(read).toDictType(), read)
        self.assertEqual(base().appendFromDict({"a": 1, "b": b"x"}).toDict(), {b"a": 1, b"b": b"x"})

    def test_replaced_methods(self):
        base = self.sonetrix.listKeyValue
        for owner in type("Sub", (base,), {}), base:
            with mock.patch.object(owner, "append") as append:
                owner().appendFromDict({"a": 1}).appendFromDictType({"b": (2, "int32"), "c": ((1.0,), "afloat")})
            self.assertEqual(append.mock_calls,
                             [mock.call("a", 1), mock.call("b", 2, "int32"), mock.call("c", (1.0,), "float")])
            self.assertIs(type(owner().dup()), base)

    def test_odd_records_are_left_out(self):
        for kind, family, typed, report in zip(self.kinds, FAMILIES, ODD_TYPED, NO_CONTAINER):
            record.gives(family + "DeepCopy", ODD)
            one = self.put(kind(), 0).dup()
            for released in 0, 1, 2:
                statuses = record.iteration(family + "ForEach", released)
                self.assertEqual((self.values(one), self.typed(one)), (ODD_VALUES, typed))
                self.assertEqual(statuses, [*[-1] * 4, *[0] * 4] * 2)
            record.iteration(family + "ForEach", container=())
            with record.unraisables() as reports:
                self.assertFalse(self.typed(one))
            self.assertEqual([(name, str(error)) for name, error in reports], [report] * len(ODD))

    def test_a_list_is_emptied_while_it_is_read(self):
        for kind, family in zip(self.kinds, FAMILIES):
            for released in 0, 1, 3:
                one = kind()
                for number in range(9):
                    self.put(one, number, key=str(number))
                record.iteration(family + "ForEach", released, before=lambda: kind().merge(one))
                self.assertEqual(self.values(one), list(range(9)))
                self.assertEqual(self.values(one), [])

    def test_a_list_is_changed_while_the_engine_reads_it(self):
        """The engine goes on with the list as it was, which the layer checks; the change is made at once."""
        engine, (plain, keyed) = self.sonetrix.engine, self.kinds
        for kind, name, call in ((plain, "GetParams", engine.getParams), (keyed, "SetParamsFull", engine.setParams),
                                 (keyed, "SetParamsFullCli", engine.setParamsCli),
                                 (keyed, "ModuleNew", lambda info: engine.newModule("a", "b", info))):
            for change, expected in ((lambda: self.put(one, "new", key="n"), [b"old", b"new"]),
                                     (lambda: one.merge(other), [b"old", b"other"]),
                                     (lambda: other.merge(one), [])):
                one, other = self.put(kind(), "old"), self.put(kind(), "other", key="o")
                def meanwhile(*_):
                    change()
                record.act("sonetrix_engine_" + name, meanwhile)
                call(one)
                self.assertEqual(self.values(one), expected)

    def test_python_code_in_the_middle(self):
        """A filter, selector or element that changes what is being read or written to."""
        plain, keyed = self.sonetrix.listValue(), self.sonetrix.listKeyValue().append("a", 1)
        self.assertEqual(keyed.toDict(lambda item: keyed.remove("a") and keyed.append("b", 2)), {b"a": 1})
        growing = {"c": [3, Selector(lambda name: growing.update({len(growing): 1}) or name == "int32")]}
        self.assertEqual(keyed.appendFromDictType(growing).toDict(), {b"b": 2, b"c": 3})
        element = type("Element", (int,), {"__int__": lambda self: plain.append(0.5) and 5})
        self.assertEqual(plain.append((element(1), element(2))).toList(), [0.5, 0.5, (5, 5)])
