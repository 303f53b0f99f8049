"""Each public function and method with arguments that work, made from the signatures.

    for name, call in calls.every(sonetrix).items(): call()

What a parameter gets goes by its name; a new one has to be told here. After `prepare` every call returns.
"""

import functools
import inspect
import io
import os
import types
from unittest import mock

# Nothing sleeps, no file is written, and what the standard library does on the way is left out.
STAND_INS = {"time": types.SimpleNamespace(sleep=lambda seconds: None), "open": lambda *arguments: io.StringIO(),
             "os": types.SimpleNamespace(path=os.path, get_terminal_size=lambda: os.terminal_size((80, 9))),
             "signature": lambda callback: types.SimpleNamespace(parameters=(1,)),
             "print": lambda *arguments, **keywords: None}


def prepare(case):
    """Gives the engine something to tell of, for the test, and lets it seem to have ended."""
    engine = case.sonetrix.engine
    case.sonetrix.log.setLevel(5)  # the engine says what it thinks of such arguments
    for name in "ab":
        engine.newModule(name, "amp_mono", None)
    engine.link("a:output", "b:input")
    for owner, name, stand_in in (engine, "isRunning", bool), *((case.sonetrix, *item) for item in STAND_INS.items()):
        case.enterContext(mock.patch.object(owner, name, stand_in, create=True))


def functions(sonetrix):
    """(qualified name, owner, function) of all that is public, with the constructors that take arguments."""
    for owner in [sonetrix, *(member for member in vars(sonetrix).values() if isinstance(member, type))]:
        for name, function in vars(owner).items():
            if inspect.isroutine(function) and not name.startswith("__") and function is not inspect.signature:
                yield f"{owner.__name__}.{name}".removeprefix("sonetrix."), owner, function
    for kind in sonetrix.notifyChanges, sonetrix.notifyMeters, sonetrix.timeout:
        yield kind.__name__, kind, kind


class Call:
    """A call with arguments by name; those that are `Fresh` are made for each call."""

    def __init__(self, function, target=None, /, **arguments):
        self.function, self.target, self.arguments = function, target, arguments

    def ready(self, **others):
        """The call itself, with all that Python code has to do for it done."""
        arguments = [value() if isinstance(value, Fresh) else value for value in {**self.arguments, **others}.values()]
        function = self.function.__get__(self.target()) if self.target else self.function
        return functools.partial(function, *arguments)

    def __call__(self, **others):
        return self.ready(**others)()


class Fresh(functools.partial):
    pass


def every(sonetrix):
    plain, keyed = sonetrix.listValue, sonetrix.listKeyValue
    # Made once, as objects that a script keeps.
    names, table = plain().append("a.").append("b"), keyed().append("a.gain", 1.5).append("f", (1.0, 2.0))
    values = {
        "callback": len, "cb": bool, "d": {"a": 1, "b": (1.0,)}, "exitcode": 3, "f": types.SimpleNamespace(write=len),
        "filename": "file", "hold": True, "identifier": b"id", "info": table, "k": "system.p", "level": 5,
        "lineHeaderCount": 2, "lines": "a\nb", "message": "\u00fc", "meters_type": 1, "module": b"m",
        "name": bytearray(b"c"), "on": True, "p": "a:output", "p1": "a:output", "p2": bytearray(b"b:input"),
        "timeOn": 1, "timeout_ms": 5, "type": None, "v": "x", "timeout.callback": print,
        "engine.addTimer.callback": print, "engine.getParams.k": names, "engine.getParam.k": ["a.", b"b"],
        "engine.setParams.k": table, "engine.setParamsCli.k": table, "engine.addDebugMeter.type": "",
        "log.logb.message": b"x",
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
