#!/usr/bin/env python3
"""Measures two builds of the transport side by side, in turns, against a local nginx.

  two_builds.py BEFORE AFTER [--rounds N] [--scale FRACTION]
      BEFORE and AFTER are libHTTPClient.so of release builds. Prints, for each size of body and number of
      workers, the medians of the rates and of the processor times, and of the ratios of the rounds.
  two_builds.py BEFORE AFTER --instructions
      Instructions a request under callgrind: a run of 12,000 less one of 2,000, divided by 10,000.
  two_builds.py BEFORE AFTER --switches
      Context switches of the process for each of 10,000 messages that are sent one after the other, while
      all workers but one sleep.

Needs the release build with -DORRERY_BUILD_BENCHMARKS=ON (scripts/bench makes it).
"""
import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile

from against_nginx import BUILD, Nginx

LOOP = os.path.join(BUILD, "bin", "transport_loop")

# Body in bytes, workers, requests a round.
CASES = [(100, 1, 40000), (100, 4, 60000), (100, 16, 60000), (100, 64, 60000),
         (100 * 1024, 4, 8000), (10 * 1024 * 1024, 1, 100)]


def loop(library, port, count, workers):
    """Rate in requests a second and processor time in microseconds a request."""
    done = subprocess.run([LOOP, library, str(port), "/item", str(count), str(workers)],
                          check=True, capture_output=True, text=True)
    rate, processor, _, _ = done.stdout.split()
    return float(rate), float(processor)


def measure(before, after, body, workers, count, rounds):
    results = {before: [], after: []}
    with Nginx(body) as server:
        for number in range(rounds):
            # Who goes first changes with each round.
            for library in (before, after) if number % 2 == 0 else (after, before):
                results[library].append(loop(library, server.port, count, workers))
    old, new = results[before], results[after]
    rates = [b[0] / a[0] for a, b in zip(old, new)]
    costs = [b[1] / a[1] for a, b in zip(old, new)]
    print(f"| {body:,} B, {workers} | {statistics.median(r for r, _ in old):,.0f} "
          f"| {statistics.median(r for r, _ in new):,.0f} "
          f"| {statistics.median(rates):.2f} ({min(rates):.2f} to {max(rates):.2f}) "
          f"| {statistics.median(c for _, c in old):,.1f} us "
          f"| {statistics.median(c for _, c in new):,.1f} us "
          f"| {statistics.median(costs):.2f} |", flush=True)


def speed(arguments):
    print("| body, workers | before, requests/s | after | ratio (least to most) "
          "| processor time before | after | ratio |")
    print("|---|---|---|---|---|---|---|", flush=True)
    for body, workers, count in CASES:
        measure(arguments.before, arguments.after, body, workers,
                max(1, int(count * arguments.scale)), arguments.rounds)


def instructions(library, port, count):
    with tempfile.NamedTemporaryFile() as out:
        done = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}",
                               LOOP, library, str(port), "/item", str(count), "1"],
                              check=True, capture_output=True, text=True)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if found is None:
        sys.exit(f"callgrind counted nothing:\n{done.stderr}")
    return int(found.group(1))


def count_instructions(arguments):
    for body in (100, 100 * 1024):
        with Nginx(body) as server:
            for name in ("before", "after"):
                library = getattr(arguments, name)
                more, less = (instructions(library, server.port, n) for n in (12000, 2000))
                print(f"{body} B, {name}: {(more - less) / 10000:,.0f} instructions a request",
                      flush=True)


def count_switches(arguments):
    print("| workers | before: voluntary, involuntary | after: voluntary, involuntary |")
    print("|---|---|---|", flush=True)
    with Nginx(100) as server:
        for workers in (1, 4, 64, 1024):
            row = []
            for library in (arguments.before, arguments.after):
                done = subprocess.run([LOOP, library, str(server.port), "/item", "10000",
                                       str(workers), "one"], check=True, capture_output=True, text=True)
                row.append(", ".join(f"{float(n):.2f}" for n in done.stdout.split()[2:]))
            print(f"| {workers} | {row[0]} | {row[1]} |", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("before")
    parser.add_argument("after")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--scale", type=float, default=1.0)
    parser.add_argument("--instructions", action="store_true")
    parser.add_argument("--switches", action="store_true")
    arguments = parser.parse_args()
    if arguments.instructions:
        count_instructions(arguments)
    elif arguments.switches:
        count_switches(arguments)
    else:
        speed(arguments)


if __name__ == "__main__":
    main()
