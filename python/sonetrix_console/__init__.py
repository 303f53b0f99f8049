"""A console for people, on any engine that has the module sonetrix: one line of its start parameter "python.start".

    import sonetrix_console; sonetrix_console.install()

Scripts import what they use: `from sonetrix_console import get, put`.
"""

import __main__

import os
import sys
from typing import Any

from . import prompt
from .callbacks import after, callbacks, every, on_change, on_meters, ramp
from .helping import help
from .paste import paste
from .session import Session, load, reset, save
from .views import meters, top
from .words import Refused, Unfit, Unknown
from .words import connect, create, delete, disconnect, get, graph, info, plugins, put, run, state

# And, one by one, what install() makes names of the console.
__all__ = [
    "help", "install", "paste",
    "Refused", "Unfit", "Unknown",
    "connect", "create", "delete", "disconnect", "get", "graph", "info", "plugins", "put", "run", "state",
    "Session", "load", "reset", "save",
    "after", "callbacks", "every", "on_change", "on_meters", "ramp",
    "meters", "serve", "top",
]


def _words() -> dict[str, Any]:
    return {name: globals()[name] for name in __all__ if name != "install"}


def install() -> None:
    """Makes the words of this package names of the console and, on a terminal, turns line editing and all else on.

    In the start code of an engine, or by hand:

        import sonetrix_console; sonetrix_console.install()
    """
    __main__.__dict__.update(_words())
    if "" not in sys.path:
        sys.path.insert(0, "")
    if os.isatty(0):
        prompt.install()


def serve(path: str | None = None) -> str:
    """Lets clients of this user into the engine until it stops, through a socket, and says where that is.

    >>> serve()
    '/run/user/1000/sonetrix/engine.sock'

    `sonetrix-ctl` finds that place by itself. The network has no part in it: from another machine one comes by ssh.
    """
    from .server import listen  # what it needs would cost each prompt some milliseconds

    listening = listen(path)
    __main__.__dict__.update({name: word for name, word in _words().items() if name not in __main__.__dict__})
    return listening
