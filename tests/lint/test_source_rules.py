"""Rules about the sources that a search can check; what the built library exports and needs."""

import os
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBRARY = pathlib.Path(os.environ.get("SONETRIX_BUILD", ROOT / "build/release"), "lib/sonetrix.so")
# Folders of a particular machine.
ABSOLUTE_PATH = r"(?<![\w.}~)*-])/(ro[o]t|ho[m]e|wo[r]k|Us[e]rs|m[n]t)/\w"


def output(*command):
    return subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True).stdout


def found(pattern, *where):
    return output("grep", "-rlIP", "--exclude-dir=.git", "--exclude-dir=build", "--", pattern, *where).split()


class SourceRules(unittest.TestCase):
    def test_what_stays_in_its_place(self):
        mechanics = "interface/sonetrix/python/"
        for rule, place, pattern in (
                ("Python.h has one point of entry", mechanics + "python.h", r"#\s*include\s*[<\"]Python\.h"),
                ("references are counted by the owning type", mechanics + "ref.h", r"\bPy_X?(INCREF|DECREF)\b"),
                ("raw lock calls stay with the lock's guards", mechanics,
                 r"\b(PyEval_(Save|Restore)Thread|PyGILState_\w+|Py_(BEGIN|END)_ALLOW_THREADS)\b")):
            paths = found(pattern, "include", "interface", "src", "engine")
            self.assertTrue(paths, rule)
            self.assertEqual([path for path in paths if not path.startswith(place)], [], rule)

    def test_no_paths_of_one_machine(self):
        self.assertEqual(set(found(ABSOLUTE_PATH, ".")) - {"./.git"}, set())


@unittest.skipUnless(LIBRARY.exists(), "nothing has been built")
class BinaryContract(unittest.TestCase):
    def test_exports_and_needs(self):
        exports = [line.split()[0] for line in output("nm", "-D", "-P", "--defined-only", LIBRARY).splitlines()]
        self.assertEqual(exports, ["PyInit_sonetrix", "sonetrix_engineCliCostructor"])
        needed = " ".join(re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "-dW", LIBRARY)))
        system = r"libstdc\+\+|libm|libc|libgcc_s|ld-linux-[\w-]+|lib[at]san|libubsan"
        self.assertRegex(needed, rf"^(({system})\.so\S* )*libpython3\.\d+d?\.so\S*( ({system})\.so\S*)*$")
