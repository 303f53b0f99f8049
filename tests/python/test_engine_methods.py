"""The class engine in front of the development engine: which engine function is called with what, what comes of its
answer."""

import concurrent.futures
import pathlib
import re
import subprocess
import tempfile
import time

from support import record

M = 2**32 - 1
NAMES, TABLE = [b"x", 5], {b"k": 1.5}

# What is asked of engine, what it gives, and the engine's function that it calls with what beside the handle.
CALLS = [
    ("isRunning()", True, "IsRunning"), ("hasDriver()", True, "DriverIsLoaded"), ("exit()", None, "RequestStop"),
    ("getXrunCounter()", 7, "DriverGetXRun"), ("getFrameRate()", M, "DriverGetFrameRate"),
    ("cpuInfo()", (1.5, -2.0, 0.25, 0.0, 7.0, 1.0), "DriverGetCpuUsage"), ("getDriverName()", "dummy", "DriverGetName"),
    ("newModule('', b'i\\xff', K())", -2**31, "ModuleNew", b"", b"i\xff", None),
    ("link('a')", 7, "LinkPort", b"a", None), ("link(bytearray(b'a'), p2=b'')", 7, "LinkPort", b"a", b""),
    ("listAvailableModules()", NAMES, "GetModulesList"), ("getPortNames()", NAMES, "GetAllPortNames"),
    ("getLink([112])", NAMES, "GetLinkPort", b"p"), ("getLastMeter().toDict()", TABLE, "GetLastMeters", b"", 1),
    ("getMeterInfo(1).toDict()", TABLE, "meterInfoList", 1), ("delModule(b'a\\0b')", 7, "ModuleDelete", b"a"),
    ("getParams(L()).toDict()", {}), ("setParams(K()).toDict()", {}),
]
NULL_IS_EMPTY = "GetModulesList", "GetAllPortNames", "GetLinkPort", "GetLastMeters"
# What the development engine makes of lists that it is given, and of values: what it shows as its meters.
SESSION = [
    ("getParam('amp.gain')", 1.125), ("getParam([b'amp.gain', 'amp.no'])", 1.125),
    ("setParams(K().append('amp.gain', 2.0))", 2.0), ("setParamsCli(k=K().append('amp.gain', 3.0))", 3.0),
    ("getParams(L().append('amp.gain'))", 3.0)]
METERS = [("True", (1, "int32")), ("1.5, ''", (1.5, "float")), ("'ä'", (b"\xc3\xa4", "string")),
          (f"{M}, 'uint'", (M, "uint32")), ("5, 'uint32'", (5, "uint32")), ("-5, 'int'", (-5, "int32")),
          ("-5, type='int32'", (-5, "int32")), ("0.5, 'float'", (0.5, "float"))]


