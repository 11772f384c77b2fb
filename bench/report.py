#!/usr/bin/env python3
"""Runs the benchmark suite and prints its report as Markdown.

For every operation: the median time over the repetitions, bytes per second,
and the ratios to memcpy of the record and to the protobuf peer, all taken
from the same run; then the targets at 1,000,000 segments, each marked met
or missed. The codec benchmarks (hex and Adler-32 per implementation) follow
in a table of their own.

    bench/report.py --build build-bench                # whole suite, 5 repetitions
    bench/report.py --build build-bench --filter 'n:1000000' --repetitions 7
    bench/report.py --from-json run.json               # report a saved run again

Run it on a quiet machine: the load average is printed with the report.
"""

import argparse
import json
import os
import re
import subprocess
import sys

NAME = re.compile(r"^(?P<op>[a-z_]+)(?:/containers:(?P<containers>\d+))?"
                  r"/dotype:(?P<dotype>\d+)/fptype:(?P<fptype>\d+)/n:(?P<n>\d+)$")

# Operations in the order of the report, with the protobuf run each one is
# compared with ("x faster" = protobuf time / our time).
OPERATIONS = [
    ("memcpy", "memcpy of the record", []),
    ("construct", "segment-list constructor", []),
    ("check_segment_list", "checkSegmentList", []),
    ("serialize", "Serialize", ["pb_build_serialize", "pb_serialize_built"]),
    ("serialize_checksum", "Serialize with checksum", ["pb_build_serialize", "pb_serialize_built"]),
    ("serialize_into", "SerializeInto a reused buffer", ["pb_build_serialize", "pb_serialize_built"]),
    ("serialize_checksum_into", "SerializeInto a reused buffer, with checksum",
     ["pb_build_serialize", "pb_serialize_built"]),
    ("reference_codec", "reference codec (SSSE3 hex), a reused buffer", []),
    ("reference_codec_checksum", "reference codec with checksum (AVX2 Adler-32 pass)", []),
    ("header_deserialize", "DORecordHeaderDeserialize", ["pb_parse_copy_out"]),
    ("buffer_constructor", "buffer constructor (deserialize + checks)", ["pb_parse_copy_out"]),
    ("buffer_constructor_into", "buffer constructor into a reused buffer", ["pb_parse_copy_out"]),
    ("hton_ntoh", "HostToNetwork + NetworkToHost", []),
    ("get_digest", "GetDigest", []),
    ("fp_hash_of_digest_block", "hash of the digest block alone", []),
    ("to_stream_text", "ToStream, text form", []),
    ("append_udcid@1000", "AppendBloomAndUniqueDCIDList, ~1,000 containers", []),
    ("append_udcid@100000", "AppendBloomAndUniqueDCIDList, ~100,000 containers", []),
    ("pb_build_serialize", "protobuf: build + serialize", []),
    ("pb_serialize_built", "protobuf: serialize a built message", []),
    ("pb_parse_copy_out", "protobuf: parse + copy out", []),
    ("pb_columns_build_serialize", "protobuf, packed columns: build + serialize", []),
    ("pb_columns_serialize_built", "protobuf, packed columns: serialize built", []),
    ("pb_columns_parse_copy_out", "protobuf, packed columns: parse + copy out", []),
]

PB_SHORT = {
    "pb_build_serialize": "pb build+ser",
    "pb_serialize_built": "pb ser",
    "pb_parse_copy_out": "pb parse",
}


def run(binary, args, repetitions, min_time):
    # Repetitions interleaved at random across the benchmarks: an operation
    # and the baselines it is divided by then share the machine's moments,
    # so that a busy spell does not fall on one of them only.
    cmd = [binary, "--benchmark_format=json",
           f"--benchmark_repetitions={repetitions}",
           "--benchmark_enable_random_interleaving=true",
           "--benchmark_report_aggregates_only=true",
           f"--benchmark_min_time={min_time}"] + args
    print(f"running: {' '.join(cmd)}", file=sys.stderr)
    out = subprocess.run(cmd, check=True, stdout=subprocess.PIPE).stdout
    return json.loads(out)


def medians(data, time_kind):
    """{run_name: (milliseconds, bytes_per_second or None, counters)}"""
    result = {}
    for b in data.get("benchmarks", []):
        if b.get("aggregate_name") != "median":
            continue
        scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b.get("time_unit", "ns")]
        ms = b[f"{time_kind}_time"] * scale
        counters = {k: v for k, v in b.items() if k in ("faults", "distinct")}
        result[b["run_name"]] = (ms, b.get("bytes_per_second"), counters)
    return result


