"""Scripts that run inside the development engine and check themselves there."""

import contextlib
import os
import pathlib
import tempfile
import unittest
from unittest import mock

from . import SANITIZER, SLOWNESS, programs, sound

SANITIZED = bool(SANITIZER)

PRELUDE = f"""\
import ctypes, gc, os, random, signal, struct, sys, threading
SLOWNESS = {SLOWNESS}

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
    errors = []
    def run(function):
        try:
            function()
        except BaseException as error:
            errors.append(error)
    threads = [threading.Thread(target=run, args=[function]) for function in functions]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise errors[0]

"""


class LiveTest(unittest.TestCase):
    maxDiff = None

    def run_live(self, source, *options, status=0, log="", **how):
        """Runs the script after the prelude; what it does not expect, it asserts. Gives what it printed.

        `log` is what standard error must hold: text, or a regular expression that is to match all of it.
        """
        result = programs.run_script(PRELUDE + source, *options, **how)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        if isinstance(log, str):
            self.assertEqual(result.stderr, log)
        else:
            self.assertIsNotNone(log.fullmatch(result.stderr), result.stderr)
        return result.stdout


class EngineTest(LiveTest):
    """In a folder of its own, where the engine's output can be recorded."""

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.enterContext(contextlib.chdir(self.folder))

    def set_environment(self, **variables):
        self.enterContext(mock.patch.dict(os.environ, variables))

    def record(self, source, *options, **expected):
        """What the script prints and what is heard."""
        printed = self.run_live(source, "--record", "recording.wav", "--log-level", "error", *options, **expected)
        return printed, sound.read("recording.wav")
