"""./batch: checks many files with sarvelinth on a Dask cluster and writes one row per file.

The client walks the paths, sends chunks of files to the workers (sarvelinth_chunk.py,
uploaded to them; while a local cluster starts, it checks chunks itself) and is the only
writer of the output: whole rows, flushed after each chunk. A rerun with the same output skips the files that already have a row with the
same path, size and modification time, so a run stopped at any moment resumes where it
stopped, losing at most the chunks that were in flight.
"""

import argparse
import collections
import fcntl
import json
import logging
import os
import queue
import signal
import subprocess
import sys
import threading
import time

import sarvelinth_chunk as chunk

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_TOOL = os.path.join(os.path.dirname(HERE), "build", "bin", "sarvelinth")

# The suffixes the tool takes: those of the basic mode, and with --deep the whole family
# (container-mp4/ContainerMP4.cpp). A directory is walked for these; a file named on the
# command line or in a list is checked whatever its name.
BASIC_SUFFIXES = {"mp4", "f4v", "mp4v"}
DEEP_SUFFIXES = BASIC_SUFFIXES | {"mov", "m4a", "m4v", "m4s", "3gp", "3g2", "heic", "heif",
                                  "avif", "cmfv", "cmfa", "ismv", "mj2"}

# Exit statuses of ./batch; README.md, "Checking an archive".
EXIT_OK, EXIT_FAILED_FILES, EXIT_RUN_FAILED, EXIT_NOT_MP4, EXIT_ERRORS = 0, 1, 2, 3, 4
EXIT_INTERRUPTED = 130

TOP_CODES = 20
EXAMPLES = 3

USAGE_EPILOG = """\
statuses of a row:
  ok          reported; no problem of severity error or warning (info only, or none)
  problems    reported; at least one problem of severity error or warning
  not-mp4     no plugin takes the file (the tool's exit status 3)
  unreadable  the file cannot be opened or read (exit status 1)
  timeout     no report within --timeout seconds; the tool was stopped
  crashed     the tool died on the file (a signal, --memory-limit), or the worker did

exit status (over every row of the output, earlier runs included):
  0  every file has a row; none has an error, none is not-mp4, unreadable, timeout
     or crashed
  1  a file is unreadable, timed out or crashed
  2  usage error, or the run could not finish (no tool, no cluster, output not written)
  3  a file is not-mp4, and nothing above
  4  a file has a problem of severity error, and nothing above
  130 interrupted: run again with the same --output to resume
"""


class RunFailed(Exception):
    """The run cannot go on: exit status 2."""


def parse_size(text):
    """A byte count such as 4G, 512M or 0 (no limit)."""
    units = {"": 1, "K": 1 << 10, "M": 1 << 20, "G": 1 << 30, "T": 1 << 40}
    text = text.strip().upper().removesuffix("B").removesuffix("I")
    number, unit = (text[:-1], text[-1]) if text and text[-1] in units else (text, "")
    try:
        return int(float(number) * units[unit])
    except ValueError:
        raise argparse.ArgumentTypeError("not a size: %r" % text) from None


def positive_number(text):
    value = float(text)
    if value <= 0:
        raise argparse.ArgumentTypeError("must be above 0")
    return value


