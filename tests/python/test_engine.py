"""Scripts in the development engine: edits that are heard, timers, meters, the log, rendering, threads and ends."""
# ctest: timeout=240

import re
import unittest

import support
from support import live, programs, sound
from support.live import CHAIN

# Python that edits the graph, then what is heard: (frequency, amplitude) on the left and on the right.
EDITS = [
    ("engine.link('system:playback_1'); engine.link('gain:output', 'system:playback_2')", None, (440, 0.25)),
    ("engine.delModule('gain'), new('gain', 'amp_mono', gain=2.0)", None, None),  # none of the old one's links
    ("engine.link('gain:output', 'system:playback_1'); engine.link('tone:output', 'gain:input')", (440, 1), None),
    ("[engine.delModule(name) for name in engine.getModuleNames()]", None, None),
]


class Audio(live.LiveTest):
    def test_each_edit(self):
        _, heard = self.record(CHAIN + "".join(f"{edit}\nrun(0.25)\n" for edit, *_ in EDITS),
                               "--offline", 0.25 * len(EDITS))
        self.assertEqual(len(heard.channels[0]), 12000 * len(EDITS))
        for index, (edit, *expected) in enumerate(EDITS):
            for channel, tone in enumerate(expected):
                with self.subTest(edit, channel=channel):
                    self.assert_tone(heard.part(index / 4 + 0.02, (index + 1) / 4), *(tone or (0, 0)), channel)

    def test_threads_edit_at_random_and_the_sound_has_no_gap(self):
        printed, heard = self.record(CHAIN + """
import shutil
edits, end = [], time.monotonic() + 2.5

def edit(seed):
    pick = random.Random(seed)
    name = lambda: f"m{pick.randrange(12)}"  # both threads use the same ones
    port = lambda other: pick.choice([name() + ":input", name() + ":output", other])
    while time.monotonic() < end:
        edits.append(pick.choice([
            lambda: new(name(), pick.choice(["amp_mono", "amp_stereo", "delay_5s", "no_such_plugin"])),
            lambda: engine.delModule(name()), lambda: engine.link(port("system:playback_2")),
            lambda: engine.link(port("tone:output"), port("system:playback_2"))])())
        write(name() + ".gain", pick.random())

def look():
    while time.monotonic() < end:
        infos = engine.getModuleInfos()
        sources = {port["name"] for info in infos for port in info["src"]}
        assert all(port.get("link", b"system:capture_1") in sources for info in infos for port in info["sink"]), infos
        assert all(type(usage["absolute"]) is float for usage in engine.getUsageInfo().values())

in_threads(lambda: edit(0), lambda: edit(1), look)
shutil.copy("recording.wav", "killed.wav")  # what would be there if the process were killed now
assert {*edits} == {0, -errno.EINVAL, -errno.ENOENT, -errno.EEXIST, -errno.EBUSY}, {*edits}
for name in engine.getModuleNames()[3:]:
    engine.delModule(name)
time.sleep(0.3)
memory.inspect()
""")
        self.assertGreater(len(sound.read("killed.wav").channels[0]), heard.rate)
        self.assert_tone(heard.part(-2), 440, 0.25)
        self.assertLess(heard.part(-2).sharpest_bend(), 0.001)
        self.assertLess(int(re.search(r"live +(\d+) bytes", printed)[1]), 10_000)  # each buffer has a thousand

    def test_timers_go_by_rendered_time_also_slow_ones_and_waiting_renders_to_the_end(self):
        refused = r"WARN  engine: cannot set .*: rendering waits for this timer\n"
        slow = r"WARN  timers.h:\d+: the callback of a timer of 0.4 s has taken [01].\d s; other timers .* for it: 2\n"
        printed, heard = self.record(CHAIN + """
write("gain.gain", 0.0)
calls = []
def step():
    calls.append(1)
    write("gain.gain", len(calls) / 100)
def pause():
    time.sleep(0.7)
    assert write("engine.offline.run", 0.1) == {}
timers = [engine.addTimer(10, step), *(engine.addTimer(400, call) for call in (pause, int))]
engine.waitUntilEnd()
print(len(calls), value("engine.offline.left"))
""", "--offline", 1, "--log-level", "warn", log=refused + slow + refused)
        self.assertEqual(printed, "99 0.0\n")
        for second in 0.25, 0.5, 0.9:
            self.assertAlmostEqual(heard.part(second, second + 0.01).amplitudes()[0], 0.5 * second, delta=0.01)

    def test_a_process_that_leaves_by_exit_has_a_whole_recording(self):
        self.set_environment(**programs.OUTLIVED, MALLOC_PERTURB_="85")  # what has been freed cannot be used by chance
        for options in ("--offline", 1), ():
            _, heard = self.record(CHAIN + "time.sleep(.5); ctypes.CDLL(None).exit(7)", *options, status=7)
            self.assert_tone(heard.part(-0.2), 440, 0.25)


