"""Writes a wrapper around every function of the engine's interface, from its header:

    generate.py HEADER OUTPUT

It notes the arguments that go in: what a function fills in, callbacks and their user data are left out, and in the
lists' own functions a list is its address.
"""

import pathlib
import re
import sys

FUNCTION = re.compile(r"^(?!typedef)([\w ]+[ *]+?)(sonetrix_\w+|readMeters)\(([^;{}]*?)\)\s*;", re.MULTILINE)
FILLED_IN = re.compile(r"(?<!const )\b(float|uint32_t|struct timespec|sonetrix_value_t|sonetrix_readMeters_t) \*|\*\*")
BY_HAND = "sonetrix_log"  # takes any number of arguments
READ_METERS = """
sonetrix_cListKeyValue_t *readMeters(sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type);
"""


def functions(header):
    """(result type, name, [(parameter's type, its name)]) of each."""
    text = re.sub(r"/\*.*?\*/|^#.*?$|__attribute__\(\(.*?\)\)\)?", "", header, flags=re.DOTALL | re.MULTILINE)
    for result, name, parameters in FUNCTION.findall(text + READ_METERS):
        words = [" ".join(word.split()) for word in parameters.split(",") if word not in ("void", " ...")]
        if name not in (BY_HAND, "sonetrix_engineCliCostructor"):
            yield result.strip(), name, [re.fullmatch(r"(.*?)(\w+)", word).groups() for word in words]


def literals(parameters):
    for kind, name in parameters:
        if name == "elements":
            yield "arrayLiteral(elements, count)"
        elif name in ("list", "other"):
            yield f"literal(static_cast<const void *>({name}))"
        elif not (name in ("user", "written", "count") or "Callback_t" in kind or FILLED_IN.search(kind)):
            yield f"literal({name})"


def wrapper(result, function, parameters):
    declared = ", ".join(kind + name for kind, name in parameters)
    passed = ", ".join(name for _, name in parameters)
    note = " + ".join(text + ' + ","' for text in literals(parameters)) or "std::string()"
    return f"""
{result} {function}({declared}) {{
    return recorded<{function}>([&] {{ return {note}; }}{passed and ", " + passed});
}}"""


def main(header, output):
    every = list(functions(pathlib.Path(header).read_text()))
    names = [f'template <> inline constexpr const char *nameOf<{name}> = "{name}";' for _, name, _ in every]
    pathlib.Path(output).write_text("\n".join((
        '#include "record.h"\n', "namespace sonetrix::record {", *names, "}\n", '#include "quiet_engine.h"\n',
        "using namespace sonetrix::record;", *(wrapper(*function) for function in every), "")))


if __name__ == "__main__":
    main(*sys.argv[1:])
