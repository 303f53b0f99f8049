"""What there is, by task."""

import inspect
import pydoc
import shutil
import textwrap
from collections.abc import Callable
from typing import Any

from .callbacks import after, callbacks, every, on_change, on_meters, ramp
from .paste import paste
from .session import load, reset, save
from .views import meters, top
from .words import connect, create, delete, disconnect, get, graph, info, plugins, put, run, state

_TASKS: dict[str, tuple[Callable[..., Any], ...]] = {
    "Look": (graph, info, plugins, get, state),
    "Build": (create, delete, connect, disconnect),
    "Turn": (put, ramp),
    "Keep": (save, load, reset),
    "React": (every, after, on_change, on_meters, callbacks),
    "Watch": (top, meters),
    "Run": (run, paste),
}


_MORE = (
    "help(graph) tells more, with an example; help(engine) is the engine's own interface. Tab completes names, and in "
    "strings ports, modules, parameters, plugins and files. exit() stops the engine."
)


def help(*about: Any) -> None:
    """Shows a page by task; of anything else, what it is.

    >>> help(graph)
    """
    if about:
        pydoc.help(*about)
        return
    width = min(shutil.get_terminal_size().columns, 100)
    from . import serve  # it is the package's own

    tasks = dict(_TASKS)
    tasks["Let in"] = (serve,)
    for task, functions in tasks.items():
        print(task)
        for function in functions:
            call = f"{function.__name__}({', '.join(inspect.signature(function).parameters)})"
            sentence = (function.__doc__ or "").partition(". ")[0].partition("\n\n")[0]
            print(f"  {call:36}{textwrap.shorten(sentence, max(width - 38, 20), placeholder=' ...')}")
    print(textwrap.fill(_MORE, width))
