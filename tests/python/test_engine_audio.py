"""The development engine's parameters, plugins, sound files and devices, as scripts use them and as they sound."""
# ctest: timeout=180

import array
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
REFUSALS = {
    "write('tone.frequency', 'loud')": '"loud" (string): takes a float from 0 to 24000 Hz',
    "write('tone.amplitude', -1)": "-1 (int32): takes a float of at least 0",
    "write('tone.amplitude', 1e39, 'double')": "1e+39 (double): takes a float of at least 0",
    "write('tone.amplitude', float('nan'))": "nan (float): takes a float of at least 0",
    "write('engine.log.level', 4.0)": "4 (float): takes an int32 from 0 to 5",
    "write('tone.freq', 1.5)": '1.5 (float): there is no parameter "tone.freq"; did you mean "tone.frequency"?',
    "write('tone.plugin', 'x')": "it can only be read",
    "write('engine.play.file', 'slow.wav')": "slow.wav: has 44100 frames per second, the engine 48000",
    "write('engine.record.file', 'pipe')": "pipe: is not a regular file",
    "write('engine.record.file', './in.wav')": "./in.wav cannot be played and recorded at once",
    "write('engine.record.file', 'a.mp3')":
        "a.mp3: a recording's name ends in one of .wav .w64 .aiff .au .caf .flac .ogg",
    "engine.link('system:capture_1', 'system:playback_1')": 'the sink is linked already, to "tone:output"',
    "engine.delModule('tnoe')": 'there is no such module; did you mean "tone"?',
    "new('t.', 'amp_mono')": 'a module\'s name has 1 to 39 letters, digits, "_" and "-"',
    "new('t', 'amp_mono', gian=1.0)": 'there is no control input "gian", only gain',
    "new('t', 'amp_mono', gain='1')": '"gain" takes a float of at least 0, not "1" (string)',
}


class Requests(live.LiveTest):
    def test_numbers_are_taken_where_they_fit_and_refusals_say_what_would_be_right(self):
        os.mkfifo("pipe")
        sound.write_tone("slow.wav", 440, 0.5, 0.1, rate=44100)
        sound.write_tone("in.wav", 440, 0.5, 0.1)
        self.run_live(TONE + """
for given, kept in ((2.0 ** -149,), 2.0 ** -149), ((0.5, "double"), 0.5), ((1,), 1.0), ((2, "uint32"), 2.0):
    assert write("tone.amplitude", *given) == {b"tone.amplitude": kept}
tone = {b"tone.amplitude": (2.0, "float"), b"tone.frequency": (440.0, "float")}
assert read(list(tone)) == tone and read("tone.") == tone | {b"tone.plugin": (b"sine_fcac", "string")}
assert all(read(key) == {} for key in ("", ".", "tone", "tone..", "TONE.FREQUENCY", "system.", "no.frequency"))
assert engine.link("tone:output", "system:playback_1") == 0  # as it is
refused = lambda answer: answer == {} or answer < 0
""" + "".join(f"assert refused({call})\n" for call in REFUSALS) +
            "assert engine.getModuleNames() == [b'system', b'tone']",
            "--input", "in.wav", "--offline", 1,
            log="".join(f"WARN  engine: cannot .*{re.escape(why)}\n" for why in REFUSALS.values()))

    def test_plugins_are_found_described_created_one_at_a_time_and_stay_loaded(self):
        amp = pathlib.Path("/usr/lib/ladspa/amp.so")
        (self.folder / "cut.so").write_bytes(amp.read_bytes()[:3000])
        (self.folder / "garbage.so").write_text("no library")
        (self.folder / "dangling.so").symlink_to("nothing")
        shutil.copy(amp, self.folder / "other_amp.so")
        self.set_environment(LADSPA_PATH=f"{amp.parent}:{self.folder}:{live.PROBE.parent}")
        self.run_live("""
titles, names = engine.getParam("plugins.").toDict(), engine.listAvailableModules()
assert [key[8:-6] for key in titles] == names == sorted(set(names)) and titles[b"plugins.probe.title"] == b"A probe"
assert {b"amp_mono", b"other_amp.amp_mono", b"probe"} <= {*names} and b"amp.amp_mono" not in names
assert engine.getParam("plugins.probe.").toDict() == {b"plugins.probe." + key: value for key, value in {
    b"title": b"A probe", b"sinks": b"", b"sources": b"output", b"control_ms.minimum": -3.4028234663852886e+38,
    b"control_ms.maximum": 10, b"control_ms.default": 1, b"control_ms.unit": b"ms"}.items()}
assert value("plugins.amp_stereo.sinks") == b"input_left input_right"
assert [value("plugins.sc4m.attack_time_ms." + key) for key in ("minimum", "default", "maximum")] == [1.5, 101.125, 400]
assert value("plugins.sine_fcac.frequency.unit") == b"Hz" and read("plugins.no.title") == {}
churn = lambda name: [new(name, "probe") | engine.delModule(name) for _ in range(20)] == [0] * 20 or 1 / 0
in_threads(*(lambda name=name: churn(name) for name in "abcd"))
assert new("m", "probe", control_ms=9) == engine.link("m:output", "system:playback_2") == 0
wait_for(lambda: (meter("m.activated"), meter("system.playback_2.peak")) == (9, 3))
write("m.control_ms", -1.0)  # whose root shows as what it is
wait_for(lambda: str(meter("system.playback_2.peak")) == "nan")
assert new("other", "other_amp.amp_mono") == 0 and value("other.plugin") == b"other_amp.amp_mono"
assert engine.delModule("other") == 0
time.sleep(0.2)
assert "/other_amp.so" in open("/proc/self/maps").read()
""", log=r"(WARN  .*: plugin library skipped: .*(cut|garbage|dangling|probe)\.so.*\n){4}")


