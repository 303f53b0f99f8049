"""Everything public, called with anything: what comes back is a result or an exception, and nothing is left behind.

The interpreter itself raises SystemError when a call ends with both or with neither.
"""

import gc
import inspect
import sys
import time

import fuzz_input
from support import calls, record

NAMES = ["a", "a:out", "m.x", "m.", "", b"m", "string", "int32", "uint32", "int", "uint", "float", "double", "é"]
ERRORS = [ValueError, TypeError, KeyError, StopIteration, RecursionError, MemoryError, KeyboardInterrupt, SystemExit,
          lambda: UnicodeDecodeError("ascii", b"\xff", 0, 1, "reason")]
# As the engine gives them: with unknown type codes, null strings and null arrays among them.
VALUES = [5, 1.5, "text", b"\xff", (7, "uint32"), ((1, 2), "auint32"), ((-1,), "aint32"), ((0.5,), "afloat"),
          ((), "aint32"), (0.1, "double"), *(record.Value(code) for code in (3, 4, 8, 2**32 - 1)),
          record.Value(5, count=9)]
LISTS = [VALUES, [], [b"a:out", b"b:in"] * 9, {f"m.{index}": value for index, value in enumerate(VALUES)}]
PORTS = [(b"out", 1), (b"\xff", 2), (b"", 2**31)]
MODULES = [record.Module.of(b"driver", 0), record.Module.of(b"\xc3", 1, 1, PORTS, [(b"in", 1, b"m:out")]),
           record.Module.of(b"m" * 39, 9, None, [(b"p" * 131, 1)], [(b"in", 2, b"\xff:\xfe"), (b"in", 1)])]
FUNCTIONS = sorted(record._INTERFACE)
# They make as much text as a number asks for.
GREEDY = "newModule", "delModule", "getLink", "link", "logOnFile", "_writeLinesWithHeader"


class Hostile:
    """Does what the input says whenever it is asked for anything."""


def answer(self, *arguments, **keywords):
    return self.act()


def hashed(self):
    self.act()
    return 1  # the interpreter leaks what is no int


def hostile(*bases, names="index int float bool len iter next call eq lt gt hash str repr bytes getitem del"):
    methods = {f"__{name}__": answer for name in names.split()}
    methods |= {name: answer for name in ("append", "items", "write", "close", "decode", "parameters")}
    return type("Hostile", (Hostile, *bases), methods | {"__hash__": hashed})


KINDS = [hostile(), hostile(int), hostile(float), hostile(str), hostile(dict),
         hostile(tuple, names="eq len iter del getitem")]


def modest(argument):
    return argument % 99 if isinstance(argument, int) and not isinstance(argument, Hostile) else argument