def parse_arguments(argv):
    parser = argparse.ArgumentParser(
        prog="batch", formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Checks many files with sarvelinth --check on a Dask cluster: one row "
                    "per file, resumable.", epilog=USAGE_EPILOG)
    parser.add_argument("paths", nargs="*", metavar="PATH",
                        help="a file, or a directory walked for the suffixes the tool takes")
    parser.add_argument("--from-list", metavar="FILE", action="append", default=[],
                        help="read paths from FILE, one a line ('-': standard input)")
    parser.add_argument("-o", "--output", default="results.jsonl", metavar="FILE",
                        help="the rows, one JSON object a line (default results.jsonl); "
                             "rows already there are kept and their files skipped")
    parser.add_argument("--reports", metavar="DIR",
                        help="keep each file's full JSON report, gzip-compressed, in DIR")
    parser.add_argument("--summary", metavar="FILE", help="write the summary as JSON to FILE")
    parser.add_argument("--deep", action="store_true",
                        help="deep analysis (every track's samples, the whole family of "
                             "suffixes)")
    parser.add_argument("--timeout", type=positive_number, default=60.0, metavar="SECONDS",
                        help="time limit per file (default 60)")
    parser.add_argument("--memory-limit", type=parse_size, default=parse_size("4G"),
                        metavar="SIZE", help="address space limit of the tool, e.g. 2G "
                                             "(default 4G; 0: none)")
    parser.add_argument("--scheduler", metavar="tcp://HOST:PORT",
                        help="use this Dask cluster instead of a local one; its workers must "
                             "see the files and the tool at the same paths")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1, metavar="N",
                        help="workers of the local cluster (default: one per core)")
    parser.add_argument("--chunk-files", type=int, default=1000, metavar="N",
                        help="files per run of the tool (default 1000)")
    parser.add_argument("--chunk-bytes", type=parse_size, default=parse_size("1G"),
                        metavar="SIZE", help="bytes per run of the tool (default 1G)")
    parser.add_argument("--tool", default=DEFAULT_TOOL, metavar="PATH",
                        help="the sarvelinth executable (default: build/bin/sarvelinth)")
    parser.add_argument("--no-progress", action="store_true", help="no progress on stderr")
    arguments = parser.parse_args(argv)
    if not arguments.paths and not arguments.from_list:
        parser.error("no PATH and no --from-list")
    if arguments.workers < 1 or arguments.chunk_files < 1:
        parser.error("--workers and --chunk-files must be at least 1")
    arguments.tool = os.path.abspath(arguments.tool)
    return arguments


def load_rows(output):
    """The rows of an earlier run, by path: (size, mtime, status, exit, codes). A line cut
    short by a run that was killed while writing is cut off the file."""
    rows = {}
    with open(output, "r+b") as file:
        kept = 0
        for line in file:
            if not line.endswith(b"\n"):
                break
            try:
                row = json.loads(line)
            except ValueError:
                raise RunFailed("%s: not the rows of ./batch" % output) from None
            path, *entry = chunk.kept(row)
            rows[path] = tuple(entry)
            kept += len(line)
        file.truncate(kept)
    return rows


def given_paths(arguments):
    """The paths of the command line and of the lists, in order."""
    yield from arguments.paths
    for name in arguments.from_list:
        with (sys.stdin if name == "-" else open(name, encoding="utf-8",
                                                 errors="surrogateescape")) as lines:
            for line in lines:
                line = line.rstrip("\n")
                if line:
                    yield line


def candidate_paths(arguments):
    """Absolute paths of the files to check: directories walked in name order, for the
    suffixes the tool takes; symbolic links to directories are not followed."""
    suffixes = DEEP_SUFFIXES if arguments.deep else BASIC_SUFFIXES
    for path in given_paths(arguments):
        path = os.path.abspath(path)
        if not os.path.isdir(path):
            yield path
            continue
        for directory, subdirectories, names in os.walk(path):
            subdirectories.sort()
            for name in sorted(names):
                if name.rpartition(".")[2].lower() in suffixes and "." in name:
                    yield os.path.join(directory, name)


def walk(arguments, done, found, out):
    """Puts on out what there is to do, in order: chunks of files to check, lists of
    (path, size, mtime), of at most --chunk-files files and about --chunk-bytes bytes;
    and the finished row, encoded, of a file that cannot be looked at. Runs in its own
    thread so that the checks start at once; ends with None, or with an exception."""
    try:
        seen = set()
        files, size = [], 0
        for path in candidate_paths(arguments):
            if path in seen:
                continue
            seen.add(path)
            try:
                status = os.stat(path)
            except OSError as error:
                entry = (path, None, None)
                if done.get(path, ())[:2] != entry[1:]:
                    found[0] += 1
                    row = chunk.failed_row(entry, chunk.UNREADABLE, error.strerror)
                    row["exit"] = chunk.EXIT_FILE_FAILED
                    out.put(chunk.encoded([row]))
                continue
            entry = (path, status.st_size, status.st_mtime)
            if done.get(path, ())[:2] == entry[1:]:
                continue
            found[0] += 1
            files.append(entry)
            size += entry[1]
            if len(files) >= arguments.chunk_files or size >= arguments.chunk_bytes:
                out.put(files)
                files, size = [], 0
        if files:
            out.put(files)
        out.put(None)
    except Exception as error:  # handed to the main thread, which reports it
        out.put(error)


