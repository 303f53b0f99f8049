"""Read, with live.PRELUDE in front of it, by scripts in the running engine: registrations of all kinds, and modules with
links and meters, that come and go in many threads while everything fires."""


class Count:
    def __init__(self):
        self.calls = 0

    def __call__(self, *arguments):
        self.calls += 1


KINDS = {
    "changes": lambda callback: notifyChanges(lambda d: callback()),
    "slow": lambda callback: notifyMeters(lambda d: callback(), engine.METER_SLOW),
    "fast": lambda callback: notifyMeters(lambda d: callback()),
    "timer": lambda callback: engine.addTimer(1, callback),
}


def keep_going():
    """Waits until each kind has been called anew, with something for it to tell."""
    counts = {kind: Count() for kind in KINDS}
    alive = [KINDS[kind](count) for kind, count in counts.items()]
    wait_for(lambda: write() and all(count.calls > 2 for count in counts.values()))


def edit(name):
    assert engine.newModule(name, "amp_mono", None) == 0
    assert engine.link("system:capture_1", name + ":input") == 0
    assert any(info["name"] == name.encode() for info in engine.getModuleInfos())
    assert write(name + ".gain", 0.5)
    engine.getUsageInfo(), engine.getPortNames(), engine.cpuInfo(), engine.getLastMeter("system")
    engine.addDebugMeter(name + ".x", 1)
    engine.delDebugMeter(name + ".x")
    engine.dot("/dev/null")
    assert engine.delModule(name) == 0


def churn(seconds):
    end = time.monotonic() + seconds
    counts, made, edits = {kind: Count() for kind in KINDS}, Count(), Count()

    def registering(seed):
        pick, pool = random.Random(seed), []

        def drops():  # itself and others, and registers more
            if pool and time.monotonic() < end:
                pool.pop()
                pool.append(KINDS[pick.choice(list(KINDS))](made))

        while time.monotonic() < end:
            kind = pick.choice(list(KINDS))
            pool.append(KINDS[kind](pick.choice([counts[kind], counts[kind], drops])))
            made()
            if pick.random() < 0.1:  # one that only the collector can drop
                cycle = [KINDS["timer"](counts["timer"])]
                cycle.append(cycle)
            for _ in range(len(pool) - pick.randrange(30)):
                pool and pool.pop(0)
            write()

    def editing():
        while time.monotonic() < end:
            edit(f"m{threading.get_ident()}")
            edits()

    editor = KINDS["timer"](lambda: edit(f"c{threading.get_ident()}"))
    in_threads(editing, *(lambda seed=seed: registering(seed) for seed in range(4)))
    del editor
    gc.collect()
    assert made.calls > 20 and edits.calls and all(count.calls for count in counts.values()), (made.calls, counts)
    keep_going()
    before = [count.calls for count in counts.values()]
    keep_going()
    assert before == [count.calls for count in counts.values()]
    assert engine.getModuleNames() == [b"system"]
