"""What `cmake --install` leaves behind works from there, without the build folder."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from support import BUILD, RUN, SANITIZER, SOURCE, TIME_LIMIT, console, programs

HOST = """\
#include <sonetrix/engine_api.h>
int main(void) { return sizeof(sonetrix_value_t) == 24 ? 0 : 1; }
"""
PROJECT = """\
cmake_minimum_required(VERSION 3.25)
project(host C)
find_package(sonetrix-engine-api 1.0 REQUIRED)
add_executable(host host.c)
target_link_libraries(host PRIVATE sonetrix::engine_api)
"""


def cache(name):
    """A setting of the build under test, or None."""
    found = re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.M)
    return found and found[1]


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.root = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory())) / "root"
        cls.cmake = cache("CMAKE_COMMAND")
        cls.tool(cls.cmake, "--install", BUILD, "--prefix", cls.root)
        cls.program = [*RUN, cls.root / "bin" / "sonetrix-engine"]

    @staticmethod
    def tool(*command, **variables):
        result = subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=TIME_LIMIT,
                                env=dict(os.environ, **variables))
        if result.returncode:
            raise AssertionError(f"{command}: {result.stdout}{result.stderr}")
        return result.stdout

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

    def test_binaries_name_no_folder_of_the_build(self):
        for file in ("bin/sonetrix-engine", "lib/sonetrix/sonetrix.so", "lib/sonetrix/libsonetrix_engine.so"):
            with self.subTest(file):
                paths = re.findall(r"\(R(?:UN)?PATH\)[^[]*\[(.*)\]", self.tool("readelf", "-dW", self.root / file))
                self.assertNotIn(str(BUILD), "".join(paths))

    def test_stub_documentation_and_examples_are_there(self):
        self.assertEqual((self.root / "lib/sonetrix/sonetrix.pyi").read_bytes(),
                         (SOURCE / "interface/sonetrix/sonetrix.pyi").read_bytes())
        installed = {path.name for path in (self.root / "share").rglob("*.py")}
        self.assertEqual(installed, {path.name for path in (SOURCE / "examples").glob("*.py")})
        result = programs.run(*self.program, next((self.root / "share").rglob("graph_table.py")))
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_an_engine_builds_against_the_interface(self):
        folder = self.root.parent / "host"
        folder.mkdir()
        (folder / "host.c").write_text(HOST)
        (folder / "CMakeLists.txt").write_text(PROJECT)
        same = [f"-D{name}={cache(name)}" for name in ("CMAKE_C_COMPILER", "CMAKE_TOOLCHAIN_FILE") if cache(name)]
        self.tool(self.cmake, "-S", folder, "-B", folder / "build", "-G", "Ninja", *same,
                  f"-Dsonetrix-engine-api_DIR={self.root}/share/cmake/sonetrix-engine-api")
        self.tool(self.cmake, "--build", folder / "build")
        self.assertEqual(programs.run(*RUN, folder / "build" / "host").returncode, 0)
        flags = self.tool("pkg-config", "--cflags", "sonetrix-engine-api",
                          PKG_CONFIG_PATH=str(self.root / "share/pkgconfig")).split()
        self.assertTrue((pathlib.Path(flags[0].removeprefix("-I")) / "sonetrix/engine_api.h").is_file(), flags)


if __name__ == "__main__":
    unittest.main()
