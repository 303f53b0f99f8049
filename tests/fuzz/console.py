"""The console's parts: start parameters, statements that are read but not run, exceptions, and harmless sessions."""

import contextlib
import ctypes
import io
import os
import sys

import console_access
import fuzz_input
from support import engine_double

KEYS = [b"python.start", b"python.file", b"python.sigint", b"python", b""]
# A line, the exit code it asks for, and whether it ends a script.
LINES = [(b"pass", None, False), (b"x = [1,\\\n2]", None, False), (b"1 + 'x'", None, True), (b"1/0 # ", None, True),
         (b"raise SystemExit", 0, True), (b"raise SystemExit('text')", 1, True), (b"import sys; sys.exit(7)", 7, True)]
NOT_PYTHON = [b")", b"1 +", b"'x", b"return", b"x = = 1", b"0777", b"f(a=1, a=2)", b"break", b"\tpass", b"$"]


def exit_code(exception):
    code = exception.code
    if code is None:
        return 0
    if not isinstance(code, int):
        return 1
    return ctypes.c_int32(code).value if -2**63 <= code < 2**63 else -1


def raised(source):
    """An exception, and the exit code that it asks for."""
    code = source.value()
    kind = source.pick([SystemExit, type("Exit", (SystemExit,), {}), ValueError, KeyboardInterrupt, StopIteration])
    exception = kind(code)
    if not isinstance(exception, SystemExit):
        return exception, None
    if source.byte() & 1:
        exception.__context__ = ValueError(code)
    return exception, exit_code(exception)


def without_nul(text):
    return text.replace(b"\0", b"")


def session(source):
    """Statements of which none does any harm, whether all are Python, and the exit codes of those that end a script."""
    lines, proper, endings = [b"pass"] * 2, True, []
    while source and len(lines) < 40:
        form = source.byte()
        if form < 200:
            line, code, ends = LINES[form % len(LINES)]
            endings += [code] * ends
        elif form < 210:
            line = NOT_PYTHON[form % len(NOT_PYTHON)]
            proper = False
        else:
            noise = "".join(filter(str.isprintable, source.text().encode(errors="replace").decode()))
            line = b"# " + noise.replace("coding", "").encode()
        lines.append(line)
    return b"\n".join(lines) + b"\n", proper, endings


def run_session(source):
    interactive = source.byte() & 1
    text, proper, endings = session(source)
    descriptor = os.memfd_create("input")
    os.write(descriptor, text)
    os.lseek(descriptor, 0, os.SEEK_SET)
    os.dup2(descriptor, 0)
    os.close(descriptor)
    result = console_access.run(interactive)
    if interactive:
        endings = [code for code in endings if code is not None]
    elif not proper:
        endings = []
    code = endings[0] if endings and endings[0] is not None else -1
    failed = not proper or any(endings[:1]) or endings[:1] == [None]
    assert result == (-1 if interactive or failed else -2), (result, text)
    assert engine_double.exit_code() == code, (engine_double.exit_code(), text)


def run(data):
    before = fuzz_input.left()
    source = fuzz_input.Input(data)
    while source:
        engine_double.reset()
        engine_double.recording(False)
        form = source.byte() & 3
        if form == 0:
            parameters = [(source.pick(KEYS), source.integer() if source.byte() & 1 else source.bytes())
                          for _ in range(source.byte() % 5)]
            parameters = [(key, without_nul(value) if isinstance(value, bytes) else value) for key, value in parameters]
            assert console_access.construct(parameters) is False  # this interpreter is not the console's
        elif form == 1:
            text = without_nul(source.raw(source.byte() * (1 + source.byte() % 3)))
            assert console_access.compile(text, source.byte() & 1) is None, text
            assert engine_double.exit_code() == -1
        elif form == 2:
            exception, code = raised(source)
            with contextlib.redirect_stderr(io.StringIO()) as shown:
                assert console_access.raise_(exception) == code, exception
            if code is not None:
                silent = exception.code is None or isinstance(exception.code, int)
                assert shown.getvalue() == ("" if silent else f"{exception.code}\n"), exception
            assert engine_double.exit_code() == (-1 if code is None else code)
        else:
            run_session(source)
        for name in ("last_type", "last_value", "last_traceback", "last_exc"):
            sys.__dict__.pop(name, None)
    assert fuzz_input.left() == before, (fuzz_input.left(), before)


fuzz_input.prepare()
sys.ps1 = sys.ps2 = ""
