# ctest: timeout=200
"""Everything public, called with anything: what comes back is a result or an exception, and nothing is left behind.

The interpreter itself raises SystemError when a call ends with both or with neither.
"""

import gc
import inspect
import random
import sys
import time
import unittest
from unittest import mock

from support import calls, generated, record
from support.generated import hypothesis, strategies

NAMES = ["a", "a:out", "m.x", "m.", "", b"m", "string", "int32", "uint32", "int", "uint", "float", "double", "\u00e9"]
ERRORS = [ValueError, TypeError, KeyError, StopIteration, RecursionError, MemoryError, KeyboardInterrupt, SystemExit,
          lambda: UnicodeDecodeError("ascii", b"\xff", 0, 1, "reason")]
# As the engine gives them: with unknown type codes, null strings and null arrays among them.
VALUES = [5, 1.5, "text", b"\xff", (7, "uint32"), ((1, 2), "auint32"), ((-1,), "aint32"), ((0.5,), "afloat"),
          ((), "aint32"), (0.1, "double"), *(record.Value(code) for code in (3, 4, 8, 2**32 - 1)),
          record.Value(5, count=9)]
LISTS = [VALUES, [], [b"a:out", b"b:in"] * 9, {f"m.{index}": value for index, value in enumerate(VALUES)}]
# They make as much text as a number asks for.
GREEDY = "newModule", "delModule", "getLink", "link", "logOnFile", "_writeLinesWithHeader"

sonetrix = record.load()
CALLABLES = {name: (function, list(inspect.signature(function).parameters))
             for name, _, function in calls.functions(sonetrix)}
CALLABLES |= {"listValue": (sonetrix.listValue, []), "listKeyValue": (sonetrix.listKeyValue, []),
              "log": (sonetrix.log, [])}
CALLABLES |= {"==": (lambda one, other: one == other, ["one", "other"]), "hash": (hash, ["one"]),
              "repr": (repr, ["one"]),
              "reduce": (lambda one: one.__reduce_ex__(4), ["one"]),
              "subclass": (lambda one: type("Sub", (type(one),), {"append": answer})(), ["one"])}


def answer(self, *arguments, **keywords):
    return self.act()


def hashed(self):
    self.act()
    return 1  # the interpreter leaks what is no int


def hostile(*bases, names="index int float bool len iter next call eq lt gt hash str repr bytes getitem del"):
    """A class whose objects do what has been made up whenever they are asked for anything."""
    methods = {f"__{name}__": answer for name in names.split()}
    methods |= {name: answer for name in ("append", "items", "write", "close", "decode", "parameters")}
    return type("Hostile", bases, methods | {"__hash__": hashed})


KINDS = [hostile(), hostile(int), hostile(float), hostile(str), hostile(dict),
         hostile(tuple, names="eq len iter del getitem")]


def modest(argument):
    return argument % 99 if isinstance(argument, int) and not hasattr(argument, "act") else argument


