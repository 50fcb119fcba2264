#!/usr/bin/env python3
"""Prints one table from Google Benchmark JSON files.

Each figure is a pair of benchmarks named "<figure>:ours" and
"<figure>:anchor". The value of a benchmark is its bytes_per_second if it
has one, else its items_per_second, else its real time in ns. The ratio says
how many times better ours is: ours/anchor for rates, anchor/ours for times.
A figure with only ":ours" prints its absolute value and "-". User counters
of a benchmark (for example a lateness percentile) get a row of their own,
"<figure> [<counter>]".

Usage: bench_table.py RESULT.json...
Exits 1 when a file cannot be read or a benchmark reported an error.
"""
import json
import sys

TIME_TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

# Keys that Google Benchmark writes itself; anything else is a user counter.
STANDARD_KEYS = {
    "name", "family_index", "per_family_instance_index", "run_name", "run_type",
    "repetitions", "repetition_index", "threads", "iterations", "real_time",
    "cpu_time", "time_unit", "bytes_per_second", "items_per_second", "label",
    "error_occurred", "error_message", "aggregate_name", "aggregate_unit",
    "big_o", "rms", "complexity_n",
}


def value_of(bench):
    """(kind, value): kind is 'bytes', 'items' or 'time' (value in ns)."""
    if "bytes_per_second" in bench:
        return "bytes", float(bench["bytes_per_second"])
    if "items_per_second" in bench:
        return "items", float(bench["items_per_second"])
    unit = TIME_TO_NS.get(bench.get("time_unit", "ns"), 1.0)
    return "time", float(bench["real_time"]) * unit


def scaled(value, steps, unit):
    for factor, prefix in steps:
        if abs(value) >= factor:
            return "%.3g %s%s" % (value / factor, prefix, unit)
    return "%.3g %s" % (value, unit)


def show(kind, value):
    if kind == "bytes":
        return scaled(value, [(2**30, "Gi"), (2**20, "Mi"), (2**10, "Ki")], "B/s")
    if kind == "items":
        return scaled(value, [(1e9, "G"), (1e6, "M"), (1e3, "k")], "items/s")
    return show_time(value)


def show_time(ns):
    if ns >= 1e9:
        return "%.3g s" % (ns / 1e9)
    if ns >= 1e6:
        return "%.3g ms" % (ns / 1e6)
    if ns >= 1e3:
        return "%.3g us" % (ns / 1e3)
    return "%.3g ns" % ns


def show_counter(value):
    return "%.4g" % value


def main(paths):
    failed = False
    figures = {}  # figure -> {"ours": bench, "anchor": bench}
    order = []
    for path in paths:
        try:
            with open(path) as f:
                data = json.load(f)
        except (OSError, ValueError) as e:
            print("%s: %s" % (path, e), file=sys.stderr)
            failed = True
            continue
        for bench in data.get("benchmarks", []):
            if bench.get("run_type") == "aggregate":
                continue
            name = bench["name"]
            if bench.get("error_occurred"):
                print("%s: %s" % (name, bench.get("error_message", "error")), file=sys.stderr)
                failed = True
                continue
            figure, _, side = name.rpartition(":")
            if not figure or side not in ("ours", "anchor"):
                figure, side = name, "ours"
            if figure not in figures:
                figures[figure] = {}
                order.append(figure)
            figures[figure][side] = bench

    rows = [("figure", "ours", "anchor", "ratio")]
    for figure in order:
        pair = figures[figure]
        ours, anchor = pair.get("ours"), pair.get("anchor")
        if ours is None:
            kind, value = value_of(anchor)
            rows.append((figure, "-", show(kind, value), "-"))
            continue
        kind, value = value_of(ours)
        if anchor is None:
            rows.append((figure, show(kind, value), "-", "-"))
        else:
            akind, avalue = value_of(anchor)
            if akind != kind or value == 0 or avalue == 0:
                ratio = "-"
            elif kind == "time":
                ratio = "%.2fx" % (avalue / value)
            else:
                ratio = "%.2fx" % (value / avalue)
            rows.append((figure, show(kind, value), show(akind, avalue), ratio))
        for key in sorted(k for k in ours if k not in STANDARD_KEYS):
            if not isinstance(ours[key], (int, float)):
                continue
            other = anchor.get(key) if anchor is not None else None
            rows.append(("%s [%s]" % (figure, key), show_counter(ours[key]),
                         show_counter(other) if isinstance(other, (int, float)) else "-", "-"))

    widths = [max(len(row[i]) for row in rows) for i in range(4)]
    for index, row in enumerate(rows):
        print("  ".join([row[0].ljust(widths[0])] + [cell.rjust(widths[i + 1]) for i, cell in enumerate(row[1:])]))
        if index == 0:
            print("  ".join("-" * w for w in widths))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
