"""The development engine, by scripts that run in it: what is heard after each edit, parameters, timers, meters, the
log, rendering, and that it bears many threads, little memory, processes that fork and processes that leave.
"""
# ctest: timeout=240

import cmath
import math
import os
import re
import unittest

import support
from support import live, programs, sound
from support.live import CHAIN

# What is fed back around a circle comes a block of 256 frames later.
BLOCK_AT_100_HZ = cmath.exp(-2j * math.pi * 100 * 256 / 48000)
# Python that edits the graph, then what is heard: (frequency, amplitude) on the left and on the right.
EDITS = [
    ("pass", (440, 0.25), None),
    ("write('gain.gain', 0.125)", (440, 0.0625), None),
    ("engine.link('gain:output', 'system:playback_2'); write('tone.frequency', 1000.0)",
     (1000, 0.0625), (1000, 0.0625)),
    ("engine.link('gain:output', '')", None, None),
    ("engine.link('tone:output', 'system:playback_2')", None, (1000, 0.5)),
    ("engine.link('gain:output', 'system:playback_2')", None, (1000, 0.5)),  # refused: it has a source
    ("engine.link('system:playback_2'); engine.link('gain:output', 'system:playback_2')", None, (1000, 0.0625)),
    ("engine.delModule('gain')", None, None),
    ("new('gain', 'amp_mono', gain=2.0)", None, None),  # a new module has none of the old one's links
    ("engine.link('gain:output', 'system:playback_1'); engine.link('tone:output', 'gain:input')", (1000, 1), None),
    ("new('low', 'sine_fcac', frequency=100.0, amplitude=0.25); engine.link('gain:input')", None, None),
    ("engine.link('low:output', 'gain:input')", (100, 0.5), None),
    ("engine.delModule('tone'), engine.delModule('system'), engine.delModule('nobody')", (100, 0.5), None),
    ("new('mixer', 'mixer'), new('half', 'amp_mono', gain=0.5), engine.link('low:output', 'mixer:input_1'), "
     "engine.link('mixer:output', 'half:input'), engine.link('mixer:output', 'system:playback_2')",
     (100, 0.5), (100, 0.25)),
    ("engine.link('half:output', 'mixer:input_2')", (100, 0.5), (100, 0.25 / abs(1 - 0.5 * BLOCK_AT_100_HZ))),
    ("[engine.delModule(name) for name in engine.getModuleNames()]", None, None),
]


class Audio(live.LiveTest):
    def test_each_edit(self):
        seconds = 0.25
        _, heard = self.record(CHAIN + "".join(f"{edit}\nrun({seconds})\n" for edit, *_ in EDITS),
                               "--offline", seconds * len(EDITS))
        self.assertAlmostEqual(heard.seconds, seconds * len(EDITS))
        for index, (edit, *expected) in enumerate(EDITS):
            part = heard.part(index * seconds + 0.02, (index + 1) * seconds)
            for channel, tone in enumerate(expected):
                with self.subTest(edit, channel=channel):
                    self.assert_tone(part, *(tone or (0, 0)), channel)

    def test_edits_in_real_time_leave_no_gap_and_a_recording_can_be_read_after_a_kill(self):
        _, heard = self.record(CHAIN + """
for _ in range(250):  # replans the graph without changing what is heard
    assert new("other") == engine.link("tone:output", "other:input") == 0
    time.sleep(0.01)
    assert engine.delModule("other") == 0
os.kill(os.getpid(), 9)
""", status=-9)
        self.assertGreater(heard.seconds, 1)
        self.assert_tone(heard.part(-0.5), 440, 0.25)
        left = heard.channels[0]
        begins = next(index for index, sample in enumerate(left) if sample)
        steepest = max(abs(b - a) for a, b in zip(left[begins:], left[begins + 1:]))
        self.assertLess(steepest, 1.1 * 0.25 * 2 * math.pi * 440 / heard.rate)

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
            self.assertAlmostEqual(heard.part(second, second + 0.01).amplitudes()[0], 0.5 * second, delta=0.01)

    def test_a_process_that_leaves_by_exit_has_a_whole_recording(self):
        self.set_environment(**programs.OUTLIVED, MALLOC_PERTURB_="85")  # what has been freed cannot be used by chance
        for options in ("--offline", 1), ():
            _, heard = self.record(CHAIN + "time.sleep(.5); ctypes.CDLL(None).exit(7)", *options, status=7)
            self.assert_tone(heard.part(-0.2), 440, 0.25)


