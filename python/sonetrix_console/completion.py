"""Completion: names and attributes, imports, and inside strings by the call that the string stands in: ports, modules,
plugins, parameters, elsewhere files."""

import __main__

import glob
import os
import pkgutil
import re
import rlcompleter
import sys
from collections.abc import Callable, Iterable

from sonetrix import engine

from . import words

_SOURCES: dict[str, Callable[[], Iterable[str]]] = {
    "port": lambda: words.names(engine.getPortNames()),
    "module": lambda: words.names(engine.getModuleNames()),
    "plugin": lambda: words.names(engine.listAvailableModules()),
    "parameter": words.parameter_names,
    "meter": lambda: words.names(engine.getLastMeter().toDict()),
}
# What the arguments of a call name, in order; the last one goes for all that follow.
_ARGUMENTS = {
    "link": ["port"], "getLink": ["port"], "meters": ["port"],
    "connect": ["module port"], "disconnect": ["module port"],
    "delModule": ["module"], "delete": ["module"], "getMeters": ["module"],
    "newModule": ["", "plugin"], "create": ["", "plugin"], "info": ["module plugin"], "plugins": ["plugin"],
    "getParam": ["parameter"], "append": ["parameter", ""], "remove": ["parameter"],
    "get": ["parameter"], "put": ["parameter", ""], "ramp": ["parameter", ""],
    "getLastMeter": ["module meter"], "delDebugMeter": ["module meter"],
}
_TOKEN = re.compile(
    r"""(?P<closed>"(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)*')|(?P<open>["'])|(?P<name>\w+)|(?P<mark>[][(){},])|."""
)
_IMPORT = re.compile(r"\s*(?:import\s+(?:[\w.]+\s*,\s*)*|from\s+)([\w.]*)$")
_IMPORT_FROM = re.compile(r"\s*from\s+([\w.]+)\s+import\s+(?:\w+\s*,\s*)*(\w*)$")


def open_string(line: str) -> tuple[str, int, str, str] | None:
    """Of the string that the line ends within: its call, the number of the argument, the quote, the text so far.

    >>> open_string("engine.link('tone:output', 'ga")
    ('link', 1, "'", 'ga')
    """
    calls = [("", 0)]
    name = ""
    for token in _TOKEN.finditer(line):
        if token["open"]:
            return *calls[-1], token[0], line[token.end():]
        if token["mark"] == "(":
            calls.append((name, 0))
        elif token[0] in ("[", "{"):
            calls.append(calls[-1])  # a list of names goes for one name
        elif token["mark"] == ",":
            calls[-1] = calls[-1][0], calls[-1][1] + 1
        elif token["mark"]:
            calls = calls[:-1] or [("", 0)]
        if not token[0].isspace():
            name = token["name"] or ""
    return None


def _files(part: str) -> list[str]:
    found = glob.glob(glob.escape(os.path.expanduser(part)) + "*")
    files = sorted(part + path[len(os.path.expanduser(part)):] + "/" * os.path.isdir(path) for path in found)
    # What is in a folder rather than the folder, behind which line editing would close the string.
    return _files(files[0]) or files if len(files) == 1 and files[0].endswith("/") and "/" not in part else files


def _in_string(call: str, argument: int, quote: str, part: str) -> list[str]:
    if call in _ARGUMENTS:
        kinds = _ARGUMENTS[call][min(argument, len(_ARGUMENTS[call]) - 1)]
        found = sorted({name for kind in kinds.split() for name in _SOURCES[kind]() if name.startswith(part)})
    else:
        found = _files(part)
    # Line editing closes the string itself when it takes all of it for the word.
    closed = len(found) == 1 and not found[0].endswith("/") and re.search(r"[:/\s-]", part)
    return [found[0] + quote] if closed else found


def _modules_to_import(part: str) -> list[str]:
    package, dot, begin = part.rpartition(".")
    if package and not hasattr(sys.modules.get(package), "__path__"):
        return []
    found = {module.name for module in pkgutil.iter_modules(sys.modules[package].__path__ if package else None)}
    found.update(sys.builtin_module_names if not package else ())
    return sorted(package + dot + name for name in found if name.startswith(begin))


class _Names(rlcompleter.Completer):
    """Without a parenthesis behind a class: `engine` goes on with a full stop."""

    def _callable_postfix(self, value: object, word: str) -> str:
        return f"{word}(" if callable(value) and not isinstance(value, type) else word


_names = _Names(__main__.__dict__)


def candidates(line: str, word: str) -> list[str]:
    """What can stand in place of the word that the line ends with."""
    if string := open_string(line):
        begin = len(string[3]) - len(word)  # line editing splits words at ":" and "/"
        return [name[begin:] for name in _in_string(*string)]
    if match := _IMPORT_FROM.match(line):
        module = sys.modules.get(match[1])
        parts = (name.rpartition(".")[2] for name in _modules_to_import(f"{match[1]}."))
        names = {*dir(module), *parts} if module else set()
        return sorted(name for name in names if name.startswith(match[2]) and (match[2] or name[0] != "_"))
    if match := _IMPORT.match(line):
        return [name[len(match[1]) - len(word):] for name in _modules_to_import(match[1])]
    matches = [] if line.strip() else ["    "]
    while line.strip() and (name := _names.complete(word, len(matches))) is not None:
        matches.append(name)
    return matches
