"""What the module says of itself, against its typed stub; how it binds arguments and is imported."""

import inspect
import os
import sys
import traceback
import types
import typing
import unittest

from support import SANITIZER, SOURCE, calls, programs, record

STUB = SOURCE / "interface" / "sonetrix" / "sonetrix.pyi"


class SurfaceTest(record.TestCase):
    def signatures(self, module):
        """Parameters and defaults of all that is public."""
        return {name: [(one.name, one.default) for one in inspect.signature(function).parameters.values()]
                for name, _, function in calls.functions(module) if name.split(".")[0] in vars(self.sonetrix)}

    def test_the_stub_names_what_is_there_and_its_parameters(self):
        stub = types.ModuleType("sonetrix")
        exec("from __future__ import annotations\n" + STUB.read_text(), vars(stub))
        self.assertEqual(self.signatures(self.sonetrix), self.signatures(stub))
        named, public = ({name for name in vars(module) if name[0] != "_"} for module in (stub, self.sonetrix))
        self.assertEqual(public, named - {*typing.__all__, "annotations"})
        for name in "engine", "log":
            present = [item for item in vars(getattr(self.sonetrix, name)).items() if type(item[1]) is int]
            annotated = inspect.get_annotations(getattr(stub, name))
            self.assertEqual(present, [(constant, value) for value, constant in enumerate(annotated)])

    def test_functions_describe_themselves(self):
        for name, owner, function in calls.functions(self.sonetrix):
            if function is not owner:
                self.assertEqual((function.__qualname__, function.__name__), (name, name.split(".")[-1]))
        self.assertEqual(str(inspect.signature(self.sonetrix.exit)), "(exitcode: 'int | None' = None)")
        self.assertEqual(self.sonetrix.log.getLevel.__annotations__, {"return": "sonetrix_log_level_t"})

    def test_tracebacks_bear_qualified_names(self):
        module = self.sonetrix
        for name, call, argument in (("exit", module.exit, 2**40), ("engine.getParam", module.engine.getParam, 5),
                                     ("listValue.append", module.listValue().append, []),
                                     ("timeout.__new__", lambda callback: module.timeout(1, callback), 5)):
            try:
                call(argument)
            except Exception as error:
                *_, entered = traceback.extract_tb(error.__traceback__)
            self.assertEqual(entered.name, "sonetrix." + name)

    def test_argument_binding(self):
        engine, module = self.sonetrix.engine, self.sonetrix
        for call in (lambda: engine.isRunning(1), lambda: engine.isRunning(a=1), lambda: engine.link(p2="a"),
                     lambda: engine.link("a", p1="b"), lambda: module.timeout(1), lambda: module.listValue(3)):
            self.assertRaisesRegex(TypeError, "isRunning|link|timeout|listValue", call)
        self.assertEqual(record.calls(), [])

    def test_exit(self):
        for code, *sent in (None, ()), (0, (0,), ()), (-2**31, (-2**31,), ()), ("x", (1,), ()):
            record.clear()
            self.assertIsNone(self.sonetrix.exit(code))
            self.assertEqual([call.args[1:] for call in record.calls("sonetrix_engine_*")], sent)
        record.clear()
        record.null("sonetrix_engineGet")
        self.assertIsNone(self.sonetrix.exit(3))
        self.assertEqual(record.calls("sonetrix_engine_*"), [])


class ImportTest(unittest.TestCase):
    def test_without_engine_with_one_and_again(self):
        """The import fails; no method gets to the engine; what was made may live on; then there is one import."""
        result = programs.run_python("""
import importlib.util, sys
from support import calls, record
def refusal(call, *arguments):
    try:
        return call(*arguments)
    except BaseException as error:
        return f"{type(error).__name__}: {error}"

spec = importlib.util.find_spec("sonetrix")
module = importlib.util.module_from_spec(spec)
record.null("sonetrix_engineGet")
print(refusal(spec.loader.exec_module, module))
print(sorted({refusal(call) for name, call in calls.every(module).items()
              if name.split(".")[0] in ("engine", "notifyChanges", "notifyMeters", "timeout")
              and name not in ("engine.now", "engine._writeLinesWithHeader")}))
assert not record.calls("sonetrix_engine_*")
orphan = module.listValue().append(1)

record.null("sonetrix_engineGet", 1)  # it is asked twice
sonetrix = record.load()
print(orphan.dup().toList(), refusal(sonetrix.listValue().merge, orphan))

assert importlib.reload(sonetrix) is sonetrix
del sys.modules["sonetrix"]
print(refusal(record.load), flush=True)
try:
    import _interpreters as interpreters
except ImportError: # before 3.13
    import _xxsubinterpreters as interpreters
other = interpreters.create()
interpreters.run_string(other, '''
try:
    import sonetrix
except ImportError as error:
    print(error, flush=True)
''')
interpreters.destroy(other)
print(sonetrix.engine.isRunning())
""")
        self.assertEqual((result.returncode, result.stderr, result.stdout.splitlines()), (0, "", [
            "MemoryError: ",
            "['Exception: Engine not initialized', 'Exception: engine not initialized', 'MemoryError: ']",
            "[1] TypeError: Argument 'other' has incorrect type (expected sonetrix.listValue, got sonetrix.listValue)",
            "ImportError: Module 'sonetrix' has already been imported. Re-initialisation is not supported.",
            "Interpreter change detected - this module can only be loaded into one interpreter per process.", "True"]))

    @unittest.skipIf(SANITIZER, "the other interpreter has no sanitizer")
    def test_a_module_built_for_another_version_is_refused(self):
        other = "/usr/bin/python3"
        if os.path.realpath(other).endswith("python%d.%d" % sys.version_info[:2]):
            self.skipTest("there is no other Python")
        result = programs.run_python("from support import record; record.load()", program=other)
        self.assertRegex(result.stderr, r"ImportError: Module 'sonetrix' was built for Python 3\.\d+, not for 3\.\d+")
