"""Short words for the prompt and for scripts. They take and give `str`, and say why when something cannot be done."""

import difflib
import os
import pathlib
import struct
import sys
from collections.abc import Iterable
from typing import Any, Literal, TypeAlias, TypedDict

import sonetrix
from sonetrix import engine, listKeyValue

Value: TypeAlias = int | float | str | tuple[int, ...] | tuple[float, ...]


class ModuleState(TypedDict):
    """A module as state() shows it; its parameters and controls without the module's name, its ports with it."""

    type: int
    plugin: str | None
    library: str | None
    configuration: dict[str, Value]
    parameters: dict[str, Value]
    sources: dict[str, list[str]]  # the sinks that each feeds
    sinks: dict[str, str | None]  # the source that feeds it


class State(TypedDict):
    driver: str | None
    rate: int
    modules: dict[str, ModuleState]


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
    """A value of the engine with `str` for `bytes`, and a float of 32 bits as short as it can be written."""
    if isinstance(value, bytes):
        return value.decode(errors="replace")
    if isinstance(value, tuple):
        return tuple(text(element, kind.removeprefix("a")) for element in value)
    if kind == "float" and isinstance(value, float):
        for digits in range(1, 10):
            shorter = float(f"{value:.{digits}g}")
            if abs(shorter) < 3.4e38 and struct.pack("f", shorter) == struct.pack("f", value):
                return shorter
    return value


def names(of: Iterable[Any]) -> list[str]:
    """Names from the engine as `str`."""
    return [name.decode(errors="replace") for name in of]


def _parameters(key: str) -> dict[str, Value]:
    return {text(name): text(*typed) for name, typed in engine.getParam(key).toDictType().items()}


def parameter_names() -> list[str]:
    """The names of all parameters, those of plugins left out."""
    keys = [key for module in engine.getModuleInfos() for key in module["param"]]
    return names([*keys, *engine.getParam("engine.").toDict()])


def unknown(what: str, name: str, known: Iterable[str]) -> Unknown:
    """The error for a name that does not exist, with the one that may have been meant."""
    near = "".join(f"; did you mean {other!r}?" for other in difflib.get_close_matches(name, list(known), 1))
    return Unknown(f"there is no {what} {name!r}{near}")


def get(key: str) -> Any:
    """The value of a parameter; of a module with a full stop, the values of all of its parameters.

    >>> get('gain.gain')
    0.25
    >>> get('gain.')
    {'gain.gain': 0.25}
    """
    found = _parameters(key)
    if key.endswith("."):
        if not found and key[:-1] not in names(engine.getModuleNames()):
            raise unknown("module", key[:-1], names(engine.getModuleNames()))
        return found
    if key not in found:
        raise unknown("parameter", key, parameter_names())
    return found[key]


def put(key: str, value: Value) -> None:
    """Sets a parameter, whatever its type. Raises with the reason when the engine refuses.

    >>> put('gain.gain', 1)
    """
    current = engine.getParam(key).toDictType().get(key.encode())
    if current is None:
        raise unknown("parameter", key, parameter_names())
    kind = current[1]
    typed = _converted(key, value, kind)
    if not engine.setParams(listKeyValue().append(key, typed, _SELECTORS.get(kind, kind))).toDict():
        raise Refused(f"the engine refuses {key} = {value!r}{_reason(key)}")


def _converted(key: str, value: Any, kind: str) -> Any:
    try:
        if kind in _SELECTORS:
            return tuple((float if kind == "afloat" else int)(element) for element in value)
        if kind == "string":
            if not isinstance(value, str | bytes):
                raise ValueError
            return value
        number = float(value) if kind in ("float", "double") else int(value)
        if isinstance(value, str | bytes) or number != value:
            raise ValueError
        return number
    except (TypeError, ValueError, OverflowError):
        raise Unfit(f"{key} takes a value of type {kind}, not {value!r}") from None


def _reason(key: str) -> str:
    module, _, control = key.partition(".")
    plugin = _parameters(f"{module}.plugin").get(f"{module}.plugin")
    limits = describe(str(plugin)).get(control, {})
    if "minimum" not in limits or "maximum" not in limits:
        return ""
    return f": it goes from {limits['minimum']:g} to {limits['maximum']:g} {limits.get('unit', '')}".rstrip()


def describe(plugin: str) -> dict[str, dict[str, Any]]:
    """What the engine tells of a plugin: minimum, maximum, default and unit of each control; of "", title and ports."""
    result: dict[str, dict[str, Any]] = {}
    for key, value in _parameters(f"plugins.{plugin}.").items():
        control, _, what = key.removeprefix(f"plugins.{plugin}.").rpartition(".")
        result.setdefault(control, {})[what] = value
    return result


