#!/usr/bin/python3
"""bench/module-and-url.py BUILD INPUT: the Python module against the command, and the bytes a
report by URL transfers, on one input (bench/inputs/b.mp4).

Module: each round times the command's default JSON report (output to /dev/null) and, in a
fresh interpreter, sarvelinth.inspect(INPUT).samples(0); it prints the medians, their ratio,
and the interpreter's peak memory beyond the array (max RSS after minus max RSS before the
call, minus the array's bytes).

URL: a server on 127.0.0.1 that honours Range counts the bytes it sends while the command
makes the default report of http://127.0.0.1:PORT/INPUT; printed beside the moov's size.

Environment: RUNS (rounds, default 5; 0 times only the URL)."""

import http.server
import json
import os
import re
import statistics
import subprocess
import sys
import threading
import time

build, path = sys.argv[1], os.path.abspath(sys.argv[2])
tool = os.path.join(build, "bin", "sarvelinth")
runs = int(os.environ.get("RUNS", "5"))
MODULE = r"""
import resource, sys, time
import sarvelinth
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
started = time.perf_counter()
samples = sarvelinth.inspect(sys.argv[1]).samples(0)
took = time.perf_counter() - started
after = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
print(took, len(samples), samples.nbytes, (after - before) * 1024 - samples.nbytes)
"""

command_times, module_times, beyond = [], [], []
for _ in range(runs):
    started = time.perf_counter()
    subprocess.run([tool, "--format", "json", path], stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)
    command_times.append(time.perf_counter() - started)
    out = subprocess.run([sys.executable, "-c", MODULE, path], capture_output=True, check=True,
                         env=dict(os.environ, PYTHONPATH=os.path.join(build, "python")))
    took, count, nbytes, extra = out.stdout.split()
    module_times.append(float(took))
    beyond.append(int(extra))
if runs:
    print("command json: median %.3f s" % statistics.median(command_times))
    print("inspect().samples(0): median %.3f s, %s samples, array %.1f MiB, peak beyond it "
          "%.1f MiB" % (statistics.median(module_times), int(count), int(nbytes) / 2**20,
                        max(beyond) / 2**20))
    print("ratio module/command: %.2f" % (statistics.median(module_times) /
                                           statistics.median(command_times)))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        start, end = map(int, re.fullmatch(r"bytes=(\d+)-(\d+)", self.headers["Range"]).groups())
        size = os.path.getsize(path)
        end = min(end, size - 1)
        with open(path, "rb") as file:
            file.seek(start)
            body = file.read(end + 1 - start)
        self.send_response(206)
        self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end, size))
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
        self.server.sent += len(body)
        self.server.requests += 1


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
server.sent = server.requests = 0
thread = threading.Thread(target=server.serve_forever, daemon=True)
thread.start()
url = "http://127.0.0.1:%d/b.mp4" % server.server_address[1]
started = time.perf_counter()
report = subprocess.run([tool, "--format", "json", url], capture_output=True, check=True)
took = time.perf_counter() - started
server.shutdown()
local = subprocess.run([tool, "--format", "json", path], capture_output=True, check=True)
print("by URL the report of the local file:",
      report.stdout.replace(url.encode(), path.encode()) == local.stdout)
moov = [e for e in json.loads(report.stdout)["elements"] if e["name"] == "moov"][0]
print("by URL: %.2f s, %d requests, %d bytes sent; moov %d bytes; beyond the moov %.2f MiB"
      % (took, server.requests, server.sent, moov["size"], (server.sent - moov["size"]) / 2**20))
