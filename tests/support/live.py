"""Scripts that run inside the development engine and check themselves there."""

import contextlib
import os
import pathlib
import tempfile
import unittest
from unittest import mock

from . import BUILD, SLOWNESS, programs, sound

PROBE = BUILD / "tests" / "plugins" / "probe.so"
PRELUDE = f"""\
import concurrent.futures, ctypes, errno, gc, os, random, re, signal, sys, threading
SLOWNESS = {SLOWNESS}
process = ctypes.CDLL(None)
process.sonetrix_engineGet.restype = process.sonetrix_engine_addTimer.restype = ctypes.c_void_p
handle = ctypes.c_void_p(process.sonetrix_engineGet())

def wait_for(condition):
    end = time.monotonic() + 30 * SLOWNESS
    while not condition():
        assert time.monotonic() < end, "time is up"
        time.sleep(0.002)

def write(key="engine.log.level", value=3, type=None):
    return engine.setParams(listKeyValue().append(key, value, type)).toDict()

def read(keys):
    return engine.getParam(keys).toDictType()

def value(key):
    return engine.getParam(key).toDict()[key.encode()]

def meter(key):
    return engine.getLastMeter("", engine.METER_FAST).toDict()[key.encode()]

def run(seconds):
    assert write("engine.offline.run", seconds)

def new(name, plugin="amp_mono", **configuration):
    return engine.newModule(name, plugin, listKeyValue().appendFromDict(configuration))

def in_threads(*functions):
    with concurrent.futures.ThreadPoolExecutor(len(functions)) as pool:
        list(pool.map(lambda function: function(), functions))

"""
CHAIN = """\
assert new("tone", "sine_fcac", frequency=440.0, amplitude=0.5) == new("gain", gain=0.5) == 0
assert engine.link("tone:output", "gain:input") == engine.link("gain:output", "system:playback_1") == 0
"""


class LiveTest(unittest.TestCase):
    """In a folder of its own, where the engine's output can be recorded."""

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.enterContext(contextlib.chdir(self.folder))

    def set_environment(self, **variables):
        self.enterContext(mock.patch.dict(os.environ, variables))

    def printed(self, result, status=0, log=""):
        """By a program that has ended so; `log` is a regular expression that is to match all of standard error."""
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        self.assertRegex(result.stderr, rf"\A{log}\Z")
        return result.stdout

    def run_live(self, source, *options, **expected):
        """Runs the script after the prelude; what it does not expect, it asserts. Gives what it printed."""
        return self.printed(programs.run_script(PRELUDE + source, *options), **expected)

    def record(self, source, *options, **expected):
        """What the script prints and what is heard."""
        printed = self.run_live(source, "--record", "recording.wav", "--log-level", "error", *options, **expected)
        return printed, sound.read("recording.wav")

    def assert_tone(self, heard, frequency, amplitude, channel=0):
        self.assertAlmostEqual(heard.frequency(channel), frequency, delta=0.3)
        self.assertAlmostEqual(heard.amplitudes()[channel], amplitude, delta=0.005)
