"""Sessions: the graph as a script that builds it, or that changes a running graph into it."""

import contextlib
import os
import pathlib
import textwrap
import time
from collections.abc import Callable, Iterator, Mapping
from functools import partial

from . import words
from .words import Refused, Value

_Values = Mapping[str, Value]


class Session(contextlib.AbstractContextManager["Session"]):
    """A graph to be. At the end of its `with` block the running graph is changed into it: only what differs, and what
    stays plays on.

        with Session() as session:
            session.module("tone", "sine_fcac", {"frequency": 440.0})
            session.link("tone:output", "system:playback_1")
    """

    def __init__(self) -> None:
        self._modules: dict[str, tuple[str, _Values]] = {}  # plugin and configuration
        self._parameters: dict[str, _Values] = {}
        self._sources: dict[str, str] = {}  # of each linked sink

    def module(self, name: str, plugin: str = "", parameters: _Values = {}, configuration: _Values = {}) -> None:
        """A module with the values of its parameters; the configuration is for the moment when it is made. One without
        a plugin is there in any case, as the driver's is."""
        if plugin:
            self._modules[name] = plugin, configuration
        self._parameters[name] = parameters

    def link(self, source: str, sink: str) -> None:
        self._sources[sink] = source

    def __exit__(self, error: type[BaseException] | None, *_: object) -> None:
        if error is None:
            self.apply()

    def apply(self) -> None:
        """Changes the running graph. Does all that can be done, then raises with all that could not."""
        changes, problems = 0, []
        for change in self._changes():
            try:
                change()
                changes += 1
            except Refused as problem:
                problems.append(f"  {problem}")
        print(f"{changes} changes" if changes != 1 else "1 change")
        if problems:
            raise Refused("\n".join(["not everything could be done:", *problems]))

    def _changes(self) -> Iterator[Callable[[], object]]:
        """What is to be done, found out step by step: each is done before the next one is asked for."""
        made = {name: each["plugin"] for name, each in words.modules().items() if each["type"] == words.MADE}
        for name, (plugin, configuration) in self._modules.items():
            if name in made and made[name] != plugin:
                yield partial(words.delete, name)
            if made.get(name) != plugin:
                yield partial(words.create, name, plugin, **configuration)
        there = words.modules()
        for name, parameters in self._parameters.items():
            for key, value in parameters.items():
                if name in there and there[name]["parameters"].get(key) != value:
                    yield partial(words.put, f"{name}.{key}", value)
        fed = words.links(there)
        yield from (partial(words.disconnect, sink) for sink in fed if sink not in self._sources)
        for sink, source in self._sources.items():
            if fed.get(sink) != source:
                yield partial(words.connect, source, sink, replace=True)
        yield from (partial(words.delete, name) for name in made if name not in self._modules)


def _call(method: str, *names: str, **values: _Values) -> str:
    """Values stand on lines of their own; where there are none, their name is left out."""
    shown = [repr(name) for name in names]
    for name, by_key in values.items():
        lines = "".join(f"    {key!r}: {value!r},\n" for key, value in by_key.items())
        shown += [f"{name}={{\n{lines}}}"] if lines else []
    return f"session.{method}({', '.join(shown)})"


def script() -> str:
    """The script that save() writes."""
    calls = []
    there = words.modules()
    for name, module in there.items():
        made = module["type"] == words.MADE
        if made and module["plugin"] is None:
            raise Refused(f"the engine does not tell what {name!r} was made of")
        if made or module["parameters"]:
            names = (name, module["plugin"]) if made else (name,)
            calls.append(_call("module", *names, **{kind: module[kind] for kind in ("parameters", "configuration")}))
    calls += [_call("link", source, sink) for sink, source in words.links(there).items()]
    return (f'"""A graph, saved {time.strftime("%Y-%m-%d %H:%M:%S")}: load() changes a running one into it."""\n\n'
            "from sonetrix_console import Session\n\nwith Session() as session:\n"
            + textwrap.indent("\n".join(calls) or "pass", "    ") + "\n")


def save(path: str | os.PathLike[str]) -> None:
    """Writes a script that builds this graph: modules, configuration, parameters and links.

    >>> save('evening.py')
    """
    file, text = pathlib.Path(path), script()
    if file.exists() and not file.is_file():  # a device or a pipe, in whose place no file shall come
        file.write_text(text, encoding="utf-8")
        return
    file = file.resolve()
    partial_file = file.with_name(f".{file.name}.{os.getpid()}")
    try:
        partial_file.write_text(text, encoding="utf-8")
        partial_file.replace(file)
    finally:
        partial_file.unlink(missing_ok=True)


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
