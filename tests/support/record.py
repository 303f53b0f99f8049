"""The recording layer in front of the engine, as tests of the module in a plain interpreter use it.

    from support import record
    sonetrix = record.load()          # the layer first, then the module

    record.result("sonetrix_engine_LinkPort", 3)
    sonetrix.engine.link("a:out", "b:in")    # 3
    record.calls("sonetrix_engine_LinkPort")
    # [Call(name=..., args=("engine", b"a:out", b"b:in"), lock_held=False)]

Behind the layer is the development engine, not started. It answers what is not scripted, but for this: callbacks are
registered in the layer, and fire when the test says so; the engine says that it runs and every driver that it is
loaded; what a script logs goes nowhere.

Arguments arrive as Python values: the handle as "engine", null as None, strings as bytes, other pointers as numbers.
What lists and values have arrived as can be asked of the engine.

At the end of each test of TestCase, every call has had the interpreter lock in the state that the rules ask, and no
list is left.
"""

import ast
import atexit
import collections
import contextlib
import ctypes
import fnmatch
import functools
import gc
import importlib
import io
import itertools
import sys
import unittest
from unittest import mock

from record import generate

from . import BUILD, RECORD, SOURCE

CHANGES, SLOW_METERS, FAST_METERS, TIMER = range(4)

# The types of value, in the order of their codes; an array's elements are of the type without the a.
TYPES = {"uint32": ctypes.c_uint32, "int32": ctypes.c_int32, "float": ctypes.c_float, "string": ctypes.c_char_p,
         "auint32": ctypes.c_void_p, "aint32": ctypes.c_void_p, "afloat": ctypes.c_void_p, "double": ctypes.c_double}
C_TYPES = {"void": None, "const char *": ctypes.c_char_p, "int32_t": ctypes.c_int32, "int64_t": ctypes.c_int64}
FILLED_IN = {"float *": ctypes.c_float, "uint32_t *": ctypes.c_uint32, "struct timespec *": ctypes.c_int64 * 2,
             "char **": ctypes.c_void_p}
HEADER = (SOURCE / "include/sonetrix/engine_api.h").read_text()
FUNCTIONS = {name: (result, [kind.strip() for kind, _ in parameters])
             for result, name, parameters in generate.functions(HEADER + generate.READ_METERS)}
Call = collections.namedtuple("Call", "name args lock_held")


class Value(ctypes.Structure):
    """A typed value; as a test's own record it may be as odd as needed: Value(99), Value(3)."""

    _fields_ = [("type", ctypes.c_uint32), ("content", ctypes.c_uint64), ("count", ctypes.c_uint64)]

    @classmethod
    def of(cls, value, name=None):
        name = name or {bytes: "string", str: "string", int: "int32", float: "float"}[type(value)]
        memory = content = value.encode() if isinstance(value, str) else value
        if name[0] == "a":
            memory = (TYPES[name[1:]] * len(value))(*value)
            content = ctypes.addressof(memory) if value else None
        record = cls(list(TYPES).index(name), count=len(value) if name[0] == "a" else 0)
        record.memory = memory
        TYPES[name].from_buffer(record, cls.content.offset).value = content
        return record


# ctypes gives the interpreter lock up during calls of the first, and keeps it during calls of the others.
_library = ctypes.CDLL(str(RECORD), mode=ctypes.RTLD_GLOBAL)
_holding_lock = ctypes.PyDLL(str(RECORD))
behind = ctypes.PyDLL(str(BUILD / "lib" / "libsonetrix_engine.so"))  # what is behind the layer
for _header, *_libraries in (HEADER, behind), (
        (SOURCE / "tests/record/control.h").read_text(), _library, _holding_lock):
    for _result, _name, _parameters in generate.functions(_header):
        for _function in [getattr(library, _name) for library in _libraries]:
            _function.restype = C_TYPES.get(_result, ctypes.c_void_p)
            _function.argtypes = [C_TYPES.get(kind.strip(), ctypes.c_void_p) for kind, _ in _parameters]
_Hook = ctypes.CFUNCTYPE(ctypes.c_bool, *[ctypes.POINTER(ctypes.c_int64)] * 2)
_strdup = ctypes.CDLL(None).strdup
_strdup.restype, _strdup.argtypes = ctypes.c_void_p, [ctypes.c_char_p]
_library.record_begin()
_actions = {}


class List:
    """A list of values, or of (key, value) for a dict; each a Python value, (value, type name) or a Value. Wherever
    entries are asked for, such a list does, too."""

    def __init__(self, entries, keyed=True):
        self.functions = f"sonetrix_{'keyValue' if keyed else 'value'}List"
        self._as_parameter_ = ctypes.c_void_p(getattr(behind, self.functions + "New")())
        for key, entry in entries.items() if isinstance(entries, dict) else (("", entry) for entry in entries):
            if not isinstance(entry, Value):
                entry = Value.of(*entry) if isinstance(entry, tuple) else Value.of(entry)
            _library.record_add(self, key.encode() if keyed else None, ctypes.byref(entry))

    def __del__(self, getattr=getattr, engine=behind):
        getattr(engine, self.functions + "Destroy")(self)

    @classmethod
    def of(cls, entries):
        return entries if entries is None or isinstance(entries, List) else cls(entries)

    def copy(self):
        return getattr(behind, self.functions + "DeepCopy")(self)


