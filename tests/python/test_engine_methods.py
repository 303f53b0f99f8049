"""The class engine against the recording engine: calls, lock, results, nulls, refusals and texts."""

import concurrent.futures
import ctypes
import io
import pathlib
import signal
import tempfile
import types
import unittest
from unittest import mock

from support import record
from support.record import Module

E, M = "engine", 2**32 - 1

# What is asked of engine, the engine calls that it makes, and what it gives; functions with a status give 7.
CALLS = [
    ("isRunning()", [("IsRunning", E)], True), ("hasDriver()", [("DriverIsLoaded", E)], True),
    ("exit()", [("RequestStop", E)], None),
    ("getXrunCounter()", [("DriverGetXRun", E)], 7), ("getFrameRate()", [("DriverGetFrameRate", E)], 7),
    ("cpuInfo()", [("DriverGetCpuUsage", E)], (1.5, -2.0, 0.25, 0.0, 7.0, 1.0)),
    ("getDriverName()", [("DriverGetName", E)], "dummy"),
    ("newModule('n', b'i\\xff', None)", [("ModuleNew", E, b"n", b"i\xff", None)], 7),
    ("newModule(info=K().append('a', 1), name=bytearray(b'n'), identifier=memoryview(b'i'))",
     [("ModuleNew", E, b"n", b"i", [(b"a", ("int32", 1))])], 7),
    ("newModule('', 'i', K())", [("ModuleNew", E, b"", b"i", None)], 7),
    ("delModule(3)", [("ModuleDelete", E, b"")], 7), ("delModule(b'a\\0b')", [("ModuleDelete", E, b"a")], 7),
    ("link('a')", [("LinkPort", E, b"a", None)], 7), ("link(b'a', '')", [("LinkPort", E, b"a", b"")], 7),
    ("link(bytearray(b'a'), p2=bytearray(b'b'))", [("LinkPort", E, b"a", b"b")], 7),
    ("link('a', None)", [("LinkPort", E, b"a", None)], 7),
    ("listAvailableModules()", [("GetModulesList", E)], [b"x", 5]),
    ("getPortNames()", [("GetAllPortNames", E)], [b"x", 5]),
    ("getLink([112])", [("GetLinkPort", E, b"p")], [b"x", 5]),
    *((f"getParam({key!r}).toDict()", [("GetParams", E, [("string", b"a.b")])], {b"k": 1.5})
      for key in ("a.b", b"a.b", ["a.b"], (b"a.b",))),
    ("getParams(L()).toDict()", [], {}), ("setParams(K()).toDict()", [], {}), ("setParamsCli(k=K()).toDict()", [], {}),
    ("setParams(K().append('a', 1)).toDict()", [("SetParamsFull", E, [(b"a", ("int32", 1))])], {b"k": 1.5}),
    ("setParamsCli(K().append('a', 'x')).toDict()", [("SetParamsFullCli", E, [(b"a", ("string", b"x"))])], {b"k": 1.5}),
    *((f"addDebugMeter('k', {value!r}{rest})", [("addDebugMeter", E, kind, b"k", sent)], None)
      for value, rest, kind, sent in (
          (5, "", 1, ("int32", 5)), (True, ", meters_type=0", 0, ("int32", 1)), (1.5, f", '', {M}", M, ("float", 1.5)),
          ("ä", "", 1, ("string", b"\xc3\xa4")), (b"\xff", "", 1, ("string", b"\xff")),
          (M, ", 'uint'", 1, ("uint32", M)),
          (5, ", 'uint32', 7", 7, ("uint32", 5)), (-5, ", 'int'", 1, ("int32", -5)),
          (-5, ", type='int32'", 1, ("int32", -5)),
          (0.5, ", 'float'", 1, ("float", 0.5)))),
    ("delDebugMeter(b'k')", [("delDebugMeter", E, 1, b"k")], None),
    ("delDebugMeter('k', 0.9)", [("delDebugMeter", E, 0, b"k")], None),
    ("getLastMeter().toDict()", [("GetLastMeters", E, b"", 1)], {b"k": 1.5}),
    ("getLastMeter(b'm', 0).toDict()", [("GetLastMeters", E, b"m", 0)], {b"k": 1.5}),
    ("getMeterInfo(1).toDict()", [("meterInfoList", E, 1)], {b"k": 1.5}),
    ("getMeterInfo(False).toDict()", [("meterInfoList", E, 0)], {b"k": 1.5}),
]
GIVEN = {"GetModulesList": ["x", 5], "GetAllPortNames": ["x", 5], "GetLinkPort": ["x", 5],
         **{name: {"k": 1.5} for name in ("GetParams", "SetParamsFull", "SetParamsFullCli", "GetLastMeters",
                                          "meterInfoList")}}
