"""A console for people, on any engine that has the module sonetrix: one line of its start parameter "python.start".

    import sonetrix_console; sonetrix_console.install()

Scripts import what they use: `from sonetrix_console import get, put`.
"""

import __main__

import sys

from . import prompt
from .callbacks import after, callbacks, every, on_change, on_meters, ramp
from .helping import help
from .paste import paste
from .session import Session, load, reset, save
from .words import Refused, connect, create, delete, disconnect, get, graph, info, plugins, put, run, state

# And, one by one, what install() makes names of the console.
__all__ = [
    "help", "install", "paste",
    "Refused", "connect", "create", "delete", "disconnect", "get", "graph", "info", "plugins", "put", "run", "state",
    "Session", "load", "reset", "save",
    "after", "callbacks", "every", "on_change", "on_meters", "ramp",
]


_installed = False


def install() -> None:
    """Makes the words of this package names of the console and, on a terminal, turns line editing and all else on.

    In the start code of an engine, or by hand:

        import sonetrix_console; sonetrix_console.install()
    """
    words = {name: globals()[name] for name in __all__ if name != "install"}
    __main__.__dict__.update(words)
    if "" not in sys.path:
        sys.path.insert(0, "")
    global _installed
    if not _installed and sys.stdin is not None and sys.stdin.isatty():
        _installed = True
        prompt.install()
