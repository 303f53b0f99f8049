"""Short words for the prompt and for scripts. They take and give `str`, and say why when something cannot be done."""

import collections
import contextlib
import contextvars
import ctypes
import difflib
import os
import pathlib
import sys
from collections.abc import Iterable, Iterator, Mapping, Sequence
from typing import Any, TypeAlias

import sonetrix
from sonetrix import engine, listKeyValue

Value: TypeAlias = int | float | str | tuple[int, ...] | tuple[float, ...]
# A module as state() shows it: parameters and controls without the module's name, ports with it; of each source the
# sinks that it feeds, of each sink the source that feeds it.
ModuleState: TypeAlias = dict[str, Any]


class Refused(Exception):
    """What the engine does not do, and why."""

    __module__ = __package__


class Unknown(Refused, LookupError):
    """A name that does not exist."""

    __module__ = __package__


class Unfit(Refused, TypeError):
    """A value that is not of a parameter's type."""

    __module__ = __package__


MADE = 1  # the type of a module that was made of a plugin
_SELECTORS = {"aint32": "int", "auint32": "uint", "afloat": "float"}
_made_of: dict[str, str] = {}  # the plugins of modules, for engines that do not tell
_spaces: dict[str, dict[str, Any]] = {}  # of files that were run: what they have made lives in there


def text(value: Any, kind: str = "") -> Any:
    """A value of the engine, and all within it, with `str` for `bytes`, and floats of the kind "float", which has 32
    bits, as short as can be."""
    if isinstance(value, bytes):
        return value.decode(errors="replace")
    if isinstance(value, float) and kind in ("float", "afloat"):
        shorter = (float(f"{value:.{digits}g}") for digits in range(1, 9))
        return next((short for short in shorter if ctypes.c_float(short).value == value), value)
    if isinstance(value, Mapping):
        return {text(key): text(element, kind) for key, element in value.items()}
    if isinstance(value, (list, tuple)):
        elements = [text(element, kind) for element in value]
        return elements if isinstance(value, list) else tuple(elements)
    return value


def names(of: Iterable[bytes]) -> list[str]:
    """Names from the engine as `str`."""
    return [name.decode(errors="replace") for name in of]


def _parameters(key: str) -> dict[str, Any]:
    return {text(name): text(*typed) for name, typed in engine.getParam(key).toDictType().items()}


def parameter_names() -> list[str]:
    """The names of all parameters, those of plugins left out."""
    return names(engine.getParam(("engine.", *(name + b"." for name in engine.getModuleNames()))).toDict())


def _check_known(what: str, name: str, known: Iterable[str]) -> None:
    """Raises, with the name that may have been meant."""
    if name not in (known := list(known)):
        near = "".join(f"; did you mean {other!r}?" for other in difflib.get_close_matches(name, known, 1))
        raise Unknown(f"there is no {what} {name!r}{near}")


def _check_done(status: int, what: str) -> None:
    if status:
        raise Refused(f"the engine refuses to {what} (status {status})")


def get(key: str) -> Any:
    """The value of a parameter; of a module with a full stop, the values of all of its parameters.

    >>> get('gain.gain')
    0.25
    >>> get('gain.')
    {'gain.gain': 0.25}
    """
    found = _parameters(key)
    if key.endswith("."):
        if not found:
            _check_known("module", key[:-1], names(engine.getModuleNames()))
        return found
    _check_known("parameter", key, found or parameter_names())
    return found[key]


def put(key: str, value: Value) -> None:
    """Sets a parameter, whatever its type. Raises with the reason when the engine refuses.

    >>> put('gain.gain', 1)
    """
    typed = engine.getParam(key).toDictType()
    _check_known("parameter", key, names(typed) or parameter_names())
    if not engine.setParams(_entry(key, value, typed[key.encode()][1])).toDict():
        raise Refused(f"the engine refuses {key} = {value!r}{_reason(key)}")


def _entry(key: str, value: Any, kind: str) -> listKeyValue:
    number = float if kind in ("float", "double", "afloat") else int
    try:
        if kind in _SELECTORS:
            value = tuple(map(number, value))
        elif kind != "string":
            value = _number(value) if isinstance(value, str) else value
            value = number(value) if number(value) == value else value
        return listKeyValue().append(key, value, _SELECTORS.get(kind, kind))
    except Exception:  # append's own are not of a narrower kind
        raise Unfit(f"{key} takes a value of type {kind}, not {value!r}") from None


def _number(written: str) -> int | float:
    with contextlib.suppress(ValueError):
        return int(written, 0)  # exact, and 0x10
    return float(written)


def _reason(key: str) -> str:
    module, _, control = key.partition(".")
    limits = describe(_parameters(f"{module}.plugin").get(f"{module}.plugin", "")).get(control, {})
    return f": it takes {_range(limits)} {limits.get('unit', '')}".rstrip() if _range(limits) else ""


def _range(control: dict[str, Any]) -> str:
    if "minimum" not in control or "maximum" not in control:
        return ""
    least = f"{control['minimum']:g}"
    return f"{least} to {control['maximum']:g}" if control["maximum"] < 3.4e38 else f"at least {least}"


