"""Parameters of the running engine: exact types and bits, refusals, keys that name whole modules, and many threads."""

import unittest

from support import live

SETUP = """\
assert engine.newModule("amp", "amp_mono", listKeyValue().append("gain", 0.5)) == 0
assert engine.newModule("echo", "delay_5s", None) == 0

def read(keys):
    return engine.getParam(keys).toDictType()
"""


class Parameters(live.LiveTest):
    def test_keys(self):
        self.run_live(SETUP + """
own = {b"engine.rate": (44100, "uint32"), b"engine.block": (64, "uint32"), b"engine.log.level": (3, "int32")}
echo = {b"echo.delay_seconds": (1.0, "float"), b"echo.dry_wet_balance": (0.5, "float"),
        b"echo.plugin": (b"delay_5s", "string")}
amp = {b"amp.gain": (0.5, "float")}
everything = {**amp, b"amp.plugin": (b"amp_mono", "string")}
for keys, expected in [
    ("amp.gain", amp), (b"amp.gain", amp), (["amp.gain"], amp), ((b"amp.gain", "amp.gain"), amp),
    ("amp.", everything), ("echo.", echo), (["echo.", "amp."], echo | everything), (["amp.gain", "echo.delay_seconds"], {
        **amp, b"echo.delay_seconds": (1.0, "float")}),
    (list(own), own), ("system.", {}), ([], {}), ("", {}), (".", {}), ("amp", {}), ("amp.gain.", {}), ("amp..", {}),
    ("amp.gai", {}), ("AMP.GAIN", {}), (".gain", {}), ("nobody.", {}), ("amp.gain ", {}), (b"amp.gain\\0x", amp),
    ("x" * 100_000 + ".y", {}), (["nobody.", "amp.gain", "amp.no"], amp),
]:
    assert read(keys) == expected, (keys, read(keys))
assert own.keys() <= read("engine.").keys() and engine.getFrameRate() == 44100
assert read("engine.xruns")[b"engine.xruns"][1] == "uint32"
for method, argument, text in [
    (engine.getParam, ["amp.gain", 5], "only string is accepted"),
    (engine.getParam, 5, "only string/byte/list/tuple is accepted as input"),
    (engine.getParams, listValue().append(1.0), "only string is accepted"),
]:
    try:
        assert not method(argument)
    except Exception as error:
        assert (type(error), str(error)) == (Exception, text), error
# The module and its parameters go together.
assert engine.delModule("amp") == 0 and read(["amp.", "amp.gain"]) == {}
""", "--rate", "44100", "--block", "64")

    def test_what_is_written_and_what_is_refused(self):
        self.run_live(SETUP + """
for method in engine.setParams, engine.setParamsCli:
    for value, type, kept in [
        (0.75, None, 0.75), (0.1, "float", 0.1), (0.0, None, 0.0), (-0.0, None, -0.0), (2.0 ** -149, None, 2.0 ** -149),
        (3.4e38, None, 3.4e38), (0.5, "double", 0.5), (1, None, 1.0), (1, "uint32", 1.0), ("1.0", None, None),
        (1e39, "double", None), (b"", None, None), ((1.0,), None, None), ((1,), "int", None), (-1.0, None, None), (float("nan"), None, None),
        (float("inf"), None, None), (-2.0 ** -149, None, None),
    ]:
        for key in "amp.gain", b"amp.gain":
            engine.setParams(listKeyValue().append("amp.gain", 0.5))
            written = method(listKeyValue().append(key, value, type)).toDictType()
            now, kind = engine.getParam("amp.gain").toDictType()[b"amp.gain"]
            expected = 0.5 if kept is None else kept
            assert struct.pack("f", now) == struct.pack("f", expected) and kind == "float", (value, type, now)
            assert written == ({} if kept is None else {b"amp.gain": (now, "float")}), (value, type, written)
    for key, value, type in [("engine.rate", 1, "uint32"), ("engine.xruns", 0, "uint32"), ("amp.", 0.5, None),
                             ("amp.no", 0.5, None), ("no.gain", 0.5, None), ("", 0.5, None), ("system.x", 0.5, None),
                             ("engine.log.level", 6, None), ("engine.log.level", -1, None), ("engine.log.level", 3.0, None),
                             ("amp.plugin", "x", None)]:
        assert method(listKeyValue().append(key, value, type)).toDictType() == {}, key
    # One list: what can be written is, in order, and the request stays as it was.
    request = (listKeyValue().append("no.such", 1.0).append("amp.gain", 0.25).append("amp.gain", "9").append("amp.gain", 2.0)
               .append("echo.delay_seconds", 4.0).append("echo.delay_seconds", 6.0))
    before = request.toDictType()
    assert method(request).toDictType() == {b"amp.gain": (2.0, "float"), b"echo.delay_seconds": (4.0, "float")}
    assert request.toDictType() == before
    assert read(["amp.gain", "echo.delay_seconds"]) == {b"amp.gain": (2.0, "float"), b"echo.delay_seconds": (4.0, "float")}
    assert method(listKeyValue()).toDict() == {}
assert read(["engine.rate", "engine.log.level"]) == {b"engine.rate": (48000, "uint32"), b"engine.log.level": (4, "int32")}
""", "--log-level", "error")

    def test_readers_and_writers_in_many_threads(self):
        self.run_live(SETUP + """
end = time.monotonic() + 3
# Each thread's values bear its mark in all their bits, so that one torn between two would show.
bits = [0x3f000000 | thread * 0x00111111 for thread in range(4)]
values = [struct.unpack("f", struct.pack("I", number))[0] for number in bits]
counts = [0] * 7

def writer(thread):
    request = listKeyValue().append("amp.gain", values[thread]).append("echo.delay_seconds", values[thread])
    expected = {b"amp.gain": values[thread], b"echo.delay_seconds": values[thread]}
    while time.monotonic() < end:
        assert engine.setParams(request).toDict() == expected
        counts[thread] += 1

def reader(thread):
    keys = listValue().append("amp.gain").append("echo.").append("other.gain")
    while time.monotonic() < end:
        found = engine.getParams(keys).toDictType()
        for key in b"amp.gain", b"echo.delay_seconds":
            assert found[key][1] == "float" and found[key][0] in (0.5, 1.0, *values), found
        other = found.get(b"other.gain", (1.0, "float"))
        assert other == (1.0, "float"), found
        counts[thread] += 1

def comes_and_goes():
    while time.monotonic() < end:
        assert engine.newModule("other", "amp_mono", None) == 0 and engine.getParam("other.gain").toDict() == {b"other.gain": 1.0}
        assert engine.delModule("other") == 0 and engine.getParam("other.").toDict() == {}
        counts[6] += 1

watch = notifyChanges(lambda changes: [changes[key] in values or 1 / 0 for key in changes])
in_threads(*(lambda thread=thread: writer(thread) for thread in range(4)),
           *(lambda thread=thread: reader(thread) for thread in (4, 5)), comes_and_goes)
assert min(counts) > 50, counts
""", "--log-level", "warn")


if __name__ == "__main__":
    unittest.main()
