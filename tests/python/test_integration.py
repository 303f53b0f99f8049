# ctest: timeout=200 processors=2
"""What an integrator has: the installed tree, the example engine, the contract check; what a wrong engine is told."""

import concurrent.futures
import pathlib
import re
import tempfile
import unittest

from support import BUILD, RUN, SANITIZER, SOURCE
from support.console import Console
from support.programs import cache, compile_engine, run

EXAMPLE = SOURCE / "examples" / "minimal_engine"
# Engine functions that do something else, and what has to be found.
PLANTED = {
    "sonetrix_cListValue_t *sonetrix_valueListDeepCopy(const sonetrix_cListValue_t *list) { return (void *)list; }":
        "gives a list of its own",
    """int32_t sonetrix_valueListForEach(sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user) {
        __typeof__(&sonetrix_valueListForEach) sound = dlsym(RTLD_NEXT, __func__);
        return sound(list, callback, &user);
    }""": "gives the callback the user pointer",
    "void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *timer) {}": "no call begins after it has returned",
    "void sonetrix_engine_RequestStop(sonetrix_engine_t *engine) {}": "returns at once",
}


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

    def pkg_config(self, *question):
        return tool("pkg-config", *question, "sonetrix-engine-api", PKG_CONFIG_PATH=str(self.root / "share/pkgconfig"))

    def minimal_engine(self, *options, flags=None):
        """Compiled with what pkg-config says."""
        flags = self.pkg_config("--cflags", "--libs").split() if flags is None else flags
        module = self.pkg_config("--variable=module").strip()
        return compile_engine(self.folder / "minimal", f'-DSONETRIX_MODULE="{module}"', *flags, *options)

    def test_program(self):
        result = run(*self.program, "-c", "import sonetrix_console; print(open('/proc/self/maps').read())")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        loaded = set(re.findall(r"/\S*sonetrix\S*", result.stdout))
        self.assertGreaterEqual(loaded, {str(self.root / "lib/sonetrix" / name)
                                         for name in ("sonetrix.so", "libsonetrix_engine.so")})
        self.assertEqual({path for path in loaded if path.startswith(f"{BUILD}/lib")}, set())
        for file in ("bin/sonetrix-engine", "lib/sonetrix/sonetrix.so", "lib/sonetrix/libsonetrix_engine.so"):
            paths = re.findall(r"\(R(?:UN)?PATH\)[^[]*\[(.*)\]", tool("readelf", "-dW", self.root / file))
            self.assertNotIn(str(BUILD), "".join(paths))

    def test_what_else_is_there(self):
        script = self.folder / "script.py"
        script.write_text("import sonetrix, sonetrix_console\nreveal_type(sonetrix.engine.getFrameRate())\n")
        packages = self.root / "lib/python3/dist-packages"
        said = tool("mypy", "--cache-dir", self.folder / "cache", script, PYTHONPATH=str(packages))
        self.assertRegex(said, r'Revealed type is "(builtins\.)?int"')
        installed = {path.name for path in (self.root / "share").rglob("*.py")}
        self.assertEqual(installed, {path.name for path in (SOURCE / "examples").glob("*.py")})
        said = run(*self.program, SOURCE / "tools/reference.py")
        self.assertEqual(said.stderr, "")
        self.assertTrue(said.stdout == (SOURCE / "docs/reference.md").read_text(), "run `make docs-reference`")

    def test_minimal_engine_with_cmake(self):
        same = [f"-D{name}={cache(name)}" for name in ("CMAKE_C_COMPILER", "CMAKE_TOOLCHAIN_FILE") if cache(name)]
        build = self.folder / "cmake"
        tool(cache("CMAKE_COMMAND"), "-S", EXAMPLE, "-B", build, "-G", "Ninja", *same,
             f"-DCMAKE_PREFIX_PATH={self.root}",
             f"-Dsonetrix-engine-api_DIR={self.root}/share/cmake/sonetrix-engine-api")
        tool(cache("CMAKE_COMMAND"), "--build", build)
        self.assertIn("sonetrix_engineGet", tool("nm", "-D", "--defined-only", build / "minimal_engine"))
        if not SANITIZER:
            result = run(*RUN, build / "minimal_engine",
                                  text_input="print(engine.getParam('system.gain').toDict())")
            self.assertEqual((result.returncode, result.stdout), (0, "{b'system.gain': 1.0}\n"), result.stderr)

    def test_minimal_engine_with_pkg_config_passes_the_check_and_runs_the_console(self):
        engine = self.minimal_engine()
        self.assertIn(", 0 findings", tool(self.check, "--parameter", "system.gain", engine))
        packages = str(self.root / "lib/python3/dist-packages")
        with Console(program=engine, environment={"PYTHONPATH": packages}) as terminal:
            self.assertEqual(terminal.ask("'sonetrix_console' in __import__('sys').modules"), "True")
            self.assertEqual(terminal.ask("engine.setParams(listKeyValue().append('system.gain', .5)).toDict()"),
                             "{b'system.gain': 0.5}")
            self.assertEqual(terminal.end("exit(3)"), 3)

    def test_an_engine_that_does_not_fit_is_told_why(self):
        header = self.folder / "include/sonetrix/engine_api.h"
        header.parent.mkdir(parents=True)
        own = (self.root / "include/sonetrix/engine_api.h").read_text()
        header.write_text(re.sub(r"(API_VERSION_MAJOR) \d+", r"\1 9", own))
        for text, options, flags in (
                ("is it linked with -rdynamic?", [], [f"-I{self.root}/include"]),
                ("built with version 9 of its interface", [], [f"-I{self.folder}/include", "-rdynamic"]),
                ("lacks 2 of 83 functions: sonetrix_engine_addTimer, sonetrix_log_syslog",
                 ["-Dsonetrix_log_syslog=renamed", "-Dsonetrix_engine_addTimer=another"], None)):
            with self.subTest(text):
                engine = self.minimal_engine(*options, flags=flags)
                result = run(*RUN, engine)
                self.assertIn(text, result.stderr)
                self.assertEqual(result.returncode, 69)
        named = "2 of 83 functions are missing:\n  sonetrix_engine_addTimer\n  sonetrix_log_syslog"
        self.assertIn(named, tool(self.check, engine, status=1))


@unittest.skipIf(SANITIZER or RUN, "what is loaded in front of everything is built without the sanitizer")
class ContractCheck(unittest.TestCase):
    def setUp(self):
        self.command = [SOURCE / "tools/sonetrix-check-engine", "--module", "amp_mono", BUILD / "bin/sonetrix-engine"]

    def test_the_development_engine_keeps_the_contract(self):
        said = tool(*self.command)
        self.assertIn(" rules looked at, 0 of them not checked, 0 findings", said)
        library = tool(self.command[0], BUILD / "lib/libsonetrix_engine.so")
        self.assertIn(", 0 findings", library)

    def test_finds_what_is_planted(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

        def said_of(number, function):
            source = folder / f"{number}.c"
            source.write_text(function)
            tool(cache("CMAKE_C_COMPILER"), "-shared", "-fPIC", "-D_GNU_SOURCE", f"-I{SOURCE}/include",
                 "-include", "dlfcn.h", "-include", "sonetrix/engine_api.h", source, "-o", f"{source}.so")
            return tool(*self.command, status=1, LD_PRELOAD=f"{source}.so")

        with concurrent.futures.ThreadPoolExecutor(4) as at_once:
            for (function, finding), said in zip(PLANTED.items(), at_once.map(said_of, *zip(*enumerate(PLANTED)))):
                with self.subTest(function):
                    self.assertIn(finding, said)
