# ctest: timeout=200 processors=2
"""What an integrator has: the installed tree, the example engine, the contract check; what a wrong engine is told."""

import pathlib
import re
import tempfile
import unittest

from support import BUILD, RUN, SANITIZER, SOURCE
from support.console import Console
from support.programs import cache, compile_engine, run

# Engine functions that do something else.
WRONG = """
#include <sonetrix/engine_api.h>
sonetrix_cListKeyValue_t *sonetrix_keyValueListDeepCopy(const sonetrix_cListKeyValue_t *list) { return (void *)list; }
void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *timer) {}
void sonetrix_engine_RequestStop(sonetrix_engine_t *engine) {}
"""


def tool(*command, status=0, **variables):
    result = run(*command, environment=variables)
    if result.returncode != status:
        raise AssertionError(f"{command}: {result.returncode}, {result.stdout}{result.stderr}")
    return result.stdout


class Installed(unittest.TestCase):
    """Works from where `cmake --install` has put it, without the build folder."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.root = cls.folder / "root"
        tool(cache("CMAKE_COMMAND"), "--install", BUILD, "--prefix", cls.root)
        cls.program = [*RUN, cls.root / "bin/sonetrix-engine"]
        cls.check = cls.root / "bin/sonetrix-check-engine"
        cls.packages = str(cls.root / "lib/python3/dist-packages")

    def pkg_config(self, *question):
        return tool("pkg-config", *question, "sonetrix-engine-api", PKG_CONFIG_PATH=str(self.root / "share/pkgconfig"))

    def minimal_engine(self, *options):
        """Compiled with what pkg-config says."""
        module = self.pkg_config("--variable=module").strip()
        return compile_engine(self.folder / "minimal", f'-DSONETRIX_MODULE="{module}"',
                              *self.pkg_config("--cflags", "--libs").split(), *options)

    def test_program(self):
        result = run(*self.program, "-c", "import sonetrix_console; print(open('/proc/self/maps').read())")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        loaded = set(re.findall(r"/\S*sonetrix\S*\.so", result.stdout))
        self.assertEqual(loaded, {f"{self.root}/lib/sonetrix/{name}.so" for name in ("sonetrix", "libsonetrix_engine")})

    def test_types_examples_and_reference(self):
        script = self.folder / "script.py"
        script.write_text("import sonetrix, sonetrix_console\nreveal_type(sonetrix.engine.getFrameRate())\n")
        examples = {path.name: path for path in (self.root / "share").rglob("*.py")}
        self.assertEqual({*examples}, {path.name for path in (SOURCE / "examples").glob("*.py")})
        said = tool("mypy", "--strict", "--allow-untyped-defs", "--allow-untyped-calls", "--cache-dir",
                    self.folder / "cache", script, *examples.values(), PYTHONPATH=self.packages)
        self.assertRegex(said, r'Revealed type is "(builtins\.)?int"')
        said = run(*self.program, SOURCE / "tools/reference.py")
        self.assertEqual(said.stderr, "")
        self.assertTrue(said.stdout == (SOURCE / "docs/reference.md").read_text(), "run `make docs-reference`")

    @unittest.skipIf(SANITIZER, "it is built without the sanitizer")
    def test_minimal_engine_with_cmake(self):
        same = [f"-D{name}={cache(name)}" for name in ("CMAKE_C_COMPILER", "CMAKE_TOOLCHAIN_FILE") if cache(name)]
        build = self.folder / "cmake"
        tool(cache("CMAKE_COMMAND"), "-S", SOURCE / "examples/minimal_engine", "-B", build, "-G", "Ninja", *same,
             f"-DCMAKE_PREFIX_PATH={self.root}",
             f"-Dsonetrix-engine-api_DIR={self.root}/share/cmake/sonetrix-engine-api")
        tool(cache("CMAKE_COMMAND"), "--build", build)
        result = run(*RUN, build / "minimal_engine", text_input="print(engine.getParam('system.gain').toDict())")
        self.assertEqual((result.returncode, result.stdout), (0, "{b'system.gain': 1.0}\n"), result.stderr)

    def test_minimal_engine_with_pkg_config_passes_the_check_and_runs_the_console(self):
        engine = self.minimal_engine()
        self.assertIn(", 0 findings", tool(self.check, "--parameter", "system.gain", engine))
        with Console(program=engine, environment={"PYTHONPATH": self.packages}) as terminal:
            self.assertEqual(terminal.ask("'sonetrix_console' in __import__('sys').modules"), "True")
            self.assertEqual(terminal.ask("engine.setParams(listKeyValue().append('system.gain', .5)).toDict()"),
                             "{b'system.gain': 0.5}")
            self.assertEqual(terminal.end("exit(3)"), 3)

    def test_an_engine_that_does_not_fit_is_told_why(self):
        version = self.folder / "version.c"
        version.write_text("#undef sonetrix_engineApiVersion\nconst unsigned sonetrix_engineApiVersion = 9;\n")
        for text, options in (
                ("is it linked with -rdynamic?", ["-Wl,--no-export-dynamic"]),
                ("built with version 9 of its interface", ["-Dsonetrix_engineApiVersion=its_own", version]),
                ("lacks 2 of 83 functions: sonetrix_engine_addTimer, sonetrix_log_syslog",
                 ["-Dsonetrix_log_syslog=renamed", "-Dsonetrix_engine_addTimer=another"])):
            with self.subTest(text):
                engine = self.minimal_engine(*options)
                result = run(*RUN, engine)
                self.assertIn(text, result.stderr)
                self.assertEqual(result.returncode, 69)
        named = "2 of 83 functions are missing:\n  sonetrix_engine_addTimer\n  sonetrix_log_syslog"
        self.assertIn(named, tool(self.check, engine, status=1))


@unittest.skipIf(SANITIZER or RUN, "what is loaded in front of everything is built without the sanitizer")
class ContractCheck(unittest.TestCase):
    check = SOURCE / "tools/sonetrix-check-engine"
    program = "--module", "amp_mono", BUILD / "bin/sonetrix-engine"

    def test_the_development_engine_keeps_the_contract(self):
        self.assertIn(" rules looked at, 0 of them not checked, 0 findings", tool(self.check, *self.program))
        self.assertIn(", 0 findings", tool(self.check, BUILD / "lib/libsonetrix_engine.so"))

    def test_finds_what_is_wrong(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        source, library = folder / "wrong.c", folder / "wrong.so"
        source.write_text(WRONG)
        tool(cache("CMAKE_C_COMPILER"), "-shared", "-fPIC", f"-I{SOURCE}/include", source, "-o", library)
        said = tool(self.check, *self.program, status=1, LD_PRELOAD=str(library))
        self.assertEqual(set(re.findall("^sonetrix_(.*?): ", said, re.M)),
                         {"keyValueListDeepCopy", "engine_delTimer", "engine_RequestStop"}, said)