class Clock(live.LiveTest):
    @unittest.skipIf(live.SANITIZED, "looks at pauses of microseconds, and at memory that a sanitizer does not lock")
    def test_threads_leave_the_processor_and_signals_to_others_and_memory_is_locked(self):
        print(self.run_live("""
import resource
def facts(thread):
    with open(f"/proc/self/task/{thread}/status") as file:
        return dict(line.rstrip().split(":", 1) for line in file)
waits = lambda thread: int(facts(thread)["voluntary_ctxt_switches"])
program = facts(os.getpid())
threads = {status["Name"].strip()[9:]: status for status in map(facts, os.listdir("/proc/self/task"))
           if status["Name"].startswith("\tsonetrix-") and status["Pid"] != program["Pid"]}
assert sorted(threads) == "audio file graph meters notify signal stop timer".split(), threads
ending = sum(1 << number - 1 for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM))
assert all(int(status["SigBlk"], 16) & ending == ending for status in threads.values()), threads
if int(program["CapEff"], 16) >> 14 & 1 or resource.getrlimit(resource.RLIMIT_MEMLOCK) == (-1, -1):
    assert int(program["VmLck"].split()[0]) > 10_000, program["VmLck"]
else:
    print("that memory is locked is NOT tested: it is not permitted here")
assert all(new(f"m{index}") == 0 for index in range(2000))  # always too slow
audio, files = (int(threads[name]["Pid"]) for name in ("audio", "file"))
counters = lambda: (engine.getXrunCounter(), waits(audio), waits(files))
time.sleep(.2)
before = counters()
time.sleep(.3)
late, pauses, looks = (now - then for now, then in zip(counters(), before))
assert late > 100 and pauses > late / 20 and looks == 0, (late, pauses, looks)
assert write("engine.record.file", "woken.wav")
wait_for(lambda: os.path.getsize("woken.wav") > 10_000)
""", "--rate", 768000, "--block", 16), end="", flush=True)


class ManyThreads(live.LiveTest):
    def test_random_edits_while_it_runs(self):
        self.run_live("""
engine.listAvailableModules()  # so that they have been looked for
REFUSALS = {0, *(-number for number in (errno.EINVAL, errno.ENOENT, errno.EEXIST, errno.EBUSY))}
edits, looks, end = [0, 0], [0], time.monotonic() + SECONDS

def edit(thread):
    pick = random.Random(thread)
    name = lambda: f"m{pick.randrange(12)}"  # both threads use the same ones
    port = lambda: pick.choice([name() + ":input", name() + ":output", *engine.getPortNames()])
    while time.monotonic() < end:
        status = pick.choice([
            lambda: new(name(), pick.choice(["amp_mono", "amp_stereo", "delay_5s", "no_such_plugin"])),
            lambda: engine.delModule(name()), lambda: engine.link(port(), port()), lambda: engine.link(port())])()
        assert status in REFUSALS, status
        write(name() + ".gain", pick.random())
        edits[thread] += 1

def look():
    while time.monotonic() < end:
        infos = engine.getModuleInfos()
        sources = {port["name"] for info in infos for port in info["src"]}
        assert all(port.get("link", b"system:capture_1") in sources for info in infos for port in info["sink"]), infos
        assert all(type(usage["absolute"]) is float for usage in engine.getUsageInfo().values())
        looks[0] += 1

watch = notifyChanges(lambda changes: [changes[key] <= 1 or 1 / 0 for key in changes])
in_threads(lambda: edit(0), lambda: edit(1), look)
for name in engine.getModuleNames():
    engine.delModule(name)
assert engine.getModuleNames() == [b"system"] and len(engine.getPortNames()) == 4
assert min(edits) > 1000 / SLOWNESS ** 2 and looks[0] > 20, (edits, looks)
assert new("tone", "sine_fcac", amplitude=0.5) == engine.link("tone:output", "system:playback_1") == 0
wait_for(lambda: 0.49 < meter("system.playback_1.peak") <= 0.5)
""".replace("SECONDS", str(float(os.environ.get("SONETRIX_CHURN_SECONDS", 8)) / 4)), "--log-level", "fatal")

    def test_two_removals_of_one_timer_both_wait_for_its_call(self):
        self.run_live("""
library = ctypes.CDLL(None)
library.sonetrix_engineGet.restype = library.sonetrix_engine_addTimer.restype = ctypes.c_void_p
handle = ctypes.c_void_p(library.sonetrix_engineGet())
entered, order = threading.Event(), []
called = ctypes.CFUNCTYPE(None, ctypes.c_void_p)(lambda user: (entered.set(), time.sleep(.2), order.append("left")))
timer = ctypes.c_void_p(library.sonetrix_engine_addTimer(handle, 1, called, None))
entered.wait()
in_threads(*[lambda: (library.sonetrix_engine_delTimer(handle, timer), order.append("removed"))] * 2)
assert order == ["left", "removed", "removed"], order
""")


