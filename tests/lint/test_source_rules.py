"""Rules about the sources that a search can check; what the built libraries export and need."""

import os
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("SONETRIX_BUILD", ROOT / "build/release"))
MECHANICS = "interface/sonetrix/python/"
EXPORTS = {"sonetrix_engineCliCostructor", "PyInit_sonetrix"}
# What, where it may occur (beginnings of paths), and the pattern; over all C and C++ sources.
RULES = [
    ("Python.h has one point of entry", [MECHANICS + "python.h"], r"#\s*include\s*[<\"]Python\.h"),
    ("raw lock calls stay with the lock's guards", [MECHANICS],
     r"\b(PyEval_SaveThread|PyEval_RestoreThread|PyGILState_\w+|Py_BEGIN_ALLOW_THREADS|Py_END_ALLOW_THREADS)\b"),
    ("references are counted by the owning type", [MECHANICS + "ref.h"], r"\bPy_X?(INCREF|DECREF)\b"),
    ("no goto", [], r"\bgoto\b"),
    ("the engine knows no Python", ["interface/", "src/"], r"\bPy[A-Z]\w*_\w+|\bPyObject\b"),
]
# Folders of a particular machine; split, so that this file does not break the rule itself.
ABSOLUTE_PATH = r"(?<![\w.}~)*-])/(?:ro" r"ot|ho" r"me|wo" r"rk|Us" r"ers|m" r"nt)/\w"


def found(pattern, *folders):
    """The files in which the pattern occurs, but for what git ignores."""
    result = subprocess.run(["git", "grep", "--no-index", "--exclude-standard", "-IlP", pattern, "--", *folders],
                            cwd=ROOT, capture_output=True, text=True)
    assert not result.stderr, result.stderr
    return result.stdout.splitlines()


class SourceRules(unittest.TestCase):
    def test_calls_in_their_place(self):
        for rule, allowed, pattern in RULES:
            files = found(r"^(?!\s*(?://|/?\*)).*" + pattern, "include", "interface", "src", "engine")
            self.assertEqual([path for path in files if not path.startswith(tuple(allowed))], [], rule)
            self.assertTrue(files or not allowed, rule)

    def test_no_paths_of_one_machine(self):
        self.assertEqual(found(ABSOLUTE_PATH), [])


@unittest.skipUnless((BUILD / "lib/sonetrix.so").exists(), "nothing has been built")
class BinaryContract(unittest.TestCase):
    @staticmethod
    def symbols(library, option):
        output = subprocess.run(["nm", "-D", "--format=posix", option, BUILD / library], check=True,
                                capture_output=True, text=True).stdout
        return {line.split()[0].split("@")[0] for line in output.splitlines()}

    def test_exports_and_needs(self):
        header = re.sub(r"/\*.*?\*/", "", (ROOT / "include/sonetrix/engine_api.h").read_text(), flags=re.S)
        interface = set(re.findall(r"\b(sonetrix_\w+)\(", header)) - EXPORTS
        self.assertGreater(len(interface), 80)
        self.assertEqual(self.symbols("lib/sonetrix.so", "--defined-only"), EXPORTS)
        wanted = {name for name in self.symbols("lib/sonetrix.so", "--undefined-only") if name.startswith("sonetrix_")}
        self.assertEqual((len(wanted) > 50, wanted - interface), (True, set()))
        for engine in "lib/libsonetrix_engine.so", "tests/libsonetrix_record.so":
            self.assertEqual(interface - self.symbols(engine, "--defined-only"), set(), engine)
        dynamic = subprocess.run(["readelf", "-dW", BUILD / "lib/sonetrix.so"], check=True, capture_output=True,
                                 text=True)
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic.stdout)
        system = r"(libpython3\.\d+d?|libstdc\+\+|libm|libc|libgcc_s|ld-linux-[\w-]+|lib[at]san|libubsan)\.so"
        self.assertEqual([name for name in needed if not re.match(system, name)], [])
        self.assertTrue(any(name.startswith("libpython3.") for name in needed), needed)
