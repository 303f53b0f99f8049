"""What the built libraries export and need, against the interface header."""

import re
import subprocess
import unittest

from support import BUILD, RECORD, MODULE, SANITIZER, SOURCE

EXPORTS = {"sonetrix_engineCliCostructor", "PyInit_sonetrix"}


def symbols(library, *options):
    output = subprocess.run(["nm", "-D", "--format=posix", *options, library], check=True, capture_output=True, text=True)
    return {line.split()[0].split("@")[0] for line in output.stdout.splitlines()}


def dynamic_section(library):
    output = subprocess.run(["readelf", "-dW", library], check=True, capture_output=True, text=True).stdout
    return re.findall(r"\((\w+)\)\s+(.*)", output)


def interface():
    text = re.sub(r"/\*.*?\*/", "", (SOURCE / "include/sonetrix/engine_api.h").read_text(), flags=re.S)
    return set(re.findall(r"\b(sonetrix_\w+)\(", text)) - EXPORTS


class BinaryContract(unittest.TestCase):
    def test_the_module_exports_two_names(self):
        self.assertEqual(symbols(MODULE, "--defined-only"), EXPORTS)

    def test_the_module_needs_only_the_interpreter_and_the_system(self):
        entries = dynamic_section(MODULE)
        needed = [re.search(r"\[(.*)\]", value).group(1) for tag, value in entries if tag == "NEEDED"]
        allowed = r"(libpython3\.\d+d?|libstdc\+\+|libm|libc|libgcc_s|ld-linux-[\w-]+)\.so"
        if SANITIZER:
            allowed = allowed[:-5] + r"|lib[at]san|libubsan)\.so"
        self.assertEqual([name for name in needed if not re.match(allowed, name)], [])
        self.assertTrue(any(name.startswith("libpython3.") for name in needed), needed)
        self.assertNotIn("SONAME", [tag for tag, _ in entries])

    def test_the_module_asks_for_nothing_beyond_the_interface(self):
        wanted = {name for name in symbols(MODULE, "--undefined-only") if name.startswith("sonetrix_")}
        self.assertGreater(len(wanted), 50)
        self.assertEqual(wanted - interface(), set())

    def test_the_engines_have_the_whole_interface(self):
        self.assertGreater(len(interface()), 80)
        for library in (BUILD / "lib" / "libsonetrix_engine.so", RECORD):
            with self.subTest(library.name):
                self.assertEqual(interface() - symbols(library, "--defined-only"), set())


if __name__ == "__main__":
    unittest.main()
