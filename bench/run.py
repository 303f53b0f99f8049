"""Runs the benchmark in several processes and shows the figures.

    make bench                     a table
    make bench COMPARE=<commit>    this tree's library beside that commit's
    make docs-performance          docs/performance.md

The processes have hash seeds of their own, and so memory layouts. A time is the fastest of a process's rounds, the
median over the processes; a ratio is formed within each process and shown as median and range.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
ONCE = {"memory"}  # parts that a single process measures
PARTS = ["calls", "parameters", "add", "lists", "notify", "registrations", "modules", "threads", "imports", "start",
         "realtime", "memory"]


def measured(library, programs, part, seed):
    """The rows of one part from one process, by name."""
    result = subprocess.run([sys.executable, "-B", HERE / "rows.py", library, programs, part], text=True,
                            stdout=subprocess.PIPE, env=os.environ | {"PYTHONHASHSEED": str(seed)})
    if result.returncode != 0:
        sys.exit(f"rows.py {part} has failed")
    return {row["name"]: row for row in map(json.loads, result.stdout.splitlines())}


def rounds(libraries, programs, parts, processes):
    """For each part and library the rows of all its processes; the libraries take turns."""
    results = [[] for _ in libraries]
    for part in parts:
        print(f"{part} ...", file=sys.stderr, flush=True)
        for seed in range(1, 1 + (1 if part in ONCE else processes)):
            for library, result in zip(libraries, results):
                result += measured(library, programs, part, seed).values()
    return [by_name(result) for result in results]


def by_name(rows):
    names = {}
    for row in rows:
        names.setdefault(row["name"], []).append(row)
    return names


# --------------------------------------------------------------------------------------------------------- showing

def shown(value, unit):
    if unit != "s":
        return f"{value / 1000:,.0f} kB"
    for name, size in (("s", 1), ("ms", 1e-3), ("us", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {name}"
    return f"{value / 1e-9:.3g} ns"


def spread(ratios):
    return f"{statistics.median(ratios):.2f} ({min(ratios):.2f}–{max(ratios):.2f})"


def middle(rows, column, statistic=0):
    return statistics.median(row[column][statistic] for row in rows)


def table_line(name, rows):
    first = rows[0]
    unit = first["unit"]
    def both(column):
        if not unit:
            return f"{sum(row[column][0] for row in rows)}"  # a count
        fastest, median = (shown(middle(rows, column, statistic), unit) for statistic in (0, 1))
        return fastest if len(rows) == 1 or fastest == median else f"{fastest} ({median})"
    line = [name, both("ours"), both("floor") if first["floor"] else "", "", "", "", ""]
    if first["floor"]:
        if unit and all(row["floor"][0] > 0 for row in rows):
            ratios = [row["ours"][0] / row["floor"][0] for row in rows]
            line[3] = spread(ratios)
            if first["limit"]:
                line[4] = f"{first['limit']:.2f}" + (" over" if statistics.median(ratios) > first["limit"] else "")
    for column, peer in (5, "ctypes"), (6, "Cython"):
        if peer in first["peers"]:
            line[column] = shown(statistics.median(row["peers"][peer][0] for row in rows), unit)
    return line


HEADING = ["what", "ours", "floor", "ratio", "limit", "ctypes", "Cython"]


def table(results):
    return [HEADING, *[table_line(name, rows) for name, rows in results.items()]]


def comparison(new, old):
    """A change is one on which all pairs of processes agree, by more than a hundredth."""
    lines = [["what", "this tree", "that commit", "ratio", "verdict"]]
    for name, rows in new.items():
        pairs = [(mine["ours"][0], theirs["ours"][0]) for mine, theirs in zip(rows, old.get(name, []))]
        if not pairs or any(theirs <= 0 for _, theirs in pairs):
            continue
        ratios = [mine / theirs for mine, theirs in pairs]
        verdict = "slower" if min(ratios) > 1.01 else "faster" if max(ratios) < 0.99 else "-"
        unit = rows[0]["unit"]
        lines.append([name, shown(middle(rows, "ours"), unit), shown(middle(old[name], "ours"), unit), spread(ratios),
                      verdict if len(pairs) >= 5 else "too few processes"])
    return lines


def text_table(lines):
    widths = [max(map(len, column)) for column in zip(*lines)]
    lines = [lines[0], ["-" * width for width in widths], *lines[1:]]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in lines)


# -------------------------------------------------------------------------------------------------------- the page

def processor():
    with open("/proc/cpuinfo") as file:
        names = [line.split(":")[1].strip() for line in file if line.startswith(("model name", "Model"))]
    return f"{names[0] if names else platform.machine()}, {os.cpu_count()} cores"


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, cwd=ROOT).stdout.strip()


def conditions(processes, load_before):
    commit = output_of("git", "rev-parse", "--short", "HEAD")
    changed = output_of("git", "status", "--porcelain", "--", "interface", "engine", "bench", "src")
    loads = " and ".join(f"{load:.1f}" for load in (load_before, os.getloadavg()[0]))
    return {"commit": commit + (" with changes" if changed else ""), "date": str(datetime.date.today()),
            "processor": processor(), "system": platform.release(), "python": platform.python_version(),
            "processes": processes, "seconds": os.environ.get("SONETRIX_BENCH_SECONDS", "5"), "load": loads}


PAGE = """# Performance

