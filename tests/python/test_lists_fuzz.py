"""Both list classes against a model that is written from the rules: random values, selectors, keys and operations."""

import collections
import ctypes
import random
import unittest

from support import engine_double

OPERATIONS = 20000
Named = collections.namedtuple("Named", "a b")
IntSubclass, FloatSubclass = type("IntSubclass", (int,), {}), type("FloatSubclass", (float,), {})
EDGES = [0, 1, -1, 2**31 - 1, 2**31, -2**31, -2**31 - 1, 2**32 - 1, 2**32, 10**25, -10**25]
REALS = [0.0, -0.0, 1.5, 1e-46, 1e39, -1e300, float("inf"), float("nan"), FloatSubclass(0.1)]
TEXTS = ["", "ä€😀", "a\0b", "\ud800", type("StrSubclass", (str,), {})("s"), b"", b"\xff\0\xff", b"b" * 300]
OTHERS = [None, [1], bytearray(b"a"), {}, 1j, Named(1, 2), object]
SELECTORS = [None] * 12 + ["string", "int32", "uint32", "float", "double", "int", "uint", "bool", "", b"int32", 0]
SELECTORS += ctypes.c_int32, ctypes.c_uint32, ctypes.c_float, ctypes.c_double, ctypes.c_char_p, ctypes.c_int8
KEYS = ["a", "b.c", b"a", b"\xff\xfe", "", b"b\0d", "x" * 70, "é", 5, None]


class Refused(Exception):
    """What is to be raised: the type and, unless None, the text."""


def refuse(condition, kind=Exception, text="value type not supported"):
    if condition:
        raise Refused(kind, text)


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
        refuse("\ud800" in value, UnicodeEncodeError, None)
        value = value.encode()
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
        refuse(not key.isascii(), UnicodeEncodeError, None)
        key = key.encode()
    refuse(not isinstance(key, bytes), text="key type not supported")
    return key.split(b"\0")[0]


class Model(list):
    """Entries (key, type name, value); the methods are the list classes' own."""

    keyed = False

    def append(self, value, selector=None, key=None):
        super().append((key, *stored(value, self.keyed, selector)))

    def merge(self, other):
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


class FuzzTest(engine_double.TestCase):
    def value(self):
        number = lambda: random.choice([int, bool, IntSubclass])(random.choice([*EDGES, random.randrange(-300, 2**31)]))
        real = lambda: random.choice([*REALS, random.gauss(0, 1e6)])
        items = random.choice([number, real, lambda: random.randrange(300), lambda: random.choice([real(), 5, "x"])])
        return random.choice([number, real, lambda: random.choice(TEXTS), lambda: random.choice(OTHERS),
                              lambda: tuple(items() for _ in range(random.randrange(5)))])()

    def outcome(self, target, method, arguments):
        try:
            getattr(target, method)(*arguments)
        except Refused as refused:
            return refused.args
        except Exception as error:
            return type(error), None if isinstance(error, UnicodeEncodeError) else str(error)

    def operation(self, keyed):
        """A method and its arguments."""
        key, value, selector = random.choice(KEYS), self.value(), random.choice(SELECTORS)
        if not keyed or random.random() < 0.7:
            return "append", ((key,) if keyed else ()) + random.choice([(value,), (value, selector)])
        selectors = [*SELECTORS, "afloat", "aint32", "auint32"]
        typed = {random.choice(KEYS): (self.value(), random.choice(selectors)) for _ in range(2)}
        return random.choice([("remove", (key,)), ("appendFromDict", ({key: value},)),
                              ("appendFromDictType", (typed,))])

    def test_against_model(self):
        engine_double.recording(False)
        random.seed(20240229)
        pairs = [(self.sonetrix.listValue(), Model()) for _ in range(3)]
        pairs += [(self.sonetrix.listKeyValue(), KeyedModel()) for _ in range(3)]
        stored_count = 0
        with engine_double.unraisables():
            for number in range(OPERATIONS):
                index = random.randrange(6)
                real, model = pairs[index]
                method, arguments = self.operation(model.keyed)
                expected = self.outcome(model, method, arguments)
                self.assertEqual(self.outcome(real, method, arguments), expected, (number, method, arguments))
                stored_count += expected is None
                if number % 11 == 0:
                    read = (real.toDict(), real.toDictType()) if model.keyed else (real.toList(), real.toListType())
                    self.assertEqual(repr(read), repr(model.read()))  # the order, NaN and -0.0 count, too
                    kind = type(model)
                    pairs[index] = random.choice([pairs[index], (real.dup(), kind(model)), (type(real)(), kind())])
                    (one, one_model), (other, other_model) = random.sample(pairs[3:] if model.keyed else pairs[:3], 2)
                    one.merge(other), one_model.merge(other_model)
        self.assertGreater(stored_count, OPERATIONS / 3)  # neither all stored nor all refused
        self.assertLess(stored_count, OPERATIONS * 2 / 3)


if __name__ == "__main__":
    unittest.main()