class Parameters(live.LiveTest):
    def test_what_is_read_written_and_left_as_it_is(self):
        self.run_live("""
assert new("amp", gain=0.5) == new("echo", "delay_5s") == 0
own = {b"engine.rate": (44100, "uint32"), b"engine.block": (64, "uint32"), b"engine.log.level": (4, "int32")}
amp = {b"amp.gain": (0.5, "float")}
for keys, expected in [
    ((b"amp.gain", "amp.gain"), amp), ("amp.", amp | {b"amp.plugin": (b"amp_mono", "string")}), (list(own), own),
    *((key, {}) for key in ("system.", "", ".", "amp", "amp..", "AMP.GAIN", "nobody.")),
]:
    assert read(keys) == expected, (keys, read(keys))
for given, type, kept in [
    (0.1, "float", 0.1), (2.0 ** -149, None, 2.0 ** -149), (0.5, "double", 0.5), (1, None, 1.0), (1, "uint32", 1.0),
    ("1.0", None, None), (1e39, "double", None), ((1.0,), None, None), (float("nan"), None, None), (-1.0, None, None),
]:
    write("amp.gain", 0.25)
    written = engine.setParamsCli(listKeyValue().append(b"amp.gain", given, type)).toDictType()
    now, kind = read("amp.gain")[b"amp.gain"]
    assert (struct.pack("f", now), kind) == (struct.pack("f", 0.25 if kept is None else kept), "float"), (given, now)
    assert written == ({} if kept is None else {b"amp.gain": (now, "float")}), (given, type, written)
for key, bad in ("engine.rate", 1), ("amp.", 0.5), ("", 0.5), ("engine.log.level", 6):
    assert write(key, bad) == {}, key
# One list: what can be written is, in order, and the request stays as it was.
request = listKeyValue().append("no.such", 1.0).append("amp.gain", 9.0).append("amp.gain", 2.0)
before = request.toDictType()
assert engine.setParams(request).toDict() == {b"amp.gain": 2.0} and request.toDictType() == before
assert engine.delModule("amp") == 0 and read(["amp.", "amp.gain"]) == {} == write("amp.gain", 0.25)
""", "--rate", 44100, "--block", 64, "--log-level", "error")


