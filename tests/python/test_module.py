"""What the module says of itself, against its typed stub; how it binds arguments and is imported."""

import inspect
import os
import pydoc
import shutil
import sys
import tempfile
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

    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_mypy_accepts_stub_and_examples(self):
        folder, examples = self.enterContext(tempfile.TemporaryDirectory()), SOURCE / "examples"
        stub = shutil.copy(STUB, folder)
        result = programs.run("mypy", "--strict", "--allow-untyped-defs", "--allow-untyped-calls", "--cache-dir",
                              folder, *examples.glob("*.py"), stub,
                              environment={"MYPYPATH": f"{folder}:{examples}", "PATH": "/usr/bin:/bin"})
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_functions_describe_themselves(self):
        unspaced = lambda text: "".join(text.split()).replace("'", "")  # from 3.14 on without quotes
        for name, owner, function in calls.functions(self.sonetrix):
            if name != "signature" and function is not owner:
                self.assertEqual((function.__qualname__, function.__name__), (name, name.split(".")[-1]))
                page = pydoc.render_doc(function, renderer=pydoc.plaintext)
                self.assertIn(unspaced(f"{function.__name__}{inspect.signature(function)}"), unspaced(page))
                self.assertIn(function.__doc__.split("\n")[0], page)
        exit, log = self.sonetrix.exit, self.sonetrix.log
        self.assertEqual(str(inspect.signature(exit)), "(exitcode: 'int | None' = None)")
        self.assertEqual([log.getLevel.__annotations__, log.getLevelJournal.__annotations__],
                         [{"return": "sonetrix_log_level_t"}] * 2)

    def test_tracebacks_bear_qualified_names(self):
        module = self.sonetrix
        for name, call, argument in (("exit", module.exit, 2**40), ("engine.getParam", module.engine.getParam, 5),
                                     ("listValue.append", module.listValue().append, []),
                                     ("timeout.__new__", lambda callback: module.timeout(1, callback), 5)):
            entered = [""]
            try:
                call(argument)
            except Exception as error:
                entered = [frame.name for frame in traceback.extract_tb(error.__traceback__)]
            self.assertEqual(entered[-1], "sonetrix." + name)

    def test_argument_binding(self):
        engine, plain = self.sonetrix.engine, self.sonetrix.listValue
        for text, call, arguments, keywords in (  # the interpreter's own words, which vary with its version
                ("isRunning.* 0 arguments", engine.isRunning, (1,), {}),
                ("isRunning.*(0 keyword|'a')", engine.isRunning, (), {"a": 1}),
                ("link.*'p1'", engine.link, (), {}),
                ("link.*'p1'", engine.link, ("a",), {"p1": "b"}),
                ("timeout.*'callback'", self.sonetrix.timeout, (1,), {}),
                ("listValue.* no arguments", plain, (3,), {})):
            self.assertRaisesRegex(TypeError, text, call, *arguments, **keywords)
        self.assertEqual(record.calls(), [])
        record.result("sonetrix_engine_LinkPort", 0)
        self.assertEqual((engine.link(p2="b", p1="a"), engine.link(*("a",), **{"p2": b"b"})), (0, 0))

    def test_exit(self):
        code, stop = "sonetrix_engine_SetExitCode", "sonetrix_engine_RequestStop"
        for arguments, *sent in ([],), ([None],), ([0], 0), ([True], 1), ([-2**31], -2**31), (["x"], 1):
            record.clear()
            self.assertIsNone(self.sonetrix.exit(*arguments))
            self.assertEqual([call[:2] for call in record.calls(code, stop)],
                             [*((code, ("engine", number)) for number in sent), (stop, ("engine",))])
        record.clear()
        record.null("sonetrix_engineGet")
        self.assertIsNone(self.sonetrix.exit(3))
        self.assertEqual(record.calls(code, stop), [])


class ImportTest(unittest.TestCase):
    def run_python(self, source, *lines, **variables):
        result = programs.run_python("""
import importlib.util, sys
from support import calls, record
def refusal(call, *arguments):
    try:
        return call(*arguments)
    except BaseException as error:
        return f"{type(error).__name__}: {error}"
""" + source, **variables)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout.splitlines(), [*lines])

    def test_once_per_process(self):
        self.run_python("""
sonetrix = record.load()
print([call.name for call in record.calls()])
assert importlib.reload(sonetrix) is sonetrix
del sys.modules["sonetrix"]
print(refusal(record.load), flush=True)
try:
    import _interpreters as interpreters
    others = [interpreters.create(kind) for kind in ("legacy", "isolated")]
except ImportError: # before 3.13
    import _xxsubinterpreters as interpreters
    others = [interpreters.create(isolated=kind) for kind in (False, True)]
for other in others:
    interpreters.run_string(other, '''
try:
    import sonetrix
except ImportError as error:
    print(error, flush=True)
''')
    interpreters.destroy(other)
watch = sonetrix.notifyChanges(lambda changes: print(changes))
record.fire(record.CHANGES, {"a": 1})
del watch
""", str(["sonetrix_engineGet"] * 2),
            "ImportError: Module 'sonetrix' has already been imported. Re-initialisation is not supported.",
            *["Interpreter change detected - this module can only be loaded into one interpreter per process."] * 2,
            "{b'a': 1}")

    def test_without_engine(self):
        """The import fails; no method gets to the engine; what was made may live on; a later import succeeds."""
        self.run_python("""
spec = importlib.util.find_spec("sonetrix")
module = importlib.util.module_from_spec(spec)
record.null("sonetrix_engineGet")
record.fills("sonetrix_clock_gettime", (0, 0))
print(refusal(spec.loader.exec_module, module))
outcomes = {}
for name, call in calls.every(module).items():
    if name.split(".")[0] in ("engine", "notifyChanges", "notifyMeters", "timeout") and "Lines" not in name:
        outcomes.setdefault(refusal(call), []).append(name)
print(len(outcomes.pop("Exception: engine not initialized")) > 20, outcomes)
assert not record.calls("sonetrix_engine_*")
orphan = module.listValue().append(1)
record.null("sonetrix_engineGet", 0)
sonetrix = record.load()
print(orphan.dup().toList(), sonetrix.engine.isRunning(), refusal(sonetrix.listValue().merge, orphan))
""", "MemoryError: ",
            "True {'MemoryError: ': ['engine.initEngine', 'notifyChanges', 'notifyMeters'], 0.0: ['engine.now'], "
            "'Exception: Engine not initialized': ['engine.getMeters', 'engine.unregisterMetersManager']}",
            "[1] True TypeError: Argument 'other' has incorrect type (expected sonetrix.listValue, got "
            "sonetrix.listValue)")

    def test_what_the_module_holds_goes_at_the_end(self):
        self.run_python("""
class Last:
    module = record.load()
    def __call__(self): pass
    def __del__(self, print=print): print("gone")
Last.module.add_clear_callback(Last())
""", "gone")

    @unittest.skipIf(SANITIZER, "the other interpreter has no sanitizer")
    def test_a_module_built_for_another_version_is_refused(self):
        other = "/usr/bin/python3"
        if os.path.realpath(other).endswith("python%d.%d" % sys.version_info[:2]):
            self.skipTest("there is no other Python")
        result = programs.run_python("from support import record; record.load()", program=other)
        self.assertRegex(result.stderr, r"ImportError: Module 'sonetrix' was built for Python 3\.\d+, not for 3\.\d+")
