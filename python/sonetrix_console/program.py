"""What the engine's program runs before its console, or instead of it: code and a script from its command line."""

import os
import signal
import sys
from collections.abc import Sequence

from sonetrix import engine, exit

from .paste import show


def _run_step(path: str | bytes, source: bytes | None) -> None:
    space = sys.modules["__main__"].__dict__
    if source is None:
        path = os.path.abspath(os.fsdecode(path))
        sys.path.insert(0, os.path.dirname(os.path.realpath(path)))
        space["__file__"] = path
        with open(path, "rb") as file:
            source = file.read()
    exec(compile(source, path, "exec", dont_inherit=True), space)


def find_interpreter() -> None:
    """Sets `sys.executable`, by which `multiprocessing` and others start an interpreter, where there is the one whose
    library this is."""
    path = os.path.join(sys.base_exec_prefix, "bin", f"python{sys.version_info[0]}.{sys.version_info[1]}")
    if os.access(path, os.X_OK):
        sys.executable = path


def run(steps: Sequence[tuple[str | bytes, bytes | None]], arguments: Sequence[bytes], ends: bool) -> None:
    """Runs texts and files in `__main__`, the way the interpreter's own command line would.

    Each step is a name and its text, or the path of a file and None. With `ends` nothing comes after the steps: a
    failure becomes the engine's exit code, a stop interrupts them without a traceback, and SIGINT is ignored from then
    on.

        run([("<string>", b"print(engine.now())"), (b"script.py", None)], [b"script.py", b"--fast"], ends=True)
    """
    status = 0
    try:
        sys.argv = [os.fsdecode(argument) for argument in arguments]
        for step in steps:
            if ends and not engine.isRunning():
                break
            _run_step(*step)
    except SystemExit:
        raise
    except BaseException as error:
        interrupted = isinstance(error, KeyboardInterrupt)
        if not (interrupted and ends and not engine.isRunning()):
            status = 130 if interrupted else 1
            assert error.__traceback__ and error.__traceback__.tb_next
            show(error, error.__traceback__.tb_next.tb_next)
    finally:
        while ends:
            try:
                signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})  # none comes amid the change
                signal.signal(signal.SIGINT, signal.SIG_IGN)
                signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGINT})
                break
            except KeyboardInterrupt:
                pass
        if ends and status:
            exit(status)