class Progress:
    """A progress line on stderr: files done of those found, files per second, files with
    errors. Redrawn in place on a terminal, a line every 10 s elsewhere."""

    def __init__(self, enabled):
        self.enabled = enabled
        self.terminal = sys.stderr.isatty()
        self.start = time.monotonic()
        self.shown = self.start
        self.done = 0
        self.errors = 0

    def add(self, kept):
        """Counts rows, given by what the driver keeps of each."""
        self.done += len(kept)
        self.errors += sum(1 for _, _, _, status, exit, _ in kept if exit not in (0, None) or
                           status in (chunk.TIMEOUT, chunk.CRASHED))

    def show(self, found, walking, final=False):
        now = time.monotonic()
        if not self.enabled or (not final and now - self.shown < (0.2 if self.terminal else 10)):
            return
        self.shown = now
        rate = self.done / max(now - self.start, 1e-9)
        total = "%d%s" % (found, "+" if walking else "")
        width = 30
        filled = 0 if walking or not found else width * self.done // found
        line = "[%s%s] %d/%s files, %.0f files/s, %d with errors" % (
            "#" * filled, "." * (width - filled), self.done, total, rate, self.errors)
        if self.terminal:
            sys.stderr.write("\r" + line + ("\n" if final else "\x1b[K"))
        else:
            sys.stderr.write(line + "\n")
        sys.stderr.flush()


def summarize(rows, elapsed, checked):
    """The summary of the rows by path: files by status, the most frequent problem codes
    with example paths, and the exit status they give."""
    statuses = collections.Counter()
    codes = collections.Counter()
    examples = collections.defaultdict(list)
    for path, (_, _, status, _, row_codes) in rows.items():
        statuses[status] += 1
        for code in row_codes:
            codes[code] += 1
            if len(examples[code]) < EXAMPLES:
                examples[code].append(path)
    return {
        "files": len(rows),
        "checkedThisRun": checked,
        "seconds": round(elapsed, 3),
        "filesPerSecond": round(checked / elapsed, 1) if elapsed > 0 else None,
        "byStatus": {status: statuses[status] for status in
                     (chunk.OK, chunk.PROBLEMS, chunk.NOT_MP4, chunk.UNREADABLE, chunk.TIMEOUT,
                      chunk.CRASHED)},
        "topCodes": [{"code": code, "files": count, "examples": examples[code]}
                     for code, count in codes.most_common(TOP_CODES)],
        "exitStatus": exit_status(rows),
    }


def exit_status(rows):
    statuses = {row[2] for row in rows.values()}
    exits = {row[3] for row in rows.values()}
    if statuses & {chunk.UNREADABLE, chunk.TIMEOUT, chunk.CRASHED}:
        return EXIT_FAILED_FILES
    if chunk.NOT_MP4 in statuses:
        return EXIT_NOT_MP4
    if chunk.EXIT_ERRORS in exits:
        return EXIT_ERRORS
    return EXIT_OK


def summary_text(summary):
    lines = ["%d files (%d checked in this run, %.1f files/s)" % (
        summary["files"], summary["checkedThisRun"], summary["filesPerSecond"] or 0)]
    lines += ["  %-10s %d" % (status, count) for status, count in summary["byStatus"].items()]
    if summary["topCodes"]:
        lines.append("most frequent problem codes (files, examples):")
        lines += ["  %-28s %7d  %s" % (entry["code"], entry["files"], entry["examples"][0])
                  for entry in summary["topCodes"]]
    return "\n".join(lines) + "\n"


