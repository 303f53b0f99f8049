"""The recording layer in front of the engine, as tests of the module in a plain interpreter use it.

    from support import record
    sonetrix = record.load()          # the layer first, then the module

    record.result("sonetrix_engine_LinkPort", 3)
    sonetrix.engine.link("a:out", "b:in")    # 3
    record.calls("sonetrix_engine_LinkPort")
    # [Call(name=..., args=("engine", b"a:out", b"b:in"), lock_held=False, thread=...)]

Behind the layer is the development engine, not started. It answers what is not scripted, but for this: callbacks are
registered in the layer, and fire when the test says so; every parameter counts as written; there are no modules to go
over; the engine says that it runs and every driver that it is loaded; its log stays quiet.

Arguments arrive as Python values: the handle as "engine", null as None, strings as bytes, other pointers as numbers,
arrays as tuples, values as (type name, value), lists given to the engine as lists of those, with keys in front where
they have some. In calls of the list functions themselves a list is its address.

At the end of each test of TestCase, every call has had the interpreter lock in the state that the rules ask, no list
was used after its end, and none is left.
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
import threading
import unittest
from unittest import mock
from typing import NamedTuple

from record import generate

from . import BUILD, RECORD, SOURCE

CHANGES, SLOW_METERS, FAST_METERS, TIMER = range(4)

TYPE_CODES = {"uint32": 0, "int32": 1, "float": 2, "string": 3, "auint32": 4, "aint32": 5, "afloat": 6, "double": 7}
_SCALARS = {"uint32": ctypes.c_uint32, "int32": ctypes.c_int32, "float": ctypes.c_float, "double": ctypes.c_double}
_ELEMENTS = {"auint32": ctypes.c_uint32, "aint32": ctypes.c_int32, "afloat": ctypes.c_float}


class Call(NamedTuple):
    name: str
    args: tuple
    lock_held: bool | None  # None where no interpreter was running
    thread: int


class _Union(ctypes.Union):
    _fields_ = [("uint32", ctypes.c_uint32), ("int32", ctypes.c_int32), ("float", ctypes.c_float),
                ("double", ctypes.c_double), ("pointer", ctypes.c_void_p)]


class Value(ctypes.Structure):
    """A typed value; as a test's own record it may be as odd as needed: Value(99), Value(3)."""

    _fields_ = [("type", ctypes.c_uint32), ("as_", _Union), ("count", ctypes.c_uint64)]

    @classmethod
    def of(cls, value, type_name=None):
        if type_name is None:
            type_name = {bytes: "string", str: "string", int: "int32", float: "float"}[type(value)]
        record = cls(TYPE_CODES[type_name])
        if type_name == "string":
            text = value.encode() if isinstance(value, str) else value
            record.memory = ctypes.create_string_buffer(text)
            record.as_.pointer = ctypes.addressof(record.memory)
        elif type_name in _ELEMENTS:
            record.memory = (_ELEMENTS[type_name] * len(value))(*value)
            record.as_.pointer = ctypes.addressof(record.memory) if value else None
            record.count = len(value)
        else:
            setattr(record.as_, type_name, value)
        return record


class KeyValue(ctypes.Structure):
    _fields_ = [("key", ctypes.c_char_p), ("reserved", ctypes.c_uint64), ("value", Value)]


class Port(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 132), ("type", ctypes.c_uint32), ("reserved", ctypes.c_uint8 * 16),
                ("link", ctypes.c_char_p)]


class Module(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 40), ("reference", ctypes.c_void_p), ("reserved0", ctypes.c_uint8 * 20),
                ("type", ctypes.c_uint32), ("reserved1", ctypes.c_uint8 * 128), ("sources", ctypes.c_void_p),
                ("source_count", ctypes.c_uint32), ("reserved2", ctypes.c_uint8 * 8), ("sinks", ctypes.c_void_p),
                ("sink_count", ctypes.c_uint32)]

    @classmethod
    def of(cls, name, type=1, reference=None, sources=(), sinks=()):
        """Ports are (name, type) or, for linked sinks, (name, type, link)."""
        module = cls(name=name, type=type, reference=reference)
        module.memory = []
        for kind, ports in (("source", sources), ("sink", sinks)):
            records = [Port(name=port[0], type=port[1], link=port[2] if len(port) > 2 else None) for port in ports]
            table = (ctypes.POINTER(Port) * len(records))(*map(ctypes.pointer, records))
            module.memory.append((records, table))
            setattr(module, kind + "s", ctypes.addressof(table))
            setattr(module, kind + "_count", len(records))
        return module