class Files(live.LiveTest):
    def test_recording_and_playing_begin_and_end_at_will(self):
        sound.write_tone("mono.wav", 1000, 0.5, 0.1)
        for name, kind in ("take.flac", b"fLaC"), ("take.ogg", b"OggS"), ("take.wav", b"RIFF"):
            with self.subTest(name):
                _, heard = self.record(TONE + f"name, partial = {name!r}, {name!r} + '.partial'" + """
assert engine.link("tone:output", "system:playback_2") == 0
for amplitude in 0.25, 0.5:  # the second replaces the first when it is whole
    write("tone.amplitude", amplitude)
    assert write("engine.record.file", name) and value("engine.record.file") == name.encode()
    assert os.path.exists(partial) == (amplitude == 0.5)
    run(0.512)
    assert write("engine.record.file", "") and value("engine.record.file") == b"" and not os.path.exists(partial)
assert write("engine.record.file", "recording.wav")
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
                self.assertEqual((self.folder / name).read_bytes()[:4], kind)
                self.assert_tone(heard.part(0.27, 0.75), 440, 0.5, channel=1)
                self.assert_tone(heard.part(1.03, 1.12), 1000, 0.5)
                for silence in heard.part(0.78, 1), heard.part(1.03, 1.12):
                    self.assertEqual(max(silence.channels[1]), 0)

    def test_every_sample_is_played_and_recorded(self):
        sound.write_tone("in.wav", 1000, 0.5, 1.5)  # longer than what is read ahead
        [played] = sound.read("in.wav").channels
        chain = """
assert all(new(f"m{index}", gain=1.0) == 0 for index in (2, 1))  # made backwards: it has no delay all the same
for link in ("m1:output", "m2:input"), ("system:capture_1", "m1:input"), ("m2:output", "system:playback_2"):
    assert engine.link(*link) == 0
"""
        for parts in "", "for _ in range(10): run(0.2)\nassert not write('engine.offline.run', 0.1)\n":
            _, heard = self.record(chain + parts, "--input", "in.wav", "--offline", 2.0001)
            self.assertEqual(heard.channels[1], played + array.array("f", [0] * (96005 - len(played))))
        _, heard = self.record(chain + """
time.sleep(0.2)  # by then the links are
assert write("engine.play.file", "in.wav")
wait_for(lambda: value("engine.play.file") == b"")
""")
        self.assertTrue(played.tobytes() in heard.channels[1].tobytes())

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
        self.assert_tone(sound.read("cut.wav"), 440, 0.5)


ALSA = """\
</usr/share/alsa/alsa.conf>
pcm.!default {{ type null }}
pcm.dummy {{ type jack playback_ports {{ 0 system:playback_1 1 system:playback_2 }} }}
pcm.tofile {{ type file slave.pcm dummy file "{}/device.raw" format raw }}
"""


class Devices(live.LiveTest):
    def setUp(self):
        super().setUp()
        (self.folder / "alsa.conf").write_text(ALSA.format(self.folder))
        # The sound libraries keep what they have allocated.
        self.set_environment(**programs.OUTLIVED, ALSA_CONFIG_PATH=str(self.folder / "alsa.conf"),
                             JACK_NO_START_SERVER="1", JACK_DEFAULT_SERVER=f"sonetrix-{os.getpid()}")

    def test_a_device_without_a_server(self):
        self.run_live(live.CHAIN + "assert engine.getDriverName() == 'device'\n"
                      "wait_for(lambda: meter('system.playback_1.peak') > 0.2)\n",
                      "--driver", "device", "--log-level", "error")
        for driver, reason in ("device:nothing", 'no sound device "nothing"'), ("sound", "neither clock nor device"):
            self.assertIn(reason, programs.run_engine("--driver", driver, "-c", "pass").stderr)

    @unittest.skipIf(shutil.which("jackd") is None, "without jackd no sound device is tested against its dummy driver")
    @unittest.skipIf(support.SANITIZER == "thread", "JACK's library cancels a thread, which the sanitizer dies of")
    def test_the_tone_is_what_the_server_plays_and_the_clock_goes_on_when_it_hangs_or_ends(self):
        server = self.enterContext(subprocess.Popen(
            ["jackd", "--no-realtime", "-S", "-n", os.environ["JACK_DEFAULT_SERVER"],
             *"-d dummy -r 48000 -p 256".split()], stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT))
        # Also one that is stopped; a server that is killed keeps one of JACK's eight places.
        self.addCleanup(lambda: (server.terminate(), server.send_signal(signal.SIGCONT)))
        subprocess.run(["jack_wait", "-w", "-t", "20"], capture_output=True, check=True)
        listed = programs.run_engine("--list-devices").stdout
        for device, last in ("JACK Audio Connection Kit: system", signal.SIGSTOP), ("ALSA: tofile", signal.SIGTERM):
            self.assertIn(device, listed)
            _, heard = self.record(live.CHAIN + f"""
import subprocess
listing = subprocess.run(["jack_lsp", "-c"], capture_output=True, text=True).stdout
source = listing.partition("system:playback_1\\n")[2].split()[0]
time.sleep(0.5)
subprocess.run(["jack_rec", "-f", "heard.wav", "-d", "1", source], check=True, stdout=subprocess.DEVNULL)
assert 0 < value("engine.device.latency.playback") < 0.2
os.kill({server.pid}, {last})
wait_for(lambda: engine.getDriverName() == "clock")
os.kill({server.pid}, signal.SIGCONT)  # one that has hung only comes back
time.sleep(0.3)
""", "--driver", f"device:{device}", log='(?s:.*)ERROR engine: the sound device ".*" is gone: the engine goes on.*\n')
            self.assert_tone(heard.part(-0.25), 440, 0.25)
            with wave.open("heard.wav") as file:
                samples = array.array("h", file.readframes(file.getnframes()))
            self.assertAlmostEqual(sound.Sound(48000, [samples]).frequency(0), 440, delta=0.5)