NULLS = ["listAvailableModules()", "getPortNames()", "getLink('p')", "getParam('k').toDict()",
         "getLastMeter('k').toDict()",
         "getLastMeter('k.l').toDict()", "param().toDict()"]

REFUSALS = [  # where two arguments are wrong, which is looked at first; where they are only so together
    *((OverflowError, text + " enum sonetrix_module_meters_type", f"{call}, {number})")
      for call in ("addDebugMeter(5, [], 'x'", "delDebugMeter(5", "getLastMeter(5")
      for text, number in (("can't convert negative value to", -1), ("value too large to convert to", 2**32))),
    (ValueError, "p1 has to be string or bytes (<class 'int'>)", "link(1, 'é')"),
    (UnicodeEncodeError, None, "newModule('a', 'é', 5)"), (UnicodeEncodeError, None, "link('é', 1)"),
    (UnicodeEncodeError, None, "addDebugMeter('é', [])"), (Exception, "key type not supported", "addDebugMeter(5, [])"),
    (OverflowError, "can't convert negative value to uint32_t", "addDebugMeter('k', -1, 'uint')"),
    *((Exception, f"value type {kind} incompatible with provided value {value}",
       f"addDebugMeter('k', {value}, '{kind}')")
      for kind, value in (("uint", 1.5), ("uint32", None), ("int", b""), ("int32", 1.0), ("float", 1))),
    (Exception, "only string is accepted", "getParams(L().append('a').append(1.5))"),
    (IndexError, "tuple index out of range", "getParams(L().append((1,)))"),
]


class EngineTestCase(record.TestCase):
    def setUp(self):
        super().setUp()
        self.engine = self.sonetrix.engine

    def evaluate(self, text):
        return eval("engine." + text, {"engine": self.engine, "K": self.sonetrix.listKeyValue,
                                       "L": self.sonetrix.listValue})

    def made(self):
        """The engine calls so far, without the list that a function fills in; all with the lock released."""
        calls = record.calls("sonetrix_engine_*", "readMeters")
        self.assertEqual([call for call in calls if call.lock_held], [])
        return [(call.name.removeprefix("sonetrix_engine_"),
                 *(call.args[:2] if "SetParams" in call.name else call.args))
                for call in calls]


