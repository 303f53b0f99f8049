"""Recordings of the engine, read and measured; 32-bit float WAV files, which the standard module does not read."""

import array
import math
import struct
from typing import NamedTuple


class Sound(NamedTuple):
    rate: int
    channels: list  # of arrays of samples

    @property
    def seconds(self):
        return len(self.channels[0]) / self.rate

    def part(self, start, end):
        """From second to second."""
        return Sound(self.rate, [channel[round(start * self.rate):round(end * self.rate)] for channel in self.channels])

    def levels(self):
        """Each channel's root mean square."""
        return [math.sqrt(sum(sample * sample for sample in channel) / len(channel)) for channel in self.channels]

    def frequency(self, channel):
        """Upward zero crossings, interpolated, from the first to the last; 0 where there are none."""
        samples = self.channels[channel]
        crossings = [i - b / (b - a) for i, (a, b) in enumerate(zip(samples, samples[1:]), 1) if a < 0 <= b]
        if len(crossings) < 2:
            return 0.0
        return (len(crossings) - 1) * self.rate / (crossings[-1] - crossings[0])


FLOAT_FORMAT, EXTENSIBLE = 3, 0xfffe


def read(path):
    with open(path, "rb") as file:
        data = file.read()
    chunks, position = {}, 12
    while position < len(data):
        name, size = struct.unpack_from("<4sI", data, position)
        chunks[name] = data[position + 8:position + 8 + size]
        position += 8 + size + size % 2
    kind, count, rate, _, frame, bits = struct.unpack_from("<HHIIHH", chunks[b"fmt "])
    if kind == EXTENSIBLE:
        [kind] = struct.unpack_from("<H", chunks[b"fmt "], 24)
    if data[:4] != b"RIFF" or (kind, bits, frame) != (FLOAT_FORMAT, 32, 4 * count):
        raise AssertionError(f"{path}: format {kind}, {bits} bits, {frame} bytes per frame")
    samples = array.array("f", chunks[b"data"])
    return Sound(rate, [samples[channel::count] for channel in range(count)])


def write_tone(path, frequency, amplitude, seconds, rate=48000):
    samples = array.array("f", (amplitude * math.sin(2 * math.pi * frequency * i / rate) for i in
                                range(round(seconds * rate))))
    body = struct.pack("<4sIHHIIHH4sI", b"fmt ", 16, FLOAT_FORMAT, 1, rate, 4 * rate, 4, 32, b"data", 4 * len(samples))
    with open(path, "wb") as file:
        file.write(struct.pack("<4sI4s", b"RIFF", 4 + len(body) + 4 * len(samples), b"WAVE") + body)
        samples.tofile(file)
