"""Runs the benchmarks in pairs and prints one table of ratios.

    bench.py TREND_BENCH [--rounds N] [--only TEXT]

Each side of a pair runs in a process of its own, once a round, the sides taking turns at being
first. A ratio is the median over the rounds of the ratio of their times; beside it stand the
smallest and the largest. Whoever records or reads the same must come to the same result; a floor
that no time is compared with runs once for that.
"""

import argparse
import collections
import json
import os
import statistics
import subprocess
import sys
import tempfile

# What is compared with what: (text, numerator, denominator, time, goal or None). Times are those
# of the processor ("cpu") or of the wall clock ("real"). The floor reads everything afresh at every
# snapshot; where others commit before each, the library has to do so too, and may take as long as it
# did (1.17 times the floor) before it remembered anything, and a twentieth more.
PAIRS = [
    ("1x8, 100 a commit", "record_1x8/library", "record_1x8/floor", "cpu", 0.52),
    ("1x100, 100 a commit", "record_1x100/library", "record_1x100/floor", "cpu", 0.60),
    ("1x8, a commit each, no fsync", "record_1x8_commit_each/library",
     "record_1x8_commit_each/floor", "cpu", 0.70),
    ("1000x8, a commit per minute", "record_1000x8_tick/library", "record_1000x8_tick/floor",
     "cpu", 0.72),
    ("1x8, a commit each, others commit before each", "record_1x8_others_commit/library",
     "record_1x8_others_commit/floor", "cpu", 1.22),
    ("1x100, ratios of 2", "roll_up_1x100/library", "roll_up_1x100/floor", "cpu", None),
    ("1,000,000 fine rows kept against 1,440", "record_1x8_million_kept/library",
     "record_1x8_day_kept/library", "real", 1.15),
    ("ratio of 60 against 15", "record_1x8_ratio_60/library", "record_1x8_day_kept/library",
     "cpu", None),
    ("ratio of 1440 against 15", "record_1x8_ratio_1440/library", "record_1x8_day_kept/library",
     "cpu", None),
    ("100x8, pool of 3 a device + 2 against all", "record_100x8_plain_pool/library",
     "record_100x8_all_pooled/library", "cpu", None),
    ("100x8, pool of 2 a device + 1 against all", "record_100x8_short_pool/library",
     "record_100x8_all_pooled/library", "cpu", None),
    ("100x8, pool of 64 against all", "record_100x8_small_pool/library",
     "record_100x8_all_pooled/library", "cpu", None),
    ("100x8, a commit each against one a minute", "record_100x8_commit_each/library",
     "record_100x8_all_pooled/library", "cpu", None),
    ("read all of three periods, 8 params", "read_8/library", "read_8/floor", "cpu", 0.70),
    ("read all of three periods, 100 params", "read_100/library", "read_100/floor", "cpu", 0.68),
    ("the same without overlap, 8 params", "read_8_no_overlap/library", "read_8_no_overlap/floor",
     "cpu", None),
    ("the same without overlap, 100 params", "read_100_no_overlap/library",
     "read_100_no_overlap/floor", "cpu", None),
    ("read all of one period, 8 params", "read_8_one_period/library", "read_8_one_period/floor",
     "cpu", None),
    ("read all of one period, 100 params", "read_100_one_period/library",
     "read_100_one_period/floor", "cpu", None),
    ("read one day, 8 params", "read_8_day/library", "read_8_day/floor", "cpu", None),
    ("read one day, 100 params", "read_100_day/library", "read_100_day/floor", "cpu", None),
    ("fill a day", "fill_day/library", "fill_day/floor", "cpu", None),
    ("fill 30 days", "fill_month/library", "fill_month/floor", "cpu", 1.10),
    ("rebuild tables, 100 params against 8", "rebuild_1x100/library", "rebuild_1x8/library",
     "cpu", None),
    ("open, 100 devices against 1", "open_100x8/library", "open_1x8/library", "cpu", None),
    ("pooled statement, miss against hit", "pool_miss/library", "pool_hit/library", "cpu", None),
    ("1x8, a call each, against librrd", "record_1x8_commit_each/library", "record_1x8_rrd/librrd",
     "cpu", 0.40),
    *((f"points of {window} in {n:,}", f"points_{name}_{n}/library", f"points_{name}_{n}/floor",
       "cpu", 1.30)
      for name, window in (("span", "everything"), ("month", "a month"), ("day", "a day"),
                           ("hour", "an hour"))
      for n in (100, 1000, 10000)),
    ("rows of a year of minutes, one at a time", "rows_minutes/library", "rows_minutes/floor",
     "cpu", 1.00),
    ("1x8, a minute of 60 readings and its row against the row", "recorder_1x8_readings/library",
     "recorder_1x8_minute/library", "cpu", 1.50),
    ("1x8, rows of 15 minutes in a commit against each", "recorder_1x8_quarter/library",
     "recorder_1x8_minute/library", "cpu", None),
    ("1x8, rows of an hour in a commit against each", "recorder_1x8_hour/library",
     "recorder_1x8_minute/library", "cpu", None),
    ("100x8, rows of 15 minutes in a commit", "recorder_100x8_quarter/library",
     "recorder_100x8_minute/library",
     "cpu", None),
    ("100x8, a durable minute, against librrd", "record_100x8_durable/library",
     "record_100x8_rrd/librrd", "cpu", 0.50),
]

