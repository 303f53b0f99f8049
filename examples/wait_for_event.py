"""Plays a file through the engine, and stops the engine when the file has fallen silent.

    sonetrix-engine --input in.wav --record out.wav examples/wait_for_event.py
"""

from chain import check
from sonetrix import engine, exit, notifyMeters

SILENCE, PATIENCE = 0.001, 5  # level, and for how many meter readings (ten a second)

quiet = 0


def listen(meters):
    """Called on a thread of the engine."""
    global quiet
    loud = max(meters[b"system.capture_1.peak"], meters[b"system.capture_2.peak"]) > SILENCE
    quiet = 0 if loud else quiet + 1
    if quiet == PATIENCE:
        print("silence")
        exit(0)  # asks the engine to stop, and returns


def main():
    for channel in "12":
        check(engine.link(f"system:capture_{channel}", f"system:playback_{channel}"))
    meter = notifyMeters(listen, engine.METER_SLOW)  # kept until this function returns
    engine.waitUntilEnd()


if __name__ == "__main__":
    main()