def describe(plugin: str) -> dict[str, dict[str, Any]]:
    """What the engine tells of a plugin: minimum, maximum, default and unit of each control; of "", title and ports."""
    result: dict[str, dict[str, Any]] = {}
    for key, value in _parameters(f"plugins.{plugin}.").items():
        control, _, what = key.removeprefix(f"plugins.{plugin}.").rpartition(".")
        result.setdefault(control, {})[what] = value
    return result


def modules() -> dict[str, ModuleState]:
    """The modules of the graph, the driver's among them."""
    found: dict[str, ModuleState] = {}
    for module in map(text, engine.getModuleInfos()):
        name = module["name"]
        parameters = {key.removeprefix(f"{name}."): value for key, value in _parameters(f"{name}.").items()}
        found[name] = {
            "type": module["type"],
            "plugin": parameters.pop("plugin", _made_of.get(name)),
            "library": module.get("library"),
            "configuration": text(module.get("configuration", {}), "float"),  # their types are not told
            "parameters": parameters,
            "sources": {port["name"]: [] for port in module.get("src", ())},
            "sinks": {port["name"]: port.get("link") for port in module.get("sink", ())},
        }
    for sink, source in links(found).items():
        for module in found.values():
            module["sources"].get(source, []).append(sink)
    return found


def state() -> dict[str, Any]:
    """The whole graph as plain data, which `json` takes.

    >>> state()['modules']['gain']['parameters']
    {'gain': 0.25}
    """
    driver = engine.getDriverName() if engine.hasDriver() else None
    return {"driver": driver, "rate": engine.getFrameRate() if driver else 0, "modules": modules()}


def links(of: dict[str, ModuleState]) -> dict[str, str]:
    """The links among modules: of each linked sink its source."""
    return {sink: source for module in of.values() for sink, source in module["sinks"].items() if source}


def _ports(name: str, of: dict[str, ModuleState], *kinds: str) -> list[str]:
    """The module's ports of these kinds in order, or the port alone."""
    if name in of:
        return [port for kind in kinds for port in of[name][kind]]
    what = kinds[0].removesuffix("s") if len(kinds) == 1 else "port"
    ports = (port for module in of.values() for kind in kinds for port in module[kind])
    _check_known(f"module or {what}", name, [*of, *ports])
    return [name]


def connect(source: str, sink: str, replace: bool = False) -> list[tuple[str, str]]:
    """Links a source port to a sink port; given modules, their ports in order, and a lone source to every sink. What is
    linked already stays. With `replace` a link takes the place of the one that feeds its sink. Returns the new links.

    >>> connect('tone', 'gain')
    [('tone:output', 'gain:input')]
    """
    there = modules()
    sources, sinks = _ports(source, there, "sources"), _ports(sink, there, "sinks")
    if not sources or not sinks:
        raise Refused(f"{source!r} has no sources" if not sources else f"{sink!r} has no sinks")
    fed = links(there)
    pairs = zip(sources * len(sinks) if len(sources) == 1 else sources, sinks)
    new = [(by, port) for by, port in pairs if fed.get(port) != by]
    taken = [f"{port} by {fed[port]}" for _, port in new if port in fed]
    if taken and not replace:
        raise Refused(f"fed already: {', '.join(taken)}; connect(..., replace=True) takes the place of what is there")
    for by, port in new:
        if port in fed:
            _unlink(port)
        _check_done(engine.link(by, port), f"link {by!r} to {port!r}")
    return new


def _unlink(sink: str) -> None:
    _check_done(engine.link(sink), f"unlink {sink!r}")


def disconnect(first: str, second: str | None = None) -> list[tuple[str, str]]:
    """Removes the links of a module or a port, with a second one only those between the two. Returns them.

    >>> disconnect('tone', 'gain')
    [('tone:output', 'gain:input')]
    """
    there = modules()
    ends = [set(_ports(name, there, "sources", "sinks")) for name in (first, second) if name is not None]
    removed = [(by, port) for port, by in links(there).items() if all(ports & {by, port} for ports in ends)]
    for _, port in removed:
        _unlink(port)
    return removed


def create(name: str, plugin: str, **configuration: Value) -> None:
    """Makes a module.

    >>> create('tone', 'sine_fcac', frequency=440)
    """
    entries = listKeyValue().appendFromDict(configuration) if configuration else None
    if status := engine.newModule(name, plugin, entries):
        _check_known("plugin", plugin, names(engine.listAvailableModules()))
        if name in names(engine.getModuleNames()):
            raise Refused(f"there is a module {name!r} already")
        _check_done(status, f"make {name!r} from {plugin!r}")
    _made_of[name] = plugin


def delete(name: str) -> None:
    """Deletes a module and its links.

    >>> delete('tone')
    """
    if status := engine.delModule(name):
        _check_known("module", name, names(engine.getModuleNames()))
        _check_done(status, f"delete {name!r}")
    _made_of.pop(name, None)


