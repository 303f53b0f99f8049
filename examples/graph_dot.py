"""Writes the processing graph as a Graphviz file.

    sonetrix-engine examples/graph_dot.py graph.dot
    dot -Tsvg graph.dot > graph.svg
"""

import sys

import chain
from sonetrix import engine


def main():
    if len(sys.argv) != 2:
        raise SystemExit(f"usage: {sys.argv[0]} FILE")
    chain.build()
    # An echo in the right channel only.
    chain.new_module("echo", "delay_5s", delay_seconds=0.25)
    chain.check(engine.link("system:playback_2"))  # a sink has one source: the gain has to go first
    chain.check(engine.link("gain:output", "echo:input"))
    chain.check(engine.link("echo:output", "system:playback_2"))

    engine.dot(sys.argv[1])


if __name__ == "__main__":
    main()
