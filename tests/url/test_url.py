"""The command on files read by URL: a server on 127.0.0.1, started and stopped here, honours
Range (or, on other paths, answers as badly as servers do), and the command must report each
file as it reports the local one, or fail clearly with exit 1 within the time limit."""

import glob
import http.server
import os
import re
import resource
import subprocess
import threading
import time

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TOOL = os.environ.get("SARVELINTH_TOOL", os.path.join(ROOT, "build", "bin", "sarvelinth"))
# The command gives up on a request that receives nothing for 10 s.
TIME_LIMIT = 30


class Handler(http.server.BaseHTTPRequestHandler):
    """GET /MODE/PATH: PATH below the root, served as MODE says."""

    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        mode, _, name = self.path.lstrip("/").partition("/")
        if mode == "loop":
            self.send_response(302)
            self.send_header("Location", self.path)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        if mode == "stall":
            self.server.released.wait(TIME_LIMIT * 2)
            return
        path = os.path.join(ROOT, name)
        if not os.path.isfile(path):
            path = os.path.join(self.server.extra, name)
        if not os.path.isfile(path):
            self.send_error(404)
            return
        with open(path, "rb") as file:
            data = file.read()
        match = re.fullmatch(r"bytes=(\d+)-(\d+)", self.headers.get("Range", ""))
        self.server.requests += 1
        if mode == "norange" or not match:
            self.answer(200, data, None)
            return
        start, end = int(match.group(1)), min(int(match.group(2)), len(data) - 1)
        if start >= len(data):
            self.send_response(416)
            self.send_header("Content-Range", "bytes */%d" % len(data))
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        body = data[start:end + 1]
        total = len(data)
        if mode == "truncated":
            self.answer(206, body, "bytes %d-%d/%d" % (start, end, total), sent=len(body) // 2)
        elif mode == "lying":
            # The range it claims is not the one asked for.
            self.answer(206, body, "bytes %d-%d/%d" % (start + 1, end + 1, total))
        elif mode == "growing":
            # Another length with every answer.
            self.answer(206, body, "bytes %d-%d/%d" % (start, end, total + self.server.requests))
        elif mode == "huge":
            # Ten gigabytes for a few kilobytes, without a length.
            self.send_response(206)
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end, total))
            self.send_header("Connection", "close")
            self.end_headers()
            chunk = bytes(1 << 20)
            try:
                for _ in range(10 * 1024):
                    self.wfile.write(chunk)
            except OSError:
                pass
            self.close_connection = True
        else:
            self.answer(206, body, "bytes %d-%d/%d" % (start, end, total))

    def answer(self, status, body, content_range, sent=None):
        self.send_response(status)
        if content_range:
            self.send_header("Content-Range", content_range)
        self.send_header("Content-Length", str(len(body)))
        if sent is not None:
            self.send_header("Connection", "close")
        self.end_headers()
        try:
            self.wfile.write(body[:sent] if sent is not None else body)
            self.server.sent += len(body) if sent is None else sent
        except OSError:
            pass
        if sent is not None:
            self.close_connection = True


def padded_file(directory):
    """The sample with a free box of 300 KB behind its ftyp: a file of several blocks whose
    movie lies at its end."""
    with open(os.path.join(ROOT, "samples", "sample.mp4"), "rb") as file:
        data = file.read()
    padding = 300 * 1024
    data = data[:32] + padding.to_bytes(4, "big") + b"free" + bytes(padding - 8) + data[32:]
    path = os.path.join(directory, "padded.mp4")
    with open(path, "wb") as file:
        file.write(data)
    return path


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    httpd = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    httpd.extra = str(tmp_path_factory.mktemp("served"))
    padded_file(httpd.extra)
    httpd.daemon_threads = True
    httpd.released = threading.Event()
    httpd.requests = 0
    httpd.sent = 0
    thread = threading.Thread(target=httpd.serve_forever, daemon=True)
    thread.start()
    yield httpd
    httpd.released.set()
    httpd.shutdown()
    httpd.server_close()
    thread.join(TIME_LIMIT)


def url(server, mode, name):
    return "http://127.0.0.1:%d/%s/%s" % (server.server_address[1], mode, name)


def run(*arguments):
    started = time.monotonic()
    result = subprocess.run([TOOL, *arguments], cwd=ROOT, capture_output=True,
                            timeout=TIME_LIMIT * 2)
    return result, time.monotonic() - started


def data_files():
    names = []
    for pattern in ("*.mp4", "*.mov", "*.m4a", "*.m4s"):
        names += glob.glob(os.path.join("tests", "data", pattern), root_dir=ROOT)
    return sorted(names) + ["samples/sample.mp4", "padded.mp4"]


@pytest.mark.parametrize("options", [["--format", "json"], ["--deep", "--check"],
                                     ["--deep", "--format", "html"]])
@pytest.mark.parametrize("name", data_files())
def test_a_url_is_reported_like_the_file(server, name, options):
    path = name if os.path.exists(os.path.join(ROOT, name)) else os.path.join(server.extra, name)
    local, _ = run(*options, path)
    remote, _ = run(*options, url(server, "files", name))
    assert remote.returncode == local.returncode, remote.stderr
    address = url(server, "files", name).encode()
    assert remote.stdout.replace(address, path.encode()) == local.stdout
    assert remote.stderr.replace(address, path.encode()) == local.stderr


def test_only_the_blocks_the_parse_touches_are_fetched(server):
    before = server.sent
    result, _ = run("--verbose", url(server, "files", "padded.mp4"))
    assert result.returncode == 0
    told = re.search(rb": (\d+) requests, (\d+) bytes received\n", result.stderr)
    assert told and int(told.group(1)) >= 2
    received = int(told.group(2))
    assert received == server.sent - before
    # The first block, and those of the mdat's header and the moov behind the padding.
    assert received <= 3 * 64 * 1024 < os.path.getsize(os.path.join(server.extra, "padded.mp4"))


@pytest.mark.parametrize("mode, message", [
    ("norange", "the server does not honour range requests"),
    ("truncated", "the answer ended after"),
    ("loop", "more than 10 redirects"),
    ("stall", "no answer for 10 s"),
    ("lying", "the server answered with Content-Range"),
    ("growing", "the server answered with Content-Range"),
    ("huge", "the server sent more than the"),
    ("files", "the server answered 404"),
])
def test_bad_servers_fail_clearly_within_the_time_limit(server, mode, message):
    name = "samples/sample.mp4" if mode != "files" else "samples/missing.mp4"
    # A file larger than a block, so that a lie shows after the first answer too.
    if mode == "growing":
        name = "padded.mp4"
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    result, took = run(url(server, mode, name))
    assert result.returncode == 1, result.stderr
    assert message.encode() in result.stderr, result.stderr
    assert took < TIME_LIMIT
    # Memory bounded: far below the ten gigabytes a hostile server offers.
    assert max(before, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss) < 300 * 1024
