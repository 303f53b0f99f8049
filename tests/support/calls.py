"""Each public function and method with arguments that work, made from the signatures.

    for name, call in calls.every(sonetrix).items(): call()

What a parameter gets goes by its name; a new one has to be told here. With the engine scripted by `prepare`, every call
returns.
"""

import functools
import inspect
import io
import os
import types
from unittest import mock

from . import record
from .record import Module, Value

LISTS = "GetModulesList", "GetAllPortNames", "GetLinkPort"
TABLES = "GetParams", "GetLastMeters", "meterInfoList", "getStartParameter", "ModuleGetStartParameter", "SetParamsFull"
ENTRIES = {"k.a": 5, "k.b": Value(99), "k.c": ((1.5,), "afloat"), "k.d": "text"}
# Nothing sleeps, no file is written, and what the standard library does on the way is left out.
STAND_INS = {"time": types.SimpleNamespace(sleep=lambda seconds: None), "open": lambda *arguments: io.StringIO(),
             "os": types.SimpleNamespace(path=os.path, get_terminal_size=lambda: os.terminal_size((80, 9))),
             "signature": lambda callback: types.SimpleNamespace(parameters=(1,)),
             "print": lambda *arguments, **keywords: None}


def prepare(case):
    """Scripts the engine for the test."""
    for name in LISTS:
        record.gives("sonetrix_engine_" + name, ["x", 5, Value(99)])
    for name in TABLES:
        record.gives("sonetrix_engine_" + name, ENTRIES)
    record.text("sonetrix_engine_DriverGetName", b"driver")
    record.modules(Module.of(b"a", 0, sources=[(b"a:1", 1)]), Module.of(b"b", 1, sinks=[(b"b:1", 1, b"a:1")]))
    record.result("sonetrix_engine_IsRunning", 0)
    for name in "ModuleNew", "ModuleDelete", "LinkPort":
        record.result("sonetrix_engine_" + name, 0)
    for name, stand_in in STAND_INS.items():
        case.enterContext(mock.patch.object(case.sonetrix, name, stand_in, create=True))


def functions(sonetrix):
    """(qualified name, owner, function) of all that is public, with the constructors that take arguments."""
    for owner in [sonetrix, *(member for member in vars(sonetrix).values() if isinstance(member, type))]:
        for name, function in vars(owner).items():
            if inspect.isroutine(function) and not name.startswith("__"):
                yield f"{owner.__name__}.{name}".removeprefix("sonetrix."), owner, function
    for kind in sonetrix.notifyChanges, sonetrix.notifyMeters, sonetrix.timeout:
        yield kind.__name__, kind, kind


class Call:
    """A call with arguments by name; those that are `Fresh` are made for each call."""

    def __init__(self, function, target=None, /, **arguments):
        self.function, self.target, self.arguments = function, target, arguments

    def __call__(self, **others):
        arguments = [value() if isinstance(value, Fresh) else value for value in {**self.arguments, **others}.values()]
        return self.function(*([self.target()] if self.target else []), *arguments)


class Fresh(functools.partial):
    pass


def every(sonetrix):
    plain, keyed = sonetrix.listValue, sonetrix.listKeyValue
    # Made once, as objects that a script keeps.
    names, table = plain().append("a.").append("b"), keyed().append("k", 1).append("f", (1.0, 2.0)).append("s", "x")
    values = {
        "callback": len, "cb": bool, "d": {"a": 1, "b": (1.0,)}, "exitcode": 3, "f": types.SimpleNamespace(write=len),
        "filename": "file", "hold": True, "identifier": b"id", "info": table, "k": "a.x", "level": 3,
        "lineHeaderCount": 2, "lines": "a\nb", "message": "\u00fc", "meters_type": 1, "module": b"m",
        "name": bytearray(b"a"), "on": True, "p": "a:out", "p1": "a:out", "p2": bytearray(b"b:in"), "timeOn": 1,
        "timeout_ms": 5, "type": None, "v": "x", "timeout.callback": print, "engine.addTimer.callback": print,
        "engine.getParams.k": names, "engine.getParam.k": ["a.", b"b"], "engine.setParams.k": table,
        "engine.setParamsCli.k": table, "engine.addDebugMeter.type": "", "log.logb.message": b"x",
        "listKeyValue.appendFromDictType.d": {"a": (1, "int32"), "b": [2.0, None], "c": ((1.0,), "afloat")},
        "listValue.merge.other": Fresh(names.dup), "listKeyValue.merge.other": Fresh(table.dup),
    }
    made = {"listValue": Call(plain), "listKeyValue": Call(keyed)}
    for name, owner, function in functions(sonetrix):
        parameters = [parameter for parameter in inspect.signature(function).parameters if parameter != "self"]
        arguments = {name_: values.get(f"{name}.{name_}", values.get(name_)) for name_ in parameters}
        kept = {plain: names.dup, keyed: table.dup}.get(owner)
        target = owner if kept and ("append" in name or "merge" in name) else kept
        made[name] = Call(function, target, **arguments)
        if name.endswith(".append"):
            for v in 5, 1.5, (1, 2), (1.0, 2.0):
                made[f"{name}({v})"] = Call(function, target, **{**arguments, "v": v})
    return made
