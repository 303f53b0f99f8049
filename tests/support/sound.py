"""Recordings of the engine, read and measured; 32-bit float WAV files, which the standard module does not read."""

import array
import math
import pathlib
import struct
from typing import NamedTuple


class Sound(NamedTuple):
    rate: int
    channels: list  # of arrays of samples

    def part(self, start, end=None):
        """From second to second; the last seconds where `start` is negative."""
        frames = slice(round(start * self.rate), end and round(end * self.rate))
        return Sound(self.rate, [channel[frames] for channel in self.channels])

    def amplitudes(self):
        """Each channel's, if it carries a sine."""
        return [math.sqrt(2 * sum(sample * sample for sample in channel) / len(channel)) for channel in self.channels]

    def frequency(self, channel):
        """Upward zero crossings, interpolated, from the first to the last; 0 where there are none."""
        samples = self.channels[channel]
        crossings = [i - b / (b - a) for i, (a, b) in enumerate(zip(samples, samples[1:]), 1) if a < 0 <= b]
        return (len(crossings) - 1) * self.rate / (crossings[-1] - crossings[0]) if len(crossings) > 1 else 0.0

    def sharpest_bend(self, channel=0):
        """Of the wave: 440 Hz of amplitude 1 have 0.0033 at 48 kHz, steps and gaps as much as they are high."""
        samples = self.channels[channel]
        return max(abs(a - 2 * b + c) for a, b, c in zip(samples, samples[1:], samples[2:]))


def read(path):
    data = pathlib.Path(path).read_bytes()
    count, rate = struct.unpack_from("<HI", data, data.index(b"fmt ") + 10)
    start = data.index(b"data") + 4
    samples = array.array("f", data[start + 4:start + 4 + int.from_bytes(data[start:start + 4], "little")])
    return Sound(rate, [samples[channel::count] for channel in range(count)])


def write_tone(path, frequency, amplitude, seconds, rate=48000):
    samples = array.array("f", (amplitude * math.sin(2 * math.pi * frequency * i / rate) for i in
                                range(round(seconds * rate))))
    header = struct.pack("<4sI4s4sIHHIIHH4sI", b"RIFF", 36 + 4 * len(samples), b"WAVE",
                         b"fmt ", 16, 3, 1, rate, 4 * rate, 4, 32, b"data", 4 * len(samples))
    pathlib.Path(path).write_bytes(header + samples.tobytes())
