"""What the module's functions say of themselves, how it is imported, and what it does at the interpreter's end."""

import inspect
import pydoc
import subprocess
import sys
import types
import traceback
import unittest

from support import TIME_LIMIT, record, interpreter_environment

CONSTANTS = {"engine": {"METER_SLOW": 0, "METER_FAST": 1},
             "log": {"TRACE": 0, "DEBUG": 1, "INFO": 2, "WARN": 3, "ERROR": 4, "FATAL": 5}}
BY_THE_ENGINE = "\nby the engine."
DOCSTRINGS = {
    "log": "Utility class to access the log functionalities using static methods.",
    "listValue": 'Utility class to wrap the C structure "sonetrix_cListValue_t" from SoneTrix in Python.',
    "listKeyValue": 'Utility class to wrap the C structure "sonetrix_cListKeyValue_t" from SoneTrix in Python.',
    "notifyChanges": "This utility class is used to invoke any method when parameters change are notified"
                     + BY_THE_ENGINE,
    "notifyMeters": "This utility class is used to invoke any method when meters are notified" + BY_THE_ENGINE,
    "timeout": "Utility class to add a timer to the engine, which will invoke a callback as soon as timeout elapses."
               + BY_THE_ENGINE,
    "cpu": 'This methods make use of the "cpuInfo" method of the engine class to print the realtime usage\n'
           "    of CPU for processing operations.\n",
}

