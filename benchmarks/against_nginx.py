#!/usr/bin/env python3
"""Measures `orrery-host run` against a local nginx.

  against_nginx.py speed [--count N] [--rounds N] [--body BYTES]
      One worker, N GET requests, next to the bare loop, in turns. Prints each rate and the medians.
  against_nginx.py memory [--counts N,N,...] [--clients N]
      Peak memory of the host for each count, every answer counted and every id checked to come once.

Needs the release build with -DORRERY_BUILD_BENCHMARKS=ON (scripts/bench does all of it).
"""
import argparse
import json
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

PROJECT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(PROJECT, "build", "release")

NGINX = """
daemon off; master_process off; worker_processes 1; pid {dir}/nginx.pid; error_log {dir}/error.log;
events {{ worker_connections 512; }}
http {{
  access_log off; keepalive_requests 1000000000; keepalive_timeout 600s; tcp_nodelay on;
  client_body_temp_path {dir}/b; proxy_temp_path {dir}/p; fastcgi_temp_path {dir}/f;
  uwsgi_temp_path {dir}/u; scgi_temp_path {dir}/s;
  server {{ listen 127.0.0.1:{port}; root {dir}/www; }}
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx:
    def __init__(self, body):
        self.dir = tempfile.mkdtemp(prefix="orrery-bench-")
        os.chmod(self.dir, 0o755)
        self.port = free_port()
        os.mkdir(os.path.join(self.dir, "www"))
        with open(os.path.join(self.dir, "www", "item"), "w") as item:
            item.write("x" * body)
        conf = os.path.join(self.dir, "nginx.conf")
        with open(conf, "w") as out:
            out.write(NGINX.format(dir=self.dir, port=self.port))
        self.process = subprocess.Popen(["nginx", "-p", self.dir, "-c", conf, "-e",
                                         os.path.join(self.dir, "error.log")])

    def __enter__(self):
        for _ in range(1000):
            try:
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return self
            except OSError:
                time.sleep(0.01)
        sys.exit("nginx does not answer")

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        shutil.rmtree(self.dir)


def write_chain(directory, port, clients):
    path = os.path.join(directory, "chain.yaml")
    with open(path, "w") as chain:
        chain.write(f"""chains:
  - id: bench
    name: bench
    transport: HTTPClient
    config: {{host: 127.0.0.1, port: {port}, numClients: {clients}}}
log: {{level: warn}}
""")
    return path


def write_requests(path, count):
    line = '{{"metadata":{{"requestId":{},"http":{{"method":"GET","path":"/item"}}}}}}\n'
    with open(path, "w") as out:
        for number in range(1, count + 1):
            out.write(line.format(number))


def peak_memory(pid):
    """The high-water mark of a process's memory, in KiB; 0 once it has ended.

    Not ru_maxrss, which also counts what this program held when it started the other.
    """
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def run_host(chain, requests, answers, watch_memory=False):
    """Seconds and peak memory (KiB; 0 where it is not watched) of one run."""
    start = time.monotonic()
    process = subprocess.Popen([os.path.join(BUILD, "bin", "orrery-host"), "run", chain,
                                "--input", requests, "--output", answers])
    peak = 0
    while watch_memory and process.poll() is None:
        peak = max(peak, peak_memory(process.pid))
        time.sleep(0.01)
    if process.wait() != 0:
        sys.exit(f"orrery-host ended with {process.returncode}")
    return time.monotonic() - start, peak


def check(answers, count):
    seen = bytearray(count + 1)
    with open(answers) as lines:
        for line in lines:
            metadata = json.loads(line)["metadata"]
            if metadata["http"]["statusCode"] != 200:
                sys.exit(f"not a 200: {line}")
            seen[metadata["requestId"]] += 1
    if any(times != 1 for times in seen[1:]):
        sys.exit("an id is missing or came twice")


def speed(arguments):
    ratios, ours, bare = [], [], []
    with Nginx(arguments.body) as server:
        chain = write_chain(server.dir, server.port, 1)
        requests = os.path.join(server.dir, "requests")
        answers = os.path.join(server.dir, "answers")
        write_requests(requests, arguments.count)
        for _ in range(arguments.rounds):
            elapsed, _ = run_host(chain, requests, answers)
            check(answers, arguments.count)
            loop = subprocess.run([os.path.join(BUILD, "bin", "bare_loop"), str(server.port),
                                   "/item", str(arguments.count)],
                                  check=True, capture_output=True, text=True)
            ours.append(arguments.count / elapsed)
            bare.append(float(loop.stdout))
            ratios.append(ours[-1] / bare[-1])
            print(f"orrery-host {ours[-1]:8.0f}/s   bare loop {bare[-1]:8.0f}/s   "
                  f"ratio {ratios[-1]:.2f}", flush=True)
    print(f"median      {statistics.median(ours):8.0f}/s             "
          f"{statistics.median(bare):8.0f}/s   ratio {statistics.median(ratios):.2f}")


def memory(arguments):
    with Nginx(100) as server:
        chain = write_chain(server.dir, server.port, arguments.clients)
        for count in (int(text) for text in arguments.counts.split(",")):
            requests = os.path.join(server.dir, "requests")
            answers = os.path.join(server.dir, "answers")
            write_requests(requests, count)
            elapsed, peak = run_host(chain, requests, answers, watch_memory=True)
            check(answers, count)
            print(f"{count:9d} requests, each answered once: peak memory {peak} KiB, "
                  f"{count / elapsed:.0f}/s", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(required=True)
    command = commands.add_parser("speed")
    command.add_argument("--count", type=int, default=50000)
    command.add_argument("--rounds", type=int, default=5)
    command.add_argument("--body", type=int, default=100)
    command.set_defaults(run=speed)
    command = commands.add_parser("memory")
    command.add_argument("--counts", default="10000,100000,1000000")
    command.add_argument("--clients", type=int, default=4)
    command.set_defaults(run=memory)
    arguments = parser.parse_args()
    arguments.run(arguments)


if __name__ == "__main__":
    main()
