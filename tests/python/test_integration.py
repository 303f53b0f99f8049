# ctest: timeout=200 processors=2
"""What an integrator has: the installed tree, the example engine, the contract check; what a wrong engine is told."""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from record import generate
from support import BUILD, RUN, SANITIZER, SOURCE, TIME_LIMIT, console, programs

EXAMPLE = SOURCE / "examples" / "minimal_engine"
# An engine function, what it does instead (`sound` is the real one), and what has to be found.
PLANTED = [
    ("valueListAddI32", "return sonetrix_valueListAddU32(list, (uint32_t)number);",
     "appends a copy of what it is given, as int32"),
    ("keyValueListDeepCopy", "return (sonetrix_cListKeyValue_t *)list;", "gives a list of its own"),
    ("keyValueListMerge", "return sound(list, other ? sonetrix_keyValueListDeepCopy(other) : 0);", "moves all entries"),
    ("valueListForEach", "return sound(list, callback, list);", "gives the callback the user pointer"),
    ("engine_DriverGetName", 'static char text[] = "kept"; *name = text; return 0;', "gives a malloc'ed text"),
    ("engine_GetParams", "static void *kept; if (!kept) kept = sound(engine, keys); return kept;",
     "gives a new list each time"),
    ("engine_SetParamsFull", "sound(engine, parameters, written);"
     ' return sonetrix_keyValueListRemoveKey((void *)parameters, "check.nowhere");',
     "writes, leaves the caller's list alone"),
    ("engine_ForEachModuleSafe", "sound(engine, callback, user); return sound(engine, callback, user);",
     "shows modules and ports with unique names"),
    ("engine_addTimer", "return sound(engine, 1, callback, user);", "a timer of 30 ms has elapsed after"),
    ("engine_delTimer", "", "no call begins after it has returned"),
    ("engine_notify_changes_rmCallback", "", "returns only when no call is in progress"),
    ("engine_RequestStop", "", "returns at once"),
]


def cache(name):
    """A setting of the build under test, or None."""
    found = re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)
    return found and found[1]


def tool(*command, status=0, **variables):
    result = subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=TIME_LIMIT,
                            env=dict(os.environ, **variables))
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
        cls.compiler = cache("CMAKE_C_COMPILER")

    def minimal_engine(self, name, *options, flags=None, sources=("minimal_engine.c", "lists.c")):
        """Compiles the example with what pkg-config says."""
        if self.compiler is None:
            self.skipTest("built by a compiler for another machine, with options of its own")

        def ask(*question):
            return tool("pkg-config", *question, "sonetrix-engine-api",
                        PKG_CONFIG_PATH=str(self.root / "share/pkgconfig"))

        sanitizer = [f"-fsanitize={SANITIZER}"] if SANITIZER else []
        flags = ask("--cflags", "--libs").split() if flags is None else flags
        module = ask("--variable=module").strip()
        tool(self.compiler, "-Wall", "-Werror", *sanitizer, *(EXAMPLE / source for source in sources), *flags, *options,
             f'-DSONETRIX_MODULE="{module}"', "-o", self.folder / name)
        return self.folder / name

    def test_console_and_script(self):
        with console.Console(*self.program[1:], program=self.program[0]) as terminal:
            self.assertEqual(terminal.ask("engine.isRunning()"), "True")
            self.assertEqual(terminal.ask("import _ctypes, _json"), "")  # extension modules find the interpreter
            self.assertEqual(terminal.end("exit(3)"), 3)
        result = programs.run(*self.program, "-c", "import pathlib; print(pathlib.Path('/proc/self/maps').read_text())")
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
        said = programs.run(*self.program, SOURCE / "tools/reference.py")
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
            result = programs.run(*RUN, build / "minimal_engine",
                                  text_input="print(engine.getParam('system.gain').toDict())")
            self.assertEqual((result.returncode, result.stdout), (0, "{b'system.gain': 1.0}\n"), result.stderr)

    def test_minimal_engine_with_pkg_config_passes_the_check_and_runs_the_console(self):
        engine = self.minimal_engine("minimal")
        self.assertIn(", 0 findings", tool(self.check, "--parameter", "system.gain", engine))
        packages = str(self.root / "lib/python3/dist-packages")
        with console.Console(program=engine, environment={"PYTHONPATH": packages}) as terminal:
            self.assertEqual(terminal.ask("'sonetrix_console' in __import__('sys').modules"), "True")
            self.assertEqual(terminal.ask("engine.setParams(listKeyValue().append('system.gain', .5)).toDict()"),
                             "{b'system.gain': 0.5}")
            self.assertEqual(terminal.end("exit(3)"), 3)

    def test_an_engine_that_does_not_fit_is_told_why(self):
        cases = {
            "is it linked with -rdynamic?": dict(flags=[f"-I{self.root}/include"]),
            "lacks 2 of 83 functions: sonetrix_engine_addTimer, sonetrix_log_syslog":
                dict(options=["-Dsonetrix_log_syslog=renamed", "-Dsonetrix_engine_addTimer=another"]),
            "built with version 9 of its interface": dict(flags=[f"-I{self.folder}/include", "-rdynamic"]),
        }
        header = self.folder / "include/sonetrix/engine_api.h"
        header.parent.mkdir(parents=True)
        own = (self.root / "include/sonetrix/engine_api.h").read_text()
        header.write_text(re.sub(r"(API_VERSION_MAJOR) \d+", r"\1 9", own))
        for text, how in cases.items():
            with self.subTest(text):
                engine = self.minimal_engine("unfit", *how.pop("options", []), **how)
                result = programs.run(*RUN, engine)
                self.assertIn(text, result.stderr)
                self.assertEqual(result.returncode, 69)
        named = "\n".join(["2 of 83 functions are missing:", "  sonetrix_engine_addTimer", "  sonetrix_log_syslog"])
        engine = self.minimal_engine("lacking", "-Dsonetrix_log_syslog=renamed", "-Dsonetrix_engine_addTimer=another")
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
        library = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()), "faults.so")
        signatures = {name: (result, parameters) for result, name, parameters in
                      generate.functions((SOURCE / "include/sonetrix/engine_api.h").read_text())}
        source = ["#define _GNU_SOURCE", *(f"#include <{header}.h>" for header in (
            "sonetrix/engine_api", "dlfcn", "stdlib", "string"))]
        for name, instead, _ in PLANTED:
            result, parameters = signatures["sonetrix_" + name]
            source.append(f"""{result} sonetrix_{name}({", ".join(map("".join, parameters))}) {{
                __typeof__(&sonetrix_{name}) sound = dlsym(RTLD_NEXT, __func__);
                if (strcmp(getenv("FAULT"), "{name}") != 0) return sound({", ".join(name for _, name in parameters)});
                {instead}
            }}""")
        library.with_suffix(".c").write_text("\n".join(source))
        tool(cache("CMAKE_C_COMPILER"), "-shared", "-fPIC", f"-I{SOURCE}/include", library.with_suffix(".c"),
             "-o", library)
        with concurrent.futures.ThreadPoolExecutor(4) as at_once:
            said = at_once.map(lambda fault: tool(*self.command, status=1, FAULT=fault[0], LD_PRELOAD=str(library)),
                               PLANTED)
            for (name, _, finding), text in zip(PLANTED, said):
                with self.subTest(name):
                    self.assertIn(finding, text)


if __name__ == "__main__":
    unittest.main()
