"""Blocks of several lines, with empty ones among them, that run as one."""

import __main__

import ast
import itertools
import linecache
import sys
import textwrap
from types import CodeType, TracebackType

_numbers = itertools.count(1)
_pending = ""


def compile_block(text: str, name: str) -> CodeType:
    """Code that runs the statements as if they had been typed, and shows the values of expressions."""
    code: CodeType = compile(ast.Interactive(ast.parse(text, name).body), name, "single", dont_inherit=True)
    return code


def run_block(text: str) -> None:
    """Runs the text in `__main__` as if its statements had been typed, but as one block: an error ends it all.

        run_block("def f():\\n    x = 1\\n\\n    return x\\nf()")
    """
    name = f"<pasted {next(_numbers)}>"
    text = textwrap.dedent(text)
    linecache.cache[name] = len(text), None, text.splitlines(True), name
    try:
        exec(compile_block(text, name), __main__.__dict__)
    except Exception as error:
        ours = isinstance(error, SyntaxError) and error.filename == name
        show(error, None if ours or not error.__traceback__ else error.__traceback__.tb_next)


def show(error: BaseException, frames: TracebackType | None) -> None:
    """As the interpreter shows what nobody has caught, and for `pdb.pm()`."""
    sys.last_value, sys.last_type, sys.last_traceback = error.with_traceback(frames), type(error), frames
    setattr(sys, "last_exc", error)  # from 3.12
    sys.excepthook(type(error), error, frames)


def run_pending() -> None:
    """What the line editor has returned as one."""
    run_block(_pending)


def one_line(prompt: str, line: str) -> str | None:
    """For several lines that the line editor has returned as one: what the console is to read in their place."""
    global _pending
    if "\n" not in line.rstrip("\n"):
        return None
    if prompt != str(getattr(sys, "ps1", "")):  # amid a statement, which an empty line would end
        return "".join(part for part in line.splitlines(True) if part.strip())
    _pending = line
    return f"__import__('sys').modules[{__name__!r}].run_pending()\n"


def paste() -> None:
    """Runs the lines that follow, up to one with a single dot, as one block: for a terminal that does not tell what is
    pasted from what is typed.

        engine> paste()
        paste, then a line with a single dot
    """
    print("paste, then a line with a single dot")
    lines = iter(sys.stdin.readline, "")
    run_block("".join(itertools.takewhile(lambda line: line not in (".\n", "."), lines)))
