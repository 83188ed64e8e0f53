#!/usr/bin/env python3
"""Measures two builds of the stand-alone host side by side, in turns, against a local nginx.

  two_hosts.py BEFORE AFTER [--rounds N] [--body BYTES] [--count N]
      BEFORE and AFTER are orrery-host of release builds, each beside its own libraries. `run` reads COUNT
      GET requests from a file and writes the answers to another. Prints, for 1, 4 and 16 workers, the
      medians of the rates, of the processor times and of the ratios of the rounds, and of the peak memory.
"""
import argparse
import json
import os
import statistics
import subprocess
import tempfile

from against_nginx import Nginx

CHAIN = """chains:
  - id: bench
    name: bench
    transport: HTTPClient
    config: {{host: 127.0.0.1, port: {port}, numClients: {workers}}}
"""
REQUEST = '{{"metadata":{{"requestId":{},"http":{{"method":"GET","path":"/item"}}}}}}\n'


def run(host, folder, count):
    """Answers a second, processor time in microseconds an answer, peak memory in KiB."""
    with open(os.path.join(folder, "log"), "w+") as log:
        process = subprocess.Popen([host, "run", "chain.yaml", "--input", "in", "--output", "out",
                                    "--summary", "json"], cwd=folder, stderr=log)
        _, status, used = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        log.seek(0)
        total = next(json.loads(line) for line in log if line.startswith("{"))["summary"]["total"]
    assert process.returncode == 0 and total["answered"] == count and total["failed"] == 0, total
    return (count / total["durationSeconds"], (used.ru_utime + used.ru_stime) / count * 1e6,
            used.ru_maxrss)


def measure(arguments, server, folder, workers):
    with open(os.path.join(folder, "chain.yaml"), "w") as chain:
        chain.write(CHAIN.format(port=server.port, workers=workers))
    hosts = [os.path.abspath(arguments.before), os.path.abspath(arguments.after)]
    results = ([], [])
    for number in range(arguments.rounds):
        # Who goes first changes with each round.
        for which in (0, 1) if number % 2 == 0 else (1, 0):
            results[which].append(run(hosts[which], folder, arguments.count))
    row = [f"{arguments.body:,} B, {workers}"]
    for column, form in ((0, ",.0f"), (1, ",.1f"), (2, ",.0f")):
        old, new = ([values[column] for values in result] for result in results)
        row += [format(statistics.median(old), form), format(statistics.median(new), form)]
        if column < 2:
            ratios = [b / a for a, b in zip(old, new)]
            row.append(f"{statistics.median(ratios):.2f} ({min(ratios):.2f} to {max(ratios):.2f})")
    print("| " + " | ".join(row) + " |", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("before")
    parser.add_argument("after")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--body", type=int, default=100)
    parser.add_argument("--count", type=int, default=60000)
    arguments = parser.parse_args()
    print("| body, workers | before, answers/s | after | ratio | processor time (us) before | after | ratio "
          "| peak memory (KiB) before | after |")
    print("|---" * 9 + "|", flush=True)
    with tempfile.TemporaryDirectory() as folder, Nginx(arguments.body) as server:
        with open(os.path.join(folder, "in"), "w") as requests:
            for number in range(arguments.count):
                requests.write(REQUEST.format(number))
        for workers in (1, 4, 16):
            measure(arguments, server, folder, workers)


if __name__ == "__main__":
    main()
