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
    """(qualified name, owner, function) of all that is public, constructors left out."""
    for owner in [sonetrix, *(member for member in vars(sonetrix).values() if isinstance(member, type))]:
        for name, function in vars(owner).items():
            if inspect.isroutine(function) and not name.startswith("__"):
                yield f"{owner.__name__}.{name}".removeprefix("sonetrix."), owner, function


def every(sonetrix):
    plain, keyed = sonetrix.listValue, sonetrix.listKeyValue
    # Made once, as objects that a script keeps.
    names, table = plain().append("a.").append("b"), keyed().append("k", 1).append("f", (1.0, 2.0)).append("s", "x")
    values = {
        "callback": len, "cb": bool, "d": {"a": 1, "b": (1.0,)}, "exitcode": 3, "f": types.SimpleNamespace(write=len), "filename": "file",
        "hold": True, "identifier": b"id", "info": table, "k": "a.x", "level": 3, "lineHeaderCount": 2, "lines": "a\nb",
        "message": "\u00fc", "meters_type": 1, "module": b"m", "name": bytearray(b"a"), "on": True, "p": "a:out",
        "p1": "a:out", "p2": bytearray(b"b:in"), "timeOn": 1, "timeout_ms": 5, "type": None, "v": "x",
        "engine.getParams.k": names, "engine.getParam.k": ["a.", b"b"], "engine.setParams.k": table,
        "engine.setParamsCli.k": table, "engine.addDebugMeter.type": "", "log.logb.message": b"x",
        "listKeyValue.appendFromDictType.d": {"a": (1, "int32"), "b": [2.0, None], "c": ((1.0,), "afloat")},
    }
    made = {"listValue.merge": lambda: plain().merge(names.dup()), "listKeyValue.merge": lambda: keyed().merge(table.dup()),
            "listKeyValue.remove": lambda: table.dup().remove("k"), "listValue": plain, "listKeyValue": keyed,
            "notifyChanges": lambda: sonetrix.notifyChanges(len), "notifyMeters": lambda: sonetrix.notifyMeters(len, 0),
            "timeout": lambda: sonetrix.timeout(5, print)}
    for number in 5, 1.5, (1, 2), (1.0, 2.0):
        made[f"listValue.append({number})"] = functools.partial(lambda one: plain().append(one), number)
        made[f"listKeyValue.append({number})"] = functools.partial(lambda one: keyed().append("k", one), number)
    for name, owner, function in functions(sonetrix):
        parameters = [parameter for parameter in inspect.signature(function).parameters if parameter != "self"]
        arguments = [values.get(f"{name}.{parameter}", values.get(parameter)) for parameter in parameters]
        if name not in made:
            if owner in (plain, keyed):
                kept = names if owner is plain else table
                target = kept if not name.split(".")[1].startswith("append") else None
                made[name] = functools.partial(lambda owner, target, function, arguments: function(
                    owner() if target is None else target, *arguments), owner, target, function, arguments)
            else:
                made[name] = functools.partial(function, *arguments)
    return made
