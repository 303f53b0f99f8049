"""The development engine's plugins, sound files and sound devices, as scripts use them and as they sound."""
# ctest: timeout=180

import array
import math
import os
import pathlib
import re
import shutil
import signal
import subprocess
import unittest
import wave

import support
from support import live, programs, sound

TONE = """\
assert new("tone", "sine_fcac", frequency=440.0, amplitude=0.5) == engine.link("tone:output", "system:playback_1") == 0
"""
PLUGINS = pathlib.Path("/usr/lib/ladspa")


class Plugins(live.EngineTest):
    def setUp(self):
        super().setUp()
        self.set_environment(LADSPA_PATH=f"{PLUGINS}:{self.folder}:{support.BUILD / 'tests' / 'plugins'}")

    def test_a_library_that_cannot_serve_is_skipped_and_one_that_serves_stays_loaded(self):
        (self.folder / "cut.so").write_bytes((PLUGINS / "amp.so").read_bytes()[:3000])
        (self.folder / "garbage.so").write_text("no library")
        (self.folder / "dangling.so").symlink_to("nothing")
        shutil.copy(PLUGINS / "amp.so", self.folder / "other_amp.so")
        self.set_environment(PROBE_UNLABELLED="1")
        self.run_live("""
first = engine.listAvailableModules()
assert engine.listAvailableModules() == first and len(set(first)) == len(first)
assert {b"amp_mono", b"other_amp.amp_mono", b"probe"} <= {*first} and b"amp.amp_mono" not in first
assert new("m", "other_amp.amp_mono") == 0 and value("m.plugin") == b"other_amp.amp_mono"
assert engine.delModule("m") == 0
time.sleep(0.2)
assert "/other_amp.so" in open("/proc/self/maps").read()
""", log=re.compile(r"(WARN  .*: plugin library skipped: .*(cut|garbage|dangling|probe)\.so.*\n){4}"))

    def test_a_library_is_in_one_function_at_a_time_with_its_start_values_and_what_is_not_a_number_shows(self):
        self.run_live("""
churn = lambda name: [new(name, "probe") | engine.delModule(name) for _ in range(20)] == [0] * 20 or 1 / 0
in_threads(*(lambda name=name: churn(name) for name in "abcd"))
assert new("m", "probe", control_ms=7) == engine.link("m:output", "system:playback_2") == 0
wait_for(lambda: abs(meter("system.playback_2.peak") - 7) < 1e-6)
assert (meter("m.activated"), meter("m.overlaps")) == (7, 0)
write("m.control_ms", -1.0)
wait_for(lambda: str(meter("system.playback_2.peak")) == "nan")
""")

    def test_plugins_are_described_without_being_created(self):
        self.run_live("""
titles = engine.getParam("plugins.").toDict()
assert [key[8:-6] for key in titles] == engine.listAvailableModules() and titles[b"plugins.probe.title"] == b"A probe"
for label in (b"probe", b"sc4m", b"sine_fcac", b"delay_n", b"amp_stereo"):
    assert new("m", label.decode()) == 0
    facts = {key[len(label) + 9:]: value for key, value in engine.getParam(b"plugins." + label + b".").toDict().items()}
    [info] = [info for info in engine.getModuleInfos() if info["name"] == b"m"]
    for key, ports in (b"sinks", info["sink"]), (b"sources", info["src"]):
        assert facts[key].split() == [port["name"][2:] for port in ports], facts
    controls = {key[2:] for key in info["param"]} - {b"plugin"}
    assert {key.rpartition(b".")[0] for key in facts if b"." in key} == controls
    for control in controls:
        low, high, initial = (facts[control + b"." + key] for key in (b"minimum", b"maximum", b"default"))
        assert low <= initial <= high and write(b"m." + control, low) and write(b"m." + control, high), control
    engine.delModule("m")
assert value("plugins.probe.control_ms.unit") == b"ms" and value("plugins.sine_fcac.frequency.unit") == b"Hz"
assert read("plugins.no.title") == {}
""")

    def test_refusals_say_what_was_wrong_and_what_would_be_right(self):
        refusals = {
            "set('tone.frequency', 'loud')": '"loud" (string): takes a float from 0 to 24000 Hz',
            "set('tone.amplitude', -1)": "-1 (int32): takes a float of at least 0",
            "set('tone.freq', 1.5)": '1.5 (float): there is no parameter "tone.freq"; did you mean "tone.frequency"?',
            "set('tone.plugin', 'x')": "it can only be read",
            "set('engine.offline.run', 2.0)": "1 s are left to render",
            "engine.link('tone.output', 'x')": 'there is no port "tone.output"; did you mean "tone:output"?',
            "engine.link('system:capture_1', 'system:playback_1')": 'the sink is linked already, to "tone:output"',
            "engine.link('xyz')": 'there is no port "xyz"',
            "engine.delModule('tnoe')": 'there is no such module; did you mean "tone"?',
            "new('t', 'sine_fcca')": 'there is no such plugin; did you mean "sine_fcaa"?',
            "new('t.', 'amp_mono')": 'a module\'s name has 1 to 39 letters, digits, "_" and "-"',
            "new('plugins', 'amp_mono')": "that name is taken by the engine's own parameters",
            "new('t', 'amp_mono', gian=1.0)": 'there is no control input "gian", only gain',
            "new('t', 'amp_mono', gain='1')": '"gain" takes a float of at least 0, not "1" (string)',
        }
        self.run_live(TONE + """
set = lambda key, value: -1 if write(key, value) == {} else 0
assert engine.link("tone:output", "system:playback_1") == 0  # as it is
assert all(write("tone.frequency", *given) for given in ((0.1, "double"), (220, "uint32"), (220,)))
""" + "".join(f"assert {call} < 0\n" for call in refusals) + "assert engine.getModuleNames() == [b'system', b'tone']\n",
            "--offline", 1,
            log=re.compile("".join(f"WARN  engine: cannot .*{re.escape(why)}\n" for why in refusals.values())))