def start_client(arguments):
    """A client of the cluster named by --scheduler, or of a new local one: one worker per
    core. The local workers are threads of this process, linked without a network: the
    work of each is the tool's own process, so that worker processes would only add their
    start-up, most of a second."""
    import dask
    from distributed import Client, LocalCluster

    if arguments.scheduler:
        client = Client(arguments.scheduler, timeout="30s")
    else:
        # The workers' statistical profiler takes the interpreter lock a hundred times a
        # second, which the thread reading the tool's output then waits for.
        dask.config.set({"distributed.worker.profile.enabled": False})
        cluster = LocalCluster(n_workers=arguments.workers, threads_per_worker=1,
                               processes=False, dashboard_address=None,
                               silence_logs=logging.ERROR)
        client = Client(cluster)
    if arguments.scheduler:
        client.upload_file(chunk.__file__)
    return client


class InBackground(threading.Thread):
    """A call made in a thread of its own, started at once: the start of a local cluster,
    and the chunks the driver checks itself meanwhile."""

    def __init__(self, call, failure):
        super().__init__(daemon=True)
        self.call = call
        self.failure = failure  # what went wrong, should the call raise
        self.outcome = None
        self.start()

    def run(self):
        try:
            self.outcome = self.call()
        except Exception as error:  # handed to the main thread, which reports it
            self.outcome = error

    def result(self):
        self.join()
        if isinstance(self.outcome, Exception):
            raise RunFailed("%s: %r" % (self.failure, self.outcome))
        return self.outcome


class Run:
    """Sends the chunks to the cluster, at most a few per worker at a time so that a
    stop loses little, and writes the rows of each chunk as it comes back. While a local
    cluster starts, the driver checks chunks itself."""

    def __init__(self, arguments, output, rows, progress):
        self.arguments = arguments
        self.client = None
        self.output = output
        self.rows = rows
        self.progress = progress
        self.chunks = {}
        self.limit = 0
        # While a local cluster starts: its start, and the chunk the driver checks.
        self.starting = None
        self.local = None

    def cluster_up(self):
        """Starts the cluster, or sees whether it has started: True once its client is
        there. A cluster named by --scheduler is joined at once; a local one starts in the
        background."""
        if self.client is None:
            if self.arguments.scheduler:
                self.client = start_client(self.arguments)
            elif self.starting is None:
                # Dask's import and the cluster's start take most of a second.
                self.starting = InBackground(lambda: start_client(self.arguments),
                                             "the local cluster did not start")
                return False
            elif self.starting.is_alive():
                return False
            else:
                self.client = self.starting.result()
                self.starting = None
            self.limit = 3 * max(len(self.client.scheduler_info()["workers"]), 1)
        return True

    def can_take(self):
        """Whether another chunk can go out: the first one starts the cluster (a rerun with
        nothing left to do starts none), then the cluster takes a few per worker at a time;
        until it is up, the driver takes one at a time."""
        if self.client is None and self.starting is None:
            return True
        if self.cluster_up():
            return len(self.chunks) < self.limit
        return self.local is None

    def chunk_arguments(self, files):
        arguments = self.arguments
        return (arguments.tool, files, arguments.deep, arguments.timeout,
                arguments.memory_limit, arguments.reports and os.path.abspath(arguments.reports))

    def close(self):
        # The local workers are threads of this process, and so is the driver's own check.
        chunk.stop_tools()
        if self.starting is not None:
            self.client = self.starting.result()
        if self.client is not None:
            cluster = self.client.cluster
            self.client.close()
            if cluster is not None:
                cluster.close()

    def submit(self, files):
        if not self.cluster_up():
            self.local = InBackground(
                lambda: chunk.check_chunk_encoded(*self.chunk_arguments(files)), "a chunk failed")
            return
        future = self.client.submit(chunk.check_chunk_encoded, *self.chunk_arguments(files),
                                    pure=False, retries=1)
        self.chunks[future] = files

    def write(self, rows):
        """Writes rows, encoded (chunk.encoded)."""
        text, kept = rows
        self.output.write(text)
        self.output.flush()
        for path, *entry in kept:
            self.rows[path] = tuple(entry)
        self.progress.add(kept)

    def collect(self, future):
        """Writes the rows of a finished chunk. A chunk whose worker died again and again
        is split in two and sent again; a single file that does it gets a crashed row.
        Any other failure (the tool missing on a worker) would fail every chunk alike, so
        it ends the run."""
        from distributed.scheduler import KilledWorker

        files = self.chunks.pop(future)
        if future.status == "finished":
            self.write(future.result())
        elif not isinstance(future.exception(), KilledWorker):
            raise RunFailed("a chunk failed on its worker: %r" % future.exception())
        elif len(files) > 1:
            half = len(files) // 2
            self.submit(files[:half])
            self.submit(files[half:])
        else:
            message = "the worker failed on it: %r" % future.exception()
            self.write(chunk.encoded([chunk.failed_row(files[0], chunk.CRASHED, message)]))
        future.release()

    def run(self, items, found, walker):
        ended = False
        while not ended or self.chunks or self.local:
            while not ended and self.can_take():
                try:
                    item = items.get(timeout=0 if self.chunks or self.local else 0.5)
                except queue.Empty:
                    break
                if isinstance(item, Exception):
                    raise item
                if item is None:
                    ended = True
                elif isinstance(item, tuple):
                    self.write(item)
                else:
                    self.submit(item)
            if self.local and not self.local.is_alive():
                self.write(self.local.result())
                self.local = None
            if self.chunks:
                from distributed import wait

                try:
                    wait(list(self.chunks), timeout=0.2, return_when="FIRST_COMPLETED")
                except TimeoutError:
                    pass
                for future in [future for future in self.chunks if future.done()]:
                    self.collect(future)
            elif self.local:
                self.local.join(0.05)  # short: the cluster may be up meanwhile
            self.progress.show(found[0], walker.is_alive())


