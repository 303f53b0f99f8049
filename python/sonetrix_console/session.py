"""Sessions: the graph as a script that builds it, or that changes a running graph into it."""

import os
import pathlib
import time
from collections.abc import Callable, Mapping
from types import TracebackType

from . import words
from .words import ModuleState, Refused, Value


class Session:
    """A graph to be. At the end of its `with` block the running graph is changed into it: only what differs, and what
    stays plays on.

        with Session() as session:
            session.module("tone", "sine_fcac", {"frequency": 440.0})
            session.link("tone:output", "system:playback_1")
    """

    def __init__(self) -> None:
        self._plugins: dict[str, str] = {}
        self._configurations: dict[str, Mapping[str, Value]] = {}
        self._parameters: dict[str, Mapping[str, Value]] = {}
        self._sources: dict[str, str] = {}  # of each linked sink
        self._changes = 0
        self._problems: list[str] = []

    def module(self, name: str, plugin: str, parameters: Mapping[str, Value] = {},
               configuration: Mapping[str, Value] = {}) -> None:
        """A module with the values of its parameters; the configuration is for the moment when it is made."""
        self._plugins[name] = plugin
        self._configurations[name] = configuration
        self._parameters[name] = parameters

    def parameters(self, module: str, parameters: Mapping[str, Value]) -> None:
        """Values for a module that is there in any case, such as the driver's."""
        self._parameters[module] = parameters

    def link(self, source: str, sink: str) -> None:
        self._sources[sink] = source

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, error: type[BaseException] | None, *_: BaseException | TracebackType | None) -> None:
        if error is None:
            self.apply()

    def apply(self) -> None:
        """Changes the running graph. Does all that can be done, then raises with all that could not."""
        modules = words.state()["modules"]
        made = {name: module for name, module in modules.items() if module["type"] == words.MADE}
        replaced = [name for name, each in made.items() if self._plugins.get(name, each["plugin"]) != each["plugin"]]
        for name in replaced:
            self._try(words.delete, name)
        for name in self._plugins:
            if name not in made or name in replaced:
                self._try(words.create, name, self._plugins[name], **self._configurations[name])
        modules = words.state()["modules"]
        for name, parameters in self._parameters.items():
            current = modules[name]["parameters"] if name in modules else {}
            for key, value in parameters.items():
                if name in modules and current.get(key) != value:
                    self._try(words.put, f"{name}.{key}", value)
        self._relink(modules)
        for name in made:
            if name not in self._plugins:
                self._try(words.delete, name)
        print(f"{self._changes} changes" if self._changes != 1 else "1 change")
        if self._problems:
            raise Refused("\n".join(["not everything could be done:", *self._problems]))

    def _relink(self, modules: dict[str, ModuleState]) -> None:
        fed = {sink: source for source, sink in words.links(modules)}
        for sink in fed:
            if sink not in self._sources:
                self._try(words.disconnect, sink)
        for sink, source in self._sources.items():
            if fed.get(sink) != source:
                self._try(words.connect, source, sink, replace=True)

    def _try(self, change: Callable[..., object], *arguments: Value, **more: Value) -> None:
        try:
            change(*arguments, **more)
            self._changes += 1
        except Refused as problem:
            self._problems.append(f"  {problem}")


def _literal(values: Mapping[str, Value], indent: str) -> str:
    return "".join(["{\n", *(f"{indent}    {key!r}: {value!r},\n" for key, value in values.items()), indent, "}"])


def script() -> str:
    """The script that save() writes."""
    lines = [
        f'"""A graph, saved {time.strftime("%Y-%m-%d %H:%M:%S")}: load() changes a running one into it."""\n',
        "from sonetrix_console import Session\n",
        "with Session() as session:",
        "    pass",
    ]
    modules = words.state()["modules"]
    for name, module in modules.items():
        if module["type"] != words.MADE:
            if module["parameters"]:
                lines.append(f"    session.parameters({name!r}, {_literal(module['parameters'], '    ')})")
            continue
        if module["plugin"] is None:
            raise Refused(f"the engine does not tell what {name!r} was made of")
        arguments = [repr(name), repr(module["plugin"])]
        if module["parameters"]:
            arguments.append(_literal(module["parameters"], "    "))
        if module["configuration"]:
            arguments.append(f"configuration={_literal(module['configuration'], '    ')}")
        lines.append(f"    session.module({', '.join(arguments)})")
    lines += [f"    session.link({source!r}, {sink!r})" for source, sink in words.links(modules)]
    if len(lines) > 4:
        lines.remove("    pass")
    return "\n".join(lines) + "\n"


def save(path: str | os.PathLike[str]) -> None:
    """Writes a script that builds this graph: modules, configuration, parameters and links.

    >>> save('evening.py')
    """
    text = script()
    file = pathlib.Path(path)
    partial = file.with_name(f".{file.name}.{os.getpid()}")
    try:
        partial.write_text(text)
        partial.replace(file)
    finally:
        partial.unlink(missing_ok=True)


def load(path: str | os.PathLike[str]) -> None:
    """Runs a script that save() has written: changes what differs in the running graph, and what stays plays on.

    >>> load('evening.py')
    3 changes
    """
    words.run(path)


def reset() -> None:
    """Deletes all modules and links; the driver's own stays.

    >>> reset()
    4 changes
    """
    Session().apply()
