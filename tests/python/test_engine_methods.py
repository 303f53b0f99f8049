"""The class engine in front of the development engine: which engine function is called with what, what comes of its
answer, and what is refused first where more than one argument is wrong."""

import concurrent.futures
import ctypes
import re
import signal
import subprocess
import tempfile
import types
import unittest
from unittest import mock

from support import record

M = 2**32 - 1
NAMES, TABLE = [b"x", 5], {b"k": 1.5}

# What is asked of engine, what it gives, and the engine's function that it calls with what beside the handle.
CALLS = [
    ("isRunning()", True, "IsRunning"), ("hasDriver()", True, "DriverIsLoaded"), ("exit()", None, "RequestStop"),
    ("getXrunCounter()", 7, "DriverGetXRun"), ("getFrameRate()", M, "DriverGetFrameRate"),
    ("cpuInfo()", (1.5, -2.0, 0.25, 0.0, 7.0, 1.0), "DriverGetCpuUsage"), ("getDriverName()", "dummy", "DriverGetName"),
    ("newModule('n', b'i\\xff', None)", 7, "ModuleNew", b"n", b"i\xff", None),
    ("newModule(info=K().append('a', 1), name=bytearray(b'n'), identifier=memoryview(b'i'))", -2**31,
     "ModuleNew", b"n", b"i", [(b"a", ("int32", 1))]),
    ("newModule('', 'i', K())", 7, "ModuleNew", b"", b"i", None), ("delModule(b'a\\0b')", 7, "ModuleDelete", b"a"),
    ("link('a')", 7, "LinkPort", b"a", None), ("link(b'a', '')", 7, "LinkPort", b"a", b""),
    ("link(bytearray(b'a'), p2=bytearray(b'b'))", 7, "LinkPort", b"a", b"b"),
    ("listAvailableModules()", NAMES, "GetModulesList"), ("getPortNames()", NAMES, "GetAllPortNames"),
    ("getLink([112])", NAMES, "GetLinkPort", b"p"),
    *((f"getParam({key!r}).toDict()", TABLE, "GetParams", [("string", b"a.b")]) for key in ("a.b", [b"a.b"], ("a.b",))),
    ("getParams(L()).toDict()", {}), ("setParams(K()).toDict()", {}),
    ("setParams(K().append('a', 1)).toDict()", TABLE, "SetParamsFull", [(b"a", ("int32", 1))]),
    ("setParamsCli(k=K().append('a', 'x')).toDict()", TABLE, "SetParamsFullCli", [(b"a", ("string", b"x"))]),
    *((f"addDebugMeter('k', {arguments})", None, "addDebugMeter", kind, b"k", sent) for arguments, kind, sent in (
        ("5", 1, ("int32", 5)), ("True, meters_type=0", 0, ("int32", 1)), (f"1.5, '', {M}", M, ("float", 1.5)),
        ("'ä'", 1, ("string", b"\xc3\xa4")), (r"b'\xff'", 1, ("string", b"\xff")),
        (f"{M}, 'uint'", 1, ("uint32", M)), ("5, 'uint32', 7", 7, ("uint32", 5)),
        ("-5, 'int'", 1, ("int32", -5)), ("-5, type='int32'", 1, ("int32", -5)), ("0.5, 'float'", 1, ("float", 0.5)))),
    ("delDebugMeter(b'k')", None, "delDebugMeter", 1, b"k"),
    ("delDebugMeter('k', 0.9)", None, "delDebugMeter", 0, b"k"),
    ("getLastMeter().toDict()", TABLE, "GetLastMeters", b"", 1),
    ("getLastMeter(b'm', 0).toDict()", TABLE, "GetLastMeters", b"m", 0),
    ("getMeterInfo(1).toDict()", TABLE, "meterInfoList", 1),
]
NULL_IS_EMPTY = "GetModulesList", "GetAllPortNames", "GetLinkPort", "GetParams", "GetLastMeters"