# What is compared in bytes given to write calls: (text, numerator, denominator, goal).
BYTES = [
    ("1x8, recorder, a commit every 15 minutes against one each", "recorder_1x8_quarter/library",
     "recorder_1x8_minute/library", 0.38),
    ("1x8, recorder, a commit every hour against one a minute", "recorder_1x8_hour/library",
     "recorder_1x8_minute/library", 1 / 7),
    ("100x8, recorder, a commit every 15 minutes", "recorder_100x8_quarter/library",
     "recorder_100x8_minute/library", None),
    ("100x8, recorder, a commit every hour", "recorder_100x8_hour/library",
     "recorder_100x8_minute/library", None),
]

# What memory is compared with what: (text, numerator and its counter, denominator and its counter,
# goal). "allocated" is the most that one read had allocated, "records" what the rows read take,
# "peak" the most that the process had resident, "remembered" what recording remembers of the
# devices, "allowed" 1 KB a device and 10 bytes a parameter.
MEMORY = [
    ("read all of three periods, 8 params: allocated, against records",
     ("read_8/library", "allocated"), ("read_8/library", "records"), 1.25),
    ("read all of three periods, 100 params: allocated, against records",
     ("read_100/library", "allocated"), ("read_100/library", "records"), 1.25),
    ("1000x8, every statement pooled: peak of the process",
     ("record_1000x8_tick/library", "peak"), ("record_1000x8_tick/floor", "peak"), 1.15),
    ("1000x8: remembered, against what it may be",
     ("record_1000x8_tick/library", "remembered"), ("record_1000x8_tick/library", "allowed"), 1.00),
]


def run(program, name):
    """The result of one benchmark in a process and a folder of its own."""
    with tempfile.TemporaryDirectory(prefix="trend-bench-") as folder:
        done = subprocess.run(
            [program, f"--benchmark_filter=^{name}/iterations", "--benchmark_format=json"],
            cwd=folder, capture_output=True, text=True, check=False)
    if done.returncode != 0 or '"iterations"' not in done.stdout:
        sys.exit(f"{name} failed:\n{done.stdout}{done.stderr}")
    return json.loads(done.stdout)["benchmarks"][0]


def check_result(name, got, known):
    """Holds a result against the one known for the same work, if that has a result."""
    if "result" in got and known.setdefault(got["label"], got["result"]) != got["result"]:
        sys.exit(f"{name} came to another result than was known for the same work")


def time_of(result, clock):
    """Microseconds per item."""
    return result[clock + "_time"] / result["items"]


def kilobytes(runs, counter):
    """The median of what the runs counted in bytes; empty where they do not."""
    if counter not in runs[0]:
        return ""
    return f"{statistics.median(run[counter] for run in runs) / 1024:.0f}"


