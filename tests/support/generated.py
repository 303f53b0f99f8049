"""Values and runs that hypothesis makes up: always the same, or for SONETRIX_FUZZ_SECONDS ever new ones."""

import collections
import os
import sys
import time

from . import RUN

sys.path.append("/usr/lib/python3/dist-packages")  # it is pure Python: the distribution's is good for any interpreter
import hypothesis
from hypothesis import strategies

vars(hypothesis.errors).pop("__getattr__", None)  # knows any name, which the interpreter's own test runner cannot bear

SECONDS = float(os.environ.get("SONETRIX_FUZZ_SECONDS", 0))
Named = collections.namedtuple("Named", "a b")
EDGES = [0, 1, -1, 2**31 - 1, 2**31, -2**31, -2**31 - 1, 2**32 - 1, 2**32, 10**25, -10**25, True]
OTHERS = [None, [1], bytearray(b"a"), {}, 1j, Named(1, 2), object]


def _or_subclass(values, kind):
    subclass = type(f"{kind.__name__.title()}Subclass", (kind,), {})
    return values | values.map(subclass)


integers = _or_subclass(strategies.sampled_from(EDGES) | strategies.integers(), int)
reals = _or_subclass(strategies.floats() | strategies.sampled_from([1e-46, 1e39, 3.4028235677973366e38]), float)
texts = _or_subclass(strategies.text(strategies.characters(blacklist_categories=())), str)  # of any code points
byte_strings = _or_subclass(strategies.binary(), bytes)
scalars = integers | reals | texts | byte_strings | strategies.sampled_from(OTHERS)
tuples = _or_subclass(strategies.one_of(*(strategies.lists(items, max_size=8).map(tuple) for items in (
    integers, reals, integers | reals, scalars, strategies.integers(0, 99), strategies.floats(width=32)))), tuple)


def settings(examples):
    everything, slow = list(hypothesis.HealthCheck), RUN or hasattr(sys, "gettotalrefcount")
    return hypothesis.settings(max_examples=examples // 10 if slow else examples, derandomize=not SECONDS,
                               deadline=None, database=None, print_blob=False, suppress_health_check=everything)


def run(test):
    """Once, or as long as is asked for."""
    end = time.monotonic() + SECONDS
    while True:
        test()
        if time.monotonic() >= end:
            return
