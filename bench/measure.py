"""Measuring two things side by side, and showing the figures."""

import gc
import statistics
import time
import timeit
from typing import NamedTuple


class Row(NamedTuple):
    name: str
    ours: str
    floor: str
    ratio: str = ""
    target: str = ""


def time_text(seconds):
    for unit, size in (("s", 1), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= size:
            return f"{seconds / size:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def compared(name, ours, floor, target="", show=time_text):
    """A row of two samples, each shown as median and minimum. The ratio, too, is that of the medians and, being the
    one that other work on the machine disturbs least, that of the minima."""
    medians = statistics.median(ours), statistics.median(floor)
    minima = min(ours), min(floor)
    return Row(name, f"{show(medians[0])} ({show(minima[0])})", f"{show(medians[1])} ({show(minima[1])})",
               f"{medians[0] / medians[1]:.2f} ({minima[0] / minima[1]:.2f})", target)


def interleaved(*actions, seconds=1.0, least=7):
    """Runs the actions in turn for that long, every second round backwards; a list of results for each."""
    results = [[] for _ in actions]
    order = list(enumerate(actions))
    begin = timeit.default_timer()
    while timeit.default_timer() - begin < seconds or len(results[0]) < least:
        for index, action in order:
            results[index].append(action())
        order.reverse()
    return results


def fitting(timer, seconds=1e-3):
    """How often to run a statement to fill that time."""
    number, taken = 1, timer.timeit(1)
    while taken < seconds / 10:
        number *= 5
        taken = timer.timeit(number)
    return max(1, round(number * seconds / taken))


def statements(*texts, names, number=None, operations=1, seconds=1.0):
    """The processor time per operation of Python statements in a loop, interleaved. Each round runs every statement
    `number` times, or as often as it takes for about a millisecond; one run counts as so many operations."""
    timers = [timeit.Timer(text, timer=time.thread_time, globals=names) for text in texts]
    if number is None:
        number = fitting(timers[0])
    actions = [lambda timer=timer: timer.timeit(number) / number / operations for timer in timers]
    gc.collect()
    return interleaved(*actions, seconds=seconds)


def percentile(sample, share):
    ordered = sorted(sample)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def resident():
    """The process's resident memory, in bytes."""
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * 4096


def memory_text(size):
    return f"{size / 1e6:.2f} MB"


def print_table(rows):
    heading = Row("what", "ours", "floor", "ratio", "target")
    widths = [max(len(row[column]) for row in [heading, *rows]) for column in range(len(heading))]
    for index, row in enumerate([heading, *rows]):
        print("  ".join(text.ljust(width) for text, width in zip(row, widths)).rstrip())
        if index == 0:
            print("  ".join("-" * width for width in widths))