def lock_output(output, name):
    """Two runs writing the same rows would check the same files twice."""
    try:
        fcntl.flock(output.fileno(), fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        raise RunFailed("%s: another ./batch is writing it" % name) from None


def check_tool(tool):
    try:
        subprocess.run([tool, "--version"], check=True, stdout=subprocess.DEVNULL)
    except (OSError, subprocess.CalledProcessError) as error:
        raise SystemExit("batch: the tool %s does not run: %s" % (tool, error)) from None


def main(argv=None):
    arguments = parse_arguments(argv)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    start = time.monotonic()
    try:
        if not arguments.scheduler:
            check_tool(arguments.tool)
        with open(arguments.output, "ab") as output:
            lock_output(output, arguments.output)
            rows = load_rows(arguments.output)
            before = len(rows)
            progress = Progress(not arguments.no_progress)
            found = [0]
            items = queue.Queue(maxsize=max(2, 100_000 // arguments.chunk_files))
            walker = threading.Thread(target=walk, args=(arguments, rows, found, items),
                                      daemon=True)
            walker.start()
            run = Run(arguments, output, rows, progress)
            try:
                run.run(items, found, walker)
            finally:
                run.close()
        progress.show(found[0], False, final=True)
    except KeyboardInterrupt:
        sys.stderr.write("\nbatch: interrupted; run again with the same --output to resume\n")
        return EXIT_INTERRUPTED
    except (OSError, RunFailed, SystemExit) as error:
        sys.stderr.write("%s\n" % (error if isinstance(error, SystemExit) else
                                   "batch: %s" % error))
        return EXIT_RUN_FAILED

    summary = summarize(rows, time.monotonic() - start, progress.done)
    summary["rowsBefore"] = before
    sys.stderr.write(summary_text(summary))
    if arguments.summary:
        with open(arguments.summary, "w", encoding="utf-8") as file:
            json.dump(summary, file, indent=1)
            file.write("\n")
    return summary["exitStatus"]


if __name__ == "__main__":
    sys.exit(main())
