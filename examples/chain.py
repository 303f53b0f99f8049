"""A tone through a gain into the playback ports: builds the chain, plays it, turns it down, rewires it.

    sonetrix-engine --record chain.wav examples/chain.py               in real time
    sonetrix-engine --record chain.wav --offline 3 examples/chain.py   as fast as possible

The other examples import this one for something to listen to.
"""

import time

from sonetrix import engine, listKeyValue


def check(status):
    """The engine answers requests to change the graph with a status: 0, or a negative error number."""
    if status != 0:
        raise RuntimeError(f"the engine refused with status {status}; its log says why")


def new_module(name, plugin, **configuration):
    """A module of the graph; engine.listAvailableModules() lists what `plugin` can be."""
    check(engine.newModule(name, plugin, listKeyValue().appendFromDict(configuration)))


def set_parameter(key, value):
    """Parameters have keys "module.name". The engine returns what it has written; what it refuses is missing there."""
    if not engine.setParams(listKeyValue().append(key, value)).toDict():
        raise ValueError(f"the engine refused {key} = {value!r}")


def build(gain=0.5):
    new_module("tone", "sine_fcac", frequency=440.0, amplitude=0.5)
    new_module("gain", "amp_mono", gain=gain)
    # Links go from a source to a sink. A source can feed many sinks, a sink has one source.
    check(engine.link("tone:output", "gain:input"))
    check(engine.link("gain:output", "system:playback_1"))
    check(engine.link("gain:output", "system:playback_2"))


def play(seconds):
    if engine.getDriverName() == "offline":
        set_parameter("engine.offline.run", seconds)  # returns when that much has been rendered
    else:
        time.sleep(seconds)


def main():
    build()
    play(1.0)

    print("a quarter of the level")
    set_parameter("gain.gain", 0.125)
    play(1.0)

    print("the tone on the right as it is, silence on the left")
    check(engine.link("gain:output"))  # without a second port: unlinks it from all
    check(engine.link("tone:output", "system:playback_2"))
    check(engine.delModule("gain"))
    play(1.0)


if __name__ == "__main__":
    main()
