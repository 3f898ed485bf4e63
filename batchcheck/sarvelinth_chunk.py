"""The worker's side of ./batch: runs sarvelinth over a chunk of files and turns each
file's JSON line into a row.

A chunk is one run of the tool over many files, so that its start-up is paid once per
chunk. The tool writes each file's line when it is done with the file, so the lines are
read as they come: when no line comes within the time limit, or the tool dies, the file
after the last line is the one it was on. That file gets its row (timeout or crashed)
and the rest of the chunk runs again without it.

Reports can be large (every sample of every track), so a row is taken from the line
without parsing all of it: the sample lists are counted rather than decoded, and the few
fields a row needs are found in the box tree by name. This relies on two things the JSON
writer guarantees: a double quote inside a string is always escaped, so a key such as
"samples": can only be a key; and a field object holds no object before its value.
"""

import gzip
import hashlib
import json
import os
import re
import signal
import subprocess
import threading
import time

# Statuses of a row; see README.md, "Checking an archive".
OK, PROBLEMS, NOT_MP4, UNREADABLE, TIMEOUT, CRASHED = (
    "ok", "problems", "not-mp4", "unreadable", "timeout", "crashed")

# The tool's exit statuses for one file (README.md, "Exit status").
EXIT_OK, EXIT_FILE_FAILED, EXIT_NOT_TAKEN, EXIT_ERRORS = 0, 1, 3, 4

SEVERITIES = ("error", "warning", "info")

PIPE_SIZE = 1 << 20

_SAMPLES = re.compile(rb'"samples":\[[^\]]*\]')
_ELEMENT = b'{"kind":"element","name":"'


def _field_pattern(name):
    return re.compile(rb'"name":"' + name + rb'",[^{}]*?"value":"((?:[^"\\]|\\.)*)"')


_MAJOR_BRAND = _field_pattern(b"major_brand")
_TIMESCALE = _field_pattern(b"timescale")
_DURATION = _field_pattern(b"duration")
_HANDLER = _field_pattern(b"handler_type")


def check_chunk(tool, files, deep=False, timeout=60.0, memory_limit=0, reports=None):
    """Checks files, a list of (path, size, mtime), and returns their rows in that order."""
    command = [tool, "--format", "json", "--check"] + (["--deep"] if deep else [])
    if memory_limit:
        command = ["prlimit", "--as=%d" % memory_limit, "--"] + command
    rows = []
    pending = list(files)
    while pending:
        first = len(rows)

        def take(line):
            # A row is made as its line comes, so that only one report is held at a time.
            if len(rows) - first < len(pending):
                rows.append(report_row(pending[len(rows) - first], line, reports))

        failure, detail = run_tool(command + ["--"] + [f[0] for f in pending], timeout, take)
        pending = pending[len(rows) - first:]
        if pending and failure:
            rows.append(failed_row(pending[0], failure, detail))
            pending = pending[1:]
    return rows


def run_tool(command, timeout, take):
    """Runs the tool and hands each line it writes to take, without its line feed.
    Returns (failure, detail): failure is None, or TIMEOUT or CRASHED for the file after
    the last line, detail says why."""
    # A report of a small file is some 50 KB: a pipe of 1 MiB takes many of them at once,
    # where the usual 64 KiB would make the tool wait for the reader every file.
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, pipesize=PIPE_SIZE,
                               bufsize=PIPE_SIZE)
    watchdog = Watchdog(process, timeout)
    watchdog.start()
    for line in process.stdout:
        if not line.endswith(b"\n"):
            break  # cut short by the tool's end
        take(line[:-1])
        watchdog.progress()
    status = process.wait()
    watchdog.stop()
    process.stdout.close()
    if watchdog.fired:
        return TIMEOUT, "no report within %g s" % timeout
    if status in (EXIT_OK, EXIT_FILE_FAILED, EXIT_NOT_TAKEN, EXIT_ERRORS):
        return None, ""
    return CRASHED, exit_text(status)


class Watchdog(threading.Thread):
    """Kills the tool when no line has come for timeout seconds. The lines are read with
    the buffered reader's own loop in the calling thread, which costs far less than
    waiting for each piece the tool writes with a time limit; this thread wakes up only
    when a time limit runs out."""

    def __init__(self, process, timeout):
        super().__init__(daemon=True)
        self.process = process
        self.timeout = timeout
        self.last = time.monotonic()
        self.stopped = threading.Event()
        self.fired = False

    def progress(self):
        self.last = time.monotonic()

    def stop(self):
        self.stopped.set()
        self.join()

    def run(self):
        while True:
            remaining = self.last + self.timeout - time.monotonic()
            if remaining <= 0:
                self.fired = True
                self.process.kill()
                return
            if self.stopped.wait(remaining):
                return


def exit_text(status):
    if status < 0:
        try:
            name = signal.Signals(-status).name
        except ValueError:
            name = "signal %d" % -status
        return "the tool was killed by %s" % name
    return "the tool ended with exit status %d" % status