class CallTest(EngineTestCase):
    def test_calls(self):
        record.numbers("sonetrix_engine_DriverGetCpuUsage", 1.5, -2, 0.25, 0, 7, 1)
        record.text("sonetrix_engine_DriverGetName", b"dummy")
        for name, entries in GIVEN.items():
            record.gives("sonetrix_engine_" + name, entries)
        for text, made, expected in CALLS:
            with self.subTest(text):
                record.clear()
                for name, *_ in made:
                    record.result("sonetrix_engine_" + name, 7 * (name != "DriverGetName"))
                result = self.evaluate(text)
                self.assertEqual((type(result), result, self.made()), (type(expected), expected, made))
        for text, function, value, result in (
                ("isRunning()", "IsRunning", 0, False), ("hasDriver()", "DriverIsLoaded", 0, False),
                ("link('a')", "LinkPort", -2**31, -2**31),
                ("isRunning()", "IsRunning", -1, True), ("getFrameRate()", "DriverGetFrameRate", M, M)):
            record.result("sonetrix_engine_" + function, value)
            self.assertIs(type(self.evaluate(text)), type(result))
            self.assertEqual(self.evaluate(text), result)

    def test_nulls(self):
        for name in [*GIVEN, "getStartParameter"]:
            record.null("sonetrix_engine_" + name)
        self.assertEqual([self.evaluate(text) for text in NULLS], [[]] * 3 + [{}] * 4)
        self.assertRefused(Exception, "listkey cannot be NULL on init", self.engine.getMeterInfo, 1)

    def test_refusals_reach_no_engine_function(self):
        for kind, text, call in REFUSALS:
            with self.subTest(call), self.assertRaises(kind) as caught:
                self.evaluate(call)
            self.assertIn(text, (None, str(caught.exception)))
        self.assertEqual(self.made(), [])

    def test_clocks_keep_the_lock(self):
        for name, call in ("sample_timestamp", self.engine.getLastAudioTimeStamp), ("gettime", self.engine.now):
            record.numbers("sonetrix_clock_" + name, 1700000000, 250000000)
            record.result("sonetrix_clock_" + name, -1)
            self.assertEqual(call(), 1700000000.25)
        self.assertEqual([call[1:3] for call in record.calls("sonetrix_clock_*")], [((E,), True), ((), True)])

    def test_driver_name(self):
        name = "sonetrix_engine_DriverGetName"
        for text in b"", b"x" * 5000:
            record.text(name, text)
            self.assertEqual(self.engine.getDriverName(), text.decode())
        record.text(name, b"\xc3")
        self.assertRaises(UnicodeDecodeError, self.engine.getDriverName)
        record.result(name, -1)
        self.assertRefused(Exception, "could not get driver name", self.engine.getDriverName)

    def test_handle_wait_and_start_parameters(self):
        record.null("sonetrix_engineGet")
        self.assertIsNone(self.engine.initEngine())  # keeps the handle
        running = mock.patch.object(self.engine, "isRunning", side_effect=[1, 1, 0])
        with mock.patch.object(self.sonetrix, "time") as time, running:
            self.assertIsNone(self.engine.waitUntilEnd())
            self.assertEqual(time.mock_calls, [mock.call.sleep(0.1)] * 2)
        with mock.patch.object(self.sonetrix, "time", None):
            self.assertRaises(AttributeError, self.engine.waitUntilEnd)
            record.result("sonetrix_engine_IsRunning", 0)
            self.assertIsNone(self.engine.waitUntilEnd())
        record.gives("sonetrix_engine_getStartParameter", {"a": 1})
        changed = self.engine.param().append("b", 2)
        self.assertEqual((self.engine.param().toDict(), changed.toDict()), ({b"a": 1}, {b"a": 1, b"b": 2}))

    def test_waiting_ends_at_a_signal_that_did_not_strike_in_the_sleep(self):
        self.addCleanup(signal.signal, signal.SIGINT, signal.signal(signal.SIGINT, signal.default_int_handler))
        strike = ctypes.PyDLL(None)["PyErr_SetInterrupt"]  # only takes note of it, as the handler in C does
        strike.restype, strike.argtypes = None, [ctypes.c_double]
        for running in 1, 1, 0:
            record.result("sonetrix_engine_IsRunning", running, lasting=False)
        with (mock.patch.object(self.sonetrix, "time", types.SimpleNamespace(sleep=strike)),
              self.assertRaises(KeyboardInterrupt)):
            self.engine.waitUntilEnd()
        self.assertEqual(len(record.calls("sonetrix_engine_IsRunning")), 1)

    def test_last_meters_by_prefix(self):
        given = {"m.a": 1, "m.ab": (2.5, "double"), "m.b": "x", "n.a": ((1.0,), "afloat")}
        record.gives("sonetrix_engine_GetLastMeters", given)
        for key, typed in (("m.a", {b"m.a": (1, "int32"), b"m.ab": (2.5, "double")}),
                           (b"m.b", {b"m.b": (b"x", "string")}),
                           ("n.", {b"n.a": ((1.0,), "afloat")}), ("m.a.c", {}), (".", {})):
            self.assertEqual(self.engine.getLastMeter(key).toDictType(), typed)
        self.assertEqual([call[2] for call in self.made()], [b"m", b"m", b"n", b"m", b""])

    def test_meter_manager(self):
        register, get = "sonetrix_engine_registerMeterManager", self.engine.getMeters
        self.addCleanup(self.engine.unregisterMetersManager)
        record.result(register, 1, lasting=False)
        self.assertRefused(Exception, "couldn't register CLI as meter manager", get, 5, 1)
        record.null(register, 1)
        self.assertRefused(Exception, "Callback to read meters is not valid", get, "m", 1)
        self.assertRefused(Exception, "only string/bytes is accepted as input", get, 5, 7)
        for wrong in (), ("m", -1), ("m", 2):
            self.assertRefused(Exception, "Meters type not valid", get, *wrong)
        self.assertRaises(OverflowError, get, "m", 2**31)
        record.gives("readMeters", {"a": 1})
        self.assertEqual([get("m", 1).toDict(), get(meters_type=0).toDict()], [{b"a": 1}] * 2)
        record.null("readMeters", 1)
        self.assertEqual(get(b"\xff", True).toDict(), {})
        self.assertIsNone(self.engine.unregisterMetersManager())
        get("m", 1)
        registered, read = ("registerMeterManager", E), "readMeters"
        self.assertEqual(self.made(), [registered] * 3 + [(read, E, b"m", 1), (read, E, b"", 0), (read, E, b"\xff", 1),
                                                          ("unregisterMeterManager", E), registered,
                                                          (read, E, b"m", 1)])

    def test_threads_register_one_meter_manager(self):
        self.addCleanup(self.engine.unregisterMetersManager)
        record.delay("sonetrix_engine_registerMeterManager", 0.1)
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(lambda module: self.engine.getMeters(module, 1), "mn"))
        self.assertEqual(len(record.calls("sonetrix_engine_registerMeterManager")), 1)


