"""Fixtures of the ./batch tests: the tool, a generated tree of files with the row each
must get, and a way to run the driver as a process of its own."""

import glob
import json
import os
import random
import signal
import subprocess
import sys
import time

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BATCH_DIR = os.path.join(ROOT, "batchcheck")
sys.path.insert(0, BATCH_DIR)

TOOL = os.environ.get("SARVELINTH_TOOL", os.path.join(ROOT, "build", "bin", "sarvelinth"))
COPIES = 60


@pytest.fixture(scope="session")
def tool():
    if not os.access(TOOL, os.X_OK):
        pytest.skip("the tool is not built: %s" % TOOL)
    return TOOL


def source_files():
    """The FFmpeg test files and the regression inputs."""
    names = sorted(glob.glob(os.path.join(ROOT, "tests", "data", "*.mp4")) +
                   glob.glob(os.path.join(ROOT, "tests", "data", "*.mov")) +
                   glob.glob(os.path.join(ROOT, "tests", "data", "*.m4a")) +
                   glob.glob(os.path.join(ROOT, "tests", "data", "regressions", "*")))
    return [open(name, "rb").read() for name in names]


def contents():
    """The distinct contents of the tree: the test files, cuts of them at a few places,
    and hostile ones (random bytes, a box of a huge size, text, nothing)."""
    generator = random.Random(7)
    result = []
    for data in source_files():
        result.append(data)
        for cut in (8, 40, len(data) // 3, len(data) // 2, len(data) - 1):
            result.append(data[:cut])
    result += [bytes(generator.randrange(256) for _ in range(2000)) for _ in range(4)]
    result += [b"\x00\x00\x00\x10ftypisom\x00\x00\x00\x00\xff\xff\xff\xffmoov" + b"\0" * 64,
               b"\x00\x00\x00\x01mdat" + b"\xff" * 8, b"not a movie\n" * 40, b""]
    return result


def expected_row(report):
    """What a row holds, from a report parsed in full (independent of the driver's way
    of picking fields out of the line)."""
    if "error" in report:
        not_taken = report["error"].startswith("not a supported container format")
        return {"status": "not-mp4" if not_taken else "unreadable", "exit": 3 if not_taken else 1}
    severities = [problem["severity"] for problem in report["problems"]]
    codes = []
    for problem in report["problems"]:
        if problem["code"] not in codes:
            codes.append(problem["code"])
    brand = None
    for element in report["elements"]:
        for child in element.get("children", []):
            if brand is None and child.get("name") == "major_brand":
                brand = child["value"] or None  # an ftyp cut before its brand tells none
    return {"status": "problems" if {"error", "warning"} & set(severities) else "ok",
            "exit": 4 if "error" in severities else 0, "codes": codes, "brand": brand,
            "problems": {severity: severities.count(severity)
                         for severity in ("error", "warning", "info")},
            "samples": [len(stream["samples"]) for stream in report["streams"]]}


@pytest.fixture(scope="session")
def tree(tool, tmp_path_factory):
    """A tree of more than 2,000 small files and the row fields each must get, by path.
    Returns (top directory, extra paths to give beside it, expected rows)."""
    base = tmp_path_factory.mktemp("archive")
    top = base / "archive"
    distinct = contents()
    reference = base / "reference"
    reference.mkdir()
    names = []
    for index, data in enumerate(distinct):
        name = reference / ("%03d.mp4" % index)
        name.write_bytes(data)
        names.append(str(name))
    lines = subprocess.run([tool, "--format", "json", "--check", "--"] + names,
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.splitlines()
    assert len(lines) == len(distinct)
    by_content = [expected_row(json.loads(line)) for line in lines]

    expected = {}
    for copy in range(COPIES):
        directory = top / ("d%02d" % (copy % 12)) / ("e%d" % (copy % 5))
        directory.mkdir(parents=True, exist_ok=True)
        for index, data in enumerate(distinct):
            path = directory / ("c%02d-%03d.mp4" % (copy, index))
            path.write_bytes(data)
            expected[str(path)] = by_content[index]
        # Files the walk passes over.
        (directory / ("notes-%02d.txt" % copy)).write_text("not a movie")

    # A dangling symbolic link: stat fails, whoever runs the tests.
    broken = top / "broken.mp4"
    broken.symlink_to(top / "missing-target")
    expected[str(broken)] = {"status": "unreadable", "exit": 1}
    # A directory with the suffix is walked, not checked.
    (top / "folder.mp4").mkdir()
    # Unreadable by permissions, where that stops reading (not for root).
    if os.geteuid() != 0:
        locked = top / "locked.mp4"
        locked.write_bytes(distinct[0])
        locked.chmod(0)
        expected[str(locked)] = {"status": "unreadable", "exit": 1}

    # Named on the command line: a text file (no plugin takes it) and one that is not there.
    extra = base / "extra"
    extra.mkdir()
    text = extra / "readme.txt"
    text.write_text("not a movie")
    gone = extra / "gone.mp4"
    expected[str(text)] = {"status": "not-mp4", "exit": 3}
    expected[str(gone)] = {"status": "unreadable", "exit": 1}
    assert len(expected) >= 2000
    return str(top), [str(text), str(gone)], expected


def batch_command(tool, output, *arguments):
    return [sys.executable if sys.executable.startswith("/usr/bin/") else "/usr/bin/python3",
            "-m", "sarvelinth_batch", "--tool", tool, "--workers", "2", "--no-progress",
            "--output", str(output)] + [str(argument) for argument in arguments]


def start_batch(tool, output, *arguments):
    """Starts the driver in a process group of its own, so that the test can stop the
    driver, its cluster and the tools they run, and nothing else."""
    environment = dict(os.environ, PYTHONPATH=BATCH_DIR)
    return subprocess.Popen(batch_command(tool, output, *arguments), env=environment,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            start_new_session=True)


def finish(process, timeout=120):
    """Waits for the driver; on a timeout, stops its process group. Returns (status,
    stderr)."""
    try:
        _, err = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        stop_group(process)
        _, err = process.communicate()
        raise AssertionError("./batch did not finish in %d s: %s" % (timeout, err.decode()))
    stop_group(process)
    return process.returncode, err.decode()


def stop_group(process):
    """Kills what is left of the process group the test started for the driver."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def read_rows(output):
    with open(output, "rb") as file:
        return [json.loads(line) for line in file]


def wait_for_rows(output, count, process, timeout=60):
    """Waits until output holds at least count lines; returns how many it holds."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline and process.poll() is None:
        if os.path.exists(output):
            with open(output, "rb") as file:
                lines = file.read().count(b"\n")
            if lines >= count:
                return lines
        time.sleep(0.02)
    raise AssertionError("output did not reach %d rows" % count)
