"""A timer that fades the tone in, smoothly and without keeping the script busy.

    sonetrix-engine --record ramp.wav examples/ramp_gain.py
"""

import threading

import chain
from sonetrix import engine, timeout

PERIOD, DURATION = 10, 1000  # milliseconds


class Ramp:
    """Moves a parameter in a straight line. The timer repeats until its object goes."""

    def __init__(self, key, start, end):
        self.key, self.value, self.end = key, start, end
        self.step = (end - start) * PERIOD / DURATION
        self.done = threading.Event()
        self.timer: timeout | None = engine.addTimer(PERIOD, self.move)

    def move(self):
        """Called on a thread of the engine."""
        self.value += self.step
        arrived = abs(self.end - self.value) < abs(self.step) / 2
        chain.set_parameter(self.key, self.end if arrived else self.value)
        if arrived:
            self.timer = None  # dropped from within: this call is the last
            self.done.set()


def main():
    # Each step of the timer would be a small click; the engine takes a little more than its period for it.
    chain.set_parameter("engine.smoothing", 2 * PERIOD / 1000)
    chain.build(gain=0.0)
    ramp = Ramp("gain.gain", 0.0, 1.0)  # kept: the engine's own reference to `move` does not keep it alive
    ramp.done.wait()
    chain.play(0.2)


if __name__ == "__main__":
    main()
