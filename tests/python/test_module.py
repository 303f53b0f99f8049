"""What the module says of itself, against its typed stub; how it is imported, and what it does at the end."""

import ast
import inspect
import pathlib
import pydoc
import shutil
import subprocess
import sys
import tempfile
import traceback
import types
import unittest

from support import BUILD, MODULE, SANITIZER, SOURCE, TIME_LIMIT, calls, record, interpreter_environment

STUB = SOURCE / "interface" / "sonetrix" / "sonetrix.pyi"
CONSTANTS = {"engine": ["METER_SLOW", "METER_FAST"], "log": ["TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"]}
# Python run in an interpreter of its own: the layer is loaded, the module is not.
PRELUDE = """
import contextlib, gc, importlib, os, sys, threading, time
from support import record
def refusal(call, *arguments):
    try:
        return call(*arguments)
    except BaseException as error:
        return type(error).__name__, str(error)
"""


def run(source, **variables):
    result = subprocess.run([sys.executable, "-X", "faulthandler", "-c", PRELUDE + source], timeout=TIME_LIMIT,
                            text=True,
                            capture_output=True, env=interpreter_environment(**variables))
    if result.returncode != 0 or result.stderr:
        raise AssertionError(f"status {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout.splitlines()


def stubbed(body, prefix=""):
    """(qualified name, [(parameter, its default or empty)]) of all in the stub; a class stands for its constructor."""
    for node in body:
        if isinstance(node, ast.ClassDef) and node.name[0] != "_":
            yield node.name, []
            yield from stubbed(node.body, node.name + ".")
        elif isinstance(node, ast.FunctionDef):
            defaults = [inspect.Parameter.empty] * (len(node.args.args) - len(node.args.defaults))
            defaults += map(ast.literal_eval, node.args.defaults)
            parameters = zip((argument.arg for argument in node.args.args), defaults)
            name = prefix[:-1] if node.name in ("__new__", "__init__") else prefix + node.name
            yield name, [one for one in parameters if one[0] not in ("self", "cls")]


class SurfaceTest(record.TestCase):
    def test_the_stub_names_what_is_there_and_its_parameters(self):
        stub = dict(stubbed(ast.parse(STUB.read_text()).body))
        running = {name: function for name, _, function in calls.functions(self.sonetrix) if name != "signature"}
        running |= {name: kind for name, kind in vars(self.sonetrix).items() if isinstance(kind, type)}
        self.assertEqual(sorted(running), sorted(stub))
        for name, function in running.items():
            if stub[name] or not isinstance(function, type):
                parameters = inspect.signature(function).parameters.values()
                self.assertEqual([(one.name, one.default) for one in parameters if one.name != "self"], stub[name],
                                 name)
        imported = {"ctypes", "math", "os", "time", "traceback", "typing", "signature"}
        public = {name for name in vars(self.sonetrix) if name[0] != "_"}
        self.assertEqual(public, {name.split(".")[0] for name in stub} | imported)
        for name, constants in CONSTANTS.items():
            present = {key: value for key, value in vars(running[name]).items() if type(value) is int}
            self.assertEqual(present, dict(zip(constants, range(9))))

    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_mypy_accepts_stub_and_examples(self):
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(STUB, folder)
            examples = sorted((SOURCE / "examples").glob("*.py"))
            result = subprocess.run(["mypy", "--strict", "--allow-untyped-defs", "--allow-untyped-calls",
                                     "--cache-dir", folder, *map(str, examples), str(pathlib.Path(folder, STUB.name))],
                                    env={"MYPYPATH": f"{folder}:{SOURCE / 'examples'}", "PATH": "/usr/bin:/bin"},
                                    capture_output=True, text=True)
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
        self.assertEqual((exit.__annotations__, log.getLevel.__annotations__, log.getLevelJournal.__annotations__),
                         ({"exitcode": "int | None"}, *[{"return": "sonetrix_log_level_t"}] * 2))
        # The interpreter's own types stay as they are.
        self.assertEqual(str(inspect.signature(types.BuiltinFunctionType)), "()")
        self.assertFalse(hasattr(len, "__annotations__"))

    def test_tracebacks_bear_qualified_names(self):
        module = self.sonetrix
        for name, call, arguments in (
                ("exit", module.exit, (2**40,)), ("add_clear_callback", module.add_clear_callback, (5,)),
                ("engine.getParam", module.engine.getParam, (5,)), ("log.setLevel", module.log.setLevel, (-1,)),
                ("listValue.append", module.listValue().append, ([],)), ("timeout.__new__", module.timeout, (1, 5)),
                ("listKeyValue.merge", module.listKeyValue().merge, (None,))):
            names = []
            try:
                call(*arguments)
            except Exception as error:
                names = [entry.name for entry in traceback.extract_tb(error.__traceback__)][1:]
            self.assertEqual(names[-1:], ["sonetrix." + name])

    def test_argument_binding(self):
        engine, plain = self.sonetrix.engine, self.sonetrix.listValue
        for text, call, arguments, keywords in (  # the interpreter's own words, which vary with its version
                ("isRunning.* 0 arguments", engine.isRunning, (1,), {}),
                ("isRunning.*(0 keyword|'a')", engine.isRunning, (), {"a": 1}),
                ("link.*'p1'", engine.link, (), {}),
                ("newModule.*'info'", engine.newModule, (1, 2), {}),
                ("link.*'p1'", engine.link, (), {"p2": "a"}),
                ("link.*'p1'", engine.link, ("a",), {"p1": "b"}),
                ("timeout.*'callback'", self.sonetrix.timeout, (1,), {}),
                ("listValue.* no arguments", plain, (3,), {})):
            self.assertRaisesRegex(TypeError, text, call, *arguments, **keywords)
        self.assertEqual(record.calls(), [])
        record.result("sonetrix_engine_LinkPort", 0)
        self.assertEqual((engine.link(p2="b", p1="a"), engine.link(*("a",), **{"p2": b"b"})), (0, 0))

    def test_exit(self):
        code, stop = "sonetrix_engine_SetExitCode", "sonetrix_engine_RequestStop"
        for arguments, sent in ((), None), ((None,), None), ((0,), 0), ((True,), 1), ((-2**31,), -2**31), (("x",), 1):
            record.clear()
            self.assertIsNone(self.sonetrix.exit(*arguments))
            expected = [] if sent is None else [(code, ("engine", sent), False)]
            self.assertEqual([call[:3] for call in record.calls(code, stop)],
                             expected + [(stop, ("engine",), False)])
        record.clear()
        self.assertRefused(OverflowError, "value too large to convert to int32_t", self.sonetrix.exit, 2**40)
        record.null("sonetrix_engineGet")
        self.assertIsNone(self.sonetrix.exit(3))
        self.assertEqual(record.calls(code, stop), [])


class ImportTest(unittest.TestCase):
    def test_once_per_process(self):
        self.assertEqual(run("""
sonetrix = record.load()
print([call.name for call in record.calls()])
assert importlib.reload(sonetrix) is sonetrix
del sys.modules["sonetrix"]
print(*refusal(importlib.import_module, "sonetrix"))
sys.stdout.flush()
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
print(sonetrix.engine.isRunning())
watch = sonetrix.notifyChanges(lambda changes: print(changes))
record.fire(record.CHANGES, {"a": 1})
del watch
"""), [str(["sonetrix_engineGet"] * 2),
       "ImportError Module 'sonetrix' has already been imported. Re-initialisation is not supported.",
       *["Interpreter change detected - this module can only be loaded into one interpreter per process."] * 2, "True",
       "{b'a': 1}"])

    def test_without_engine(self):
        """The import fails; no method gets to the engine; what was made may live on; a later import succeeds."""
        *asked, orphan, later = run("""
import builtins, types
from support import calls
kept, real_import = types.ModuleType("sonetrix"), builtins.__import__
held = vars(kept)
def importing(name, *rest, **keywords):  # the last of the standard modules comes when the classes are there
    if name == "os" and "sonetrix" in sys.modules and "engine" not in held:
        held.update(vars(sys.modules["sonetrix"]))
        ask()
    return real_import(name, *rest, **keywords)
def ask():
    for name, call in calls.every(kept).items():
        if name.split(".")[0] in ("engine", "notifyChanges", "timeout") and "Lines" not in name:
            print(name, refusal(call))
record.null("sonetrix_engineGet")
record.numbers("sonetrix_clock_gettime", 0)
builtins.__import__ = importing
print(refusal(importlib.import_module, "sonetrix"), "sonetrix" in sys.modules)
builtins.__import__ = real_import
assert not record.calls("sonetrix_engine_*")
ask()
orphan = held["listValue"]().append(1)
print(orphan.toList(), orphan.dup().toList(), refusal(orphan.merge, 5)[0])
record.null("sonetrix_engineGet", 0)
sonetrix = importlib.import_module("sonetrix")
print(sonetrix.engine.isRunning(), refusal(sonetrix.listValue().merge, orphan)[0])
""")
        refused = str(("Exception", "engine not initialized"))
        special = {**dict.fromkeys(("engine.initEngine", "notifyChanges"), str(("MemoryError", ""))),
                   "engine.now": "0.0",
                   **dict.fromkeys(("engine.getMeters", "engine.unregisterMetersManager"),
                                   refused.replace("engine", "Engine"))}
        before, (failed,), after = asked[:35], asked[35:36], asked[36:]
        names = [line.split(" ")[0] for line in before]
        self.assertEqual((before, after), ([f"{name} {special.get(name, refused)}" for name in names], before))
        self.assertEqual([failed, orphan, later], ["('MemoryError', '') False", "[1] [1] TypeError", "True TypeError"])

    def test_interpreter_end(self):
        """Registrations end in their order, and no new ones are made; engine threads that call meanwhile do no harm."""
        self.assertEqual(run("""
import atexit
@atexit.register  # runs after the module's own exit handler
def report():
    late = sonetrix.timeout(1, print)
    print([call.name.split("_")[-1] for call in record.calls("*_rm*", "*Timer")], *map(record.registrations, range(4)))
    record.recording(False)
sonetrix = record.load()
kept = [sonetrix.notifyChanges(lambda changes: changes), sonetrix.timeout(1, lambda: None),
        sonetrix.notifyMeters(lambda meters: kept), sonetrix.listValue().append(1)]
kept.append(kept)
def fire():
    while True:
        for kind in range(4):
            record.fire(kind, {"a": 1}, threads=2)
def read():
    with contextlib.suppress(RuntimeError):  # the interpreter is ending
        while True:
            sonetrix.listKeyValue().append("a", 1).toDict(lambda entry: time.sleep(0.02))
def collect():
    while True:
        gc.collect()
for target in fire, fire, read, collect:
    threading.Thread(target=target, daemon=True).start()
class Late:
    def __del__(self, sleep=time.sleep): sleep(0.2)
sys.late = Late()
""", ASAN_OPTIONS="detect_leaks=0"),  # what such threads hold on to stays behind
            ["['addTimer', 'rmCallback', 'delTimer', 'rmCallbackMeterManager'] 0 0 0 0"])

    @unittest.skipIf(SANITIZER, "the other interpreter has no sanitizer")
    def test_a_module_built_for_another_version_is_refused(self):
        other = "/usr/bin/python3"
        asked = subprocess.run([other, "-c", "import sys; print(*sys.version_info[:2])"], capture_output=True,
                               text=True)
        if asked.returncode or asked.stdout.split() == list(map(str, sys.version_info[:2])):
            self.skipTest("there is no other Python")
        paths = {"PYTHONPATH": f"{SOURCE / 'tests'}:{MODULE.parent}", "SONETRIX_SOURCE": SOURCE,
                 "SONETRIX_BUILD": BUILD}
        result = subprocess.run([other, "-c", "from support import record; record.load()"], capture_output=True,
                                text=True,
                                env={name: str(value) for name, value in paths.items()})
        self.assertRegex(result.stderr, r"ImportError: Module 'sonetrix' was built for Python 3\.\d+, not for 3\.\d+")


if __name__ == "__main__":
    unittest.main()
