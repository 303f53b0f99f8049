"""The development engine, by scripts that run in it: what is heard after each edit, parameters, timers, meters, the log,
rendering, and that it bears many threads, little memory, processes that fork and processes that leave.
"""
# ctest: timeout=240

import cmath
import errno
import math
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import unittest
from unittest import mock

import support
from support import live, programs, sound

SETUP = """\
import ctypes
def new(name, plugin, **configuration):
    return engine.newModule(name, plugin, listKeyValue().appendFromDict(configuration))
def read(keys):
    return engine.getParam(keys).toDictType()
def meter(key, kind=engine.METER_FAST):
    return engine.getLastMeter(key, kind).toDict().get(key.encode())
"""
CHAIN = SETUP + """\
assert new("tone", "sine_fcac", frequency=440.0, amplitude=0.5) == new("gain", "amp_mono", gain=0.5) == 0
assert engine.link("tone:output", "gain:input") == engine.link("gain:output", "system:playback_1") == 0
"""

# What is fed back around a circle comes a block of 256 frames later.
BLOCK_AT_100_HZ = cmath.exp(-2j * math.pi * 100 * 256 / 48000)
# Python that edits the graph, then what is heard: (frequency, amplitude) on the left and on the right.
EDITS = [
    ("pass", (440, 0.25), None),
    ("write('gain.gain', 0.125)", (440, 0.0625), None),
    ("write('tone.frequency', 1000.0)", (1000, 0.0625), None),
    ("engine.link(b'gain:output', bytearray(b'system:playback_2'))", (1000, 0.0625), (1000, 0.0625)),
    ("engine.link('gain:output', '')", None, None),
    ("engine.link('tone:output', 'system:playback_2')", None, (1000, 0.5)),
    ("engine.link('gain:output', 'system:playback_2')", None, (1000, 0.5)),  # refused: it has a source
    ("engine.link('system:playback_2'); engine.link('gain:output', 'system:playback_2')", None, (1000, 0.0625)),
    ("engine.delModule('gain')", None, None),
    ("new('gain', 'amp_mono', gain=2.0)", None, None),  # a new module has none of the old one's links
    ("engine.link('gain:output', 'system:playback_1'); engine.link('tone:output', 'gain:input')", (1000, 1), None),
    ("assert not write('tone.frequency', 1e6) | write('tone.amplitude', '1') | write('no.such', 1.0)", (1000, 1), None),
    ("new('low', 'sine_fcac', frequency=100.0, amplitude=0.25); engine.link('gain:input')", None, None),
    ("engine.link('low:output', 'gain:input')", (100, 0.5), None),
    ("engine.delModule('tone'), engine.delModule('system'), engine.delModule('nobody')", (100, 0.5), None),
    ("new('mixer', 'mixer'), new('half', 'amp_mono', gain=0.5), engine.link('low:output', 'mixer:input_1'), "
     "engine.link('mixer:output', 'half:input'), engine.link('mixer:output', 'system:playback_2')",
     (100, 0.5), (100, 0.25)),
    ("engine.link('half:output', 'mixer:input_2')", (100, 0.5), (100, 0.25 / abs(1 - 0.5 * BLOCK_AT_100_HZ))),
    ("[engine.delModule(name) for name in engine.getModuleNames()]", None, None),
]


class EngineTest(live.LiveTest):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.recording = self.folder / "recording.wav"

    def record(self, source, *options, **expected):
        printed = self.run_live(source, "--record", self.recording, "--log-level", "error", *options, **expected)
        return printed, sound.read(self.recording)


