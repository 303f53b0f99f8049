"""Prints parameters as they change, whoever changes them.

    sonetrix-engine -i examples/watch_parameter.py    then type, say: chain.set_parameter("gain.gain", 0.2)
"""

import threading

import chain
from sonetrix import notifyChanges

seen = threading.Event()


def show(changes):
    """Called on a thread of the engine, with a dict of all that changed since the last call."""
    for key, value in changes.items():
        print(f"{key.decode()} is now {value:.3g}")
    seen.set()


def main():
    for gain in (0.4, 0.3, 0.2):
        seen.clear()
        chain.set_parameter("gain.gain", gain)
        seen.wait(1)


if __name__ == "__main__":
    chain.build()
    # The registration lives as long as this object: `del watch` ends it.
    watch = notifyChanges(show)
    main()
