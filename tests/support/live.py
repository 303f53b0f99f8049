"""Scripts that run inside the development engine and check themselves there."""

import unittest

from . import SANITIZER, SLOWNESS, programs

SANITIZED = bool(SANITIZER)

PRELUDE = f"""\
import gc, os, random, struct, sys, threading
SLOWNESS = {SLOWNESS}

def wait_for(condition):
    end = time.monotonic() + 30 * SLOWNESS
    while not condition():
        assert time.monotonic() < end, "time is up"
        time.sleep(0.002)

def write(key="engine.log.level", value=3, type=None):
    return engine.setParams(listKeyValue().append(key, value, type)).toDict()

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