# ctypes gives the interpreter lock up during calls of the first, and keeps it during calls of the others.
_library = ctypes.CDLL(str(RECORD), mode=ctypes.RTLD_GLOBAL)
_holding_lock = ctypes.PyDLL(str(RECORD))
_engine = ctypes.PyDLL(str(BUILD / "lib" / "libsonetrix_engine.so"))  # what is behind the layer
FUNCTIONS = {name: (result, [kind.strip() for kind, _ in parameters]) for result, name, parameters in
              generate.functions((SOURCE / "include/sonetrix/engine_api.h").read_text())}
_text, _number, _pointer, _status = ctypes.c_char_p, ctypes.c_int64, ctypes.c_void_p, ctypes.c_int32
_Hook = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(_number), ctypes.POINTER(_number))
_Callback, _HeldCallback = (kind(_status, _pointer, _pointer) for kind in (ctypes.CFUNCTYPE, ctypes.PYFUNCTYPE))


def _declare(name, result, *arguments):
    for library in (_engine,) if name.startswith("sonetrix") else (_library, _holding_lock):
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments


for _declaration in (
    ("begin", None), ("reset", None), ("noting", None, _number), ("calls", _text, _number), ("violations", _text),
    ("lists", _number), ("hook", None, _text, _Hook), ("add", None, _pointer, _text, _pointer),
    ("registrations", _number, _number), ("callInside", None, _number),
    ("fire", None, _number, _pointer, _number, _number), ("join", None, _number),
    ("fireOn", None, _number, _number, _pointer, _number, _number),
    ("elsewhere", _status, _pointer, _pointer, _pointer),
    ("failAllocation", None, _number), ("endAllocationFailure", _number),
):
    _declare("record_" + _declaration[0], *_declaration[1:])
for _family in "sonetrix_valueList", "sonetrix_keyValueList":
    _declare(_family + "New", _pointer), _declare(_family + "Destroy", None, _pointer)
    _declare(_family + "DeepCopy", _pointer, _pointer), _declare(_family + "Merge", _status, _pointer, _pointer)
    _declare(_family + "ForEach", _status, _pointer, _pointer, _pointer)
_strdup = ctypes.CDLL(None).strdup
_strdup.restype, _strdup.argtypes = _pointer, [_text]
_library.record_begin()


class List:
    """A list of values, or of (key, value) for a dict; each a Python value, (value, type name) or a Value. Wherever
    entries are asked for, such a list does, too."""

    def __init__(self, entries, keyed=True):
        self.family = f"sonetrix_{'keyValue' if keyed else 'value'}List"
        self._as_parameter_ = _pointer(self._call("New"))
        if isinstance(entries, dict) and not keyed:
            entries = entries.values()
        extend_list(self, entries or {}, b"" if keyed else None)

    def __del__(self, getattr=getattr, engine=_engine):
        getattr(engine, self.family + "Destroy")(self)

    def _call(self, verb, *arguments):
        return getattr(_engine, self.family + verb)(*arguments)

    def copy(self):
        return self._call("DeepCopy", self)

    def append_to(self, handle):
        copy = self.copy()
        self._call("Merge", handle, copy), self._call("Destroy", copy)

    @classmethod
    def of(cls, entries, keyed=True):
        return entries if entries is None or isinstance(entries, List) else cls(entries, keyed)


def extend_list(handle, entries, no_key=None):
    """More entries for a list, which may be the module's."""
    pairs = entries.items() if isinstance(entries, dict) else ((no_key, entry) for entry in entries)
    for key, entry in pairs:
        if not isinstance(entry, Value):
            entry = Value.of(*entry) if isinstance(entry, tuple) else Value.of(entry)
        _library.record_add(handle, key.encode() if isinstance(key, str) else key, ctypes.byref(entry))


