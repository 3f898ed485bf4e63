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
import selectors
import signal
import subprocess
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
        lines, failure, detail = run_tool(command + ["--"] + [f[0] for f in pending], timeout)
        for entry, line in zip(pending, lines):
            rows.append(report_row(entry, line, reports))
        pending = pending[len(lines):]
        if pending and failure:
            rows.append(failed_row(pending[0], failure, detail))
            pending = pending[1:]
    return rows


def run_tool(command, timeout):
    """Runs the tool and collects its lines. Returns (lines, failure, detail): failure is
    None, TIMEOUT or CRASHED for the file after the last line, detail the message."""
    # A report of a small file is some 50 KB: a pipe of 1 MiB takes many of them at once,
    # where the usual 64 KiB would make the tool wait for the reader every file.
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, pipesize=PIPE_SIZE)
    lines, partial = [], []
    descriptor = process.stdout.fileno()
    deadline = time.monotonic() + timeout
    with selectors.DefaultSelector() as selector:
        selector.register(descriptor, selectors.EVENT_READ)
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0 or not selector.select(remaining):
                process.kill()
                process.wait()
                process.stdout.close()
                return lines, TIMEOUT, "no report within %g s" % timeout
            data = os.read(descriptor, 1 << 20)
            if not data:
                break
            start = 0
            end = data.find(b"\n")
            while end >= 0:
                partial.append(data[start:end])
                lines.append(b"".join(partial))
                partial = []
                deadline = time.monotonic() + timeout
                start = end + 1
                end = data.find(b"\n", start)
            if start < len(data):
                partial.append(data[start:])
    process.stdout.close()
    status = process.wait()
    if status in (EXIT_OK, EXIT_FILE_FAILED, EXIT_NOT_TAKEN, EXIT_ERRORS):
        return lines, None, ""
    return lines, CRASHED, exit_text(status)


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
    elements = line[elements_at:streams_at]
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
               brand=field_value(_MAJOR_BRAND, elements), duration=movie_duration(elements),
               streams=stream_entries(line[streams_at + 11:problems_at], elements),
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


def field_value(pattern, text, start=0, end=None):
    match = pattern.search(text, start, len(text) if end is None else end)
    return json.loads(b'"' + match.group(1) + b'"') if match else None


def movie_duration(elements):
    """The duration of mvhd in seconds, or None."""
    start = elements.find(_ELEMENT + b'mvhd"')
    if start < 0:
        return None
    end = elements.find(_ELEMENT, start + 1)
    timescale = field_value(_TIMESCALE, elements, start, end)
    duration = field_value(_DURATION, elements, start, end)
    try:
        return round(int(duration) / int(timescale), 3)
    except (TypeError, ValueError, ZeroDivisionError):
        return None


def stream_entries(streams, elements):
    """One entry per stream: handler, codec and the number of samples the tool listed.
    Without --deep the streams do not name their handler; the track's hdlr does (the first
    one in the trak: the media handler of mdia comes before minf)."""
    counted = _SAMPLES.sub(lambda m: b'"samples":%d' % m.group().count(b"{"), streams)
    handlers = track_handlers(elements)
    entries = []
    for index, stream in enumerate(json.loads(counted)):
        handler = stream.get("handlerType")
        if handler is None:
            handler = handlers[index] if index < len(handlers) else ""
        entries.append({"handler": handler,
                        "codec": stream.get("codecName") or stream.get("sampleEntry", ""),
                        "samples": stream.get("samples", 0)})
    return entries


def track_handlers(elements):
    handlers = []
    marker = _ELEMENT + b'trak"'
    start = elements.find(marker)
    while start >= 0:
        end = elements.find(marker, start + 1)
        handlers.append(field_value(_HANDLER, elements, start, end if end >= 0 else None) or "")
        start = end
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