def state() -> State:
    """The whole graph as plain data, which `json` takes.

    >>> state()['modules']['gain']['parameters']
    {'gain': 0.25}
    """
    modules: dict[str, ModuleState] = {}
    for module in engine.getModuleInfos():
        name = text(module["name"])
        parameters = {key.removeprefix(name + "."): value for key, value in _parameters(name + ".").items()}
        plugin = parameters.pop("plugin", None)
        configuration = module.get("configuration", {}).items()
        modules[name] = {
            "type": module["type"],
            "plugin": str(plugin) if plugin is not None else _made_of.get(name),
            "library": text(module.get("library")),
            "configuration": {text(key): text(value, "float") for key, value in configuration},
            "parameters": parameters,
            "sources": {text(port["name"]): [] for port in module.get("src", ())},
            "sinks": {text(port["name"]): text(port.get("link")) for port in module.get("sink", ())},
        }
    sources = {port: sinks for module in modules.values() for port, sinks in module["sources"].items()}
    for source, sink in links(modules):
        sources.setdefault(source, []).append(sink)
    driver = engine.getDriverName() if engine.hasDriver() else None
    return {"driver": driver, "rate": engine.getFrameRate() if driver else 0, "modules": modules}


def links(modules: dict[str, ModuleState]) -> list[tuple[str, str]]:
    """The links among modules of a state: source and sink of each."""
    return [(source, sink) for module in modules.values() for sink, source in module["sinks"].items() if source]


def _ports(name: str, kind: Literal["sources", "sinks"], modules: dict[str, ModuleState]) -> list[str]:
    """The module's ports of that kind in order, or the port alone."""
    if name in modules:
        return list(modules[name][kind])
    ports = [port for module in modules.values() for port in module[kind]]
    if name not in ports:
        raise unknown(f"module or {kind.removesuffix('s')}", name, [*modules, *ports])
    return [name]


def connect(source: str, sink: str, replace: bool = False) -> list[tuple[str, str]]:
    """Links a source port to a sink port; given modules, their ports in order, and a lone source to every sink. What is
    linked already stays. With `replace` a link takes the place of the one that feeds its sink. Returns the new links.

    >>> connect('tone', 'gain')
    [('tone:output', 'gain:input')]
    """
    modules = state()["modules"]
    sources, sinks = _ports(source, "sources", modules), _ports(sink, "sinks", modules)
    if not sources or not sinks:
        raise Refused(f"{source!r} has no sources" if not sources else f"{sink!r} has no sinks")
    fed = {old: by for by, old in links(modules)}
    pairs = list(zip(sources * len(sinks) if len(sources) == 1 else sources, sinks))
    pairs = [(new, port) for new, port in pairs if fed.get(port) != new]
    taken = [f"{port} by {fed[port]}" for _, port in pairs if port in fed]
    if taken and not replace:
        raise Refused(f"fed already: {', '.join(taken)}; connect(..., replace=True) takes the place of what is there")
    for new, port in pairs:
        if port in fed:
            _unlink(port)
        if status := engine.link(new, port):
            raise Refused(f"the engine refuses to link {new!r} to {port!r} (status {status})")
    return pairs


def _unlink(port: str) -> None:
    if status := engine.link(port):
        raise Refused(f"the engine refuses to unlink {port!r} (status {status})")


def disconnect(first: str, second: str | None = None) -> list[tuple[str, str]]:
    """Removes the links of a module or a port, with a second one only those between the two. Returns them.

    >>> disconnect('tone', 'gain')
    [('tone:output', 'gain:input')]
    """
    modules = state()["modules"]
    known = [*modules, *(port for each in modules.values() for port in (*each["sources"], *each["sinks"]))]
    for name in (first, second):
        if name is not None and name not in known:
            raise unknown("module or port", name, known)
    ends = [{port, port.partition(":")[0]} for port in known]
    of = dict(zip(known, ends))
    removed = [
        link for link in links(modules)
        if any(first in of[end] for end in link) and (second is None or any(second in of[end] for end in link))
    ]
    for _, sink in removed:
        _unlink(sink)
    return removed


def create(name: str, plugin: str, **configuration: Value) -> None:
    """Makes a module.

    >>> create('tone', 'sine_fcac', frequency=440)
    """
    controls = describe(plugin)
    entries = listKeyValue()
    for key, value in configuration.items():
        entries.append(key, float(value) if isinstance(value, int) and "minimum" in controls.get(key, {}) else value)
    if status := engine.newModule(name, plugin, entries if configuration else None):
        available = names(engine.listAvailableModules())
        if plugin not in available:
            raise unknown("plugin", plugin, available)
        if name in names(engine.getModuleNames()):
            raise Refused(f"there is a module {name!r} already")
        raise Refused(f"the engine refuses to make {name!r} from {plugin!r} (status {status})")
    _made_of[name] = plugin