def judge(text, unit, values, ratios, goal):
    """A line of the tables of ratios: the medians of both sides, then the ratio and its goal."""
    ratio = statistics.median(ratios)
    return (text, *unit, *(f"{value:.2f}" for value in values), f"{ratio:.2f}",
            f"{min(ratios):.2f}", f"{max(ratios):.2f}", "" if goal is None else f"{goal:.2f}",
            "" if goal is None else "reached" if ratio <= goal else "missed")


def table(rows):
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    for row in rows:
        cells = [row[0].ljust(widths[0])]
        cells += [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  ".join(cells).rstrip())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program")
    parser.add_argument("--rounds", type=int, default=6)
    parser.add_argument("--only", default="", help="only pairs whose benchmarks contain this")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="trend-bench-kept-") as folder:
        os.environ["TREND_BENCH_KEEP"] = folder  # for the log that is too large to be made each time
        measure(options)


def measure(options):
    """Runs the pairs and prints the tables."""

    known = subprocess.run([options.program, "--benchmark_list_tests"], capture_output=True,
                           text=True, check=True).stdout
    known = {line.rsplit("/iterations", 1)[0] for line in known.split()}
    pairs = [pair for pair in PAIRS if options.only in pair[1] + " " + pair[2]]
    skipped = [pair[0] for pair in pairs if not {pair[1], pair[2]} <= known]
    pairs = [pair for pair in pairs if pair[0] not in skipped]

    results = collections.defaultdict(list)
    ratios = collections.defaultdict(list)
    known_results = {}
    timed = {name for pair in pairs for name in pair[1:3]}
    floors = {name.split("/")[0] + "/floor" for name in timed} & known - timed
    for name in sorted(floors):
        check_result(name, run(options.program, name), known_results)
    for number in range(options.rounds):
        for text, above, below, clock, _ in pairs:
            sides = (above, below) if number % 2 == 0 else (below, above)
            got = {name: run(options.program, name) for name in sides}
            for name in sides:
                check_result(name, got[name], known_results)
                results[name].append(got[name])
            ratios[text].append(time_of(got[above], clock) / time_of(got[below], clock))
            print(".", end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)

    rows = [("case", "clock", "us", "against", "ratio", "min", "max", "goal", "")]
    for text, above, below, clock, goal in pairs:
        times = [statistics.median(time_of(r, clock) for r in results[name])
                 for name in (above, below)]
        rows.append(judge(text, [clock], times, ratios[text], goal))
    print("Time per snapshot, row read or call, microseconds:\n")
    table(rows)

    rows = [("case", "bytes", "against", "ratio", "min", "max", "goal", "")]
    for text, above, below, goal in BYTES:
        if not {above, below} <= results.keys():
            continue
        sides = [[r["bytes_per_item"] for r in results[name]] for name in (above, below)]
        rows.append(judge(text, [], map(statistics.median, sides),
                          [a / b for a, b in zip(*sides)], goal))
    if len(rows) > 1:
        print("\nBytes in write calls per row:\n")
        table(rows)

    rows = [("case", "KB", "against", "ratio", "min", "max", "goal", "")]
    for text, above, below, goal in MEMORY:
        if not {above[0], below[0]} <= results.keys():
            continue
        sides = [[r[counter] / 1024 for r in results[name]] for name, counter in (above, below)]
        rows.append(judge(text, [], map(statistics.median, sides),
                          [a / b for a, b in zip(*sides)], goal))
    if len(rows) > 1:
        print("\nMemory:\n")
        table(rows)

    rows = [("benchmark", "written per item", "peak KB", "growth KB", "allocated KB",
             "records KB")]
    for name, runs in results.items():
        rows.append((name, f"{runs[-1]['bytes_per_item']:.0f}", kilobytes(runs, "peak"),
                     kilobytes(runs, "peak_growth"), kilobytes(runs, "allocated"),
                     kilobytes(runs, "records")))
    print("\nBytes in write calls, and memory (peak of the process, how far it grew in the timed"
          " part; what the first read allocated, and what its records take):\n")
    table(rows)
    for text in skipped:
        print(f"\nNot run, not in this build: {text}")


if __name__ == "__main__":
    main()
