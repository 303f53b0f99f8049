"""Both list classes against a model that is written from the rules."""

import ctypes

import fuzz_input
from support import record

SELECTORS = [None] * 5 + ["string", "int32", "uint32", "float", "double", "int", "uint", "bool", "", b"int32", 0]
SELECTORS += ctypes.c_int32, ctypes.c_uint32, ctypes.c_float, ctypes.c_double, ctypes.c_char_p, ctypes.c_int8
TYPE_NAMES = ["string", "int32", "uint32", "float", "double", "afloat", "aint32", "auint32"]
KEYS = ["a", "b.c", b"a", b"\xff\xfe", "", b"b\0d", "x" * 70, "é", 5, None]
LONGEST = 2000


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


def key(source):
    form = source.byte()
    return source.text() if form > 220 else source.bytes() if form > 200 else KEYS[form % len(KEYS)]


def operation(source, model, sibling):
    """A method and its arguments."""
    form = source.byte()
    keys = [key(source) for _ in range(1 + form // 8 % 2)] if model.keyed else []
    if not model.keyed or form & 7 < 4:
        selector = source.pick(SELECTORS)
        return "append", (*keys[:1], source.value(), *[source.text() if selector == "bool" else selector][form >> 7:])
    if form & 7 == 4:
        return "remove", keys[:1]
    if form & 7 == 5:
        return "appendFromDict", ({name: source.value() for name in keys},)
    if form & 7 == 6:
        return "appendFromDictType", (sibling.read()[1],)  # what was read is written again
    return "appendFromDictType", ({name: (source.value(), source.pick(TYPE_NAMES + SELECTORS)) for name in keys},)


def run(data):
    before = fuzz_input.left()
    source = fuzz_input.Input(data)
    pairs = [(kind(), model()) for kind, model in ((sonetrix.listValue, Model), (sonetrix.listKeyValue, KeyedModel))
             for _ in range(2)]
    while source:
        form = source.byte()
        index, other = form & 3, form & 3 ^ 1
        real, model = pairs[index]
        if form < 176:
            method, arguments = operation(source, model, pairs[other][1])
            expected, given = outcome(model, method, arguments), outcome(real, method, arguments)
            assert given == expected, (method, arguments, given, expected)
        elif form < 192:
            pairs[other] = real.dup(), type(model)(model)
        elif form < 208 and len(model) < LONGEST:
            other = index if form & 4 else other
            real.merge(pairs[other][0])
            model.merge(pairs[other][1])
        elif form < 216 and model.keyed:
            keep = lambda item: len(item[0]) & 1
            assert repr(real.toDict(keep)) == repr(dict(filter(keep, model.read()[0].items())))
        elif form < 232:
            assert repr(read(real)) == repr(model.read())
    for real, model in pairs:
        assert repr(read(real)) == repr(model.read()), (read(real), model.read())  # the order, NaN and -0.0 count, too
    del pairs, real
    assert fuzz_input.left() == before, (fuzz_input.left(), before)


sonetrix = fuzz_input.prepare()
