"""Measuring two or more things side by side, in one process."""

import gc
import statistics
import time
import timeit
from typing import NamedTuple


class Row(NamedTuple):
    """One figure of one process: what is measured, by the fastest and the median of its rounds. Times in seconds."""
    name: str
    ours: list
    floor: list = []
    limit: float | None = None  # of the ratio to the floor
    peers: dict = {}  # name: times
    unit: str = "s"

    def summary(self):
        def both(sample):
            return [min(sample), statistics.median(sample)] if sample else None
        return self._replace(ours=both(self.ours), floor=both(self.floor),
                             peers={name: both(sample) for name, sample in self.peers.items()})._asdict()


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


def statements(*texts, names, operations=1, seconds=0.3):
    """The processor time per operation of Python statements in a loop, interleaved. Each round runs every statement as
    often as it takes for about a millisecond; one run counts as so many operations."""
    timers = [timeit.Timer(text, timer=time.thread_time, globals=names) for text in texts]
    numbers = [fitting(timer) for timer in timers]
    actions = [lambda timer=timer, number=number: timer.timeit(number) / number / operations
               for timer, number in zip(timers, numbers)]
    gc.collect()
    return interleaved(*actions, seconds=seconds)


def percentile(sample, share):
    ordered = sorted(sample)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def resident():
    """The process's resident memory, in bytes."""
    with open("/proc/self/status") as file:
        return next(int(line.split()[1]) * 1024 for line in file if line.startswith("VmRSS"))
