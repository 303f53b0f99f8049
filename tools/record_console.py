"""Draws a session at the console as its screen has shown it: tools/record_console.py > docs/console.svg"""

import html
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))
from support.console import Screen

COLUMNS, ROWS = 90, 22
SIZE, ADVANCE, LEADING, MARGIN = 14, 8.43, 18, 14
STYLE = f"""
text {{ font: {SIZE}px ui-monospace, 'DejaVu Sans Mono', Menlo, Consolas, monospace; fill: #d8dee9; }}
.typed {{ fill: #ffffff; font-weight: bold; }}
"""
# What is typed, what has to be on the screen then, and the seconds for which that is looked at.
SESSION = (
    ("create('tone', 'sine_fca", "fca$", 0.8), ("\t", "sine_fcac", 1.5), ("c', frequency=440)\r", r"\)\nengine>$", 0.8),
    ("create('gain', 'amp_mono')\r", r"mono'\)\nengine>$", 0.8), ("connect('to", "'to$", 0.8), ("\t", "tone:output", 1.5),
    ("', 'ga\t')\r", r"input'\)\]\nengine>$", 1.0), ("connect('gain', 'system')\r", r"playback_2'\)\]\nengine>$", 1.0),
    ("put('gain.g", "gain.g$", 0.8), ("\t", r"gain\.gain'", 1.0), (", 0.25)\r", r"25\)\nengine>$", 0.8),
    ("graph()\r", r"(?s)gain  amp_mono.*engine>$", 4.0), ("top()\r", r"(?s)xruns.*gain", 1.5), ("", "worst", 1.5),
    ("q", "engine>$", 1.5),
)


def frame(screen):
    """The screen as SVG text; what is typed stands out."""
    rows = []
    for number, line in enumerate(screen.shown()):
        prompt = "engine> " if line.startswith("engine> ") else ""
        shown = html.escape(line[len(prompt):]).replace(" ", "\u00a0")
        spans = f'engine>\u00a0<tspan class="typed">{shown}</tspan>' if prompt else shown
        if line:
            rows.append(f'<text x="{MARGIN}" y="{MARGIN + (number + 0.8) * LEADING:g}">{spans}</text>')
    return "".join(rows)


def record():
    """(seconds, frame) for each step."""
    with tempfile.TemporaryDirectory() as home, Screen(environment={"HOME": home}, columns=COLUMNS, rows=ROWS) as screen:
        screen.wait_for("^engine>$")
        yield 1.0, frame(screen)
        for text, pattern, seconds in SESSION:
            for index in range(0, len(text) - 1, 3):  # as it is typed
                screen.type(text[index:min(index + 3, len(text) - 1)], key_every=0.01)
                yield 0.18, frame(screen)
            screen.type(text[-1:], key_every=0.5)
            screen.wait_for(pattern)
            yield seconds, frame(screen)


def main():
    frames = list(record())
    total = sum(seconds for seconds, _ in frames)
    width, height = COLUMNS * ADVANCE + 2 * MARGIN, ROWS * LEADING + 2 * MARGIN
    print(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height}" role="img" '
          f'aria-label="completion, graph() and top() at the console">\n<style>{STYLE}</style>\n'
          '<rect width="100%" height="100%" rx="8" fill="#1e222a"/>')
    begin = 0.0
    for seconds, text in frames:
        times = [begin / total, min((begin + seconds) / total, 1.0)]
        values, key_times = ["visible", "hidden"], times
        if times[0] > 0:
            values, key_times = ["hidden", *values], [0, *times]
        shown = "visible" if text is frames[-1][1] else "hidden"  # where nothing moves
        print(f'<g visibility="{shown}">{text}<animate attributeName="visibility" values="{";".join(values)}" '
              f'keyTimes="{";".join(f"{time:.5f}" for time in key_times)}" calcMode="discrete" dur="{total:.2f}s" '
              'repeatCount="indefinite"/></g>')
        begin += seconds
    print("</svg>")


if __name__ == "__main__":
    main()