def shape_key(dotype, fptype, n):
    return (int(n), int(dotype), int(fptype))


def collect(results):
    """{shape: {op: (ms, bps, counters)}} and the other runs by name."""
    shaped, other = {}, {}
    for name, value in results.items():
        m = NAME.match(name)
        if not m:
            other[name] = value
            continue
        op = m["op"] + (f"@{m['containers']}" if m["containers"] else "")
        shaped.setdefault(shape_key(m["dotype"], m["fptype"], m["n"]), {})[op] = value
    return shaped, other


def fmt_ms(ms):
    return f"{ms:.3f}" if ms < 10 else f"{ms:.1f}"


def fmt_bps(bps):
    if not bps:
        return "-"
    for unit, div in (("GB/s", 1e9), ("MB/s", 1e6)):
        if bps >= div:
            return f"{bps / div:.2f} {unit}"
    return f"{bps / 1e3:.1f} kB/s"


def shape_title(shape):
    n, dotype, fptype = shape
    return f"DO type {dotype}, fingerprint type {fptype}, N = {n:,}"


def operations_table(shape, ops):
    lines = [f"### {shape_title(shape)}", "",
             "| operation | median ms | bytes/s | × memcpy | vs protobuf (× faster) |",
             "|---|---:|---:|---:|---|"]
    base = ops.get("memcpy", (None,))[0]
    for op, title, peers in OPERATIONS:
        if op not in ops:
            continue
        ms, bps, counters = ops[op]
        ratio = f"{ms / base:.2f}" if base else "-"
        vs = []
        for peer in peers:
            if peer in ops and ms > 0:
                vs.append(f"{PB_SHORT[peer]} {ops[peer][0] / ms:.1f}")
        if op == "get_digest" and "fp_hash_of_digest_block" in ops and shape[1] != 0:
            vs.append(f"({ms / ops['fp_hash_of_digest_block'][0]:.2f} × hash alone)")
        lines.append(f"| {title} | {fmt_ms(ms)} | {fmt_bps(bps)} | {ratio} | {', '.join(vs) or '-'} |")
    lines.append("")
    return lines


def ratio(ops, op, base):
    if op not in ops or base not in ops:
        return None
    return ops[op][0] / ops[base][0]


def targets_table(shaped):
    """The targets at N = 1,000,000, each met, missed or not measured; a row
    without a test (ok None) shows its ratio only."""
    checks = [
        ("segment-list constructor ≤ 1.3 × memcpy",
         lambda o: ratio(o, "construct", "memcpy"), lambda r: r <= 1.3),
        ("checkSegmentList ≤ 0.5 × memcpy",
         lambda o: ratio(o, "check_segment_list", "memcpy"), lambda r: r <= 0.5),
        ("Serialize with checksum ≤ 3.5 × memcpy",
         lambda o: ratio(o, "serialize_checksum", "memcpy"), lambda r: r <= 3.5),
        ("SerializeInto a reused buffer, with checksum ≤ 2.5 × memcpy",
         lambda o: ratio(o, "serialize_checksum_into", "memcpy"), lambda r: r <= 2.5),
        ("SerializeInto a reused buffer, with checksum no slower than the reference codec",
         lambda o: ratio(o, "serialize_checksum_into", "reference_codec_checksum"),
         lambda r: r <= 1.0),
        # No goal: the ratio alone, for following the allocating path.
        ("Serialize with checksum vs the reference codec (×, informative)",
         lambda o: ratio(o, "serialize_checksum", "reference_codec_checksum"), None),
        ("Serialize with checksum ≥ 15 × faster than pb build + serialize",
         lambda o: ratio(o, "pb_build_serialize", "serialize_checksum"), lambda r: r >= 15),
        ("Serialize with checksum ≥ 20 × faster than pb build + serialize",
         lambda o: ratio(o, "pb_build_serialize", "serialize_checksum"), lambda r: r >= 20),
        ("Serialize with checksum ≥ 4 × faster than pb serialize of a built message",
         lambda o: ratio(o, "pb_serialize_built", "serialize_checksum"), lambda r: r >= 4),
        ("buffer constructor ≤ 3.0 × memcpy",
         lambda o: ratio(o, "buffer_constructor", "memcpy"), lambda r: r <= 3.0),
        ("buffer constructor ≥ 20 × faster than pb parse + copy out",
         lambda o: ratio(o, "pb_parse_copy_out", "buffer_constructor"), lambda r: r >= 20),
        ("GetDigest ≤ 1.2 × hash of its block alone",
         lambda o: ratio(o, "get_digest", "fp_hash_of_digest_block"), lambda r: r <= 1.2),
        ("AppendBloomAndUniqueDCIDList, ~1,000 containers ≤ 2 × memcpy",
         lambda o: ratio(o, "append_udcid@1000", "memcpy"), lambda r: r <= 2),
        ("AppendBloomAndUniqueDCIDList, ~100,000 containers ≤ 6 × memcpy",
         lambda o: ratio(o, "append_udcid@100000", "memcpy"), lambda r: r <= 6),
        ("HostToNetwork + NetworkToHost ≤ 2 × memcpy",
         lambda o: ratio(o, "hton_ntoh", "memcpy"), lambda r: r <= 2),
    ]
    shapes = sorted(s for s in shaped if s[0] == 1000000)
    if not shapes:
        return [], 0
    head = "| target | " + " | ".join(f"DO {s[1]} / fp {s[2]}" for s in shapes) + " |"
    lines = ["### Targets at N = 1,000,000 (ratio, then met or MISSED)", "", head,
             "|---|" + "---|" * len(shapes)]
    missed = 0
    for title, measure, ok in checks:
        cells = []
        for s in shapes:
            ops = shaped[s]
            if title.startswith("GetDigest") and s[1] == 0:
                cells.append("n/a (no hashing)")
                continue
            r = measure(ops)
            if r is None:
                cells.append("-")
                continue
            if ok is None:
                cells.append(f"{r:.2f}")
                continue
            met = ok(r)
            missed += 0 if met else 1
            cells.append(f"{r:.2f} {'met' if met else '**MISSED**'}")
        lines.append(f"| {title} | " + " | ".join(cells) + " |")
    lines.append("")
    return lines, missed


