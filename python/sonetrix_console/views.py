"""Live views of the engine, on the console's own terminal and on that of a client. They end with q or Ctrl-C."""

import contextlib
import math
import sys
from collections.abc import Callable
from typing import Any

from sonetrix import engine

from .output import held
from .words import drawn, text

_FLOOR = -60.0  # decibels below full scale, where bars begin


def _live(frame: Callable[[int], list[str]], seconds: float) -> None:
    """Shows the lines that `frame` makes for a width, again and again in their place; on a dumb terminal below each
    other, and once where there is no terminal."""
    from .server import Terminal, here  # only now: it takes some milliseconds

    terminal = here.client or Terminal()
    if (before := terminal.screen()) is None:
        print(*(line.rstrip() for line in frame(80)), sep="\n")
        return
    back, dumb = "", before[2] == "dumb"
    stream = sys.stdout if here.client else sys.__stdout__  # ours alone: that of the console holds others' output back
    assert stream is not None
    with contextlib.suppress(KeyboardInterrupt), terminal.keys() as typed, held() as come_meanwhile:
        while engine.isRunning() and (screen := terminal.screen()):
            lines = [line[: screen[0] - 1] for line in frame(screen[0] - 1)][: screen[1] - 1]
            above = come_meanwhile().decode(errors="replace")
            if dumb:
                stream.write(above + "\n".join([*lines, "", ""]))
            else:
                if screen != before:  # nobody knows how the terminal has wrapped the lines from before
                    back = "\x1b[H\x1b[2J"
                above = above and f"\x1b[J{above}"
                stream.write(f"\r{back}{above}" + "".join(f"{line}\x1b[K\n" for line in lines) + "\x1b[J")
            stream.flush()
            before, back = screen, f"\x1b[{len(lines)}A"
            keys = typed(max(seconds, 2.0 * dumb))
            if keys is not None and (not keys or set(keys) & set("qQ\x03\x04")):
                break


def _bar(width: int, inner: float, outer: float = 0) -> str:
    """Two lengths between 0 and 1, one behind the other."""
    first, second = (round(min(1.0, max(0.0, length)) * width) for length in (inner, outer))
    return (drawn("█", "#") * first + drawn("░", "-") * (second - first)).ljust(width)


def engine_load() -> dict[str, Any]:
    """The load as data: percent of the time that there is, and seconds; percent of each module, too.

    >>> engine_load()["worst"], engine_load()["limit"]
    (8.2e-05, 0.005333)
    """
    percent, _, mean, worst, limit, _ = engine.cpuInfo()
    modules = {text(name): usage["absolute"] for name, usage in engine.getUsageInfo().items()}
    return {"percent": percent, "block": mean, "worst": worst, "limit": limit, "xruns": engine.getXrunCounter(),
            "modules": modules}


def top(seconds: float = 0.5) -> None:
    """A live view of the load: of all, the longest block since the view began, the xruns, each module. q ends it.

    >>> top()
    """
    worst = 0.0

    def frame(width: int) -> list[str]:
        nonlocal worst
        now = engine_load()
        worst = max(worst, now["worst"])
        modules = sorted(now["modules"].items(), key=lambda item: -float(item[1]))
        return [f"load  {now['percent']:7.1f} %  {_bar(max(0, width - 17), now['percent'] / 100)}",
                f"worst {worst * 1e3:7.3f} of {now['limit'] * 1e3:.3f} ms",
                f"xruns {now['xruns']:7d}", "",
                *(f"{percent:13.2f} %  {name}" for name, percent in modules)]

    _live(frame, seconds)


def levels(pattern: str = "") -> dict[str, Any]:
    """The engine's slow meters as data; peak and mean of a port come together. `pattern` is a part of the name.

    >>> levels("playback_1")
    {'system.playback_1': {'peak': 0.5, 'mean': 0.125}}
    """
    found: dict[str, Any] = {}
    for key, typed in engine.getLastMeter("", engine.METER_SLOW).toDictType().items():
        name, value = text(key), text(*typed)
        port, _, kind = name.rpartition(".")
        if pattern in name and kind in ("peak", "mean"):
            found.setdefault(port, {})[kind] = value
        elif pattern in name:
            found[name] = value
    return found


def _decibels(level: float) -> float:
    return max(_FLOOR, 20 * math.log10(level)) if level > 0 else _FLOOR


def meters(pattern: str = "", seconds: float = 0.1) -> None:
    """A live view of the levels: a bar to the mean and on to the peak, which is the number, in decibels. q ends it.

    >>> meters("playback")
    """

    def frame(width: int) -> list[str]:
        now = levels(pattern)
        room = min(max(map(len, now), default=0), width // 2)
        lines = []
        for name, value in now.items():
            shown = str(value)
            if isinstance(value, dict):
                peak, mean = (_decibels(value.get(kind, 0.0)) for kind in ("peak", "mean"))
                bar = _bar(max(0, width - room - 8), 1 - mean / _FLOOR, 1 - peak / _FLOOR)
                shown = f"{bar} {round(peak, 1) + 0.0:6.1f}"  # + 0.0: never -0.0
            lines.append(f"{name[-room:]:<{room}} {shown}")
        return lines or ["there are no such meters"]

    _live(frame, seconds)