class _Script:
    """What the test has said of a function; it is asked at each call."""

    def __init__(self, name):
        self.result_type, self.parameters = FUNCTIONS[name]
        self.name, self.results, self.nulls, self.given = name, collections.deque(), 0, False
        self.result, self.entries, self.text, self.numbers = 0, self.list(()), b"", ()
        self.iteration, self.callback, self.longest, self.gate = None, None, 0, threading.Event()
        _library.record_hook(name.encode(), _hook(name))

    def list(self, entries):
        return List.of(entries, "cListValue" not in self.result_type)

    def answer(self, words, answer):
        """False where the engine is to answer."""
        if self.longest:
            self.gate.wait(self.longest)
        if self.iteration is not None:
            answer[0] = self.iterate(*words[:3], **self.iteration)
            return True
        null = self.nulls != 0
        self.nulls -= self.nulls > 0
        if self.result_type == "void" or not (null or self.given or self.results):
            return False
        status = self.results.popleft() if self.results else self.result
        numbers = iter(self.numbers)
        for kind, word in zip(self.parameters, words):
            self.fill_in(kind, word, status, numbers, self.entries if not (null or status) else None)
        if not self.result_type.endswith("*"):
            answer[0] = status
        elif null or "List" not in self.result_type:
            answer[0] = 0
        elif self.name == "sonetrix_engine_getStartParameter":
            _kept.add(self.entries)  # it stays the engine's
            answer[0] = self.entries._as_parameter_.value
        else:
            answer[0] = self.entries.copy()
        return True

    def fill_in(self, kind, word, status, numbers, entries):
        if kind == "float *":
            ctypes.c_float.from_address(word).value = next(numbers, 0)
        elif kind == "uint32_t *":
            ctypes.c_uint32.from_address(word).value = next(numbers, 0)
        elif kind == "struct timespec *":
            (_number * 2).from_address(word)[:] = next(numbers, 0), next(numbers, 0)
        elif kind == "char **":  # what a failure leaves behind is not the caller's to free
            _pointer.from_address(word).value = id(self) if status else _strdup(self.text)
        elif kind == "sonetrix_cListKeyValue_t **":
            _pointer.from_address(word).value = entries and entries.copy()
        elif kind == "sonetrix_readMeters_t *":
            _pointer.from_address(word).value = None
        elif "SetParams" in self.name and kind == "sonetrix_cListKeyValue_t *":
            self.entries.append_to(word)

    def iterate(self, target, callback, data, modules=None, user=..., meanwhile=None, gives_lock_up=0,
                stops_on_error=False):
        count, failed = itertools.count(1), []
        self.callback = callback

        def step(element, _):
            if failed and stops_on_error:
                return 0
            meanwhile and meanwhile()
            released = modules is not None or gives_lock_up and next(count) % gives_lock_up == 0
            kind = _Callback if released else _HeldCallback
            status = kind(callback)(element, data if user is ... else id(user))
            failed.extend([status] if status else [])
            return status

        if modules is None:
            return getattr(_engine, self.name)(target, _HeldCallback(step), None)
        for module in modules:
            step(ctypes.addressof(module), None)
        return 0


_scripts, _kept = {}, set()


@functools.cache  # ctypes leaves a reference behind for each that it makes
def _hook(name):
    return _Hook(lambda words, answer: name in _scripts and _scripts[name].answer(words, answer))


def _script(name):
    return _scripts.get(name) or _scripts.setdefault(name, _Script(name))


def load():
    """The module, imported with the layer in front of the engine."""
    return importlib.import_module("sonetrix")


def calls(*names, clear=False):
    """The calls on record, oldest first; with names, or shell patterns of names, only those."""
    every = (Call(name, args, None if held < 0 else bool(held), thread)
             for name, args, held, thread in ast.literal_eval(_library.record_calls(clear).decode()))
    return [call for call in every if not names or any(fnmatch.fnmatchcase(call.name, name) for name in names)]


def log_lines():
    """What went to the engine's log: (level, text), from either log function."""
    return [(call.args[0], call.args[-1].decode()) for call in calls("sonetrix_log", "sonetrix_log_LogString")]


def clear():
    _library.record_calls(True)


def violations():
    """What has been against the rules since the last time this was asked."""
    return ast.literal_eval(_library.record_violations().decode())


