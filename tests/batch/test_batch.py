"""./batch on a local Dask cluster of two workers: one row per file with the right status,
resuming after the driver is killed, a worker process killed in the middle, time limits
and crashes."""

import gzip
import json
import os
import signal
import stat
import subprocess
import time

import pytest
from conftest import (batch_command, finish, read_rows, start_batch, stop_group,
                      wait_for_rows)

import sarvelinth_chunk

ROW_KEYS = {"path", "size", "mtime", "status", "exit", "brand", "duration", "streams",
            "items", "primaryItem", "problems", "codes"}


def by_path(rows):
    result = {}
    for row in rows:
        assert row["path"] not in result, "two rows for %s" % row["path"]
        result[row["path"]] = row
    return result


def assert_rows_as_expected(rows, expected):
    rows = by_path(rows)
    assert set(rows) == set(expected)
    for path, want in expected.items():
        row = rows[path]
        assert ROW_KEYS <= set(row), path
        assert row["status"] == want["status"], path
        assert row["exit"] == want["exit"], path
        if "codes" in want:
            assert row["codes"] == want["codes"], path
            assert row["problems"] == want["problems"], path
            assert row["brand"] == want["brand"], path
            assert [stream["samples"] for stream in row["streams"]] == want["samples"], path
            assert row["size"] == os.stat(path).st_size, path


def run_batch(tool, output, *arguments):
    process = start_batch(tool, output, *arguments)
    return finish(process)


def test_every_file_gets_one_row(tool, tree, tmp_path):
    top, extra, expected = tree
    output = tmp_path / "rows.jsonl"
    summary = tmp_path / "summary.json"
    reports = tmp_path / "reports"
    status, err = run_batch(tool, output, "--summary", summary, "--reports", reports, top,
                            *extra)
    assert status == 1, err  # unreadable files
    rows = read_rows(output)
    assert_rows_as_expected(rows, expected)

    written = json.loads(summary.read_text())
    assert written["files"] == len(expected)
    counts = {}
    for want in expected.values():
        counts[want["status"]] = counts.get(want["status"], 0) + 1
    assert {key: value for key, value in written["byStatus"].items() if value} == counts
    assert written["topCodes"] and written["topCodes"][0]["examples"]

    # Each reported file's full report is kept, under a name of its own.
    reported = [row for row in rows if "report" in row]
    assert len(reported) == sum(1 for row in rows if row["status"] in ("ok", "problems"))
    assert len({row["report"] for row in reported}) == len(reported)
    with gzip.open(reports / reported[0]["report"], "rb") as file:
        assert json.loads(file.read())["file"] == reported[0]["path"]

    # A second run finds nothing to do and leaves the rows as they are.
    status, err = run_batch(tool, output, top, *extra)
    assert status == 1, err
    assert read_rows(output) == rows


def test_a_killed_run_resumes_with_the_same_rows(tool, tree, tmp_path):
    top, extra, expected = tree
    output = tmp_path / "rows.jsonl"
    process = start_batch(tool, output, "--chunk-files", "50", top, *extra)
    try:
        written = wait_for_rows(output, 300, process)
        process.send_signal(signal.SIGKILL)
        process.wait()
    finally:
        stop_group(process)
    assert written < len(expected)
    # As if the driver had been killed in the middle of writing a row.
    with open(output, "ab") as file:
        file.write(b'{"path": "/half/a/row.mp4", "si')

    status, err = run_batch(tool, output, top, *extra)
    assert status == 1, err
    assert_rows_as_expected(read_rows(output), expected)


# Tornado's own deprecation, from the cluster started in this process.
@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_a_killed_worker_changes_no_row(tool, tree, tmp_path):
    """On a cluster of worker processes, started here on 127.0.0.1, one of them is killed
    by its process id in the middle of the run."""
    from distributed import Client, LocalCluster

    top, extra, expected = tree
    output = tmp_path / "rows.jsonl"
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None) as cluster, Client(cluster) as client:
        workers = list(client.run(os.getpid).values())
        process = start_batch(tool, output, "--chunk-files", "50", "--scheduler",
                              cluster.scheduler_address, top, *extra)
        try:
            written = wait_for_rows(output, 300, process)
            os.kill(workers[0], signal.SIGKILL)
            status, err = finish(process)
        finally:
            stop_group(process)
    assert written < len(expected)
    assert status == 1, err
    assert_rows_as_expected(read_rows(output), expected)


WRAPPER = """#!/bin/bash
# Runs the tool file by file, but hangs on a file named *hang* and crashes on *crash*.
options=()
while [ "$1" != "--" ]; do options+=("$1"); shift; done
shift
for file in "$@"; do
    case "${file##*/}" in
    *hang*) exec sleep 30 ;;
    *crash*) kill -SEGV $$ ;;
    esac
    "%s" "${options[@]}" -- "$file"
done
"""


