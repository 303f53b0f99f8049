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

try:
    import readline
except ImportError:
    readline = None  # type: ignore[assignment]

_Source = Callable[[], list[str]]


def _ports() -> list[str]:
    return words.names(engine.getPortNames())


def _modules() -> list[str]:
    return words.names(engine.getModuleNames())


def _plugins() -> list[str]:
    return words.names(engine.listAvailableModules())


def _parameters() -> list[str]:
    return words.parameter_names()


def _meters() -> list[str]:
    return _modules() + words.names(engine.getLastMeter().toDict())


# What the arguments of a call name, in order; the last one goes for all that follow.
_ARGUMENTS: dict[str, tuple[_Source, ...]] = {
    "link": (_ports,), "getLink": (_ports,),
    "connect": (lambda: _modules() + _ports(),), "disconnect": (lambda: _modules() + _ports(),),
    "delModule": (_modules,), "delete": (_modules,),
    "newModule": (list, _plugins), "create": (list, _plugins),
    "info": (lambda: _modules() + _plugins(),), "plugins": (_plugins,),
    "getParam": (_parameters,), "append": (_parameters, list), "remove": (_parameters,),
    "get": (_parameters,), "put": (_parameters, list), "ramp": (_parameters, list),
    "getLastMeter": (_meters,), "delDebugMeter": (_meters,), "getMeters": (_modules,), "meters": (_ports,),
}
_TOKEN = re.compile(
    r"""(?P<closed>"(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)*')|(?P<open>["'])|(?P<name>\w+)|(?P<mark>[][(){},])|."""
)
_IMPORT = re.compile(r"\s*(?:import\s+(?:[\w.]+\s*,\s*)*|from\s+)([\w.]*)$")
_IMPORT_FROM = re.compile(r"\s*from\s+([\w.]+)\s+import\s+(?:\w+\s*,\s*)*(\w*)$")


def open_string(line: str) -> tuple[str, int, str, str] | None:
    """Of the string that the line ends within: the call that it stands in, the number of the argument, the quote, the
    text so far.

    >>> open_string("engine.link('tone:output', 'ga")
    ('link', 1, "'", 'ga')
    """
    calls = [("", 0)]
    name = ""
    for token in _TOKEN.finditer(line):
        if token["open"]:
            return *calls[-1], token[0], line[token.end():]
        if token["mark"]:
            if token["mark"] == "(":
                calls.append((name, 0))
            elif token["mark"] in "[{":
                calls.append(calls[-1])  # a list of names goes for one name
            elif token["mark"] != ",":
                calls = calls[:-1] or [("", 0)]
            else:
                calls[-1] = calls[-1][0], calls[-1][1] + 1
        if not token[0].isspace():
            name = token["name"] or ""
    return None


def _files(part: str) -> list[str]:
    found = glob.glob(glob.escape(os.path.expanduser(part)) + "*")
    files = sorted(part + path[len(os.path.expanduser(part)):] + "/" * os.path.isdir(path) for path in found)
    # What is in a folder rather than the folder, behind which line editing would close the string.
    return _files(files[0]) or files if len(files) == 1 and files[0].endswith("/") and "/" not in part else files


def _in_string(call: str, argument: int, quote: str, part: str) -> list[str]:
    sources = _ARGUMENTS.get(call)
    if sources is None:
        found = _files(part)
    else:
        found = sorted({name for name in sources[min(argument, len(sources) - 1)]() if name.startswith(part)})
    # Line editing closes the string itself when it takes all of it for the word.
    closed = len(found) == 1 and not found[0].endswith("/") and re.search(r"[:/\s-]", part)
    return [found[0] + quote] if closed else found


def _modules_to_import(part: str) -> list[str]:
    package, _, begin = part.rpartition(".")
    path = None
    if package:
        path = getattr(sys.modules.get(package), "__path__", None)
        if path is None:
            return []
    found = {module.name for module in pkgutil.iter_modules(path)}
    if not package:
        found.update(sys.builtin_module_names)
    return sorted(f"{package}.{name}" if package else name for name in found if name.startswith(begin))


class _Names(rlcompleter.Completer):
    """Without a parenthesis behind a class: `engine` goes on with a full stop."""

    def _callable_postfix(self, value: object, word: str) -> str:
        return word if isinstance(value, type) else f"{word}("


_names = _Names(__main__.__dict__)


def candidates(line: str, word: str) -> Iterable[str]:
    """What can stand in place of the word that the line ends with."""
    if string := open_string(line):
        found = _in_string(*string)
        begin = len(string[3]) - len(word)  # line editing splits words at ":" and "/"
        return [name[begin:] for name in found]
    if match := _IMPORT_FROM.match(line):
        module = sys.modules.get(match[1])
        parts = (name.rpartition(".")[2] for name in _modules_to_import(f"{match[1]}."))
        names = {*dir(module), *parts} if module else set()
        return sorted(name for name in names if name.startswith(match[2]) and (match[2] or name[0] != "_"))
    if match := _IMPORT.match(line):
        return [name[len(match[1]) - len(word):] for name in _modules_to_import(match[1])]
    if not line.strip():
        return ["    "]
    matches: list[str] = []
    while (match_ := _names.complete(word, len(matches))) is not None:
        matches.append(match_)
    return matches


class Completer:
    """For `readline.set_completer`."""

    def __init__(self) -> None:
        self._found: list[str] = []

    def __call__(self, word: str, state: int) -> str | None:
        if state == 0:
            try:
                self._found = list(candidates(readline.get_line_buffer()[:readline.get_endidx()], word))
            except Exception:  # an error at a key is of no use to anybody
                self._found = []
        return self._found[state] if state < len(self._found) else None


def install() -> None:
    """Turns completion on, where there is line editing."""
    if readline is None:
        return
    editline = "libedit" in (readline.__doc__ or "")
    readline.parse_and_bind("bind ^I rl_complete" if editline else "tab: complete")
    readline.parse_and_bind("set show-all-if-ambiguous on")
    readline.set_completer(Completer())