class Audio(EngineTest):
    def test_each_edit(self):
        seconds = 0.25
        steps = "".join(f"{edit}\nassert write('engine.offline.run', {seconds})\n" for edit, *_ in EDITS)
        _, heard = self.record(CHAIN + steps, "--offline", seconds * len(EDITS))
        self.assertAlmostEqual(heard.seconds, seconds * len(EDITS))
        for index, (edit, *expected) in enumerate(EDITS):
            part = heard.part(index * seconds + 0.02, (index + 1) * seconds)
            for channel, tone in enumerate(expected):
                with self.subTest(edit, channel=channel):
                    frequency, amplitude = tone or (0, 0)
                    self.assertAlmostEqual(part.frequency(channel), frequency, delta=0.3)
                    self.assertAlmostEqual(part.levels()[channel], amplitude / math.sqrt(2), delta=0.002)

    def test_edits_in_real_time_take_effect_at_once_and_without_a_gap(self):
        printed, heard = self.record(CHAIN + """
for gain in (1.0, 0.25, 0.5):
    time.sleep(0.2)
    write("gain.gain", gain)
for _ in range(50):  # replans the graph without changing what is heard
    assert engine.newModule("other", "amp_mono", None) == engine.link("tone:output", "other:input") == 0
    time.sleep(0.01)
    assert engine.delModule("other") == 0
print(engine.getXrunCounter())
""")
        xruns = int(printed)
        left = heard.channels[0]
        start = next(i for i, sample in enumerate(left) if sample)
        # Of 440 Hz no sample differs much from the next, but for the three steps of the gain and after xruns.
        jumps = sum(abs(b - a) > 0.5 * 2 * math.pi * 440 / heard.rate * 1.5 for a, b in zip(left[start:], left[start + 1:]))
        self.assertLessEqual(jumps, 3 + xruns)
        self.assertAlmostEqual(max(left[start:]), 0.5, delta=0.001)
        self.assertAlmostEqual(max(left[-2400:]), 0.25, delta=0.001)

    def test_a_chain_made_backwards_has_no_delay_and_runs_add_up(self):
        sound.write_tone(self.folder / "in.wav", 440, 0.5, 0.1)
        _, heard = self.record(SETUP + """
assert all(new(f"m{index}", "amp_mono", gain=1.0) == 0 for index in (2, 1))
for link in ("m1:output", "m2:input"), ("system:capture_1", "m1:input"), ("m2:output", "system:playback_2"):
    assert engine.link(*link) == 0
for _ in range(20):
    assert write("engine.offline.run", 0.01)
assert not write("engine.offline.run", 0.06) and read("engine.offline.left")[b"engine.offline.left"][0] == 0.05
""", "--offline", 0.25, "--input", self.folder / "in.wav")
        given = sound.read(self.folder / "in.wav").channels[0]
        self.assertEqual((heard.seconds, heard.channels[1][:4801].tolist()), (0.25, [*given, 0.0]))

    def test_timers_go_by_rendered_time_and_waiting_renders_to_the_end(self):
        printed, heard = self.record(CHAIN + """
write("gain.gain", 0.0)
calls = []
def step():
    calls.append(write("engine.offline.run", 0.1))  # refused: rendering waits for this very call
    write("gain.gain", len(calls) / 100)
fade = engine.addTimer(10, step)
engine.waitUntilEnd()
print(len(calls), any(calls), read("engine.offline.left"))
""", "--offline", 1)
        self.assertEqual(printed, "99 False {b'engine.offline.left': (0.0, 'double')}\n")
        for second in 0.25, 0.5, 0.9:
            level = heard.part(second, second + 0.01).levels()[0] * math.sqrt(2)
            self.assertAlmostEqual(level, 0.5 * second, delta=0.01)

    def test_a_process_that_leaves_by_exit_has_a_whole_recording(self):
        for options in ("--offline", 1), ():
            with mock.patch.dict(os.environ, programs.OUTLIVED, MALLOC_PERTURB_="85"):  # what has been freed cannot be used by chance
                _, heard = self.record(CHAIN + "time.sleep(.5); ctypes.CDLL(None).exit(7)", *options, status=7)
            part = heard.part(heard.seconds - 0.2, heard.seconds - 0.1)
            self.assertAlmostEqual(part.levels()[0], 0.25 / math.sqrt(2), delta=0.002)

    def test_a_pause_of_the_process_is_a_few_xruns(self):
        with subprocess.Popen([support.ENGINE, "-c", "print(flush=True); input(); time.sleep(.5); print(engine.getXrunCounter())"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
            process.stdout.readline()
            process.send_signal(signal.SIGSTOP)
            subprocess.run(["sleep", "0.3"], check=True)
            process.send_signal(signal.SIGCONT)
            xruns = int(process.communicate("\n", timeout=support.TIME_LIMIT)[0])
        self.assertLessEqual(1, xruns)
        self.assertLess(xruns, 20 if not live.SANITIZED else 60)  # one per missed block would be 56


    @unittest.skipIf(live.SANITIZED, "looks at pauses of microseconds")
    def test_a_graph_that_is_always_too_slow_leaves_the_processor_some_time(self):
        self.run_live(SETUP + """
assert all(new(f"m{index}", "amp_mono") == 0 for index in range(300))
audio = engine.getUsageInfo()[b"system"]["processId"]
def counters():
    with open(f"/proc/self/task/{audio}/status") as file:
        pauses = int(file.read().split("\\nvoluntary_ctxt_switches:")[1].split()[0])
    return engine.getXrunCounter(), pauses
time.sleep(.2)
before = counters()
time.sleep(.3)
late, pauses = (now - then for now, then in zip(counters(), before))
assert late > 100 and pauses > late / 4, (late, pauses)
""", "--rate", "768000", "--block", "16")


class ManyThreads(EngineTest):
    def test_random_edits_while_it_runs(self):
        seconds = float(os.environ.get("SONETRIX_CHURN_SECONDS", 8)) / 4
        self.run_live(SETUP + f"""
PLUGINS = ["amp_mono", "amp_stereo", "delay_5s", "sine_fcac", "no_such_plugin"]
REFUSALS = {{0, *{[-number for number in (errno.EINVAL, errno.ENOENT, errno.EEXIST, errno.EBUSY)]}}}
edits, looks, end = [0, 0], [0], time.monotonic() + {seconds}

def edit(thread):
    pick = random.Random(thread)
    names = [f"m{{index}}" for index in range(12)]  # both threads use the same ones
    def port():
        return pick.choice([f"{{pick.choice(names)}}:{{pick.choice(['input', 'output'])}}", *engine.getPortNames()])
    while time.monotonic() < end:
        status = pick.choice([lambda: engine.newModule(pick.choice(names), pick.choice(PLUGINS), None),
            lambda: engine.delModule(pick.choice(names)), *[lambda: engine.link(port(), port())] * 2, lambda: engine.link(port())])()
        assert status in REFUSALS, status
        write(pick.choice(names) + ".gain", pick.random())
        edits[thread] += 1

def look():
    while time.monotonic() < end:
        infos = engine.getModuleInfos()
        sources = {{port["name"] for info in infos for port in info["src"]}}
        for info in infos:
            for port in info["sink"]:
                assert port.get("link", b"system:capture_1") in sources, (port, sources)
        assert all(type(usage["absolute"]) is float for usage in engine.getUsageInfo().values())
        looks[0] += 1

watch = notifyChanges(lambda changes: [changes[key] <= 1 or 1 / 0 for key in changes])
in_threads(lambda: edit(0), lambda: edit(1), look)
for name in engine.getModuleNames():
    engine.delModule(name)
assert engine.getModuleNames() == [b"system"] and len(engine.getPortNames()) == 4
assert min(edits) > {100 if live.SANITIZED else 1000} and looks[0] > 20, (edits, looks)
engine.link("system:playback_1")
assert new("tone", "sine_fcac", amplitude=0.5) == engine.link("tone:output", "system:playback_1") == 0
wait_for(lambda: 0.49 < meter("system.playback_1.peak") <= 0.5)
""", "--log-level", "fatal")

    def test_five_thousand_modules(self):
        self.run_live(SETUP + """
for index in range(5000):
    assert new(f"m{index}", "amp_mono") == 0
    assert engine.link(f"m{index - 1}:output" if index else "system:capture_1", f"m{index}:input") == 0
infos = engine.getModuleInfos()
assert all(info["sink"][0]["link"] == b"m%d:output" % index for index, info in enumerate(infos[2:])) and len(infos) == 5001
assert all(engine.delModule(f"m{index}") == 0 for index in range(5000))
""", "--offline", "1", "--log-level", "error")

    def test_two_removals_of_one_timer_both_wait_for_its_call(self):
        self.run_live(SETUP + """
library = ctypes.CDLL(None)
library.sonetrix_engineGet.restype = library.sonetrix_engine_addTimer.restype = ctypes.c_void_p
handle = ctypes.c_void_p(library.sonetrix_engineGet())
entered, leave, order = threading.Event(), threading.Event(), []
@ctypes.CFUNCTYPE(None, ctypes.c_void_p)
def called(user):
    entered.set(); leave.wait(); order.append("left")
timer = ctypes.c_void_p(library.sonetrix_engine_addTimer(handle, 1, called, None))
entered.wait()
def remove():
    library.sonetrix_engine_delTimer(handle, timer)
    order.append("removed")
threads = [threading.Thread(target=remove) for _ in range(2)]
[thread.start() for thread in threads]
time.sleep(.2)
leave.set()
[thread.join() for thread in threads]
assert order == ["left", "removed", "removed"], order
""")


class Parameters(EngineTest):
    def test_keys(self):
        self.run_live(SETUP + """
assert new("amp", "amp_mono", gain=0.5) == 0
own = {b"engine.rate": (44100, "uint32"), b"engine.block": (64, "uint32"), b"engine.log.level": (4, "int32")}
amp = {b"amp.gain": (0.5, "float")}
for keys, expected in [
    ((b"amp.gain", "amp.gain"), amp), ("amp.", amp | {b"amp.plugin": (b"amp_mono", "string")}), (list(own), own), ([], {}),
    ("system.", {}), ("", {}), (".", {}), ("amp", {}), ("amp.gain.", {}), ("amp..", {}), ("AMP.GAIN", {}), ("nobody.", {}),
]:
    assert read(keys) == expected, (keys, read(keys))
assert own.keys() <= read("engine.").keys()
assert engine.delModule("amp") == 0 and read(["amp.", "amp.gain"]) == {} == write("amp.gain", 0.25)
""", "--rate", "44100", "--block", "64", "--log-level", "error")

    def test_what_is_written_and_what_is_refused(self):
        self.run_live(SETUP + """
assert new("amp", "amp_mono", gain=0.5) == new("echo", "delay_5s") == 0
for value, type, kept in [
    (0.1, "float", 0.1), (-0.0, None, -0.0), (2.0 ** -149, None, 2.0 ** -149), (3.4e38, None, 3.4e38), (0.5, "double", 0.5),
    (1, None, 1.0), (1, "uint32", 1.0), ("1.0", None, None), (1e39, "double", None), ((1.0,), None, None), (-1.0, None, None),
    (float("nan"), None, None), (float("inf"), None, None), (-2.0 ** -149, None, None),
]:
    engine.setParams(listKeyValue().append("amp.gain", 0.25))
    written = engine.setParamsCli(listKeyValue().append(b"amp.gain", value, type)).toDictType()
    now, kind = read("amp.gain")[b"amp.gain"]
    assert struct.pack("f", now) == struct.pack("f", 0.25 if kept is None else kept) and kind == "float", (value, type, now)
    assert written == ({} if kept is None else {b"amp.gain": (now, "float")}), (value, type, written)
for key, value in ("engine.rate", 1), ("amp.", 0.5), ("", 0.5), ("engine.log.level", 6), ("engine.log.level", -1), ("amp.plugin", "x"):
    assert write(key, value) == {}, key
# One list: what can be written is, in order, and the request stays as it was.
request = listKeyValue().append("no.such", 1.0).append("amp.gain", 9.0).append("amp.gain", 2.0).append("echo.delay_seconds", 6.0)
before = request.toDictType()
assert engine.setParams(request).toDict() == {b"amp.gain": 2.0} and request.toDictType() == before
""", "--log-level", "error")


class Events(EngineTest):
    def test_timers_meters_and_notifications(self):
        self.run_live(CHAIN + """
began, ticks, alone, changes, fast, slow = time.monotonic(), [], [], [], [], []
timer = engine.addTimer(20, lambda: ticks.append(time.monotonic() - began))
def once():
    alone.append(1)
    holder.clear()
holder = [engine.addTimer(50, once)]
watch = notifyChanges(lambda change: changes.append(change.copy()))
emitted = notifyMeters(fast.append, engine.METER_FAST), notifyMeters(slow.append, engine.METER_SLOW)
for index in range(2000):
    write("gain.gain", index / 1000)
write("gain.gain", 0.5)
many = [engine.addTimer(3_600_000 if index % 2 else 1, lambda: None) for index in range(5000)]
wait_for(lambda: len(ticks) >= 10 and len(slow) >= 4)
assert all(tick >= 0.02 * index for index, tick in enumerate(ticks, 1)) and alone == [1], (ticks, alone)
assert 0 < len(changes) < 1000 and {key for change in changes for key in change} == {b"gain.gain"} and changes[-1][b"gain.gain"] == 0.5, changes
assert len(fast) >= len(slow) and b"system.capture_1.peak" in slow[0]
wait_for(lambda: abs(meter("system.playback_1.peak") - 0.25) < 0.01 and abs(meter("system.playback_1.mean") - 0.1768) < 0.01)
for key, value in (b"mine.a", 7), (b"mine.a", 8), (b"mine", 1), (b"mined.b", 2):
    engine.addDebugMeter(key, value)
assert engine.getLastMeter("mine", engine.METER_FAST).toDict() == {b"mine": 1, b"mine.a": 8}
engine.delDebugMeter(b"mine.a")
assert engine.getLastMeter("mine", engine.METER_FAST).toDict() == {b"mine": 1}
""", "--block", "480")

    def test_a_slow_callback_is_told_of(self):
        self.run_live("""
others = [engine.addTimer(10, lambda: None) for _ in range(3)]
calls = []
slow = engine.addTimer(100, lambda: (calls.append(1), time.sleep(.7)))
wait_for(lambda: len(calls) == 2)
""", log=re.compile(r"WARN  timers.cpp:\d+: the callback of a timer of 0.1 s has taken [01].\d s; other timers that waited for it: 3\n"))

    @unittest.skipIf(live.SANITIZED, "a sanitizer has an allocator of its own")
    def test_an_engine_thread_bears_a_lack_of_memory(self):
        library = support.BUILD / "tests" / "libsonetrix_starvation.so"
        for thread in "notify", "meters", "graph":
            with self.subTest(thread):
                result = programs.run_script(live.PRELUDE + CHAIN + f"""
seen = []
watch = notifyChanges(seen.append), notifyMeters(lambda levels: None, engine.METER_FAST)
library = ctypes.CDLL(None)
library.starve(b"sonetrix-{thread}", 1)
def starved():
    write("gain.gain", 0.25), engine.newModule("other", "amp_mono", None), engine.delModule("other")
    return library.starve_left() == 0
wait_for(starved)
write("gain.gain", 2.0)
wait_for(lambda: 0.98 < meter("system.playback_1.peak") <= 1 and seen)
""", environment={"LD_PRELOAD": str(library)})
                self.assertRegex(result.stderr, rf"^ERROR thread.h:\d+: sonetrix-{thread}: std::bad_alloc\n$")
                self.assertEqual(result.returncode, 0)

    @unittest.skipIf(support.SANITIZER == "thread", "the thread sanitizer knows no threads that a forked process starts")
    def test_a_forked_child_meets_no_lock_and_writes_nothing_of_the_parents(self):
        self.enterContext(mock.patch.dict(os.environ, programs.OUTLIVED))
        printed, heard = self.record(CHAIN + """
import signal, warnings
warnings.simplefilter("ignore")  # of threads that the child does not have
watch, timers = notifyChanges(lambda changes: None), [engine.addTimer(1, lambda: None) for _ in range(8)]
ends, results = time.monotonic() + 2, []
def busy():
    while time.monotonic() < ends:
        write("gain.gain", 0.5), log.debug("x"), engine.newModule("n", "amp_mono", None), engine.delModule("n")
threads = [threading.Thread(target=busy) for _ in range(2)]
[thread.start() for thread in threads]
while time.monotonic() < ends:
    child = os.fork()
    if child == 0:
        signal.alarm(5 * SLOWNESS)
        log.debug("child"), write("gain.gain", 0.1), engine.delModule("gain"), timers.clear()
        assert not engine.isRunning()
        ctypes.CDLL(None).exit(5)
    results.append(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
[thread.join() for thread in threads]
print(set(results))
""")
        self.assertEqual(printed, "{5}\n")
        part = heard.part(heard.seconds - 1, heard.seconds - 0.5)
        self.assertAlmostEqual(part.levels()[0], 0.25 / math.sqrt(2), delta=0.01)


class LogAndMemory(EngineTest):
    def test_log(self):
        file, missing = self.folder / "log", self.folder / "no" / "log"
        self.run_live(f"""
log.logOnFile({str(missing)!r})
log.logOnFile({str(file)!r})
for level in range(7):
    log.log(level, f"level {{level}}")
log.logTime(1)
log.warn("stamped")
log.logOnFile("")
log.logTime(0)
log.logSysLog(), log.logJournal(), log.warn("to all"), log.logSysLog(0), log.logJournal(0)
""", log=re.compile(rf"WARN  log: log file: there is no folder {missing.parent}\n"
                    r"WARN  python: level 3\nERROR python: level 4\nFATAL python: level 5\nFATAL python: level 6\n"
                    r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} WARN  python: stamped\nWARN  python: to all\n"))
        self.assertFalse(missing.parent.exists())
        lines = file.read_text().splitlines()
        self.assertEqual([line[27:] for line in lines if re.match(r"\d{4}-\d\d-\d\d ", line)],
                         ["WARN  python: level 3", "ERROR python: level 4", "FATAL python: level 5",
                          "FATAL python: level 6", "WARN  python: stamped"])

    def test_memory_of_modules_is_counted_and_given_back(self):
        printed = self.run_live(SETUP + """
memory.inspect(), new("amp", "amp_mono"), memory.inspect(), engine.delModule("amp")
time.sleep(.3)
memory.inspect()
""")
        before, during, after = (int(number) for number in re.findall(r"live +(\d+) bytes", printed))
        self.assertEqual((before, before + 1024), (after, during - (during - before) % 1024))


if __name__ == "__main__":
    unittest.main()