# Python run in an interpreter of its own: the layer is loaded, the module is not.
PRELUDE = """
import gc, importlib, os, sys, threading, time
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


def unspaced(text):
    return "".join(text.split())


class SurfaceTest(record.TestCase):
    def functions(self):
        """(qualified name, function) of all, methods included."""
        for name, value in vars(self.sonetrix).items():
            if getattr(value, "__module__", None) == "sonetrix":
                owned = vars(value).items() if isinstance(value, type) else [(None, value)]
                yield from ((f"{name}.{key}" if key else name, function) for key, function in owned
                            if callable(function) and str(key)[:2] != "__")

    def test_functions_describe_themselves(self):
        self.assertEqual(sum(1 for _ in self.functions()), 68)
        for name, function in self.functions():
            with self.subTest(name):
                signature = inspect.signature(function)
                self.assertEqual((function.__qualname__, function.__name__), (name, name.split(".")[-1]))
                page = pydoc.render_doc(function, renderer=pydoc.plaintext)
                self.assertIn(unspaced(f"{function.__name__}{signature}").replace("'", ""),
                              unspaced(page).replace("'", ""))  # from 3.14 on annotations are shown without quotes
                self.assertIn(function.__doc__.split("\n")[0], page)
        exit, log = self.sonetrix.exit, self.sonetrix.log
        self.assertEqual(str(inspect.signature(exit)), "(exitcode: 'int | None' = None)")
        self.assertEqual((exit.__annotations__, log.getLevel.__annotations__, log.getLevelJournal.__annotations__),
                         ({"exitcode": "int | None"}, *[{"return": "sonetrix_log_level_t"}] * 2))
        # The interpreter's own types stay as they are.
        self.assertEqual(str(inspect.signature(types.BuiltinFunctionType)), "()")
        self.assertFalse(hasattr(len, "__annotations__"))
        for name, constants in CONSTANTS.items():
            present = {key: value for key, value in vars(getattr(self.sonetrix, name)).items() if type(value) is int}
            self.assertEqual(list(present.items()), list(constants.items()))
        for name, text in DOCSTRINGS.items():
            self.assertTrue(getattr(self.sonetrix, name).__doc__.startswith(text), name)

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
        engine, log, plain = self.sonetrix.engine, self.sonetrix.log, self.sonetrix.listValue
        for text, call, arguments, keywords in (
                ("isRunning() takes no arguments (1 given)", engine.isRunning, (1,), {}),
                ("isRunning() got an unexpected keyword argument 'a'", engine.isRunning, (), {"a": 1}),
                ("link() takes at least 1 argument (0 given)", engine.link, (), {}),
                ("newModule() takes exactly 3 arguments (2 given)", engine.newModule, (1, 2), {}),
                ("link() missing required argument 'p1' (pos 1)", engine.link, (), {"p2": "a"}),
                ("log() got multiple values for argument 'level'", log.log, (1,), {"level": 1}),
                ("timeout() takes exactly 2 arguments (1 given)", self.sonetrix.timeout, (1,), {}),
                ("sonetrix.listValue() takes no arguments (1 given)", plain, (3,), {})):
            self.assertRefused(TypeError, text, call, *arguments, **keywords)
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
import builtins, inspect
held, real_import = {}, builtins.__import__
def importing(name, *rest, **keywords):  # the last of the standard modules comes when the classes are there
    if name == "os" and "sonetrix" in sys.modules and not held:
        held.update(vars(sys.modules["sonetrix"]))
        ask()
    return real_import(name, *rest, **keywords)
def ask():
    values = {"info": None}
    for function in vars(held["engine"]).values():
        if callable(function) and function.__name__ not in ("dot", "__new__") and function.__name__[0] != "_":
            names = [p.name for p in inspect.signature(function).parameters.values() if p.default is p.empty]
            lists = {"getParams": "listValue", "setParams": "listKeyValue", "setParamsCli": "listKeyValue"}
            if function.__name__ in lists:
                arguments = [held[lists[function.__name__]]()]
            else:
                arguments = [values.get(name, 5) for name in names]
            print(function.__name__, refusal(function, *arguments))
    print("notifyChanges", refusal(held["notifyChanges"], lambda changes: None))
    print("timeout", refusal(held["timeout"], 5, 5))
record.null("sonetrix_engineGet")
record.numbers("sonetrix_clock_gettime", 0)
builtins.__import__ = importing
print(refusal(importlib.import_module, "sonetrix"), "sonetrix" in sys.modules, sorted({c.name for c in record.calls()}))
builtins.__import__ = real_import
ask()
orphan = held["listValue"]().append(1)
print(orphan.toList(), orphan.dup().toList(), refusal(orphan.merge, 5)[0])
record.null("sonetrix_engineGet", 0)
sonetrix = importlib.import_module("sonetrix")
print(sonetrix.engine.isRunning(), refusal(sonetrix.listValue().merge, orphan)[0])
""")
        refused = str(("Exception", "engine not initialized"))
        special = {**dict.fromkeys(("initEngine", "notifyChanges"), str(("MemoryError", ""))), "now": "0.0",
                   **dict.fromkeys(("getMeters", "unregisterMetersManager"), refused.replace("engine", "Engine"))}
        before, failed, after = asked[:34], asked[34], asked[35:]
        names = [line.split(" ")[0] for line in before]
        self.assertEqual((before, after), ([f"{name} {special.get(name, refused)}" for name in names], before))
        self.assertEqual([failed, orphan, later], [
            "('MemoryError', '') False ['sonetrix_clock_gettime', 'sonetrix_engineGet']", "[1] [1] TypeError",
            "True TypeError"])

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
    while True:
        sonetrix.listKeyValue().append("a", 1).toDict(lambda entry: time.sleep(0.02))
for target in fire, fire, read:
    threading.Thread(target=target, daemon=True).start()
class Late:
    def __del__(self, sleep=time.sleep): sleep(0.2)
sys.late = Late()
""", ASAN_OPTIONS="detect_leaks=0"),  # what such threads hold on to stays behind
            ["['addTimer', 'rmCallback', 'delTimer', 'rmCallbackMeterManager'] 0 0 0 0"])

    def test_finalizers_at_interpreter_end(self):
        self.assertEqual(run("""
sonetrix = record.load()
class Finalized:
    __slots__ = ()
    def __del__(self, lists=(sonetrix.listValue, sonetrix.listKeyValue), engine=sonetrix.engine, write=os.write,
                timeout=sonetrix.timeout, RuntimeError=RuntimeError):
        try: timeout(1, write)
        except RuntimeError: pass  # the module is gone
        lists = lists[0]().append(1, "int32").dup().toList(), lists[1]().append("a", (1,), "int").dup().toDict()
        text = f"{lists} {engine.isRunning()}"
        write(1, (text + "\\n").encode())
cycle = type("Cycle", (), {})()
sys.one, sonetrix.engine.two, cycle.three, cycle.cycle = Finalized(), Finalized(), Finalized(), cycle
"""), ["([1], {b'a': (1,)}) True"] * 3)


if __name__ == "__main__":
    unittest.main()