def calls(*names, clear=False):
    """The calls on record, oldest first; with names, or shell patterns of names, only those."""
    every = (Call(*call) for call in ast.literal_eval(_library.record_calls(clear).decode()))
    return [call for call in every if not names or any(fnmatch.fnmatchcase(call.name, name) for name in names)]


def log_lines():
    """What went to the engine's log: (level, text), from either log function."""
    return [(call.args[0], call.args[-1].decode()) for call in calls("sonetrix_log", "sonetrix_log_LogString")]


def violations():
    """What has been against the rules since the last time this was asked."""
    return ast.literal_eval(_library.record_violations().decode())


@atexit.register
def reset():
    """Forgets calls and answers. Registrations and live objects stay."""
    _library.record_reset()
    _actions.clear()


@functools.cache  # ctypes leaves a reference behind for each that it makes
def _hook(name):
    def answer(words, answer):
        result = _actions[name](*words[:len(FUNCTIONS[name][1])]) if name in _actions else None
        answer[0] = result or 0
        return result is not None
    return _Hook(answer)


def act(name, action):
    """Calls `action` with a function's arguments, as numbers, in its place; where it gives None, the engine answers."""
    _actions[name] = action
    _library.record_hook(name.encode(), _hook(name))


def result(name, *values):
    """The integer results of a function, one call after the other; the last one stays."""
    if FUNCTIONS[name][0].endswith("_t"):
        results = itertools.chain(values, itertools.repeat(values[-1]))
        act(name, lambda *_: next(results))


def null(name, times=sys.maxsize):
    """Makes a function that gives a pointer give null."""
    if FUNCTIONS[name][0].endswith("*"):
        calls = itertools.count()
        act(name, lambda *_: 0 if next(calls) < times else None)


def gives(name, entries):
    """The list that a function gives."""
    if "List" in FUNCTIONS[name][0]:
        made = List(entries, "cListValue" not in FUNCTIONS[name][0])
        keeps = name == "sonetrix_engine_getStartParameter"  # the engine
        act(name, lambda *_: made._as_parameter_.value if keeps else made.copy())


def fills(name, *values, status=0):
    """What a function fills in, in the order of its arguments."""
    _, kinds = FUNCTIONS[name]

    def action(*words):
        places = [FILLED_IN[kind].from_address(word) for kind, word in zip(kinds, words) if kind in FILLED_IN]
        for place, value in zip(places, values):
            ctypes.pointer(place)[0] = _strdup(value) if isinstance(value, bytes) else value
        return status
    act(name, action)


def iteration(name, released=0, before=lambda: None, container=...):
    """Lets a for-each call back without the interpreter lock for every so-manyth element, with another container; what
    the callbacks return."""
    statuses = []
    with_lock, without = (kind(ctypes.c_int32, ctypes.c_void_p, ctypes.c_void_p)
                          for kind in (ctypes.PYFUNCTYPE, ctypes.CFUNCTYPE))

    def iterate(target, callback, user):
        def step(element, _):
            before()
            kind = without if released and len(statuses) % released == 0 else with_lock
            statuses.append(kind(callback)(element, user if container is ... else id(container)))
            return 0
        return getattr(behind, name)(target, with_lock(step), None)
    act(name, iterate)
    return statuses


def fire(kind, entries=None, threads=1, times=1, lock_held=False):
    """Calls the registered callbacks of a kind: on native threads, or (threads=0) on the calling thread with the
    interpreter lock held or not. Returns when they are through."""
    (_holding_lock if lock_held else _library).record_fire(kind, List.of(entries), threads, times)


def fire_on(thread, kind):
    """Calls them once on an engine thread of this number, which stays until it is joined."""
    _library.record_fireOn(thread, kind, None, 1, 60_000)


def join(thread, lock_held=False):
    """Lets the engine thread of this number end, and waits for that."""
    (_holding_lock if lock_held else _library).record_join(thread)


load = functools.partial(importlib.import_module, "sonetrix")  # with the layer in front of the engine
clear = functools.partial(_library.record_calls, True)  # forgets the calls
# Makes the next registration call back so many times before it returns: on an engine thread, or (negative) on this one.
calls_inside = _library.record_callInside
registrations = _library.record_registrations  # how many there are of a kind
lists = _library.record_lists  # how many there are that the engine has given and not taken back


@contextlib.contextmanager
def unraisables():
    """Collects what goes to the unraisable hook, as (the hook's object, exception); standard error is kept quiet."""
    reports = []
    with (mock.patch("sys.unraisablehook", lambda report: reports.append((report.object, report.exc_value))),
          contextlib.redirect_stderr(io.StringIO())):
        yield reports


class TestCase(unittest.TestCase):
    """Every test starts with nothing on record; the rules are checked for all of its calls."""

    def setUp(self):
        self.sonetrix = load()
        reset()
        gc.collect()
        violations()
        self._lists = lists()

    def tearDown(self):
        reset()
        gc.collect()
        self.assertEqual(violations(), [])
        self.assertEqual(lists(), self._lists, "engine lists left behind")

    def assertRefused(self, kind, text, call, *args, **kwargs):
        """The call raises exactly this kind of exception, with this text."""
        with self.assertRaises(kind) as caught:
            call(*args, **kwargs)
        self.assertEqual((type(caught.exception), str(caught.exception)), (kind, text))
