"""The worker's side of ./batch: runs sarvelinth over a chunk of files and turns each
file's summary line into a row.

A chunk is one run of the tool over many files, so that its start-up is paid once per
chunk. The tool writes each file's lines when it is done with the file, so the lines are
read as they come: when no line comes within the time limit, or the tool dies, the file
after the last summary is the one it was on. That file gets its row (timeout or crashed)
and the rest of the chunk runs again without it.

The tool writes a short summary line per file (--format summary), so a row costs little
more than the tool's own work. With --reports it writes each file's full JSON report
first (--format json+summary), and the report is kept beside the row.
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

# The tool's environment: the worker's own, but for the setting that Dask makes for its
# workers' memory, with which the C library gives memory back to the system after almost
# every report; that doubles the tool's time.
TOOL_ENVIRONMENT = {name: value for name, value in os.environ.items()
                    if name != "MALLOC_TRIM_THRESHOLD_"}

# The tools running in this process, and whether stop_tools was called.
_tools_lock = threading.Lock()
_running = set()
_stopped = False

# The line of a file that gets no report: {"file":...,"error":...}.
_ERROR_LINE = re.compile(rb'\{"file":"(?:[^"\\]|\\.)*","error":')


def check_chunk(tool, files, deep=False, timeout=60.0, memory_limit=0, reports=None):
    """Checks files, a list of (path, size, mtime), and returns their rows in that order."""
    command = [tool, "--format", "json+summary" if reports else "summary", "--check"]
    command += ["--deep"] if deep else []
    if memory_limit:
        command = ["prlimit", "--as=%d" % memory_limit, "--"] + command
    rows = []
    pending = list(files)
    while pending:
        first = len(rows)
        held = []  # with reports: the report of the file whose summary comes next

        def take(line):
            # A row is made as its summary comes, so that only one report is held at a time.
            if len(rows) - first == len(pending):
                return
            if reports and not held and not _ERROR_LINE.match(line):
                held.append(line)
                return
            entry = pending[len(rows) - first]
            rows.append(summary_row(entry, line, reports, held.pop() if held else None))

        failure, detail = run_tool(command + ["--"] + [f[0] for f in pending], timeout, take)
        pending = pending[len(rows) - first:]
        if pending and failure:
            rows.append(failed_row(pending[0], failure, detail))
            pending = pending[1:]
    return rows


def check_chunk_encoded(*arguments):
    """check_chunk for the cluster: its rows encoded."""
    return encoded(check_chunk(*arguments))


def encoded(rows):
    """Rows as the driver takes them: their lines of the output, and what it keeps of each
    (kept). One string moves between Dask's processes in a fraction of the time that a
    thousand dicts take."""
    return ("".join(json.dumps(row) + "\n" for row in rows).encode(),
            [kept(row) for row in rows])


def kept(row):
    """What the driver keeps of a row: (path, size, mtime, status, exit, codes)."""
    return row["path"], row["size"], row["mtime"], row["status"], row["exit"], row["codes"]


def run_tool(command, timeout, take):
    """Runs the tool and hands each line it writes to take, without its line feed.
    Returns (failure, detail): failure is None, or TIMEOUT or CRASHED for the file after
    the last line, detail says why."""
    # With --reports, the report of a small file is some 50 KB: a pipe of 1 MiB takes many
    # of them at once, where the usual 64 KiB would make the tool wait for the reader every
    # file.
    with _tools_lock:
        if _stopped:
            raise RuntimeError("the run is stopping")
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, pipesize=PIPE_SIZE,
                                   bufsize=PIPE_SIZE, env=TOOL_ENVIRONMENT)
        _running.add(process)
    watchdog = Watchdog(process, timeout)
    watchdog.start()
    for line in process.stdout:
        if not line.endswith(b"\n"):
            break  # cut short by the tool's end
        take(line[:-1])
        watchdog.progress()
    status = process.wait()
    watchdog.stop()
    with _tools_lock:
        _running.discard(process)
    process.stdout.close()
    if watchdog.fired:
        return TIMEOUT, "no report within %g s" % timeout
    if status in (EXIT_OK, EXIT_FILE_FAILED, EXIT_NOT_TAKEN, EXIT_ERRORS):
        return None, ""
    return CRASHED, exit_text(status)


def stop_tools():
    """Kills the tools that this process runs and starts no more: a run that is stopped
    leaves none behind, not even one that hangs."""
    global _stopped
    with _tools_lock:
        _stopped = True
        for process in _running:
            process.kill()


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
    row.update(status=status, exit=None, brand=None, duration=None, streams=[], items=0,
               primaryItem=None, problems=dict.fromkeys(SEVERITIES, 0), codes=[], error=message)
    return row


def summary_row(entry, line, reports, report):
    """The row of a file from its summary line, keeping its report in reports when given."""
    summary = json.loads(line)
    if "error" in summary:
        return error_row(entry, summary["error"])
    counts = summary["problems"]
    timescale = summary["timescale"]
    row = base_row(entry)
    row.update(status=PROBLEMS if counts["error"] or counts["warning"] else OK,
               exit=EXIT_ERRORS if counts["error"] else EXIT_OK,
               brand=summary["majorBrand"],
               duration=round(summary["duration"] / timescale, 3) if timescale else None,
               streams=[{"handler": stream["handlerType"],
                         "codec": stream["codecName"] or stream.get("sampleEntry", ""),
                         "samples": stream["samples"]} for stream in summary["streams"]],
               items=summary.get("items", 0), primaryItem=summary.get("primaryItem"),
               problems=counts, codes=summary["problemCodes"])
    if report is not None:
        row["report"] = keep_report(reports, entry[0], report)
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
