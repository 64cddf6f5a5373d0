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
        runs.setdefault((match.group(1), match.group(3) or ""), {})[match.group(2)] = bench["real_time"]

print(f"{'case':40} {'ours (ns)':>12} {'alternative':>26} {'ratio ours/alt':>15}")
for (case, arg), times in sorted(runs.items()):
    if "Qel" not in times:
        continue
    for alternative, time in sorted(times.items()):
        if alternative == "Qel":
            continue
        print(f"{case + arg:40} {times['Qel']:12.1f} {alternative + f' {time:.1f} ns':>26} {times['Qel'] / time:15.2f}")
