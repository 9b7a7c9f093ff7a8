#!/usr/bin/env python3
# bench/bench.py: measures vorex-zmailer beside a baseline for each figure,
# on this machine, with the same files and the same page-cache state. Each
# figure repeats until its judged ratio settles (compare.py); the CPU time of
# every process on the path comes from the kernel (meter.py). Prints the
# figures as it goes and the table at the end; bench/results.json keeps
# every repetition. Builds its own optimised binaries in build-bench/ and
# works in a fresh temporary directory, removed at the end.
# Run through scripts/bench.
import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

import compare
import figures
from compare import say
from meter import BenchError

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PROGRAMS = ["vorex-zmailer", "vorex-zmailer-filter", "quelt-refd", "bench-floor",
            "bench-roundtrip", "bench-null"]


def positive(text):
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError(f"{text}: needs a positive number")
    return value


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=(
        "Measures vorex-zmailer beside a baseline for each figure; repeats each "
        "until its ratio settles or --row-seconds pass."))
    parser.add_argument("--messages", type=positive, default=2000,
                        help="4 KiB spool files per run of the per-message figures")
    parser.add_argument("--large-mib", type=positive, default=256,
                        help="the largest message of the content-changed figures")
    parser.add_argument("--starts", type=positive, default=200,
                        help="processes per run of the router-stage figure")
    parser.add_argument("--slices", type=positive, default=8,
                        help="parts of the work, ours and the baseline's taken in turns")
    parser.add_argument("--row-seconds", type=positive, default=45,
                        help="repetitions of one figure stop settling after this")
    parser.add_argument("--only", default="",
                        help="comma-separated groups: messages,router,content,hash,clamd,rspamd")
    return parser.parse_args()


def build():
    build_dir = os.path.join(TOP, "build-bench")
    subprocess.run(["cmake", "-S", TOP, "-B", build_dir, "-G", "Ninja",
                    "-DCMAKE_BUILD_TYPE=Release", "-DVOREX_BUILD_TESTS=OFF",
                    "-DVOREX_BUILD_BENCH=ON"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build_dir, "--target", *PROGRAMS], check=True,
                   stdout=subprocess.DEVNULL)
    return build_dir


def load_average():
    with open("/proc/loadavg") as text:
        return float(text.read().split()[0])


def table(rows, singles):
    lines = ["| figure | ours CPU | baseline CPU | CPU ratio (IQR) | wall ratio (IQR) | reps "
             "| target | result |", "|---|--:|--:|--:|--:|--:|--:|---|"]
    for row in rows:
        cells = []
        for side in ("ours", "baseline"):
            seconds = sum(row.component_costs(side).values())
            cells.append(f"{seconds * 1e6:.0f} us/{row.unit}" if seconds < 0.01
                         else f"{seconds * 1e3:.2f} ms/{row.unit}")
        ratios = []
        for kind in ("cpu", "wall"):
            mark = " *" if kind == row.judge else ""
            ratios.append(f"{row.median_ratio(kind):.3f} "
                          f"({compare.describe_spread(row.ratios(kind))}){mark}")
        target = f"{row.target[0]} {row.target[1]}" if row.target else ""
        lines.append(f"| {row.figure} | {cells[0]} | {cells[1]} | {ratios[0]} | {ratios[1]} "
                     f"| {len(row.reps)} | {target} | {row.result()} |")
    for single in singles:
        lines.append(f"| {single['figure']} | {single['ours']} KiB | {single['baseline']} KiB "
                     f"| {single['ratio']:.2f} | | 1 | {single['target'][0]} "
                     f"{single['target'][1]} | {single['result']} |")
    return "\n".join(lines)


def as_json(row):
    def sample(s):
        return {"wall_s": s.wall, "cpu_s": s.cpu}
    return {
        "key": row.key, "figure": row.figure, "count": row.count, "unit": row.unit,
        "throughput": row.throughput, "judge": row.judge,
        "target": {"op": row.target[0], "value": row.target[1]} if row.target else None,
        "result": row.result(), "settled": row.is_settled(), "load_average": row.load,
        "ratio": {kind: {"median": row.median_ratio(kind),
                         "quartiles": compare.quartiles(row.ratios(kind))}
                  for kind in ("cpu", "wall")},
        "cpu_per_unit_s": {side: row.component_costs(side) for side in ("ours", "baseline")},
        "repetitions": [{"ours": sample(rep["ours"]), "baseline": sample(rep["baseline"]),
                         "slices": [{"ours": sample(o), "baseline": sample(b)}
                                    for o, b in rep["slices"]],
                         "cpu_ratio": row.shown(rep["cpu"]),
                         "wall_ratio": row.shown(rep["wall"])} for rep in row.reps],
    }


def write_results(bench, options, work, load_start, seconds, complete):
    """bench/results.json: every repetition of every figure measured so far,
    also when the bench ended early (complete false)."""
    commit = subprocess.run(["git", "-C", TOP, "rev-parse", "HEAD"], capture_output=True,
                            text=True).stdout.strip()
    results = {
        "commit": commit, "complete": complete, "cores": os.cpu_count(),
        "load_average": load_start, "load_average_end": load_average(),
        "temporary_directory": os.path.dirname(work), "seconds": seconds,
        "settle": compare.SETTLE, "min_repetitions": compare.MIN_REPS,
        "options": vars(options), "notes": bench.notes, "singles": bench.singles,
        "figures": [as_json(row) for row in bench.rows],
    }
    with open(os.path.join(TOP, "bench", "results.json"), "w") as out:
        json.dump(results, out, indent=1)
        out.write("\n")
    say("(bench/results.json written)")


def main():
    options = arguments()
    build_dir = build()
    started = time.monotonic()
    load_start = load_average()
    work = tempfile.mkdtemp(prefix="vorex-bench.")
    bench = figures.Bench(TOP, build_dir, work, options)
    complete = False
    try:
        bench.run_all()
        complete = True
    finally:
        bench.daemons.stop_all()
        shutil.rmtree(work, ignore_errors=True)
        seconds = time.monotonic() - started
        if bench.rows or bench.singles:
            write_results(bench, options, work, load_start, seconds, complete)
    print(table(bench.rows, bench.singles))
    for line in bench.notes:
        print(line)
    print(f"judged ratio marked *; spread: the interquartile range around the median; "
          f"{os.cpu_count()} cores, load average {load_start} at the start and "
          f"{load_average()} at the end; temporary files in {os.path.dirname(work)}; "
          f"{seconds:.0f} s")


if __name__ == "__main__":
    try:
        main()
    except BenchError as failure:
        say(f"bench: {failure}")
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)
