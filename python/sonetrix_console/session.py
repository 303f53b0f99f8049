"""Sessions: the graph as a script that builds it, or that changes a running graph into it."""

import os
import pathlib
import textwrap
import time
from collections.abc import Callable, Mapping
from types import TracebackType

from . import words
from .words import Refused, Value


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
        self._plugins[name], self._configurations[name], self._parameters[name] = plugin, configuration, parameters

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
        made = {name: each["plugin"] for name, each in words.modules().items() if each["type"] == words.MADE}
        for name, plugin in self._plugins.items():
            if name in made and made[name] != plugin:
                self._try(words.delete, name)
            if made.get(name) != plugin:
                self._try(words.create, name, plugin, **self._configurations[name])
        there = words.modules()
        for name, parameters in self._parameters.items():
            for key, value in parameters.items():
                if name in there and there[name]["parameters"].get(key) != value:
                    self._try(words.put, f"{name}.{key}", value)
        fed = {sink: source for source, sink in words.links(there)}
        for sink in [each for each in fed if each not in self._sources]:
            self._try(words.disconnect, sink)
        for sink, source in self._sources.items():
            if fed.get(sink) != source:
                self._try(words.connect, source, sink, replace=True)
        for name in [each for each in made if each not in self._plugins]:
            self._try(words.delete, name)
        print(f"{self._changes} changes" if self._changes != 1 else "1 change")
        if self._problems:
            raise Refused("\n".join(["not everything could be done:", *self._problems]))

    def _try(self, change: Callable[..., object], *arguments: Value, **more: Value) -> None:
        try:
            change(*arguments, **more)
            self._changes += 1
        except Refused as problem:
            self._problems.append(f"  {problem}")


def _call(method: str, *arguments: object) -> str:
    """A dict with a line for each of its items; those at the end that are empty are left out."""
    shown = [repr(argument) for argument in arguments]
    for index, argument in enumerate(arguments):
        if isinstance(argument, dict) and argument:
            shown[index] = "".join(["{\n", *(f"    {key!r}: {value!r},\n" for key, value in argument.items()), "}"])
    while shown[-1] == "{}":
        shown.pop()
    return f"session.{method}({', '.join(shown)})"


def script() -> str:
    """The script that save() writes."""
    calls = []
    there = words.modules()
    for name, module in there.items():
        if module["type"] == words.MADE:
            if module["plugin"] is None:
                raise Refused(f"the engine does not tell what {name!r} was made of")
            calls.append(_call("module", name, module["plugin"], module["parameters"], module["configuration"]))
        elif module["parameters"]:
            calls.append(_call("parameters", name, module["parameters"]))
    calls += [_call("link", source, sink) for source, sink in words.links(there)]
    return (f'"""A graph, saved {time.strftime("%Y-%m-%d %H:%M:%S")}: load() changes a running one into it."""\n\n'
            "from sonetrix_console import Session\n\nwith Session() as session:\n"
            + textwrap.indent("\n".join(calls) or "pass", "    ") + "\n")


def save(path: str | os.PathLike[str]) -> None:
    """Writes a script that builds this graph: modules, configuration, parameters and links.

    >>> save('evening.py')
    """
    text = script()
    file = pathlib.Path(path)
    partial = file.with_name(f".{file.name}.{os.getpid()}")
    try:
        partial.write_text(text, encoding="utf-8")
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
