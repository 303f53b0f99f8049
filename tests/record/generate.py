"""Writes a wrapper around every function of the engine's interface, from its header:

    generate.py HEADER OUTPUT

It notes the arguments that go in: what a function fills in, callbacks and their user data are left out; of lists and
values, which the engine behind the layer can tell more of, there is the address.
"""

import pathlib
import re
import sys

FUNCTION = re.compile(r"^(?!typedef)([\w ]+[ *]+?)((?:sonetrix|record)_\w+|readMeters)\(([^;{}]*?)\)\s*;", re.MULTILINE)
FILLED_IN = re.compile(r"(?<!const )\b(float|uint32_t|struct timespec|sonetrix_value_t|sonetrix_readMeters_t) \*|\*\*")
BY_HAND = "sonetrix_log"  # takes any number of arguments
READ_METERS = """
sonetrix_cListKeyValue_t *readMeters(sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type);
"""
# The interpreter lock is held in these, and may be so in those: what the module initialises for itself, what the
# console's host does on its own account, and the log of a thread that has come in with it. In all others it is not.
HELD = re.compile("sonetrix_(valueList|keyValueList|clock_)")
EITHER = re.compile("sonetrix_(valueInit|valueDeinit|malloc|free|log_LogString)")
# What is done where it is not the engine's own function: nothing happens by itself, the engine says that it runs and
# every driver that it is loaded, and what would go to the console or to the system's log goes nowhere.
DONE = {
    **dict.fromkeys(("sonetrix_log_" + name for name in ("LogString", "time", "file_time", "filename", "syslog",
                                                         "journald")), "void()"),
    "sonetrix_memory_rt_inspect": "void()",
    "sonetrix_engine_IsRunning": "1",
    "sonetrix_engine_DriverIsLoaded": "reference != nullptr",
    "sonetrix_engine_registerMeterManager": "(*read = readMeters, 0)",
    "readMeters": "nullptr",
    "sonetrix_engine_notify_changes_addCallback": "addRegistration(Kind::Changes, callback, user)",
    "sonetrix_engine_addCallbackMeterManager":
        "addRegistration(type == SONETRIX_METERS_SLOW ? Kind::SlowMeters : Kind::FastMeters, callback, user)",
    "sonetrix_engine_addTimer":
        "addRegistration(Kind::Timer, [callback](auto *, void *its) { callback(its); }, user)",
    **dict.fromkeys(("sonetrix_engine_" + name for name in ("notify_changes_rmCallback", "rmCallbackMeterManager",
                                                            "delTimer")), "removeRegistration(handle)"),
    **dict.fromkeys(("sonetrix_valueListDestroy", "sonetrix_keyValueListDestroy"),
                    "(void(lists -= list != nullptr), next(list))"),
}


def functions(header):
    """(result type, name, [(parameter's type, its name)]) of each."""
    text = re.sub(r"/\*.*?\*/|//.*?$|^#.*?$|__attribute__\(\(.*?\)\)\)?", "", header, flags=re.DOTALL | re.MULTILINE)
    for result, name, parameters in FUNCTION.findall(text):
        words = [" ".join(word.split()) for word in parameters.split(",") if word not in ("", "void", " ...")]
        if name not in (BY_HAND, "sonetrix_engineCliCostructor"):
            yield result.strip(), name, [re.fullmatch(r"(.*?)(\w+)", word).groups() for word in words]


def wrapper(result, function, parameters):
    declared = ", ".join(kind + name for kind, name in parameters)
    passed = ", ".join(name for _, name in parameters)
    lock = "Held" if HELD.match(function) else "Either" if EITHER.match(function) else "Released"
    note = "".join(f' + literal({name}) + ","' for kind, name in parameters
                   if name not in ("user", "written") and "Callback_t" not in kind and not FILLED_IN.search(kind))
    read = [f"size({name})" for kind, name in parameters
            if "_cList" in kind and ("const" in kind or function.endswith("ListForEach"))]
    done = DONE.get(function, f"next({passed})")
    answer = f"{done}; return int64_t()" if result == "void" else f"return word<{result}>({done})"
    handed_over = [f"*{name} != nullptr" for kind, name in parameters if kind.endswith("**") and "List" in kind]
    if "List" in result and not function.endswith("getStartParameter"):  # the engine keeps that
        handed_over.append("given != 0")
    return f"""
{result} {function}({declared}) {{
    [[maybe_unused]] static auto *const next = found<decltype({function})>("{function}", RTLD_NEXT);
    const int64_t words[] = {{{"".join(f"word({name}), " for _, name in parameters)}0}};
    const int64_t given = recorded({{"{function}", Lock::{lock}, words,
        std::string(){note}, [&] {{ return {read[0] if read else 0}; }}, [&] {{ {answer}; }}}});
    {" ".join(f"lists += {one};" for one in handed_over)}
    return as<{result}>(given);
}}"""


def main(header, output):
    every = functions(pathlib.Path(header).read_text() + READ_METERS)
    pathlib.Path(output).write_text("\n".join((
        '#include "record.h"\n', "using namespace sonetrix::record;", *(wrapper(*function) for function in every), "")))


if __name__ == "__main__":
    main(*sys.argv[1:])
