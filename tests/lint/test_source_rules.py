"""Rules about the sources that a search can check."""

import os
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
MECHANICS = "interface/sonetrix/python/"

# What, where it may occur (beginnings of paths), and the pattern; over all C and C++ sources.
RULES = [
    ("Python.h has one point of entry", [MECHANICS + "python.h"], r"#\s*include\s*[<\"]Python\.h"),
    ("raw lock calls stay with the lock's guards", [MECHANICS],
     r"\b(PyEval_SaveThread|PyEval_RestoreThread|PyGILState_\w+|Py_BEGIN_ALLOW_THREADS|Py_END_ALLOW_THREADS)\b"),
    ("references are counted by the owning type", [MECHANICS + "ref.h"], r"\bPy_X?(INCREF|DECREF)\b"),
    ("no goto", [], r"\bgoto\b"),
]
SOURCE_FOLDERS = ("include", "interface", "src", "engine")
OWN_FILES = re.compile(r"\.(cpp|h|c|py|pyi|md|txt|cmake|json|map|supp|sh|dot)$|^[^.]+$|^\.(clang-|gitignore)")
# Folders of a particular machine; split, so that this file does not break the rule itself.
ABSOLUTE_PATH = re.compile(r"(?<![\w.}~)*-])/(?:ro" r"ot|ho" r"me|wo" r"rk|Us" r"ers|m" r"nt)/\w")


def files(*folders):
    for folder in folders or ["."]:
        for directory, names, entries in os.walk(ROOT / folder):
            names[:] = [name for name in names if name not in (".git", "build", "__pycache__")]
            for entry in entries:
                yield (pathlib.Path(directory) / entry).relative_to(ROOT).as_posix()


def without_comments(text):
    blank = lambda match: re.sub(r"[^\n]", " ", match.group())
    return re.sub(r"//[^\n]*|/\*.*?\*/", blank, text, flags=re.S)


def findings(paths, pattern, prepare=lambda text: text):
    for path in paths:
        text = prepare((ROOT / path).read_text(errors="replace"))
        for match in re.finditer(pattern, text):
            line = text.count("\n", 0, match.start()) + 1
            yield f"{path}:{line}: {match.group().strip()}"


class SourceRules(unittest.TestCase):
    def setUp(self):
        self.sources = [path for path in files(*SOURCE_FOLDERS) if path.endswith((".cpp", ".h"))]

    def test_there_is_something_to_check(self):
        self.assertGreater(len(self.sources), 10)
        self.assertEqual(list(findings([MECHANICS + "python.h"], RULES[0][2]))[1:], [])

    def test_calls_in_their_place(self):
        for rule, allowed, pattern in RULES:
            with self.subTest(rule):
                elsewhere = [path for path in self.sources if not path.startswith(tuple(allowed))]
                self.assertEqual(list(findings(elsewhere, pattern, without_comments)), [])

    def test_the_engine_knows_no_python(self):
        self.assertEqual(list(findings(files("engine"), r"\bPy[A-Z]\w*_\w+|\bPyObject\b", without_comments)), [])

    def test_headers_have_a_guard(self):
        headers = [path for path in self.sources if path.endswith(".h")]
        bare = [path for path in headers if not re.search(r"^#(pragma once|ifndef SONETRIX_)",
                                                          (ROOT / path).read_text(), re.M)]
        self.assertEqual(bare, [])

    def test_no_paths_of_one_machine(self):
        own = [path for path in files() if OWN_FILES.search(pathlib.PurePath(path).name)]
        self.assertEqual(list(findings(own, ABSOLUTE_PATH)), [])


if __name__ == "__main__":
    unittest.main()