class Events(live.LiveTest):
    def test_timers_meters_notifications_and_xruns(self):
        self.run_live(CHAIN + """
import subprocess
began, ticks, alone, changes, fast, slow = time.monotonic(), [], [], [], [], []
timer = engine.addTimer(20, lambda: ticks.append(time.monotonic() - began))
holder = [engine.addTimer(50, lambda: (alone.append(1), holder.clear()))]
watch = notifyChanges(lambda change: changes.append(change.copy()))
emitted = notifyMeters(fast.append, engine.METER_FAST), notifyMeters(slow.append, engine.METER_SLOW)
for index in range(2000):
    write("gain.gain", 0.5 + index % 2)
write("gain.gain", 0.5)
many = [engine.addTimer(3_600_000 if index % 2 else 1, lambda: None) for index in range(5000)]
wait_for(lambda: len(ticks) >= 10 and len(slow) >= 4)
assert all(tick >= 0.02 * index for index, tick in enumerate(ticks, 1)) and alone == [1], (ticks, alone)
assert 0 < len(changes) < 1000 and {key for change in changes for key in change} == {b"gain.gain"}, changes
assert changes[-1][b"gain.gain"] == 0.5 and len(fast) >= len(slow) and b"system.capture_1.peak" in slow[0]
for name, level in ("peak", 0.25), ("mean", 0.1768):
    wait_for(lambda: abs(meter("system.playback_1." + name) - level) < 0.01)
for key, number in (b"mine.a", 7), (b"mine.a", 8), (b"mine", 1), (b"mined.b", 2), (b"mine.c", 3):
    engine.addDebugMeter(key, number)
engine.delDebugMeter(b"mine.c")
assert engine.getLastMeter("mine", engine.METER_FAST).toDict() == {b"mine": 1, b"mine.a": 8}
before = engine.getXrunCounter()
subprocess.Popen(["sh", "-c", "sleep .3; kill -CONT $PPID"])
os.kill(os.getpid(), signal.SIGSTOP)  # 60 blocks: a few xruns, not one for each
time.sleep(.3)
assert 1 <= engine.getXrunCounter() - before < 20 * SLOWNESS
""", "--block", 240)

    def test_a_slow_callback_is_told_of(self):
        self.run_live("""
others, calls = [engine.addTimer(10, lambda: None) for _ in range(3)], []
slow = engine.addTimer(100, lambda: (calls.append(1), time.sleep(.7)))
wait_for(lambda: len(calls) == 2)
""", log=re.compile(r"WARN  timers.h:\d+: the callback of a timer of 0.1 s has taken [01].\d s; "
                    r"other timers that waited for it: 3\n"))

    @unittest.skipIf(support.SANITIZER == "thread", "it knows no threads that a forked process starts")
    def test_a_forked_child_meets_no_lock_and_writes_nothing_of_the_parents(self):
        self.set_environment(**programs.OUTLIVED)
        _, heard = self.record(CHAIN + """
import warnings
warnings.simplefilter("ignore")  # of threads that the child does not have
watch, timers = notifyChanges(lambda changes: None), [engine.addTimer(1, lambda: None) for _ in range(8)]
ends = time.monotonic() + 2
def busy():
    while time.monotonic() < ends:
        write("gain.gain", 0.5), log.debug("x"), new("n"), engine.delModule("n")
def fork():
    while time.monotonic() < ends:
        if (child := os.fork()) == 0:
            signal.alarm(5 * SLOWNESS)
            log.debug("child"), write("gain.gain", 0.1), engine.delModule("gain"), timers.clear()
            ctypes.CDLL(None).exit(6 if engine.isRunning() else 5)
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 5
in_threads(busy, busy, fork)
""", "--log-level", "debug", log=re.compile(".*", re.S))
        self.assert_tone(heard.part(-1), 440, 0.25)


class LogAndMemory(live.LiveTest):
    def test_log(self):
        self.run_live("""
log.logOnFile("no/log")
log.logOnFile("log")
for level in range(7):
    log.log(level, f"level {level}")
log.logTime(1), log.warn("stamped")
log.logOnFile(""), log.logTime(0)
log.logSysLog(), log.logJournal(), log.warn("to all"), log.logSysLog(0), log.logJournal(0)
log.logOnFile("/dev/full"), log.warn("full"), log.warn("full")
""", log=re.compile(r"WARN  log: log file: there is no folder no\n"
                    r"WARN  python: level 3\nERROR python: level 4\nFATAL python: level 5\nFATAL python: level 6\n"
                    r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} WARN  python: stamped\nWARN  python: to all\n"
                    r"WARN  python: full\nWARN  log: log file: .*No space.*\nWARN  python: full\n"))
        self.assertRegex((self.folder / "log").read_text(),
                         r"^(\d{4}-\d\d-\d\d \S* (WARN |ERROR|FATAL) python: (level [3-6]|stamped)\n){5}$")

    def test_memory_of_modules_is_counted_and_given_back(self):
        printed = self.run_live("""
memory.inspect(), new("amp"), memory.inspect(), engine.delModule("amp")
time.sleep(.3)
memory.inspect()
""")
        before, during, after = (int(number) for number in re.findall(r"live +(\d+) bytes", printed))
        self.assertEqual((before, before + 1024), (after, during - (during - before) % 1024))


if __name__ == "__main__":
    unittest.main()