REFUSALS = [  # where two arguments are wrong, which is looked at first; where they are only so together
    *((OverflowError, "can't convert negative value to enum sonetrix_module_meters_type", call + ", -1)")
      for call in ("addDebugMeter(5, [], 'x'", "delDebugMeter(5", "getLastMeter(5")),
    (ValueError, "p1 has to be string or bytes (<class 'int'>)", "link(1, 'é')"),
    *((UnicodeEncodeError, None, f"{call})") for call in (
        "link('é', 1", "newModule('a', 'é', 5", "addDebugMeter('é', []")),
    (Exception, "key type not supported", "addDebugMeter(5, [])"),
    (OverflowError, "can't convert negative value to uint32_t", "addDebugMeter('k', -1, 'uint')"),
    *((Exception, f"value type {kind} incompatible with provided value 1", f"addDebugMeter('k', {value}, '{kind}')")
      for kind, value in (("uint", "'1'"), ("int", "'1'"), ("float", "1"))),
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
        """The engine calls so far, without the handle and the list that a function fills in."""
        return [(call.name.removeprefix("sonetrix_engine_"), *call.args[1:2 if "SetParams" in call.name else None])
                for call in record.calls("sonetrix_engine_*", "readMeters") if call.args[0] == "engine"]


class CallTest(EngineTestCase):
    def test_calls(self):
        record.numbers("sonetrix_engine_DriverGetCpuUsage", 1.5, -2, 0.25, 0, 7, 1)
        record.text("sonetrix_engine_DriverGetName", b"dummy")
        for text, expected, *made in CALLS:
            with self.subTest(text):
                name = "sonetrix_engine_" + (made or ["IsRunning"])[0]
                record.result(name, expected if type(expected) is int else expected != "dummy")
                record.gives(name, ["x", 5] if expected is NAMES else {"k": 1.5})
                record.clear()
                result = self.evaluate(text)
                self.assertEqual((type(result), result, self.made()),
                                 (type(expected), expected, [tuple(made)] if made else []))
                if made and made[0] in NULL_IS_EMPTY:
                    record.null(name, 1)
                    self.assertEqual(self.evaluate(text), type(expected)())
        for name, text in ("IsRunning", "isRunning()"), ("DriverIsLoaded", "hasDriver()"):
            record.result("sonetrix_engine_" + name, 0)
            self.assertIs(self.evaluate(text), False)

    def test_refusals_reach_no_engine_function(self):
        for kind, text, call in REFUSALS:
            with self.subTest(call), self.assertRaises(kind) as caught:
                self.evaluate(call)
            self.assertIn(text, (None, str(caught.exception)))
        self.assertEqual(self.made(), [])

    def test_status(self):
        for name, call in ("sample_timestamp", self.engine.getLastAudioTimeStamp), ("gettime", self.engine.now):
            record.numbers("sonetrix_clock_" + name, 1700000000, 250000000)
            self.assertEqual(call(), 1700000000.25)
        record.text("sonetrix_engine_DriverGetName", b"\xc3")
        self.assertRaises(UnicodeDecodeError, self.engine.getDriverName)
        record.result("sonetrix_engine_DriverGetName", -1)
        self.assertRefused(Exception, "could not get driver name", self.engine.getDriverName)
        record.null("sonetrix_engineGet")
        self.assertIsNone(self.engine.initEngine())  # keeps the handle
        record.gives("sonetrix_engine_getStartParameter", {"a": 1})
        changed = self.engine.param().append("b", 2)
        self.assertEqual((self.engine.param().toDict(), changed.toDict()), ({b"a": 1}, {b"a": 1, b"b": 2}))
        record.null("sonetrix_engine_getStartParameter")
        self.assertEqual(self.engine.param().toDict(), {})

    def test_waiting(self):
        running = mock.patch.object(self.engine, "isRunning", side_effect=[1, 1, 0])
        with mock.patch.object(self.sonetrix, "time") as time, running:
            self.assertIsNone(self.engine.waitUntilEnd())
        self.assertEqual(time.mock_calls, [mock.call.sleep(0.1)] * 2)
        self.addCleanup(signal.signal, signal.SIGINT, signal.signal(signal.SIGINT, signal.default_int_handler))
        strike = ctypes.PyDLL(None)["PyErr_SetInterrupt"]  # does not cut the sleep short, as a signal just before it
        strike.restype, strike.argtypes = None, [ctypes.c_double]
        with (mock.patch.object(self.sonetrix, "time", types.SimpleNamespace(sleep=strike)),
              self.assertRaises(KeyboardInterrupt)):
            self.engine.waitUntilEnd()
        self.assertEqual(self.made(), [("IsRunning",)])

    def test_last_meters_by_prefix(self):
        given = {"m.a": 1, "m.ab": (2.5, "double"), "m.b": "x", "n.a": ((1.0,), "afloat")}
        record.gives("sonetrix_engine_GetLastMeters", given)
        for key, typed in (("m.a", {b"m.a": (1, "int32"), b"m.ab": (2.5, "double")}),
                           (b"m.b", {b"m.b": (b"x", "string")}), ("n.", {b"n.a": ((1.0,), "afloat")}), (".", {})):
            self.assertEqual(self.engine.getLastMeter(key).toDictType(), typed)
        record.null("sonetrix_engine_GetLastMeters")
        self.assertEqual(self.engine.getLastMeter("m.a").toDict(), {})
        self.assertEqual([module for _, module, _ in self.made()], [b"m", b"m", b"n", b"", b"m"])

    def test_meter_manager(self):
        register, get = "sonetrix_engine_registerMeterManager", self.engine.getMeters
        self.addCleanup(self.engine.unregisterMetersManager)
        record.result(register, 1, lasting=False)
        self.assertRefused(Exception, "couldn't register CLI as meter manager", get, 5, 1)
        record.null(register, 1)
        self.assertRefused(Exception, "Callback to read meters is not valid", get, "m", 1)
        self.assertRefused(Exception, "only string/bytes is accepted as input", get, 5, 7)
        for wrong in (), ("m", -1):
            self.assertRefused(Exception, "Meters type not valid", get, *wrong)
        self.assertRaises(OverflowError, get, "m", 2**31)
        record.gives("readMeters", {"a": 1})
        self.assertEqual([get("m", 1).toDict(), get(meters_type=0).toDict()], [{b"a": 1}] * 2)
        self.assertIsNone(self.engine.unregisterMetersManager())
        record.null("readMeters")
        self.assertEqual(get(b"\xff", True).toDict(), {})
        registered = ("registerMeterManager",)
        self.assertEqual(self.made(), [*[registered] * 3, ("readMeters", b"m", 1), ("readMeters", b"", 0),
                                       ("unregisterMeterManager",), registered, ("readMeters", b"\xff", 1)])

    def test_threads_register_one_meter_manager(self):
        self.addCleanup(self.engine.unregisterMetersManager)
        record.delay("sonetrix_engine_registerMeterManager", 0.1)
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(lambda module: self.engine.getMeters(module, 1), "mn"))
        self.assertEqual(len(record.calls("sonetrix_engine_registerMeterManager")), 1)


