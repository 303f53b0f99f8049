"""A level meter for the left playback port, until the engine stops, Ctrl-C, or for some seconds.

    sonetrix-engine examples/level_meter.py [SECONDS]
"""

import math
import sys
import time

import chain
from sonetrix import engine, notifyMeters

FLOOR, WIDTH = -60.0, 40  # decibels below full scale, characters


def decibels(level):
    return max(FLOOR, 20 * math.log10(level)) if level > 0 else FLOOR


def draw(meters):
    """Called on a thread of the engine, ten times a second, with all meters of that moment."""
    peak = decibels(meters[b"system.playback_1.peak"])
    bar = "#" * round(WIDTH * (1 - peak / FLOOR))
    print(f"\r{bar:-<{WIDTH}} {peak:6.1f} dB", end="", flush=True)


def main():
    chain.build()
    meter = notifyMeters(draw, engine.METER_SLOW)
    try:
        if len(sys.argv) > 1:
            time.sleep(float(sys.argv[1]))
        else:
            engine.waitUntilEnd()
    except KeyboardInterrupt:
        pass
    del meter  # returns when no call is in progress, so that the line below is the last
    print()


if __name__ == "__main__":
    main()