def base_row(entry):
    path, size, mtime = entry
    return {"path": path, "size": size, "mtime": mtime}


def failed_row(entry, status, message):
    row = base_row(entry)
    row.update(status=status, exit=None, brand=None, duration=None, streams=[],
               problems=dict.fromkeys(SEVERITIES, 0), codes=[], error=message)
    return row


def report_row(entry, line, reports):
    """The row of a file from its JSON line, keeping the line in reports when given."""
    elements_at = line.find(b'"elements":[')
    if elements_at < 0:
        return error_row(entry, json.loads(line).get("error", ""))
    streams_at = line.find(b',"streams":[', elements_at)
    problems_at = line.rfind(b',"problems":[')
    coverage_at = line.rfind(b',"coverage":')
    problems = json.loads(line[problems_at + 12:coverage_at]) if problems_at >= 0 else []
    counts = dict.fromkeys(SEVERITIES, 0)
    codes = []
    for problem in problems:
        counts[problem["severity"]] = counts.get(problem["severity"], 0) + 1
        if problem["code"] not in codes:
            codes.append(problem["code"])

    row = base_row(entry)
    row.update(status=PROBLEMS if counts["error"] or counts["warning"] else OK,
               exit=EXIT_ERRORS if counts["error"] else EXIT_OK,
               brand=field_value(_MAJOR_BRAND, line, elements_at, streams_at),
               duration=movie_duration(line, elements_at, streams_at),
               streams=stream_entries(line[streams_at + 11:problems_at],
                                      track_handlers(line, elements_at, streams_at)),
               problems=counts, codes=codes)
    if reports:
        row["report"] = keep_report(reports, entry[0], line)
    return row


def error_row(entry, message):
    """The row of a file the tool gave no report for: no plugin took it, or it could not be
    read (the tool's exit status 3 and 1)."""
    row = failed_row(entry, UNREADABLE, message)
    if message.startswith(("not a supported container format", "no container plugin")):
        row.update(status=NOT_MP4, exit=EXIT_NOT_TAKEN)
    else:
        row["exit"] = EXIT_FILE_FAILED
    return row


def field_value(pattern, text, start, end):
    """The value of the first field the pattern finds in text[start:end] (not copied:
    reports run to megabytes)."""
    match = pattern.search(text, start, end)
    if not match:
        return None
    value = match.group(1)
    return json.loads(b'"' + value + b'"') if b"\\" in value else value.decode()


def movie_duration(line, start, end):
    """The duration of mvhd in seconds, or None; the box tree lies in line[start:end]."""
    start = line.find(_ELEMENT + b'mvhd"', start, end)
    if start < 0:
        return None
    following = line.find(_ELEMENT, start + 1, end)
    end = following if following >= 0 else end
    timescale = field_value(_TIMESCALE, line, start, end)
    duration = field_value(_DURATION, line, start, end)
    try:
        return round(int(duration) / int(timescale), 3)
    except (TypeError, ValueError, ZeroDivisionError):
        return None


def stream_entries(streams, handlers):
    """One entry per stream: handler, codec and the number of samples the tool listed.
    Without --deep the streams do not name their handler; handlers, those of the tracks,
    stand in."""
    counted = _SAMPLES.sub(lambda m: b'"samples":%d' % m.group().count(b"{"), streams)
    entries = []
    for index, stream in enumerate(json.loads(counted)):
        handler = stream.get("handlerType")
        if handler is None:
            handler = handlers[index] if index < len(handlers) else ""
        entries.append({"handler": handler,
                        "codec": stream.get("codecName") or stream.get("sampleEntry", ""),
                        "samples": stream.get("samples", 0)})
    return entries


def track_handlers(line, start, end):
    """The handler of each trak in the box tree in line[start:end]: the first hdlr in the
    trak, as the media handler of mdia comes before minf (and its data handler)."""
    handlers = []
    marker = _ELEMENT + b'trak"'
    start = line.find(marker, start, end)
    while start >= 0:
        following = line.find(marker, start + 1, end)
        handlers.append(field_value(_HANDLER, line, start,
                                    following if following >= 0 else end) or "")
        start = following
    return handlers


def report_name(path):
    """A collision-free file name for a path's report: a readable stem and a hash of the
    whole path, in a folder named by the hash's first two digits so that no folder grows
    too large."""
    digest = hashlib.sha1(os.fsencode(path)).hexdigest()[:16]
    stem = re.sub(r"[^A-Za-z0-9._-]+", "_", os.path.basename(path))[:80]
    return os.path.join(digest[:2], "%s-%s.json.gz" % (stem, digest))


def keep_report(reports, path, line):
    """Writes the line gzip-compressed under reports; a temporary name and a rename make
    a worker killed while writing leave no half report."""
    name = report_name(path)
    target = os.path.join(reports, name)
    os.makedirs(os.path.dirname(target), exist_ok=True)
    temporary = "%s.%d.tmp" % (target, os.getpid())
    with gzip.open(temporary, "wb", compresslevel=1) as out:
        out.write(line + b"\n")
    os.replace(temporary, target)
    return name
