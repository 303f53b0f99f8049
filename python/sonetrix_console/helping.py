"""What there is, by task."""

import inspect
import pydoc
import sys
import textwrap
from typing import Any

_TASKS = {
    "Look": "graph info plugins get state",
    "Build": "create delete connect disconnect",
    "Turn": "put ramp",
    "Keep": "save load reset",
    "React": "every after on_change on_meters callbacks",
    "Watch": "top meters",
    "Run": "run paste",
    "Let in": "serve",
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
    import shutil  # only here: it takes its time

    width = min(shutil.get_terminal_size().columns, 100)
    for task, functions in _TASKS.items():
        print(task)
        for name in functions.split():
            function = getattr(sys.modules[__package__], name)
            call = f"{name}({', '.join(inspect.signature(function).parameters)})"
            sentence = (function.__doc__ or "").partition(". ")[0].partition("\n\n")[0]
            print(f"  {call:36}{textwrap.shorten(sentence, max(width - 38, 20), placeholder=' ...')}")
    print(textwrap.fill(_MORE, width))