class Session:
    def __init__(self, data):
        self.source = fuzz_input.Input(data)
        self.pool = [sonetrix.listValue(), sonetrix.listKeyValue()]
        self.depth = 0

    def act(self):
        """What a hostile object does when it is asked for something."""
        form = self.source.byte()
        if not self.source or self.depth > 4:
            raise RuntimeError("no more")
        self.depth += 1
        try:
            if form & 3 == 0:
                raise self.source.pick(ERRORS)()
            if form & 3 == 1:
                self.step()
            return self.argument() if form & 4 else self.source.pick([0, 1, -1, 3, "a", b"a", True, None, ()])
        finally:
            self.depth -= 1

    def hostile(self):
        kind = self.source.pick(KINDS)
        made = kind()
        made.act = self.act
        return made

    def callable(self):
        return self.source.pick([lambda: self.act(), lambda one: self.act(), self.pool.clear, len, self.hostile()])

    def register(self):
        """As a script does it that means it."""
        registrations = [lambda: sonetrix.timeout(5, self.callable()), lambda: sonetrix.notifyChanges(self.callable()),
                         lambda: sonetrix.notifyMeters(self.callable(), self.source.byte() & 1)]
        self.pool.append(self.source.pick(registrations)())

    def argument(self):
        form = self.source.byte()
        if form < 80:
            return self.source.pick(NAMES)
        if form < 130:
            return self.source.value()
        if form < 190 and self.pool:
            return self.source.pick(self.pool)
        if form < 210:
            return self.hostile()
        if form < 230:
            return self.callable()
        kinds = [lambda: {self.source.pick(NAMES): self.argument(), "k": (self.argument(), self.source.pick(NAMES))},
                 lambda: [self.argument() for _ in range(form & 3)], lambda: (self.argument(), self.argument())]
        return self.source.pick(kinds)() if self.source else None

    def script(self):
        """Something that the engine answers from now on."""
        name, form = self.source.pick(FUNCTIONS), self.source.byte()
        if name == "sonetrix_engine_IsRunning":
            record.result(name, 1, lasting=False)  # else the monitors would not end
        elif form & 3 == 0:
            record.result(name, self.source.pick([0, -1, 1, 2**31 - 1]), form & 4)
        elif form & 3 == 1:
            record.null(name, form >> 2)
        elif form & 3 == 2:
            record.numbers(name, *(self.source.byte() for _ in range(form >> 5)))
            record.text(name, self.source.bytes())
        else:
            record.gives(name, self.source.pick(LISTS))

    def call(self):
        function, parameters = self.source.pick(CALLABLES)
        form = self.source.byte()
        arguments = [self.argument() for _ in range(len(parameters) if form & 3 else form >> 5)]
        keywords = {}
        if form & 12 == 12:
            keywords[self.source.pick([*parameters, "type", "é", "\ud800"])] = self.argument()
            arguments = arguments[:form >> 6]
        if getattr(function, "__name__", "") in GREEDY:
            arguments, keywords = map(modest, arguments), {name: modest(value) for name, value in keywords.items()}
        return function(*arguments, **keywords)

    def step(self):
        form = self.source.byte()
        if form < 30:
            self.script()
        elif form < 60:
            record.fire(form & 3, self.source.pick([None, *LISTS]), threads=0, times=1 + (form & 1))
        elif form < 64:
            record.fire(form & 3, LISTS[3], threads=0, lock_held=True)
        elif form < 80 and self.pool:
            del self.pool[self.source.byte() % len(self.pool)]
        else:
            try:
                self.register() if form < 96 else self.pool.append(self.call())
            except SystemError:
                raise
            except BaseException as error:
                error.__traceback__ = None


def run(data):
    gc.collect()
    before = fuzz_input.left()
    record.reset()
    record.recording(False)
    record.result("sonetrix_engine_IsRunning", 0)
    session = Session(data)
    for _ in range(session.source.byte() % 4):
        session.script()
    record.modules(*MODULES[session.source.byte() % 4:])
    while session.source:
        session.step()
    session.pool.clear()
    del session
    for kept in gc.get_referents(sonetrix):
        if type(kept) is list:
            kept.clear()  # the clear callbacks
    for name in ("last_type", "last_value", "last_traceback", "last_exc"):
        sys.__dict__.pop(name, None)
    while gc.collect():
        pass  # finalizers make new objects
    until = time.monotonic() + 5  # some removals are left to a thread, which lets the callable go after that
    while (left := remains()) != (before, [0] * 4) and time.monotonic() < until:
        time.sleep(0.0001)
    assert left == (before, [0] * 4), (left, before)


def remains():
    return fuzz_input.left(), list(map(record.registrations, range(4)))


sonetrix = fuzz_input.prepare()
for name in "open", "time", "os", "print":
    setattr(sonetrix, name, calls.STAND_INS[name])
CALLABLES = [(function, list(inspect.signature(function).parameters)) for *_, function in calls.functions(sonetrix)]
CALLABLES += [(member, ["one"][:number]) for number, member in enumerate(
    member for member in vars(sonetrix).values() if isinstance(member, type))]
CALLABLES += [(sonetrix.timeout, ["timeout_ms", "callback"]), (sonetrix.notifyMeters, ["callback", "meters_type"])]
CALLABLES += [(function, ["one", "other"][:count]) for function, count in (
    (lambda one, other: one == other, 2), (lambda one, other: one != other, 2), (hash, 1), (repr, 1), (bool, 1),
    (lambda one: one.__reduce_ex__(4), 1), (lambda one: type("Sub", (type(one),), {"append": answer})(), 1))]
assert len(CALLABLES) > 80, len(CALLABLES)
gc.freeze()