class ModulesTest(EngineTestCase):
    GET_START = "sonetrix_engine_ModuleGetStartParameter"

    def test_records(self):
        empty = self.engine.getModuleNames(), self.engine.getModuleInfos(), self.engine.getUsageInfo()
        self.assertEqual(empty, ([], [], {}))
        record.modules(
            Module.of(b"drv", 0, sources=[(b"drv:1", 3)], sinks=[(b"drv:2", M, b"mod:1"), (b"drv:3", 0)]),
            Module.of(b"mod\xff", 1, reference=7), Module.of(b"x", M))
        record.text(self.GET_START, b"lib\xff.so")
        record.gives(self.GET_START, {"c": 5})
        record.gives("sonetrix_engine_GetParams", {"p": "v"})
        names, param = self.engine.getModuleNames(), ("param", {b"p": b"v"})
        self.assertEqual([list(info.items()) for info in self.engine.getModuleInfos()], [
            [("name", b"drv"), ("type", 0), ("src", [{"name": b"drv:1", "type": 3}]),
             ("sink", [{"name": b"drv:2", "type": M, "link": b"mod:1"}, {"name": b"drv:3", "type": 0}]), param],
            [("name", b"mod\xff"), ("type", 1), ("library", b"lib\xff.so"), ("configuration", {b"c": 5}), param],
            [("name", b"x"), ("type", M), ("src", []), ("sink", []), param]])
        asked = [[("string", name + b".")] for name in (b"drv", b"mod\xff", b"x")]
        self.assertEqual([call[2] for call in self.made() if call[0] == "GetParams"], asked)
        record.null(self.GET_START)
        record.null("sonetrix_engine_GetParams")
        self.assertEqual(list(self.engine.getModuleInfos()[1].values())[2:], [b"lib\xff.so", {}, {}])
        record.result(self.GET_START, -1)
        self.assertEqual(list(self.engine.getModuleInfos()[1]), ["name", "type", "param"])
        record.numbers("sonetrix_engine_ModuleUsage", 1.5, 0.25, M)
        for status in 0, -1:
            record.result("sonetrix_engine_ModuleUsage", status, lasting=False)
        figures = [("absolute", 1.5), ("relative", 0.25), ("processId", M)]
        usage = {name: list(usage.items()) for name, usage in self.engine.getUsageInfo().items()}
        self.assertEqual((names, usage), ([b"drv", b"mod\xff", b"x"], {b"drv": figures, b"x": figures}))

    def test_errors_in_the_callbacks(self):
        """They are logged or reported; the engine is told nothing, and goes on with the next module."""
        each, place = "sonetrix_engine_ForEachModuleSafe", "sonetrix.engine.create_list_module_info"
        record.modules(Module.of(b"a", 1), Module.of(b"b", 2))
        record.iteration(each, stops_on_error=True)
        for container, text, logged, reported in (
                ((), "Expected list, got tuple", "info", "sonetrix.engine.create_list_module_name"),
                (None, "'NoneType' object has no attribute 'append'", "name", place)):
            record.clear()
            record.iteration(each, user=container)
            with record.unraisables() as reports:
                self.assertEqual((self.engine.getModuleNames(), self.engine.getModuleInfos()), ([], []))
            self.assertEqual([(name, str(error)) for name, error in reports], [(reported, text)] * 2)
            for level, line in record.log_lines():
                prefix = f"exception in callback module {logged}: Traceback (most recent call last):"
                self.assertEqual(line[:len(prefix)], prefix)
                self.assertEqual((level, line.splitlines()[-1].split(": ")[1]), (3, text))
            self.assertEqual(len(record.log_lines()), 2)
        record.iteration(each, user=(result := []))
        record.null("sonetrix_valueListNew", 1)  # in the first module's record
        with record.unraisables() as reports:
            self.engine.getModuleInfos()
        self.assertEqual([module["name"] for module in result], [b"b"])
        self.assertEqual([(name, type(error)) for name, error in reports], [(place, MemoryError)])


HEADER = """digraph pipeline {
  layout="dot";
  charset="UTF-8";
  rankdir="LR";
  fontname="DejaVu Sans";
  fontsize="10";
  labelloc="t";
  sep=.2;
  esep=.1;
  ranksep=.2;
  nodesep=0.2;
  splines=line;   // line, spline, polyline  (curved is slow, ortho is bugged)
  compound=true;
  node [style="filled,rounded", shape=box, fontsize="9", fontname="DejaVu Sans", margin="0.0,0.0"];
  edge [labelfontsize="6", fontsize="9", fontname="monospace"];

"""


