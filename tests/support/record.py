"""The recording layer in front of the engine, as tests of the module in a plain interpreter use it.

    from support import record
    sonetrix = record.load()          # the layer first, then the module

    record.result("sonetrix_engine_LinkPort", 3)
    sonetrix.engine.link("a:out", "b:in")    # 3
    record.calls("sonetrix_engine_LinkPort")
    # [Call(name=..., args=("engine", b"a:out", b"b:in"), lock_held=False, thread=...)]

Behind the layer is the development engine, not started. It answers what is not scripted, but for this: callbacks are
registered here, and fire when the test says so; every parameter counts as written; there are no modules to go over;
the engine says that it runs and every driver that it is loaded; its log stays quiet.

Arguments arrive as Python values: the handle as "engine", null as None, strings as bytes, other pointers as numbers,
arrays as tuples, values as (type name, value), lists given to the engine as lists of those, with keys in front where
they have some. In calls of the list functions themselves a list is its address.

At the end of each test of TestCase, every call has had the interpreter lock in the state that the rules ask, no list
was used after its end, and none is left.
"""

import ast
import contextlib
import ctypes
import fnmatch
import gc
import importlib
import io
import unittest
from unittest import mock
from typing import NamedTuple

from . import RECORD

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


# ctypes gives the interpreter lock up during calls of the first, and keeps it during calls of the second.
_library = ctypes.CDLL(str(RECORD), mode=ctypes.RTLD_GLOBAL)
_holding_lock = ctypes.PyDLL(str(RECORD))
_kept = {}
_text, _number, _pointer = ctypes.c_char_p, ctypes.c_int64, ctypes.c_void_p
for _name, _result, *_arguments in (
    ("begin", None), ("reset", None), ("noting", None, _number), ("calls", _text, _number), ("violations", _text),
    ("lists", _number), ("set", None, _text, _number, _number), ("text", None, _text, _text),
    ("numbers", None, _text, _pointer, _number), ("modules", None, _pointer, _number), ("listNew", _pointer),
    ("listAdd", None, _pointer, _text, _pointer), ("readAgain", _number, _pointer, _pointer, _number),
    ("registrations", _number, _number), ("fire", None, _number, _pointer, _number, _number),
    ("fireOn", None, _number, _number, _pointer, _number, _number), ("join", None, _number),
    ("failAllocation", None, _number), ("endAllocationFailure", _number),
):
    for _binding in (_library, _holding_lock):
        _function = getattr(_binding, "record_" + _name)
        _function.restype, _function.argtypes = _result, _arguments
_library.record_begin()

# What can be said of a function in a number, in the layer's order.
_RESULT, _RESULT_ONCE, _NULLS, _DELAY, _QUIET, _LIST, _USER, _GIVES_LOCK_UP, _STOPS_ON_ERROR, _CALLS_INSIDE = range(10)


def _set(name, setting, value):
    _library.record_set(name.encode(), setting, value)


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


def reset():
    """Forgets calls, scripted behaviour and module records. Registrations and live objects stay."""
    _library.record_reset()
    _kept.clear()


def recording(on):
    """Whether calls are noted; what is scripted and checked stays so."""
    _library.record_noting(on)


def result(name, value, lasting=True):
    """The integer result of a function: from now on, or, not lasting, once (queued)."""
    _set(name, _RESULT if lasting else _RESULT_ONCE, value)


def null(name, times=-1):
    """Makes a function that gives a pointer give null."""
    _set(name, _NULLS, times)


def delay(name, seconds):
    """Holds every call of a function up, at most that long; 0 lets the waiting calls go on."""
    _set(name, _DELAY, int(seconds * 1000))


def text(name, value):
    """The string that a function hands out."""
    _library.record_text(name.encode(), value)


def numbers(name, *values):
    """The figures that a function fills in, in the order of its arguments."""
    _library.record_numbers(name.encode(), (ctypes.c_double * len(values))(*values), len(values))


def user_data(name, value):
    """Replaces the user pointer of an iteration by this object."""
    _kept[name, "user"] = value
    _set(name, _USER, id(value))


def gives_lock_up(name, every=1):
    """Makes an iteration call back without the interpreter lock that its caller holds, for every so-manyth element."""
    _set(name, _GIVES_LOCK_UP, every)


def stop_on_error(name):
    """Makes an iteration end when its callback reports failure."""
    _set(name, _STOPS_ON_ERROR, True)


def calls_inside(name, times=1):
    """Makes a registration call back before it returns: on an engine thread, or (negative) on the calling one."""
    _set(name, _CALLS_INSIDE, times)


def _add(handle, entries, no_key=None):
    pairs = entries.items() if isinstance(entries, dict) else ((no_key, entry) for entry in entries)
    for key, entry in pairs:
        if not isinstance(entry, Value):
            entry = Value.of(*entry) if isinstance(entry, tuple) else Value.of(entry)
        _library.record_listAdd(handle, key.encode() if isinstance(key, str) else key, ctypes.byref(entry))
    return handle


def make_list(entries):
    """A list of values, or of (key, value) for a dict; each a Python value, (value, type name) or a Value. Wherever
    entries are asked for, such a list does, too."""
    return _add(_library.record_listNew(), entries, b"")


def _list(entries):
    return entries if entries is None or isinstance(entries, int) else make_list(entries)


def extend_list(handle, entries):
    """More entries for a list of the module's."""
    _add(handle, entries)


def read_again(entries, container, lock_held=False, native_thread=False):
    """Hands the entries to the callback of the last reading on this thread, with another container as user data; gives
    the number of entries for which it reports failure."""
    binding = _holding_lock if lock_held else _library
    return binding.record_readAgain(make_list(entries), id(container), native_thread)


def gives(name, entries):
    """The list that a function gives."""
    _set(name, _LIST, _list(entries))


def modules(*records):
    """The module records that the iteration shows."""
    table = (ctypes.POINTER(Module) * len(records))(*map(ctypes.pointer, records))
    _kept["modules"] = records, table
    _library.record_modules(table, len(records))


def fire(kind, entries=None, threads=1, times=1, lock_held=False):
    """Calls the registered callbacks of a kind: on native threads, or (threads=0) on the calling thread with the
    interpreter lock held or not. Returns when they are through."""
    binding = _holding_lock if lock_held else _library
    binding.record_fire(kind, _list(entries), threads, times)


def fire_on(thread, kind, entries=None, times=1, wait=True):
    """The same on an engine thread of this number, which stays until it is joined; without waiting, if so said."""
    _library.record_fireOn(thread, kind, _list(entries), times, wait)


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
