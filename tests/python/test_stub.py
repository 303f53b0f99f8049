"""The typed stub against the running module: the same names, parameters and defaults, and mypy accepts it."""

import ast
import inspect
import pathlib
import shutil
import subprocess
import tempfile
import types
import unittest

from support import SOURCE, record

STUB = SOURCE / "interface" / "sonetrix" / "sonetrix.pyi"
sonetrix = record.load()


def parameters_of(function):
    """[(name, default or empty)] of a definition in the stub."""
    arguments = function.args
    defaults = [inspect.Parameter.empty] * (len(arguments.args) - len(arguments.defaults))
    defaults += [ast.literal_eval(default) for default in arguments.defaults]
    names = [argument.arg for argument in arguments.args]
    return [(name, default) for name, default in zip(names, defaults) if name not in ("self", "cls")]


def parameters_at_run_time(function):
    return [(p.name, p.default) for p in inspect.signature(function).parameters.values() if p.name != "self"]


class Stub(unittest.TestCase):
    def setUp(self):
        body = ast.parse(STUB.read_text()).body
        self.functions = {node.name: node for node in body if isinstance(node, ast.FunctionDef)}
        self.classes = {node.name: node for node in body if isinstance(node, ast.ClassDef) and node.name[0] != "_"}

    def test_names(self):
        imported = {"ctypes", "math", "os", "time", "traceback", "typing", "signature"}
        public = {name for name in vars(sonetrix) if not name.startswith("_")}
        self.assertEqual(public, set(self.functions) | set(self.classes) | imported)

    def test_functions(self):
        for name, node in self.functions.items():
            with self.subTest(name):
                self.assertEqual(parameters_of(node), parameters_at_run_time(getattr(sonetrix, name)))

    def test_classes(self):
        for class_name, node in self.classes.items():
            running = vars(getattr(sonetrix, class_name))
            stubbed = {item.name: item for item in node.body if isinstance(item, ast.FunctionDef)}
            constants = {item.target.id for item in node.body if isinstance(item, ast.AnnAssign)} - {"__hash__"}
            methods = {name for name, value in running.items()
                       if inspect.isroutine(value) and name[:2] != "__"}
            with self.subTest(class_name):
                self.assertEqual(methods, {name for name in stubbed if name not in ("__new__", "__init__")})
                self.assertEqual({name for name, value in running.items() if type(value) is int}, constants)
                if constructor := stubbed.get("__new__", stubbed.get("__init__")):
                    self.assertEqual(parameters_of(constructor), parameters_at_run_time(getattr(sonetrix, class_name)))
            for name in methods:
                with self.subTest(f"{class_name}.{name}"):
                    self.assertEqual(parameters_of(stubbed[name]), parameters_at_run_time(running[name]))

    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_examples_type_check(self):
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(STUB, folder)
            examples = sorted((SOURCE / "examples").glob("*.py"))
            result = subprocess.run(["mypy", "--strict", "--allow-untyped-defs", "--allow-untyped-calls",
                                     "--cache-dir", folder, *map(str, examples), str(pathlib.Path(folder, STUB.name))],
                                    env={"MYPYPATH": f"{folder}:{SOURCE / 'examples'}", "PATH": "/usr/bin:/bin"},
                                    capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)


if __name__ == "__main__":
    unittest.main()