class EngineTest(record.TestCase):
    """With modules of the development engine, which shows its driver first. Nothing of the class is replaced here: it
    would take other ways from then on."""

    def setUp(self):
        super().setUp()
        self.engine, table = self.sonetrix.engine, self.sonetrix.listKeyValue
        self.engine.newModule("tone", bytearray(b"sine_fcac"), table().append("frequency", 9))
        self.engine.newModule(info=table().append("gain", 1.125), name=memoryview(b"amp"), identifier=b"amp_mono")
        self.engine.link("tone:output", "amp:input")
        self.engine.link(bytearray(b"amp:output"), bytearray(b"system:playback_2"))
        for name in "tone", "amp":
            self.addCleanup(self.engine.delModule, name)
        record.clear()

    def evaluate(self, text):
        return eval("engine." + text, {"engine": self.engine, "K": self.sonetrix.listKeyValue,
                                       "L": self.sonetrix.listValue})

    def made(self):
        """The engine calls so far, without the handle."""
        return [(call.name.removeprefix("sonetrix_engine_"), *call.args[1:])
                for call in record.calls("sonetrix_engine_*", "readMeters") if call.args[0] == "engine"]

    def test_calls(self):
        record.fills("sonetrix_engine_DriverGetCpuUsage", 1.5, -2, 0.25, 0, 7, 1)
        record.fills("sonetrix_engine_DriverGetName", b"dummy")
        for text, expected, *made in CALLS:
            with self.subTest(text):
                name = "sonetrix_engine_" + (made or ["IsRunning"])[0]
                if isinstance(expected, int):
                    record.result(name, expected)
                record.gives(name, ["x", 5] if expected is NAMES else {"k": 1.5})
                record.clear()
                result = self.evaluate(text)
                self.assertEqual((type(result), result, self.made()),
                                 (type(expected), expected, [tuple(made)] if made else []))
                if made and made[0] in NULL_IS_EMPTY:
                    record.null(name, 1)
                    self.assertEqual(self.evaluate(text), type(expected)())
        record.result("sonetrix_engine_DriverIsLoaded", 0)
        self.assertIs(self.engine.hasDriver(), False)

    def test_lists_and_values_arrive(self):
        for text, gain in SESSION:
            self.assertEqual(self.evaluate(text).toDict(), {b"amp.gain": gain}, text)
        self.assertEqual([name for name, *_ in self.made() if "Set" in name], ["SetParamsFull", "SetParamsFullCli"])
        for arguments, expected in METERS:
            self.evaluate(f"addDebugMeter('m.a', {arguments})")
            self.assertEqual(self.engine.getLastMeter("m").toDictType(), {b"m.a": expected}, arguments)

    def test_last_meters_by_prefix(self):
        for key in b"m.b", b"m.bc", "m.c":
            self.engine.addDebugMeter(key, 1, meters_type=0)
        for prefix, keys in (b"m.b", [b"m.b", b"m.bc"]), ("m.c", [b"m.c"]), (".", []):
            self.assertEqual(self.engine.getLastMeter(prefix, 0).toDictType(), dict.fromkeys(keys, (1, "int32")))
        self.engine.delDebugMeter("m.b", 0)
        self.engine.delDebugMeter("m.bc")  # of the other kind
        self.assertEqual(list(self.engine.getLastMeter("m", 0).toDict()), [b"m.bc", b"m.c"])

    def test_status(self):
        for name, call in ("sample_timestamp", self.engine.getLastAudioTimeStamp), ("gettime", self.engine.now):
            record.fills("sonetrix_clock_" + name, (1700000000, 250000000))
            self.assertEqual(call(), 1700000000.25)
        record.fills("sonetrix_engine_DriverGetName", 5, status=-1)  # no memory of ours
        self.assertRefused(Exception, "could not get driver name", self.engine.getDriverName)
        record.null("sonetrix_engineGet")
        self.assertIsNone(self.engine.initEngine())  # keeps the handle
        record.gives("sonetrix_engine_getStartParameter", {"a": 1})
        changed = self.engine.param().append("b", 2)
        self.assertEqual((self.engine.param().toDict(), changed.toDict()), ({b"a": 1}, {b"a": 1, b"b": 2}))

    def test_meter_manager(self):
        register, get = "sonetrix_engine_registerMeterManager", self.engine.getMeters
        self.addCleanup(self.engine.unregisterMetersManager)
        record.result(register, 1, 0)  # without a function to read with
        self.assertRefused(Exception, "couldn't register CLI as meter manager", get, 5, 1)
        self.assertRefused(Exception, "Callback to read meters is not valid", get, "m", 1)
        record.reset()
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
        self.assertEqual(self.made(), [registered, ("readMeters", b"m", 1), ("readMeters", b"", 0),
                                       ("unregisterMeterManager",), registered, ("readMeters", b"\xff", 1)])

    def test_threads_register_one_meter_manager(self):
        self.addCleanup(self.engine.unregisterMetersManager)
        record.act("sonetrix_engine_registerMeterManager", lambda *_: time.sleep(0.1))
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(lambda module: self.engine.getMeters(module, 1), "mn"))
        self.assertEqual(len(record.calls("sonetrix_engine_registerMeterManager")), 1)

    def test_records(self):
        self.assertEqual(self.engine.getModuleNames(), [b"system", b"tone", b"amp"])
        driver, _, amp = self.engine.getModuleInfos()
        self.assertEqual(list(driver), ["name", "type", "src", "sink", "param"])
        self.assertEqual(driver["sink"], [{"name": b"system:playback_1", "type": 0},
                                          {"name": b"system:playback_2", "type": 0, "link": b"amp:output"}])
        self.assertEqual(pathlib.PurePosixPath(amp.pop("library").decode()).name, "amp.so")
        self.assertEqual(list(amp.items()), [
            ("name", b"amp"), ("type", 1), ("src", [{"name": b"amp:output", "type": 0}]),
            ("sink", [{"name": b"amp:input", "type": 0, "link": b"tone:output"}]),
            ("configuration", {b"gain": 1.125}), ("param", {b"amp.gain": 1.125, b"amp.plugin": b"amp_mono"})])

    def test_what_the_engine_does_not_tell(self):
        start = "sonetrix_engine_ModuleGetStartParameter"
        record.fills(start, b"lib\xff.so")
        record.null("sonetrix_engine_GetParams")
        record.result("sonetrix_engine_DriverIsLoaded", 1)
        self.assertEqual([list(info.values()) for info in self.engine.getModuleInfos()], [
            [b"system", 0, {}], [b"tone", 1, b"lib\xff.so", {}, {}], [b"amp", 1, b"lib\xff.so", {}, {}]])
        record.result(start, -1)
        self.assertEqual(list(self.engine.getModuleInfos()[1]), ["name", "type", "param"])
        record.fills("sonetrix_engine_ModuleUsage", 1.5, 0.25, M)
        figures = {"absolute": 1.5, "relative": 0.25, "processId": M}
        self.assertEqual(self.engine.getUsageInfo(), dict.fromkeys([b"system", b"tone", b"amp"], figures))
        record.result("sonetrix_engine_ModuleUsage", -1)
        self.assertEqual(self.engine.getUsageInfo(), {})

    def test_errors_in_the_callbacks(self):
        each = "sonetrix_engine_ForEachModuleSafe"
        for container, text in ((), "Expected list, got tuple"), (None, "'NoneType' object has no attribute 'append'"):
            record.iteration(each, container=container)
            record.clear()
            with record.unraisables() as reports:
                self.assertEqual((self.engine.getModuleNames(), self.engine.getModuleInfos()), ([], []))
            self.assertEqual([str(error) for _, error in reports], [text] * 3)
            self.assertEqual([line.endswith(text + "\n") for _, line in record.log_lines()], [True] * 3)
        statuses = record.iteration(each)
        record.null("sonetrix_valueListNew", 1)  # in the first module's record
        with record.unraisables() as reports:
            infos = self.engine.getModuleInfos()
        self.assertEqual(([module["name"] for module in infos], statuses), ([b"tone", b"amp"], [0, 0, 0]))
        self.assertEqual([(name, type(error)) for name, error in reports],
                         [("sonetrix.engine.create_list_module_info", MemoryError)])

    def test_graph(self):
        file = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()), "graph")
        record.result("sonetrix_engine_DriverIsLoaded", 0)
        self.assertRefused(Exception, "dot is supported only if a driver is loaded", self.engine.dot, str(file))
        self.assertFalse(file.exists())
        record.reset()
        self.assertIsNone(self.engine.dot(str(file)))
        written = file.read_text()
        graphviz = subprocess.run(["dot", "-Tplain"], input=written, capture_output=True, text=True)
        self.assertEqual((graphviz.returncode, graphviz.stderr), (0, ""))
        self.assertEqual(re.findall(r' {4}label="([^"]*)";\n    fillcolor="(.*)";\n  \n    m_(\w+) \[', written), [
            ("system", "#aaffff", "0_src"), ("system", "#aaffff", "0_sink"),
            ("tone\n  (cmt.so)\n  {b'frequen ... }", "#aaffaa", "1_src_sink"),
            ("amp\n  (amp.so)\n  {b'gain': 1.125}", "#aaffaa", "2_src_sink")])
        self.assertEqual(re.findall(r'PORT="(.*)">(.*)</TD>', written), [
            ("src_0", "system:capture_1"), ("src_1", "system:capture_2"),
            ("sink_2", "system:playback_1"), ("sink_3", "system:playback_2"),
            ("src_4", "tone:output"), ("sink_5", "amp:input"), ("src_6", "amp:output")])
        self.assertEqual(re.findall(r'\n  m_(\S+) -> m_(\S+) \[style="(.*?)", .*\];', written), [
            ("0_src:src_0", "0_sink:sink_2", "invis"), ("2_src_sink:src_6", "2_src_sink:sink_5", "invis"),
            ("2_src_sink:src_6", "0_sink:sink_3", "filled"), ("1_src_sink:src_4", "2_src_sink:sink_5", "filled")])
        memory = iter([None, 0])  # for the keys of system's parameters, and none for those of tone's
        record.act("sonetrix_valueListNew", lambda *_: next(memory, None))
        with record.unraisables():
            self.assertRaises(KeyError, self.engine.dot, str(file))  # for the port that amp:input is linked with
        self.assertRegex(file.read_text(), r'(?s)^digraph .*label="amp\n.*[^}]\n$')  # closed with what there was