def delete(name: str) -> None:
    """Deletes a module and its links.

    >>> delete('tone')
    """
    if status := engine.delModule(name):
        if name not in names(engine.getModuleNames()):
            raise unknown("module", name, names(engine.getModuleNames()))
        raise Refused(f"the engine refuses to delete {name!r} (status {status})")
    _made_of.pop(name, None)


def shown(value: Any) -> str:
    """A value in a table."""
    return f"{value:g}" if isinstance(value, float) else str(value)


def graph() -> None:
    """Shows modules, their parameters, ports and links.

    >>> graph()
    tone  sine_fcac
    ├─ frequency  440
    ├─ amplitude  0.5
    └─ output     -> gain:input
    """
    branch, last = ("├─", "└─") if (sys.stdout.encoding or "").lower().startswith("utf") else ("|-", "`-")
    for name, module in state()["modules"].items():
        rows = [(key, shown(value)) for key, value in module["parameters"].items()]
        rows += [(port.partition(":")[2], f"<- {by or 'nothing'}") for port, by in module["sinks"].items()]
        rows += [(port.partition(":")[2], f"-> {', '.join(to) or 'nothing'}") for port, to in module["sources"].items()]
        print(f"{name}  {module['plugin'] or (module['library'] or '').rpartition('/')[2]}".rstrip())
        width = max((len(key) for key, _ in rows), default=0)
        for key, value in rows[:-1]:
            print(f"{branch} {key:{width}}  {value}")
        for key, value in rows[-1:]:
            print(f"{last} {key:{width}}  {value}")


def plugins(word: str = "") -> None:
    """Shows the plugins that modules can be made of, those with the word in their name or title.

    >>> plugins('reverb')
    gverb          GVerb
    """
    titles = {key.split(".")[1]: str(title) for key, title in _parameters("plugins.").items() if key.endswith(".title")}
    found = [(name, titles.get(name, "")) for name in names(engine.listAvailableModules())]
    found = [entry for entry in found if word.lower() in " ".join(entry).lower()]
    width = max((len(name) for name, _ in found), default=0)
    for name, title in sorted(found):
        print(f"{name:{width}}  {title}".rstrip())


def info(name: str) -> None:
    """Shows what a plugin has, or a module: ports, controls, ranges, units and, of a module, values.

    >>> info('gain')
    gain, of amp_mono: Mono Amplifier
    from input to output
    gain  1  from 0 to 10, else 1
    """
    modules, available = state()["modules"], names(engine.listAvailableModules())
    module = modules.get(name)
    plugin = module["plugin"] if module else name
    if not module and name not in available:
        raise unknown("module or plugin", name, [*modules, *available])
    described = describe(plugin) if plugin else {}
    about = described.pop("", {})
    print(f"{name}, of {plugin}" if module else name, about.get("title", ""), sep=": " if about.get("title") else "")
    ports = {side: str(about.get(side, "")).split() for side in ("sinks", "sources")}
    if module:
        ports = {"sinks": list(module["sinks"]), "sources": list(module["sources"])}
    for side, of_side in ports.items():
        print(f"  {side}: {', '.join(of_side) or 'none'}")
    values = module["parameters"] if module else {}
    rows = []
    for key in [*described, *(key for key in values if key not in described)]:
        control = {what: shown(value) for what, value in described.get(key, {}).items()}
        limits = f"{control['minimum']} to {control['maximum']}" if "maximum" in control else ""
        rows.append((key, shown(values.get(key, "")), limits, control.get("unit", ""), control.get("default", "")))
    if rows:
        rows.insert(0, ("control", "value" if module else "", "range", "unit", "default"))
        widths = [max(map(len, column)) for column in zip(*rows)]
        for row in rows:
            print(" ", "  ".join(f"{cell:{width}}" for cell, width in zip(row, widths) if width).rstrip())


def run(path: str | os.PathLike[str], *arguments: str) -> None:
    """Runs a file in a namespace of its own. What it makes there, timers and notifications, stays until the file is run
    again.

    >>> run('examples/level_meter.py', '2')
    """
    file = os.path.abspath(path)
    code = compile(pathlib.Path(file).read_bytes(), file, "exec", dont_inherit=True)
    space = {name: value for name, value in vars(sonetrix).items() if not name.startswith("_")}
    space.update(__name__="__main__", __file__=file)
    _spaces.pop(file, None)
    _spaces[file] = space
    before = sys.argv, sys.path[:]
    sys.argv, sys.path[:0] = [str(path), *map(str, arguments)], [os.path.dirname(os.path.realpath(file))]
    try:
        exec(code, space)
    finally:
        sys.argv, sys.path[:] = before