class Session:
    """Random steps with values that hypothesis has made up."""

    def __init__(self, pick, values):
        self.pick, self.values, self.depth, self.acts = pick, values, 0, 0
        self.pool = [sonetrix.listValue(), sonetrix.listKeyValue()]

    def act(self):
        """What a hostile object does when it is asked for something."""
        self.acts += 1
        if self.depth > 4 or self.acts > 500:
            raise RuntimeError("no more")
        self.depth += 1
        try:
            deed = self.pick.randrange(6)
            if deed < 2:
                raise self.pick.choice(ERRORS)()
            if deed < 4:
                self.step()
            return self.argument() if deed & 1 else self.pick.choice([0, 1, -1, 3, "a", b"a", True, None, ()])
        finally:
            self.depth -= 1

    def hostile(self):
        made = self.pick.choice(KINDS)()
        made.act = self.act
        return made

    def callable(self):
        return self.pick.choice([lambda: self.act(), lambda one: self.act(), self.pool.clear, len, self.hostile()])

    def argument(self):
        return self.pick.choice([
            lambda: self.pick.choice(NAMES), lambda: self.pick.choice(self.values),
            lambda: self.pick.choice(self.values),
            lambda: self.pick.choice(self.pool or NAMES), lambda: self.pick.choice(self.pool or NAMES),
            self.hostile, self.callable,
            lambda: {self.pick.choice(NAMES): self.argument(), "k": (self.argument(), self.pick.choice(NAMES))},
            lambda: [self.argument() for _ in range(self.pick.randrange(3))],
            lambda: (self.argument(), self.argument()),
        ])()

    def call(self):
        name = self.pick.choice(sorted(CALLABLES))
        function, parameters = CALLABLES[name]
        given = len(parameters) if self.pick.random() < 0.8 else self.pick.randrange(4)
        arguments, keywords = [self.argument() for _ in range(given)], {}
        if self.pick.random() < 0.2:
            keywords[self.pick.choice([*parameters, "type", "é", "\ud800"])] = self.argument()
            del arguments[self.pick.randrange(4):]
        if name.split(".")[-1] in GREEDY:
            arguments, keywords = map(modest, arguments), {name: modest(value) for name, value in keywords.items()}
        self.pool.append(function(*arguments, **keywords))

    def register(self):
        """As a script does it that means it."""
        callback = self.callable()
        self.pool.append(self.pick.choice([
            lambda: sonetrix.timeout(5, callback), lambda: sonetrix.notifyChanges(callback),
            lambda: sonetrix.notifyMeters(callback, self.pick.randrange(2))])())

    def script(self):
        """Something that the engine answers from now on."""
        name, number = self.pick.choice(sorted(record.FUNCTIONS)), self.pick.randrange(9)
        if name != "sonetrix_engine_IsRunning":  # else the monitors would not end
            self.pick.choice([
                lambda: record.result(name, self.pick.choice([0, -1, 1, 2**31 - 1]), number < 5),
                lambda: record.null(name, number), lambda: record.numbers(name, number, number),
                lambda: record.text(name, b"\xe4" * number), lambda: record.gives(name, self.pick.choice(LISTS))])()

    def fire(self):
        record.fire(self.pick.randrange(4), self.pick.choice(LISTS), threads=0, lock_held=self.pick.random() < 0.2)

    def drop(self):
        self.pool and self.pool.pop(self.pick.randrange(len(self.pool)))

    def step(self):
        try:
            self.pick.choice([self.call] * 9 + [self.register, self.script, self.fire, self.drop])()
        except SystemError:
            raise
        except BaseException as error:
            error.__traceback__ = None


def remains():
    return record.lists(), record.violations(), list(map(record.registrations, range(4)))


class Anything(unittest.TestCase):
    def test_nothing_is_left_behind(self):
        for name in "open", "time", "os", "print":
            self.enterContext(mock.patch.object(sonetrix, name, calls.STAND_INS[name], create=True))
        self.enterContext(mock.patch("sys.unraisablehook", lambda report: None))
        self.enterContext(mock.patch("sys.stderr", None))
        self.addCleanup(record.reset)
        gc.freeze(), self.addCleanup(gc.unfreeze)
        generated.run(self.perform)

    @generated.settings(120)
    @hypothesis.given(strategies.integers(0, 2**32), strategies.lists(generated.values, min_size=9, max_size=9),
                      strategies.integers(1, 100))
    def perform(self, seed, values, steps):
        gc.collect()
        before = remains()
        record.reset()
        record.recording(False)
        sonetrix.log.setLevel(sonetrix.log.FATAL)  # the engine says what it thinks of such names
        record.result("sonetrix_engine_IsRunning", 0)
        for name in "ab":
            sonetrix.engine.newModule(name, "amp_mono", None)
        session = Session(random.Random(seed), values)
        for _ in range(steps):
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
        while (left := remains()) != before and time.monotonic() < until:
            time.sleep(0.0001)
        assert left == before, (left, before)


if __name__ == "__main__":
    unittest.main()