def cluster(name, label, colour, *rows):
    """One cluster of the file; a row is its cells, ("sink" or "src", number, text)."""
    colours = {"sink": "#aaaaff", "src": "#ffaaaa"}
    cell = '        <TD BGCOLOR="{}" CELLPADDING="5" PORT="{}_{}">{}</TD>'
    lines = [f"  subgraph cluster_m_{name} {{", '    fontsize="8";', '    style="filled,rounded";', "    color=black;",
             f'    label="{label}";'.replace("\n", "\n  "), f'    fillcolor="{colour}";', "  ", f"    m_{name} [",
             "      shape=plain,", f'      fillcolor="{colour}",', "      label=<",
             '            <TABLE BORDER="0" CELLBORDER="0" CELLSPACING="8" ALIGN="left">']
    for row in rows:
        lines += ["      <TR>", *(cell.format(colours[kind], kind, number, text) for kind, number, text in row),
                  "      </TR>"]
    return "\n".join([*lines, "    </TABLE> >];", "  }", ""])


class GraphTest(EngineTestCase):
    def dot(self, infos, driver=True):
        with (tempfile.TemporaryDirectory() as folder, mock.patch.object(self.engine, "getModuleInfos", lambda: infos),
              mock.patch.object(self.engine, "hasDriver", lambda: driver)):
            path = pathlib.Path(folder, "graph.dot")
            path.write_text("old" * 9999)
            try:
                self.assertIsNone(self.engine.dot(str(path)))
            finally:
                self.written = path.read_text()

    def test_file(self):
        port = lambda name, **link: {"name": name, **link}
        self.dot([
            {"type": 0, "name": b"drv", "src": [port(b"d:1")], "sink": [port(b"d:2", link=b"m:1")]},
            {"type": 1, "name": "mä".encode(), "library": b"/lib/x.so", "configuration": "0123456789abcdefg",
             "src": [port(b"m:1")], "sink": [port(b"m:2", link=b"d:1"), port(b"m:3", link=b"m:1")]},
            {"type": 2, "name": b"e", "configuration": "0123456789abcdef", "src": [], "sink": []}])
        rows = [("sink", 2, "m:2"), ("src", 3, "m:1")], [("sink", 4, "m:3")]
        self.assertEqual(self.written, "".join((
            HEADER, cluster("0_src", "drv", "#aaffff", [("src", 0, "d:1")]),
            cluster("0_sink", "drv", "#aaffff", [("sink", 1, "d:2")]),
            '  m_0_src:src_0 -> m_0_sink:sink_1 [style="invis", splines=none];\n',
            cluster("1_src_sink", "mä\n(x.so)\n0123456789 ... g", "#aaffaa", *rows),
            '  m_1_src_sink:src_3 -> m_1_src_sink:sink_2 [style="invis", splines=none];\n',
            cluster("2_src_sink", "e\n0123456789abcdef", "#aaffaa"),
            '  m_1_src_sink:src_3 -> m_0_sink:sink_1 [style="filled", arrowtail="normal"];\n',
            '  m_0_src:src_0 -> m_1_src_sink:sink_2 [style="filled", arrowtail="normal"];\n',
            '  m_1_src_sink:src_3 -> m_1_src_sink:sink_4 [style="filled", arrowtail="normal"];\n', "}\n")))

    def test_failures(self):
        self.assertRefused(Exception, "dot is supported only if a driver is loaded", self.dot, [], driver=False)
        self.assertEqual(self.written[:3], "old")
        unlinked = {"type": 1, "name": b"a", "src": [], "sink": [{"name": b"p", "link": b"q"}]}
        for kind, info in ((KeyError, unlinked), (KeyError, {"type": 1, "name": b"a", "sink": []}),
                           (UnicodeDecodeError, {**unlinked, "name": b"\xff"})):
            self.assertRaises(kind, self.dot, [info])
            self.assertTrue(self.written.startswith(HEADER))
        self.assertRaises(FileNotFoundError, self.engine.dot, "/nonexistent/folder/graph")

    def test_lines(self):
        write = self.engine._writeLinesWithHeader
        for lines, count, written in (("a\nb\n", 2, "    a\n    b\n    \n"), ("", 1, "  \n"), ("a\r", 0, "a\r\n"),
                                      ("ä", -1, "ä\n")):
            self.assertIsNone(write(file := io.StringIO(newline=""), lines, count))
            self.assertEqual(file.getvalue(), written)
        self.assertRaises(AttributeError, write, None, "", 0)


if __name__ == "__main__":
    unittest.main()