def other_table(title, results):
    if not results:
        return []
    lines = [f"### {title}", "", "| benchmark | median | bytes/s |", "|---|---:|---:|"]
    for name in sorted(results):
        ms, bps, _ = results[name]
        time = f"{ms * 1e6:.0f} ns" if ms < 0.01 else f"{fmt_ms(ms)} ms"
        lines.append(f"| {name} | {time} | {fmt_bps(bps)} |")
    lines.append("")
    return lines


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build", default="build-bench", help="build directory with the benchmarks")
    p.add_argument("--repetitions", type=int, default=5)
    p.add_argument("--min-time", default="0.3", help="seconds per repetition")
    p.add_argument("--filter", default="", help="--benchmark_filter for the record suite")
    p.add_argument("--time", choices=("real", "cpu"), default="real",
                   help="which time to report (default: wall-clock)")
    p.add_argument("--heap", choices=("keep", "default"), default="keep",
                   help="keep: a heap that keeps its memory (freed pages reused warm); "
                        "default: glibc's defaults, as a user's program gets them")
    p.add_argument("--no-codecs", action="store_true", help="skip the codec benchmarks")
    p.add_argument("--save-json", help="write the raw results here")
    p.add_argument("--from-json", help="report a saved run instead of running")
    a = p.parse_args()

    if a.from_json:
        with open(a.from_json) as f:
            saved = json.load(f)
    else:
        args = [f"--heap={a.heap}"] + ([f"--benchmark_filter={a.filter}"] if a.filter else [])
        saved = {"record": run(os.path.join(a.build, "bench", "crrecord_bench"), args,
                               a.repetitions, a.min_time),
                 "codec": None, "time": a.time}
        if not a.no_codecs:
            saved["codec"] = run(os.path.join(a.build, "bench", "crrecord_codec_bench"), [],
                                 a.repetitions, a.min_time)
        if a.save_json:
            with open(a.save_json, "w") as f:
                json.dump(saved, f)

    time_kind = saved.get("time", a.time)
    record = saved["record"]
    context = record.get("context", {})
    shaped, other = collect(medians(record, time_kind))
    out = ["## Results", "",
           f"Medians of {context.get('num_cpus', '?')}-CPU runs at {context.get('mhz_per_cpu', '?')} MHz, "
           f"{time_kind} time, load average at start "
           f"{', '.join(f'{x:.2f}' for x in context.get('load_avg', []))}; "
           f"heap: {context.get('heap', 'keeps its memory')}; "
           f"{context.get('date', '')}.", ""]
    targets, missed = targets_table(shaped)
    out += targets
    for shape in sorted(shaped, key=lambda s: (-s[0], s[1], s[2])):
        out += operations_table(shape, shaped[shape])
    out += other_table("References and segment DB records", other)
    if saved.get("codec"):
        out += other_table("Codecs, one implementation at a time (in cache)",
                           medians(saved["codec"], time_kind))
    print("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
