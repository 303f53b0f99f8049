"""Prints the processing graph as a table: modules, what they are, their parameters, their ports and what feeds them.

    sonetrix-engine examples/graph_table.py
"""

import chain
from sonetrix import engine


def table():
    """Names come from the engine as bytes."""
    for module in engine.getModuleInfos():
        plugin = module["param"].pop(module["name"] + b".plugin", b"driver")
        assert isinstance(plugin, bytes)
        yield module["name"].decode(), plugin.decode(), ""
        for key, value in module["param"].items():
            yield "", "parameter", f"{key.decode()} = {value!r}"
        for port in module["sink"]:
            source = port["link"].decode() if "link" in port else "nothing"
            yield "", "sink", f"{port['name'].decode()} <- {source}"
        for port in module["src"]:
            sinks = ", ".join(name.decode() for name in engine.getLink(port["name"]))
            yield "", "source", f"{port['name'].decode()} -> {sinks or 'nothing'}"


def main():
    chain.build()
    rows = [("MODULE", "KIND", "DETAIL"), *table()]
    widths = [max(len(row[column]) for row in rows) for column in range(2)]
    for name, kind, detail in rows:
        print(f"{name:{widths[0]}}  {kind:{widths[1]}}  {detail}".rstrip())


if __name__ == "__main__":
    main()
