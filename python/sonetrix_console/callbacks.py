"""Callbacks that can be debugged: what keeps them alive, what they raise and how long they take can be seen."""

import itertools
import sys
import time
import traceback
from collections.abc import Callable
from typing import Any, TypeAlias

from sonetrix import engine, notifyChanges, notifyMeters, timeout

from . import words

SLOW = 0.050  # seconds; the engine's other callbacks of the kind wait that long
_RAMP_STEP = 10  # milliseconds

_Registration: TypeAlias = notifyChanges | notifyMeters | timeout
_running: dict[str, "Callback"] = {}
_ramps: dict[str, "Callback"] = {}
_numbers = itertools.count(1)


class Callback:
    """A callable that the engine calls, until stop(). At the prompt: what it is and what it has done."""

    def __init__(self, what: str, function: Callable[..., object],
                 register: Callable[[Callable[..., None]], _Registration], once: bool = False) -> None:
        if not callable(function):
            raise TypeError(f"{function!r} is not callable")
        self.name = f"{what} {getattr(function, '__qualname__', function)} #{next(_numbers)}"
        self.calls = self.errors = 0
        self.total = self.worst = 0.0
        self.error: BaseException | None = None  # the last one
        self._function, self._once = function, once
        self._told, self._shown = SLOW / 2, ""
        self._registration: _Registration | None = None  # which lives by this
        _running[self.name] = self
        try:
            registration = register(self._called)
        except MemoryError:  # what the module says of an engine without such callbacks, too
            self.stop()
            raise words.Refused(f"the engine does not take the callback {self.name}") from None
        if self.name in _running:  # it may have had its only call already
            self._registration = registration

    def stop(self) -> None:
        """The engine does not call it any more."""
        _running.pop(self.name, None)
        self._registration = None

    def _called(self, *arguments: Any) -> None:
        if self.name not in _running:
            return
        if self._once:
            self.stop()
        self.calls += 1
        begin = time.perf_counter()
        try:
            self._function(*(words.text(values, "float") for values in arguments))
        except BaseException as error:
            self._show(error)
        taken = time.perf_counter() - begin
        self.total += taken
        self.worst = max(self.worst, taken)
        if taken >= 2 * self._told:  # not each time
            self._told = taken
            print(f"the callback {self.name} took {taken * 1000:.0f} ms: others wait meanwhile", file=sys.stderr)

    def _show(self, error: BaseException) -> None:
        self.errors += 1
        self.error = error
        frames = error.__traceback__ and error.__traceback__.tb_next
        shown = "".join(traceback.format_exception(type(error), error, frames))
        if shown != self._shown:  # the same one again and again would hide all else
            print(f"in the callback {self.name}:\n{shown}", end="", file=sys.stderr)
        self._shown = shown

    def __repr__(self) -> str:
        mean = self.total / max(self.calls, 1) * 1000
        error = f"  {self.errors} errors, the last {self.error!r}" if self.error else ""
        stopped = "" if self.name in _running else "  stopped"
        return f"{self.name}  {self.calls} calls  mean {mean:.2f} ms  worst {self.worst * 1000:.2f} ms{error}{stopped}"


def on_change(function: Callable[[dict[str, Any]], object]) -> Callback:
    """Calls the function with the parameters that have changed, until stop() of what is returned.

    >>> watch = on_change(print)
    >>> watch.stop()
    """
    return Callback("on_change", function, notifyChanges)


def on_meters(function: Callable[[dict[str, Any]], object], fast: bool = True) -> Callback:
    """Calls the function with the meters, until stop() of what is returned.

    >>> levels = on_meters(lambda meters: print(max(meters.values())), fast=False)
    """
    kind = engine.METER_FAST if fast else engine.METER_SLOW
    return Callback("on_meters", function, lambda called: notifyMeters(called, kind))


def every(milliseconds: int, function: Callable[[], object]) -> Callback:
    """Calls the function again and again, until stop() of what is returned.

    >>> clock = every(1000, lambda: print('tick'))
    """
    return _timer("every", milliseconds, function)


def after(milliseconds: int, function: Callable[[], object]) -> Callback:
    """Calls the function once.

    >>> after(2000, lambda: put('gain.gain', 0.0))
    """
    return _timer("after", milliseconds, function, once=True)


def _timer(what: str, milliseconds: int, function: Callable[[], object], once: bool = False) -> Callback:
    if milliseconds <= 0:
        raise ValueError(f"{milliseconds} milliseconds are no time to wait")
    return Callback(what, function, lambda called: engine.addTimer(milliseconds, called), once)


def ramp(key: str, to: float, seconds: float) -> Callback:
    """Moves a parameter from where it is to a value, in that time of the engine's timers, by which an engine that does
    not play in real time goes, too. Another ramp of the same parameter takes its place.

    >>> ramp('gain.gain', 0.0, 2.5)
    """
    begin, steps = words.get(key), max(1, round(seconds * 1000 / _RAMP_STEP))
    words.put(key, begin)  # says now, and not in the callback, why it cannot be set
    values = (begin + (to - begin) * number / steps for number in range(1, steps + 1))

    def step() -> None:
        if (value := next(values, None)) is None:
            moving.stop()
        else:
            words.put(key, value)

    step.__qualname__ = key
    if key in _ramps:
        _ramps[key].stop()
    moving = _ramps[key] = _timer("ramp", _RAMP_STEP, step)
    return moving


def callbacks() -> None:
    """Shows the callbacks: calls, mean and worst time in milliseconds, last error.

    >>> callbacks()
    every tick #3  12 calls  mean 0.05 ms  worst 0.31 ms
    """
    for each in list(_running.values()):
        print(each)