The library beside what is fastest by hand: for each figure a *floor*, C extension functions
([floor.c](../bench/floor.c)) that do the same job on the same engine and nothing else: no keywords, no selectors, no
subclasses, no tracebacks, no check who holds the interpreter lock. The engine is a stub whose functions cost next to
nothing, so the figures are those of the binding. ctypes and Cython are what a user could take instead, for the calls
that all have.

Written by `make docs-performance` on {date}, at commit {commit}: {processor}, Linux {system}, CPython {python}. The
load average was {load} (before and after): above 1 on a machine that should be idle, others were at work, and the
figures are the worse for it, those of real time most of all.

{table}

A time is the fastest round of a process, the median of {processes} processes; in brackets the median round. Each
process has a hash seed, and so a memory layout, of its own; library, floor and peers take turns of about a
millisecond on one core, and the time is the thread's processor time. (Notifications, threads, the start and real time
are not kept to one core, and are time that passes.) The ratio to the floor is formed in each process: median and
range. "over" marks one beyond its limit.

## What stands above its limit, and why

- Reading a list asks for every element whether the thread holds the interpreter lock, since an engine may call from
  anywhere; the floor does not, but one that does stands in a row of its own. The private field of the thread state
  that would tell for less is not used.
- `getParam` of several keys makes a `listValue` of them and calls `engine.getParams`, which sees to it that they are
  strings; the floor goes to the engine at once.
- Making a registration looks at the callable's parameters; dropping it makes sure that no call is in progress. The
  floor does neither.
- A refused call raises an exception with a traceback entry that names the function; the floor raises a bare one.
- Long graphs make many Python objects, which the garbage collector goes through while they are made.

## Real time

The development engine on its clock driver, blocks of 64 frames at 48 kHz, {scheduling}. "Scripts at work": one that
adds, links and deletes a module and writes a parameter as fast as it can, while a callable takes 1,000 meters and
sleeps. Processing is what a block takes, lateness how long after its time it begins, each as the median over
{processes} runs of {seconds} seconds; xruns are their sum.
"""


def page(results, facts):
    lines = table(results)
    markdown = ["| " + " | ".join(line) + " |" for line in [lines[0], ["---"] * len(lines[0]), *lines[1:]]]
    try:
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(60))
        scheduling = "with real-time scheduling"
    except PermissionError:
        scheduling = "without real-time scheduling, which this machine does not permit"
    return PAGE.format(table="\n".join(markdown), scheduling=scheduling, **facts)


# ------------------------------------------------------------------------------------------------------------ main

def library_of(commit, build):
    """Builds the library of another commit, beside this build."""
    tree = build / f"compare-{output_of('git', 'rev-parse', '--short', commit)}"
    if not tree.exists():
        subprocess.run(["git", "worktree", "add", "--quiet", "--force", "--detach", tree, commit], cwd=ROOT, check=True)
    for command in (["cmake", "--preset", "release", "--log-level=NOTICE"],
                    ["cmake", "--build", "--preset", "release", "--target", "sonetrix"]):
        subprocess.run(command, cwd=tree, check=True, stdout=subprocess.DEVNULL)
    return tree / "build/release/lib/sonetrix.so"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("part", nargs="*", help=f"some of: {' '.join(PARTS)}")
    parser.add_argument("--processes", type=int, default=7)
    parser.add_argument("--compare", metavar="COMMIT")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE")
    parser.add_argument("--page", type=pathlib.Path, metavar="FILE")
    options = parser.parse_intermixed_args()
    build = options.build.resolve()
    if unknown := set(options.part) - set(PARTS):
        parser.error(f"no such part: {' '.join(unknown)}")
    libraries = [build / "lib/sonetrix.so"]
    if options.compare:
        libraries.append(library_of(options.compare, build))
    load = os.getloadavg()[0]
    results, *others = rounds(libraries, build / "bench", options.part or PARTS, options.processes)
    facts = conditions(options.processes, load)
    if options.json:
        options.json.write_text(json.dumps(facts | {"rows": results, "compared": others}, indent=1))
    if options.page:
        options.page.write_text(page(results, facts))
    print(text_table(comparison(results, others[0]) if others else table(results)))
    print(", ".join(f"{name} {fact}" for name, fact in facts.items()))


if __name__ == "__main__":
    main()