@atexit.register
def reset():
    """Forgets calls and scripts. Registrations and live objects stay."""
    _library.record_reset()
    _scripts.clear(), _kept.clear()


def recording(on):
    """Whether calls are noted; what is scripted and checked stays so."""
    _library.record_noting(on)


def _give(name, **what):
    vars(_script(name)).update(what, given=True)


def result(name, value, lasting=True):
    """The integer result of a function: from now on, or, not lasting, once (queued)."""
    _give(name, result=value) if lasting else _script(name).results.append(value)


def null(name, times=-1):
    """Makes a function that gives a pointer give null."""
    _script(name).nulls = times


def delay(name, seconds):
    """Holds every call of a function up, at most that long; 0 lets the waiting calls go on."""
    script = _script(name)
    script.longest = seconds
    seconds or script.gate.set()


def text(name, value):
    """The string that a function hands out."""
    _give(name, text=value)


def numbers(name, *values):
    """The figures that a function fills in, in the order of its arguments."""
    _give(name, numbers=values)


def gives(name, entries):
    """The list that a function gives."""
    _give(name, entries=_script(name).list(entries))


def iteration(name, **how):
    """How a for-each goes: over these `modules`; with another `user` as user data; `meanwhile` called before each
    element; calling back without the interpreter lock that its caller holds,
    for every so-manyth element (`gives_lock_up`); and
    whether it `stops_on_error`."""
    _script(name).iteration = {**(_script(name).iteration or {}), **how}


def modules(*records):
    """The module records that the iteration shows."""
    iteration("sonetrix_engine_ForEachModuleSafe", modules=records)


def read_again(name, entries, container, lock_held=False, native_thread=False):
    """Hands the entries to the callback of the last reading that went by `iteration`, with another container as user
    data; gives the number of entries for which it reports failure."""
    callback, failures = _script(name).callback, 0
    call = {True: _HeldCallback, False: _Callback}[lock_held](callback)
    if native_thread:
        call = lambda record, user: _library.record_elsewhere(callback, record, user)
    for key, value in entries.items() if isinstance(entries, dict) else ((None, entry) for entry in entries):
        record = KeyValue(key.encode(), 0, value) if key is not None else value
        failures += call(ctypes.addressof(record), id(container)) != 0
    return failures


def calls_inside(times=1):
    """Makes the next registration call back before it returns: on an engine thread, or (negative) on this one."""
    _library.record_callInside(times)


def fire(kind, entries=None, threads=1, times=1, lock_held=False):
    """Calls the registered callbacks of a kind: on native threads, or (threads=0) on the calling thread with the
    interpreter lock held or not. Returns when they are through."""
    binding = _holding_lock if lock_held else _library
    binding.record_fire(kind, List.of(entries), threads, times)


def fire_on(thread, kind, entries=None, times=1, wait=True):
    """The same on an engine thread of this number, which stays until it is joined; without waiting, if so said."""
    _library.record_fireOn(thread, kind, List.of(entries), times, wait)


def join(thread, lock_held=False):
    """Lets the engine thread of this number end, and waits for that."""
    (_holding_lock if lock_held else _library).record_join(thread)


def registrations(kind):
    return _library.record_registrations(kind)


def lists():
    """How many lists there are that the engine has given and not taken back."""
    return _library.record_lists()


def native_bytes():
    """What is allocated with malloc."""
    fields = "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks", "keepcost"
    info = type("mallinfo2", (ctypes.Structure,), {"_fields_": [(name, ctypes.c_size_t) for name in fields]})
    mallinfo2 = ctypes.CDLL(None).mallinfo2
    mallinfo2.restype = info
    now = mallinfo2()
    return now.uordblks + now.hblkhd


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
        self.addCleanup(reset)
        gc.collect()
        violations()
        self._lists = lists()

    def tearDown(self):
        gc.collect()
        self.assertEqual(violations(), [])
        self.assertEqual(lists(), self._lists, "engine lists left behind")

    def assertRefused(self, kind, text, call, *args, **kwargs):
        """The call raises exactly this kind of exception, with this text."""
        with self.assertRaises(kind) as caught:
            call(*args, **kwargs)
        self.assertEqual((type(caught.exception), str(caught.exception)), (kind, text))
