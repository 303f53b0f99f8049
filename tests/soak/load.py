"""What the soak keeps going inside the engine: every kind of call and callback at once, from several Python threads.

Started by run.py, which types at the console meanwhile and asks for soak.report() at the end.
"""

import collections
import gc
import os
import random
import threading
import time

from sonetrix import engine, listKeyValue, listValue, log, notifyChanges, notifyMeters


class Soak:
    """Workers are methods named work_*; each runs in a thread of its own until `stopping`."""

    def __init__(self):
        self.stopping = threading.Event()
        self.calls = collections.Counter()
        self.callbacks = collections.Counter()
        self.errors = collections.Counter()
        self.samples = []  # (seconds, resident KiB, threads, open files)
        self.started = time.monotonic()
        self.xruns = engine.getXrunCounter()
        workers = [getattr(self, name) for name in dir(self) if name.startswith("work_")]
        self.threads = [threading.Thread(target=self.repeat, args=(worker,), name=worker.__name__) for worker in workers]
        for thread in self.threads:
            thread.start()

    def repeat(self, worker):
        numbers = random.Random(worker.__name__)
        while not self.stopping.is_set():
            try:
                self.calls[worker.__name__[5:]] += worker(numbers)
            except Exception as error:  # counted and reported, a soak goes on
                self.errors[f"{worker.__name__}: {error!r}"] += 1

    def count(self, name):
        """A callable for the engine that counts its calls."""
        def counted(*_):
            self.callbacks[name] += 1
        return counted

    def counter_of_one(self, name):
        def counted(_):
            self.callbacks[name] += 1
        return counted

    def work_lists(self, numbers):
        values = listValue()
        for number in range(100):
            values.append(number).append(str(number)).append((1.5, 2.5))
        values.merge(values.dup())
        values.toListType()
        return 304

    def work_parameters(self, numbers):
        engine.setParams(listKeyValue().append("engine.log.level", numbers.choice((4, 5))))
        engine.getParam(["engine.", "soak.gain"]).toDictType()
        time.sleep(0.001)
        return 2

    def work_graph(self, numbers):
        name = f"soak{numbers.randrange(6)}"
        match numbers.randrange(4):
            case 0:
                engine.newModule(name, "amp_mono", None)
            case 1:
                engine.delModule(name)
            case 2:
                engine.link(f"{name}:output", f"soak{numbers.randrange(6)}:input")
            case 3:
                engine.link(f"{name}:output", numbers.choice((None, "system:playback_1")))
        engine.getModuleInfos()
        time.sleep(0.001)
        return 2

    def work_registrations(self, numbers):
        kept = [engine.addTimer(1 + numbers.randrange(5), self.count("timers")),
                notifyChanges(self.counter_of_one("changes")),
                notifyMeters(self.counter_of_one("meters"), numbers.choice((engine.METER_SLOW, engine.METER_FAST)))]
        kept.append(kept)  # a cycle: the garbage collector's to end
        time.sleep(0.02)
        return 3

    def work_meters(self, numbers):
        engine.addDebugMeter(f"soak.meter{numbers.randrange(20)}", numbers.random())
        engine.getLastMeter("system").toDict()
        engine.cpuInfo()
        time.sleep(0.002)
        return 3

    def work_log(self, numbers):
        log.debug("filtered")
        time.sleep(0.001)
        return 1

    def work_samples(self, numbers):
        gc.collect()
        with open("/proc/self/statm") as file:
            resident = int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE") // 1024
        self.samples.append((time.monotonic() - self.started, resident, len(os.listdir("/proc/self/task")),
                             len(os.listdir("/proc/self/fd"))))
        self.stopping.wait(1.0)
        return 1

    def report(self):
        """Ends the soak; the report as one line of Python."""
        self.stopping.set()
        for thread in self.threads:
            thread.join()
        parameters = engine.getParam("engine.").toDict()
        print("REPORT", repr({
            "calls": dict(self.calls), "callbacks": dict(self.callbacks), "errors": dict(self.errors),
            "samples": self.samples, "xruns": engine.getXrunCounter() - self.xruns,
            "meters dropped": parameters.get(b"engine.meters.dropped"),
        }), "END")


soak = Soak()