def drawn(fine: str, plain: str) -> str:
    """The first characters, or the second ones where the output is not of Unicode."""
    return fine if (sys.stdout.encoding or "").lower().startswith("utf") else plain


def columns(rows: Sequence[Sequence[object]]) -> list[str]:
    """The rows of a table as lines, without columns that are empty."""
    cells = [[f"{cell:g}" if isinstance(cell, float) else str(cell) for cell in row] for row in rows]
    widths = [max(map(len, column)) for column in zip(*cells)]
    return ["  ".join(f"{cell:{width}}" for cell, width in zip(row, widths) if width).rstrip() for row in cells]


def graph() -> None:
    """Shows modules, their parameters, ports and links.

    >>> graph()
    tone  sine_fcac
    ├─ frequency  440
    └─ output     -> gain:input
    """
    for name, module in modules().items():
        rows = list(module["parameters"].items())
        rows += [(port.partition(":")[2], f"<- {by or 'nothing'}") for port, by in module["sinks"].items()]
        rows += [(port.partition(":")[2], f"-> {', '.join(to) or 'nothing'}") for port, to in module["sources"].items()]
        print(f"{name}  {module['plugin'] or (module['library'] or '').rpartition('/')[2]}".rstrip())
        for number, line in enumerate(columns(rows), 1):
            print(drawn("├─", "|-") if number < len(rows) else drawn("└─", "`-"), line)


def plugins(word: str = "") -> None:
    """Shows the plugins that modules can be made of, those with the word in their name or title.

    >>> plugins('reverb')
    plate  Plate reverb
    """
    titles = _parameters("plugins.")
    found = sorted((name, titles.get(f"plugins.{name}.title", "")) for name in names(engine.listAvailableModules()))
    for line in columns([entry for entry in found if word.lower() in " ".join(entry).lower()]):
        print(line)


def info(name: str) -> None:
    """Shows what a plugin has, or a module: ports, controls, ranges, units and, of a module, values.

    >>> info('sine_fcac')
    sine_fcac: Sine Oscillator (Freq:control, Amp:control)
      ...
      frequency  0 to 24000  Hz    440
    """
    there = modules()
    module = there.get(name)
    _check_known("module or plugin", name, [*there, *names(engine.listAvailableModules())])
    plugin = module["plugin"] if module else name
    described = describe(plugin) if plugin else {}
    about = described.pop("", {})
    heading = f"{name}, of {plugin}" if module and plugin else name
    print(f"{heading}: {about['title']}" if about.get("title") else heading)
    for side in ("sinks", "sources"):
        ports = list(module[side]) if module else about.get(side, "").split()
        print(f"  {side}: {', '.join(ports) or 'none'}")
    values = module["parameters"] if module else {}
    rows: list[Sequence[object]] = [("control", "value" if module else "", "range", "unit", "default")]
    for key in dict.fromkeys([*described, *values]):
        control = described.get(key, {})
        rows.append((key, values.get(key, ""), _range(control), control.get("unit", ""), control.get("default", "")))
    for line in columns(rows if len(rows) > 1 else []):
        print(" ", line)


_arguments = contextvars.ContextVar[list[str]]("arguments")  # of the script that a thread runs


class _Arguments(collections.UserList[str]):
    """In the place of sys.argv: for each thread that of the script which it runs, else the program's own."""

    __class__ = list  # type: ignore[assignment]  # is what a copy, a slice or a sum of it shall be

    def __init__(self, own: list[str]) -> None:
        self._own = own

    def _read(self) -> list[str]:
        return _arguments.get(self._own)

    def _write(self, value: list[str]) -> None:  # by += and *=, which have changed it in place
        self._read()[:] = value

    data: Any = property(_read, _write)
    __copy__ = collections.UserList.copy

    def __reduce__(self) -> Any:
        return list, (self.data,)


@contextlib.contextmanager
def script_arguments(*given: str) -> Iterator[None]:
    """These are sys.argv for what this thread does meanwhile."""
    if not isinstance(sys.argv, _Arguments):
        setattr(sys, "argv", _Arguments(sys.argv))
    token = _arguments.set(list(given))
    try:
        yield
    finally:
        _arguments.reset(token)


def run(path: str | os.PathLike[str], *arguments: str) -> None:
    """Runs a file in a namespace of its own. What it makes there stays until the file is run again.

    >>> run('examples/level_meter.py', '2')
    """
    file = os.path.abspath(path)
    code = compile(pathlib.Path(file).read_bytes(), file, "exec", dont_inherit=True)
    space = {name: value for name, value in vars(sonetrix).items() if not name.startswith("_")}
    space.update(__name__="__main__", __file__=file)
    _spaces.pop(file, None)
    _spaces[file] = space
    folder = os.path.dirname(os.path.realpath(file))
    sys.path.insert(0, folder)
    try:
        with script_arguments(str(path), *map(str, arguments)):
            exec(code, space)
    finally:
        with contextlib.suppress(ValueError):
            sys.path.remove(folder)