class ModulesTest(EngineTestCase):
    """With modules of the development engine, which shows its driver first."""

    def setUp(self):
        super().setUp()
        self.engine.newModule("tone", "sine_fcac", self.sonetrix.listKeyValue().append("frequency", 9))
        self.engine.newModule("amp", "amp_mono", self.sonetrix.listKeyValue().append("gain", 1.125))
        self.engine.link("tone:output", "amp:input"), self.engine.link("amp:output", "system:playback_2")
        for name in "tone", "amp":
            self.addCleanup(self.engine.delModule, name)

    def test_records(self):
        port = lambda name, **link: {"name": name, "type": 0, **link}
        self.assertEqual(self.engine.getModuleNames(), [b"system", b"tone", b"amp"])
        driver, tone, amp = self.engine.getModuleInfos()
        self.assertEqual(list(driver.items()), [
            ("name", b"system"), ("type", 0), ("src", [port(b"system:capture_1"), port(b"system:capture_2")]),
            ("sink", [port(b"system:playback_1"), port(b"system:playback_2", link=b"amp:output")]), ("param", {})])
        self.assertEqual(list(tone), ["name", "type", "src", "sink", "library", "configuration", "param"])
        self.assertEqual((tone["library"][-7:], tone["configuration"]), (b"/cmt.so", {b"frequency": 9}))
        self.assertEqual((amp["src"], amp["sink"], amp["param"]), (
            [port(b"amp:output")], [port(b"amp:input", link=b"tone:output")],
            {b"amp.gain": 1.125, b"amp.plugin": b"amp_mono"}))

    def test_what_the_engine_does_not_tell(self):
        start = "sonetrix_engine_ModuleGetStartParameter"
        record.text(start, b"lib\xff.so")
        record.null(start)
        record.null("sonetrix_engine_GetParams")
        record.result("sonetrix_engine_DriverIsLoaded", 1)
        self.assertEqual([list(info.values()) for info in self.engine.getModuleInfos()], [
            [b"system", 0, {}], [b"tone", 1, b"lib\xff.so", {}, {}], [b"amp", 1, b"lib\xff.so", {}, {}]])
        record.result(start, -1)
        self.assertEqual(list(self.engine.getModuleInfos()[1]), ["name", "type", "param"])
        record.numbers("sonetrix_engine_ModuleUsage", 1.5, 0.25, M)
        for status in 0, -1, 0:
            record.result("sonetrix_engine_ModuleUsage", status, lasting=False)
        figures = {"absolute": 1.5, "relative": 0.25, "processId": M}
        self.assertEqual(self.engine.getUsageInfo(), {b"system": figures, b"amp": figures})

    def test_errors_in_the_callbacks(self):
        """They are logged or reported; the engine is told nothing, and goes on with the next module."""
        each, place = "sonetrix_engine_ForEachModuleSafe", "sonetrix.engine.create_list_module_info"
        for container, text, logged, reported in (
                ((), "Expected list, got tuple", "info", "sonetrix.engine.create_list_module_name"),
                (None, "'NoneType' object has no attribute 'append'", "name", place)):
            record.clear()
            record.iteration(each, user=container, gives_lock_up=1, stops_on_error=True)
            with record.unraisables() as reports:
                self.assertEqual((self.engine.getModuleNames(), self.engine.getModuleInfos()), ([], []))
            self.assertEqual([(name, str(error)) for name, error in reports], [(reported, text)] * 3)
            self.assertEqual([level for level, _ in record.log_lines()], [3] * 3)
            for _, line in record.log_lines():
                self.assertRegex(line, rf"(?s)^exception in callback module {logged}: Traceback .*: {text}\n$")
        record.iteration(each, user=(result := []))
        record.null("sonetrix_valueListNew", 1)  # in the first module's record
        with record.unraisables() as reports:
            self.engine.getModuleInfos()
        self.assertEqual([module["name"] for module in result], [b"tone", b"amp"])
        self.assertEqual([(name, type(error)) for name, error in reports], [(place, MemoryError)])

    def test_graph(self):
        file = self.enterContext(tempfile.NamedTemporaryFile("w+"))
        print("old" * 9999, file=file, flush=True)
        with mock.patch.object(self.engine, "hasDriver", bool):
            self.assertRefused(Exception, "dot is supported only if a driver is loaded", self.engine.dot, file.name)
        self.assertEqual(file.seek(0) or file.read(3), "old")
        self.assertIsNone(self.engine.dot(file.name))
        written = file.seek(0) or file.read()
        graphviz = subprocess.run(["dot", "-Tplain"], input=written, capture_output=True, text=True)
        self.assertEqual((graphviz.returncode, graphviz.stderr), (0, ""))
        self.assertEqual(re.findall(r' {4}label="([^"]*)";\n    fillcolor="(.*)";\n  \n    m_(\w+) \[', written), [
            ("system", "#aaffff", "0_src"), ("system", "#aaffff", "0_sink"),
            ("tone\n  (cmt.so)\n  {b'frequen ... }", "#aaffaa", "1_src_sink"),
            ("amp\n  (amp.so)\n  {b'gain': 1.125}", "#aaffaa", "2_src_sink")])
        sink, source = "#aaaaff", "#ffaaaa"
        self.assertEqual(re.findall(r'<TD BGCOLOR="(.*)" CELL.*" PORT="(.*)">(.*)</TD>\n {6}(</TR>)?', written), [
            (source, "src_0", "system:capture_1", "</TR>"), (source, "src_1", "system:capture_2", "</TR>"),
            (sink, "sink_2", "system:playback_1", "</TR>"), (sink, "sink_3", "system:playback_2", "</TR>"),
            (source, "src_4", "tone:output", "</TR>"), (sink, "sink_5", "amp:input", ""),
            (source, "src_6", "amp:output", "</TR>")])
        self.assertEqual(re.findall(r'\n  m_(\S+) -> m_(\S+) \[style="(.*?)", .*\];', written), [
            ("0_src:src_0", "0_sink:sink_2", "invis"), ("2_src_sink:src_6", "2_src_sink:sink_5", "invis"),
            ("2_src_sink:src_6", "0_sink:sink_3", "filled"), ("1_src_sink:src_4", "2_src_sink:sink_5", "filled")])
        with mock.patch.object(self.engine, "getModuleInfos", lambda: [{}]):
            self.assertRaises(KeyError, self.engine.dot, file.name)
        self.assertRegex(file.seek(0) or file.read(), r"(?s)^digraph .*;\n\n$")
        self.assertRaises(FileNotFoundError, self.engine.dot, "/nonexistent/folder/graph")
