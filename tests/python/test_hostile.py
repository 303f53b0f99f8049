# ctest: timeout=200
"""Everything public, called with anything: what comes back is a result or an exception, and nothing is left behind.

The interpreter itself raises SystemError when a call ends with both or with neither.
"""

import gc
import random
import sys
import time
from unittest import mock

from support import calls, generated, record
from support.generated import hypothesis, strategies

# Integers are small: some calls make as much text as one asks for.
VALUES = (strategies.sampled_from(["a", "a:output", "m.", "string", "int32", "uint", "float", "double", "\u00e9", None])
          | strategies.integers(-9, 99) | generated.reals | generated.texts | generated.byte_strings | generated.tuples)
ERRORS = [ValueError, TypeError, KeyError, StopIteration, RecursionError, MemoryError, KeyboardInterrupt, SystemExit,
          lambda: UnicodeDecodeError("ascii", b"\xff", 0, 1, "reason")]
ANSWERS = 0, 1, -1, 3, "a", b"a", True, None, ()
# As the engine gives them: with unknown type codes, null strings and null arrays among them.
ENTRIES = {f"m.{index}": value for index, value in enumerate([
    5, 1.5, "text", b"\xff", (7, "uint32"), ((1, 2), "auint32"), ((-1,), "aint32"), ((0.5,), "afloat"), (0.1, "double"),
    ((), "aint32"), *(record.Value(code) for code in (3, 4, 8, 2**32 - 1)), record.Value(5, count=9)])}

sonetrix = record.load()
EVERY = calls.every(sonetrix)


def answer(self, *arguments, **keywords):
    return self.act()


def hostile(*bases, names="index int float bool len iter next call eq lt gt str repr bytes getitem del"):
    """A class whose objects do what has been made up whenever they are asked for anything."""
    methods = dict.fromkeys([f"__{name}__" for name in names.split()] + ["append", "items", "write", "decode"], answer)
    # The interpreter leaks a hash that is no int.
    return type("Hostile", bases, {**methods, "__hash__": lambda self: (self.act(), 1)[1]})


KINDS = [hostile(), hostile(int), hostile(float), hostile(str), hostile(dict),
         hostile(tuple, names="eq len iter del getitem")]


class Session:
    """Random steps with values that hypothesis has made up."""

    def __init__(self, pick, values):
        self.pick, self.values, self.depth, self.acts = pick, values, 0, 0
        self.pool = [sonetrix.listValue(), sonetrix.listKeyValue()]

    def act(self):
        """What a hostile object does when it is asked for something."""
        self.acts += 1
        if self.depth > 4 or self.acts > 200:
            raise RuntimeError("no more")
        self.depth += 1
        try:
            if self.pick.random() < 0.3:
                raise self.pick.choice(ERRORS)()
            if self.pick.random() < 0.5:
                self.step()
            return self.pick.choice([self.argument, lambda: self.pick.choice(ANSWERS)])()
        finally:
            self.depth -= 1

    def argument(self):
        made = self.pick.choice(KINDS)()
        made.act = self.act
        return self.pick.choice([
            *[made] * 6, lambda: self.act(), lambda one: self.act(), self.pool.clear, *self.values[:2],
            self.pick.choice(self.pool or self.values), {"k": made, "l": (made, "int32"), made: 5}, [made, "a"],
            (made, self.pick.choice(self.values))])

    def call(self):
        """With some arguments that work, and of lists the methods of one that is about."""
        call = EVERY[self.pick.choice([*EVERY, *["notifyChanges", "notifyMeters", "timeout"] * 5])]
        if call.target:
            fresh = call.target()
            target = self.pick.choice([fresh, *(one for one in self.pool if type(one) is type(fresh))])
            call = calls.Call(call.function, lambda: target, **call.arguments)
        self.pool.append(call(**{name: self.argument() for name in call.arguments if self.pick.random() < 0.5}))

    def script(self):
        """Something that the engine answers from now on."""
        name = self.pick.choice(sorted(record.FUNCTIONS))
        self.pick.choice([
            lambda: record.result(name, self.pick.choice([0, -1, 1, 2**31 - 1])), lambda: record.null(name, 3),
            lambda: record.gives(name, ENTRIES)])()

    def fire(self):
        record.fire(self.pick.randrange(4), ENTRIES, threads=0, lock_held=self.pick.random() < 0.2)

    def step(self):
        try:
            self.pick.choice([self.call] * 9 + [self.script, self.fire, self.pool.clear])()
        except SystemError:
            raise
        except BaseException as error:
            error.__traceback__ = None


def remains():
    return record.lists(), record.violations(), [*map(record.registrations, range(4))]


class Anything(record.TestCase):
    def test_nothing_is_left_behind(self):
        calls.prepare(self)
        self.enterContext(mock.patch("sys.unraisablehook", lambda report: None))
        for stream in "sys.stdout", "sys.stderr":
            self.enterContext(mock.patch(stream, None))
        gc.freeze(), self.addCleanup(gc.unfreeze)
        generated.run(self.perform)

    @generated.settings(150)
    @hypothesis.given(strategies.integers(0, 2**32), strategies.lists(VALUES, min_size=9, max_size=9),
                      strategies.integers(1, 100))
    def perform(self, seed, values, steps):
        gc.collect()
        before = remains()
        record.reset()
        sonetrix.log.setLevel(sonetrix.log.FATAL)  # the engine says what it thinks of such names
        session = Session(random.Random(seed), values)
        for _ in range(steps):
            session.step()
        session.pool.clear()
        del session
        for kept in gc.get_referents(sonetrix):
            if type(kept) is list:
                kept.clear()  # the clear callbacks
        for name in "last_type", "last_value", "last_traceback", "last_exc":
            vars(sys).pop(name, None)
        while gc.collect():
            pass  # finalizers make new objects
        until = time.monotonic() + 5  # some removals are left to a thread, which lets the callable go after that
        while (left := remains()) != before and time.monotonic() < until:
            time.sleep(0.0001)
        assert left == before, (left, before)