def test_a_file_that_hangs_or_crashes_gets_its_row_and_the_rest_go_on(tool, tree, tmp_path):
    top = tree[0]
    sample = os.path.join(top, "d00", "e0", "c00-000.mp4")
    wrapper = tmp_path / "wrapper"
    wrapper.write_text(WRAPPER % tool)
    wrapper.chmod(0o755)
    names = ["a", "hang", "b", "crash", "c"]
    paths = []
    for name in names:
        path = tmp_path / (name + ".mp4")
        path.write_bytes(open(sample, "rb").read())
        paths.append(str(path))

    rows = sarvelinth_chunk.check_chunk(str(wrapper), [(path, 0, 0) for path in paths],
                                        timeout=2)
    assert [row["path"] for row in rows] == paths
    assert [row["status"] for row in rows] == ["ok", "timeout", "ok", "crashed", "ok"]
    assert "SIGSEGV" in rows[3]["error"]


def test_a_fifo_times_out_and_a_memory_limit_crashes(tool, tmp_path):
    fifo = tmp_path / "stream.mp4"
    os.mkfifo(fifo)
    assert stat.S_ISFIFO(os.stat(fifo).st_mode)
    rows = sarvelinth_chunk.check_chunk(tool, [(str(fifo), 0, 0)], timeout=1)
    assert rows[0]["status"] == "timeout"

    sample = tmp_path / "sample.mp4"
    sample.write_bytes(b"\x00\x00\x00\x08free")
    rows = sarvelinth_chunk.check_chunk(tool, [(str(sample), 0, 0)], memory_limit=8 << 20)
    assert rows[0]["status"] == "crashed"


def test_images_rows_carry_their_items(tool):
    """With --deep, the row of an image tells its items and the primary one's type and size;
    a movie's tells none."""
    data = os.path.join(os.path.dirname(os.path.dirname(__file__)), "data")
    paths = [os.path.join(data, name) for name in ("image-two.heic", "deep-hevc.mp4")]
    rows = sarvelinth_chunk.check_chunk(tool, [(path, 0, 0) for path in paths], deep=True)
    assert [row["status"] for row in rows] == ["ok", "ok"]
    assert rows[0]["items"] == 6  # two images, each with a thumbnail: a grid of one hidden tile
    assert rows[0]["primaryItem"] == {"type": "hvc1", "width": 64, "height": 64}
    assert (rows[1]["items"], rows[1]["primaryItem"]) == (0, None)


def test_usage_errors_exit_2(tool, tmp_path):
    command = batch_command(tool, tmp_path / "rows.jsonl")
    environment = dict(os.environ, PYTHONPATH=os.path.dirname(sarvelinth_chunk.__file__))
    assert subprocess.run(command, env=environment, capture_output=True).returncode == 2
    command = batch_command(str(tmp_path / "none"), tmp_path / "rows.jsonl", tmp_path)
    assert subprocess.run(command, env=environment, capture_output=True).returncode == 2


def group_members(group):
    """The commands of a process group's processes, from /proc."""
    members = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % name) as file:
                command, fields = file.read().split(" (", 1)[1].rsplit(")", 1)
        except (FileNotFoundError, ProcessLookupError):
            continue
        if int(fields.split()[2]) == group:
            members.append(command)
    return members


def test_an_interrupted_run_leaves_no_tool_behind(tmp_path):
    """Stopped as by Ctrl-C while its tools hang, ./batch ends at once with 130 and leaves
    none of them running."""
    hanging = tmp_path / "hanging"
    hanging.write_text('#!/bin/bash\n[ "$1" = --version ] && exit 0\nexec sleep 60\n')
    hanging.chmod(0o755)
    for index in range(4):
        (tmp_path / ("f%d.mp4" % index)).write_bytes(b"\x00\x00\x00\x08free")
    process = start_batch(str(hanging), tmp_path / "rows.jsonl", "--chunk-files", "1",
                          tmp_path)
    try:
        deadline = time.monotonic() + 60
        # Two tools hang: the driver's own and a worker's. Other processes come and go
        # (the tool's --version check), so only the hanging ones are counted.
        while group_members(process.pid).count("sleep") < 2 and time.monotonic() < deadline:
            time.sleep(0.05)
        assert group_members(process.pid).count("sleep") >= 2, "no tool started"
        process.send_signal(signal.SIGTERM)
        _, err = process.communicate(timeout=30)
        assert process.returncode == 130, err
        time.sleep(0.2)
        assert group_members(process.pid) == []
    finally:
        stop_group(process)