class Controls(live.EngineTest):
    def test_smoothing(self):
        def sharpest(samples):
            return max(abs(a - 2 * b + c) for a, b, c in zip(samples, samples[1:], samples[2:]))

        steps = TONE + "run(0.1)\nfor value in 1.0, 0.25:\n    write('tone.amplitude', value)\n    run(0.1)\n"
        plain, smooth = (self.record(first + steps, "--offline", 0.3)[1].channels[0]
                         for first in ("", "write('engine.smoothing', 0.05)\n"))
        unbent = 0.00332  # of 440 Hz at full scale
        self.assertGreater(sharpest(plain), 0.1)
        self.assertLess(sharpest(smooth), 2 * unbent)
        self.assertEqual(smooth[:4800], plain[:4800])
        for samples in plain, smooth:
            self.assertAlmostEqual(max(samples[-2000:]), 0.25, delta=0.001)


class Files(live.EngineTest):
    def test_recording_and_playing_begin_and_end_at_will(self):
        sound.write_tone("mono.wav", 1000, 0.5, 0.1)
        for name in "take.flac", "take.ogg", "take.wav":
            with self.subTest(name):
                _, heard = self.record(TONE + f"""
name, partial = {name!r}, {name + ".partial"!r}
assert engine.link("tone:output", "system:playback_2") == 0
for amplitude in 0.25, 0.5:  # the second replaces the first when it is whole
    write("tone.amplitude", amplitude)
    assert write("engine.record.file", name) and value("engine.record.file") == name.encode()
    assert os.path.exists(partial) == (amplitude == 0.5)
    run(0.512)
    assert write("engine.record.file", "") and value("engine.record.file") == b"" and not os.path.exists(partial)
assert write("tone.amplitude", 0.0) and write("engine.record.file", "recording.wav")
for port in "12":
    engine.link("system:playback_" + port), engine.link("system:capture_" + port, "system:playback_" + port)
run(0.256)
assert write("engine.play.file", name)
run(0.256)
assert value("engine.play.file") == name.encode()
run(0.512)
assert value("engine.play.file") == b"" and value("engine.play.missed") == value("engine.record.dropped") == 0
assert write("engine.play.file", "mono.wav")  # on the left; nothing of the file before is on the right
run(0.1)
""", "--offline", 3)
                for channel in 0, 1:
                    self.assertAlmostEqual(heard.part(0.27, 0.75).levels()[channel], 0.5 / math.sqrt(2), delta=0.005)
                    self.assertAlmostEqual(heard.part(0.27, 0.75).frequency(channel), 440, delta=0.1)
                self.assertEqual(max(heard.part(0.78, 1).channels[0]), 0)
                self.assertAlmostEqual(heard.part(1.03, 1.12).levels()[0], 0.5 / math.sqrt(2), delta=0.005)
                self.assertEqual(max(heard.part(1.03, 1.12).channels[1]), 0)

    def test_refused(self):
        sound.write_tone("in.wav", 440, 0.5, 0.1, rate=44100)
        os.mkfifo("pipe")
        before = (self.folder / "in.wav").read_bytes()
        for options, reason in [
            (("--input", "in.wav"), "has 44100 frames per second"), (("--record", "a.mp3"), r"ends in one of"),
            (("--rate", 44100, "--input", "in.wav", "--record", "./in.wav"), "at once"),
            (("--input", "pipe"), "regular"), (("--record", "pipe"), "regular"),
        ]:
            result = programs.run_engine(*options, "-c", "pass")
            self.assertEqual(result.returncode, 70, options)
            self.assertRegex(result.stderr, f"^sonetrix-engine: .*{reason}.*\n$")
        self.assertEqual((self.folder / "in.wav").read_bytes(), before)

    def test_every_sample_is_played_and_recorded_and_the_same_run_makes_the_same_file(self):
        sound.write_tone("in.wav", 1000, 0.5, 0.5)
        [played] = sound.read("in.wav").channels
        chain = """
assert all(new(f"m{index}", gain=1.0) == 0 for index in (2, 1))  # made backwards: it has no delay all the same
for link in ("m1:output", "m2:input"), ("system:capture_1", "m1:input"), ("m2:output", "system:playback_2"):
    assert engine.link(*link) == 0
"""
        takes = []
        for parts in "", """
for _ in range(10):
    run(0.1)
assert not write("engine.offline.run", 0.1) and abs(value("engine.offline.left") - 0.0001) < 1e-5
""":
            _, heard = self.record(chain + parts, "--input", "in.wav", "--offline", 1.0001)
            takes.append((self.folder / "recording.wav").read_bytes())
        self.assertEqual(*takes)
        self.assertEqual(heard.channels[1], played + array.array("f", [0] * (48005 - len(played))))
        _, heard = self.record(chain + """
assert write("engine.play.file", "in.wav")
wait_for(lambda: value("engine.play.file") == b"")
""")
        heard = heard.channels[1]
        start = next(index for index, sample in enumerate(heard) if sample)
        offset = next(index for index in range(len(played)) if played[index:index + 50] == heard[start:start + 50])
        self.assertEqual(heard[start:start + len(played) - offset], played[offset:])

    def test_a_recording_outgrows_wav(self):
        self.run_live(TONE + """
run(0.5)
[fd] = [fd for fd in os.listdir("/proc/self/fd") if os.path.realpath("/proc/self/fd/" + fd).endswith("/recording.wav")]
os.lseek(int(fd), 5 << 30, os.SEEK_CUR)  # a hole: as if hours had passed
""", "--record", "recording.wav", "--offline", 1)
        with open("recording.wav", "rb") as file:
            header = file.read(64)
        self.assertEqual((header[:4], header[12:16]), (b"RF64", b"ds64"))
        self.assertEqual(int.from_bytes(header[28:36], "little"), (5 << 30) + 48000 * 8)

    def test_a_full_disk_is_told_counted_and_an_exit_status(self):
        self.run_live(TONE + """
import resource
resource.setrlimit(resource.RLIMIT_FSIZE, (192000, resource.RLIM_INFINITY))
run(1.024)
assert 24000 < value("engine.record.dropped") <= 27000
""", "--record", "cut.wav", "--offline", 2, status=74,
            log="ERROR engine: the recording cut.wav is cut short: System error : File too large.\n")
        self.assertAlmostEqual(sound.read("cut.wav").levels()[0], 0.5 / math.sqrt(2), delta=0.01)

    def test_a_recording_can_be_read_after_a_kill(self):
        _, heard = self.record(TONE + "time.sleep(2.5)\nos.kill(os.getpid(), 9)\n", status=-9)
        self.assertGreater(heard.seconds, 1)
        self.assertAlmostEqual(heard.part(heard.seconds - 0.5, heard.seconds).frequency(0), 440, delta=0.1)


