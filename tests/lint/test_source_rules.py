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
ABSOLUTE_PATH = re.compile(r"(?<![\w.}~)*-])/(?:ro" r"ot|ho" r"me|wo" r"rk|Us" r"ers|m" r"nt)/\w")


def files(*folders, ending=r"\.(cpp|h)$"):
    for folder in folders or ["."]:
        for directory, names, entries in os.walk(ROOT / folder):
            names[:] = [name for name in names if name not in (".git", "build", "__pycache__")]
            for path in (pathlib.Path(directory, entry) for entry in entries if re.search(ending, entry)):
                yield path.relative_to(ROOT).as_posix(), path.read_text(errors="replace")


def without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", lambda match: re.sub(r"[^\n]", " ", match.group()), text, flags=re.S)


class SourceRules(unittest.TestCase):
    def test_calls_in_their_place(self):
        sources = {path: without_comments(text) for path, text in files("include", "interface", "src", "engine")}
        self.assertGreater(len(sources), 10)
        for rule, allowed, pattern in RULES:
            found = [path for path, text in sources.items() if re.search(pattern, text)]
            self.assertEqual([path for path in found if not path.startswith(tuple(allowed))], [], rule)
            self.assertTrue(found or not allowed, rule)

    def test_no_paths_of_one_machine(self):
        own = files(ending=r"\.(cpp|h|c|py|pyi|md|txt|cmake|json|map|supp|sh|dot)$|^[^.]+$|^\.(clang-|gitignore)")
        self.assertEqual([path for path, text in own if ABSOLUTE_PATH.search(text)], [])


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
