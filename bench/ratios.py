#!/usr/bin/env python3
"""Prints the ratio of each benchmark pair BM_<Case>_Qel / BM_<Case>_Baseline (or any other
BM_<Case>_<Alternative>) from Google Benchmark's JSON output read on standard input."""
import json
import re
import sys

runs = {}
for bench in json.load(sys.stdin)["benchmarks"]:
    if bench.get("run_type") == "aggregate" and bench.get("aggregate_name") != "median":
        continue
    match = re.match(r"BM_(\w+?)_(Qel|[A-Za-z]+)(/.*)?$", bench["name"].replace("_median", ""))
    if match:
        runs.setdefault((match.group(1), match.group(3) or ""), {})[match.group(2)] = (bench["real_time"], bench.get("time_unit", "ns"))

print(f"{'case':40} {'ours':>14} {'alternative':>28} {'ratio ours/alt':>15}")
for (case, arg), times in sorted(runs.items()):
    if "Qel" not in times:
        continue
    ours, unit = times["Qel"]
    for alternative, (time, alt_unit) in sorted(times.items()):
        if alternative == "Qel":
            continue
        print(f"{case + arg:40} {f'{ours:.1f} {unit}':>14} {alternative + f' {time:.1f} {alt_unit}':>28} {ours / time:15.2f}")
