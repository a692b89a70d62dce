#!/usr/bin/env python3
"""Prints what was measured against what is required of it.

usage: report.py GOALS RESULTS.json...

GOALS is bench/goals.txt; the results are Google Benchmark's (--benchmark_out). A goal whose
question was not measured is left out. Exit status: 0 every required limit is kept, 1 one is
missed, 2 the files cannot be used.
"""

import json
import sys

MEMORY_COUNTER = "KiB"
HEADINGS = ("question", "ours", "peer", "our median", "peer's", "measured", "required", "aim", "")
LEFT_ALIGNED = 3


class Unusable(Exception):
    pass


def read_goals(path):
    goals = []
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            if not line.strip() or line.startswith("#"):
                continue
            fields = [field.strip() for field in line.split("|")]
            if len(fields) != 6 or fields[3] not in ("ratio", "more"):
                raise Unusable(f"{path}:{number}: not 'question | ours | peer | ratio or more | "
                               f"required | aim'")
            try:
                goals.append((*fields[:4], float(fields[4]), float(fields[5])))
            except ValueError as error:
                raise Unusable(f"{path}:{number}: {error}") from error
    return goals


def figure(run):
    """(value, unit) as bench_main.cpp takes it."""
    if MEMORY_COUNTER in run:
        return run[MEMORY_COUNTER], "KiB"
    is_by_clock = run["run_name"].endswith(("/real_time", "/manual_time"))
    return run["real_time" if is_by_clock else "cpu_time"], run["time_unit"]


def read_medians(paths):
    """{(question, peer): (value, unit)}"""
    medians = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        for run in runs:
            if run.get("aggregate_name") == "median":
                question, peer = run["run_name"].split("/")[:2]
                medians[question, peer] = figure(run)
    return medians


def verdict(measured, required, aim):
    if measured > required:
        return "MISSED"
    return "ok" if measured <= aim else "ok, short of the aim"


def row(goal, medians):
    """The cells of one goal's line; None when its question was not measured."""
    question, ours, peer, measure, required, aim = goal
    if not any(measured == question for measured, _ in medians):
        return None
    for side in (ours, peer):
        if (question, side) not in medians:
            raise Unusable(f"{question}: no figure for '{side}'")
    our_value, unit = medians[question, ours]
    peer_value, _ = medians[question, peer]
    if measure == "ratio":
        measured, form = our_value / peer_value, "{:.2f}x"
    else:
        measured, form = our_value - peer_value, "{:+.0f} " + unit
    return (question, ours, peer, f"{our_value:,.1f} {unit}", f"{peer_value:,.1f} {unit}",
            form.format(measured), form.format(required), form.format(aim),
            verdict(measured, required, aim))


def print_table(rows):
    widths = [max(len(line[i]) for line in (HEADINGS, *rows)) for i in range(len(HEADINGS))]
    for line in (HEADINGS, tuple("-" * width for width in widths), *rows):
        cells = [cell.ljust(width) if i < LEFT_ALIGNED or i == len(line) - 1
                 else cell.rjust(width) for i, (cell, width) in enumerate(zip(line, widths))]
        print("  ".join(cells).rstrip())


def main(arguments):
    if len(arguments) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    try:
        medians = read_medians(arguments[1:])
        rows = [line for goal in read_goals(arguments[0]) if (line := row(goal, medians))]
    except (Unusable, OSError, KeyError, ValueError) as error:
        print(f"report: {error}", file=sys.stderr)
        return 2
    print_table(rows)
    missed = [line[0] for line in rows if line[-1] == "MISSED"]
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
