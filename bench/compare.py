#!/usr/bin/env python3
"""Compares two builds of the benchmark suite, run by turns on the same machine.

Each round runs the before binary and the after binary once each (the order
alternating between rounds), so that both meet the machine's quiet and busy
moments alike. For every benchmark it prints the median time of each build,
the after/before ratio, and the noise: the spread of the before build's own
rounds ((max - min) / median), which is what a ratio must exceed to mean a
change.

    bench/compare.py OLD/bench/crrecord_bench NEW/bench/crrecord_bench \
        --filter 'dotype:3/fptype:1/n:1000000' --rounds 5
"""

import argparse
import json
import statistics
import subprocess
import sys


def run_once(binary, filt, min_time):
    out = subprocess.run(
        [binary, f"--benchmark_filter={filt}", f"--benchmark_min_time={min_time}",
         "--benchmark_format=json"],
        check=True, capture_output=True, text=True).stdout
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}  # to milliseconds
    return {b["name"]: b["real_time"] * scale[b.get("time_unit", "ns")]
            for b in json.loads(out)["benchmarks"] if b.get("run_type", "iteration") == "iteration"}


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("before")
    p.add_argument("after")
    p.add_argument("--filter", default="n:1000000")
    p.add_argument("--rounds", type=int, default=5)
    p.add_argument("--min-time", default="0.2")
    a = p.parse_args()

    times = {"before": {}, "after": {}}
    for r in range(a.rounds):
        order = ("before", "after") if r % 2 == 0 else ("after", "before")
        for which in order:
            binary = a.before if which == "before" else a.after
            for name, t in run_once(binary, a.filter, a.min_time).items():
                times[which].setdefault(name, []).append(t)
        print(f"round {r + 1} of {a.rounds} done", file=sys.stderr)

    print("| benchmark | before | after | after/before | noise of before |")
    print("|---|---:|---:|---:|---:|")
    for name, before in times["before"].items():
        after = times["after"].get(name)
        if not after:
            continue
        b, t = statistics.median(before), statistics.median(after)
        noise = (max(before) - min(before)) / b
        print(f"| {name} | {b:.3f} ms | {t:.3f} ms | {t / b:.2f} | {noise:.0%} |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