class Threads(live.LiveTest):
    @unittest.skipIf(support.SANITIZER, "looks at pauses of microseconds and at locked memory")
    def test_they_leave_the_processor_and_signals_to_others_and_memory_is_locked(self):
        print(self.run_live(r"""
def facts(thread):
    with open(f"/proc/self/task/{thread}/status") as file:
        return dict(re.findall(r"(\w+):\s+(\S+)", file.read()))
program = facts(os.getpid())
threads = {status["Name"]: status for status in map(facts, os.listdir("/proc/self/task"))}
ending = sum(1 << number - 1 for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM))
free = [name for name, status in threads.items() if int(status["SigBlk"], 16) & ending != ending]
assert free == [program["Name"]] and len(threads) == 9, (free, threads)
if int(program["VmLck"]) < 10_000:
    assert process.mlockall(1) != 0, "memory could have been locked"
    print("that memory is locked is NOT tested: it is not permitted here")
assert all(new(f"m{index}") == 0 for index in range(2000))  # always too slow
audio = threads["sonetrix-audio"]["Pid"]
counters = lambda: (engine.getXrunCounter(), int(facts(audio)["voluntary_ctxt_switches"]))
time.sleep(.2)
before = counters()
time.sleep(.3)
late, pauses = (now - then for now, then in zip(counters(), before))
assert late > 100 and pauses > late / 20, (late, pauses)
""", "--rate", 768000, "--block", 16), end="", flush=True)

    @unittest.skipIf(support.SANITIZER or support.RUN, "sanitizers have their own allocator; an emulator is preloaded")
    def test_they_bear_a_lack_of_memory(self):
        self.set_environment(LD_PRELOAD=str(live.PROBE))
        sound.write_tone("in.wav", 440, 0.5, 5)
        failed = r"ERROR thread.h:\d+: sonetrix-{}: std::bad_alloc\n"
        others = {"timer": "", "file": "ERROR .* is cut short: .*\n"}  # a timer needs none
        for thread in "notify", "meters", "graph", "stop", *others:
            with self.subTest(thread):
                self.run_live(CHAIN + f"thread = {thread!r}" + """
seen, ticks = [], []
watch = notifyChanges(seen.append), notifyMeters(lambda levels: None, engine.METER_FAST)
starving = (ctypes.c_char * 16).in_dll(process, "starving")
starving.value = b"sonetrix-" + thread.encode()
process.sonetrix_engine_addTimer(handle, 1, process.abs, None)
if thread == "timer":
    time.sleep(0.1)
    starving.value = b""
assert write("engine.record.file", "out.flac")
def stir():
    write("gain.gain", 2.0), new("other"), engine.delModule("other")
    return thread == "stop" or not starving.value
wait_for(stir)
timer = engine.addTimer(1, lambda: ticks.append(1))
wait_for(lambda: 0.98 < meter("system.playback_1.peak") <= 1 and seen and len(ticks) > 2)
""", "--input", self.folder / "in.wav", status=74 * (thread == "file"), log=others.get(thread, failed.format(thread)))

    def test_two_removals_of_one_timer_both_wait_for_its_call(self):
        self.run_live("""
entered, order = threading.Event(), []
called = ctypes.CFUNCTYPE(None, ctypes.c_void_p)(lambda user: (entered.set(), time.sleep(.2), order.append("left")))
timer = ctypes.c_void_p(process.sonetrix_engine_addTimer(handle, 1, called, None))
entered.wait()
in_threads(*[lambda: (process.sonetrix_engine_delTimer(handle, timer), order.append("removed"))] * 2)
assert order == ["left", "removed", "removed"], order
""")

    @unittest.skipIf(support.SANITIZER == "thread", "it knows no threads that a forked process starts")
    def test_a_forked_child_meets_no_lock_and_writes_nothing_of_the_parents(self):
        self.set_environment(**programs.OUTLIVED)
        _, heard = self.record(CHAIN + """
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
            process.exit(6 if engine.isRunning() else 5)
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 5
in_threads(busy, busy, fork)
""", "--log-level", "debug", log="(?s:.*)")
        self.assert_tone(heard.part(-1), 440, 0.25)


class Events(live.LiveTest):
    def test_notifications_and_meters(self):
        self.run_live(CHAIN + """
changes, fast, slow = [], [], []
watch = notifyChanges(changes.append)
emitted = notifyMeters(fast.append, engine.METER_FAST), notifyMeters(slow.append, engine.METER_SLOW)
for index in range(2000):
    write("gain.gain", 1 - index % 2 / 2)
wait_for(lambda: len(slow) >= 4 and changes[-1] == {b"gain.gain": 0.5})
assert len(changes) < 1000 and len(fast) > len(slow)
for name, level in ("peak", 0.25), ("mean", 0.1768):
    wait_for(lambda: abs(meter("system.playback_1." + name) - level) < 0.01)
for key, number in (b"mine.a", 7), (b"mine.a", 8), (b"mine", 1), (b"mined.b", 2), (b"mine.c", 3):
    engine.addDebugMeter(key, number)
engine.delDebugMeter(b"mine.c")
assert engine.getLastMeter("mine", engine.METER_FAST).toDict() == {b"mine": 1, b"mine.a": 8}
""")

    def test_log(self):
        self.run_live("""
log.logOnFile("no/log"), log.logOnFile("log")
for level in 2, 3, 7:
    log.log(level, "text")
log.logTime(1), log.warn("stamped"), log.logTime(0), log.logOnFile("")
log.logSysLog(), log.logJournal(), log.warn("to all"), log.logSysLog(0), log.logJournal(0)
log.logOnFile("/dev/full"), log.warn("full"), log.warn("full")
""", log=(r"WARN  log: log file: there is no folder no\nWARN  python: text\nFATAL python: text\n"
          r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} WARN  python: stamped\nWARN  python: to all\n"
          r"WARN  python: full\nWARN  log: log file: .*No space.*\nWARN  python: full\n"))
        self.assertRegex((self.folder / "log").read_text(),
                         r"^(\d{4}-\d\d-\d\d \S* (WARN |FATAL) python: (text|stamped)\n){3}$")