ALSA = """\
</usr/share/alsa/alsa.conf>
pcm.!default {{ type null }}
pcm.dummy {{ type jack playback_ports {{ 0 system:playback_1 1 system:playback_2 }} }}
pcm.tofile {{ type file slave.pcm dummy file "{}/device.raw" format raw }}
"""
SESSION = """\
import subprocess
assert new("tone", "sine_fcac", frequency=440.0) == new("gain", gain=0.25) == 0
assert engine.link("tone:output", "gain:input") == engine.link("gain:output", "system:playback_1") == 0
assert engine.getDriverName() == "device" and engine.hasDriver()
"""


class Devices(live.EngineTest):
    def setUp(self):
        super().setUp()
        (self.folder / "alsa.conf").write_text(ALSA.format(self.folder))
        # The sound libraries keep what they have allocated.
        self.set_environment(**programs.OUTLIVED, ALSA_CONFIG_PATH=str(self.folder / "alsa.conf"),
                             JACK_NO_START_SERVER="1", JACK_DEFAULT_SERVER=f"sonetrix-{os.getpid()}")

    def start_server(self):
        missing = "no jackd" if shutil.which("jackd") is None else ""
        missing = "its library cancels a thread, which the sanitizer dies of" if support.SANITIZER == "thread" else missing
        if missing:
            print(f"\nthe sound device is NOT tested against JACK's dummy driver here: {missing}", flush=True)
            self.skipTest(missing)
        server = subprocess.Popen(["jackd", "--no-realtime", "-S", "-n", os.environ["JACK_DEFAULT_SERVER"],
                                   *"-d dummy -r 48000 -p 256".split()],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT)
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)  # a server that is killed keeps one of JACK's eight places
        subprocess.run(["jack_wait", "-w", "-t", "20"], capture_output=True, check=True)
        return server

    def assert_tone(self, samples):
        self.assertAlmostEqual(sound.Sound(48000, [samples]).frequency(0), 440, delta=0.5)

    def test_the_tone_is_what_the_server_plays_and_the_clock_goes_on_without_it(self):
        server = self.start_server()
        listed = programs.run_engine("--list-devices").stdout
        for device in "JACK Audio Connection Kit: system", "ALSA: tofile":
            self.assertIn(device, listed)
            self.run_live(SESSION + """
listing = subprocess.run(["jack_lsp", "-c"], capture_output=True, text=True).stdout
source = listing.partition("system:playback_1\\n")[2].split()[0]
time.sleep(0.5)
subprocess.run(["jack_rec", "-f", "heard.wav", "-d", "1", source], check=True, stdout=subprocess.DEVNULL)
assert 0 < value("engine.device.latency.playback") < 0.2
""", "--driver", f"device:{device}")
            with wave.open("heard.wav") as file:
                self.assert_tone(array.array("h", file.readframes(file.getnframes())))
        played = array.array("f", (self.folder / "device.raw").read_bytes())[::2]
        self.assert_tone(played[-48000:])
        self.assertAlmostEqual(max(played), 0.25, delta=0.001)

        _, heard = self.record(SESSION + f"""
time.sleep(0.3)
os.kill({server.pid}, signal.SIGTERM)
wait_for(lambda: engine.getDriverName() == "clock")
time.sleep(0.3)
""", "--driver", "device:system", log=re.compile('.*ERROR engine: the sound device "JACK Audio Connection Kit: system" '
                                                 'is gone: the engine goes on by the clock\n', re.S))
        self.assertGreater(heard.seconds, 0.5)
        self.assert_tone(heard.channels[0][-12000:])

    def test_a_device_without_a_server(self):
        self.run_live(SESSION + "wait_for(lambda: meter('system.playback_1.peak') > 0.2)\n",
                      "--driver", "device", "--log-level", "error")
        for driver, reason in ("device:nothing", 'no sound device "nothing"'), ("sound", "neither clock nor device"):
            self.assertIn(reason, programs.run_engine("--driver", driver, "-c", "pass").stderr)


if __name__ == "__main__":
    unittest.main()
