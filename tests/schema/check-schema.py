#!/usr/bin/python3
"""Checks the documents the command writes against docs/report.schema.json: the basic and
the deep reports of every real file of the tests, the documents of an HTML page and the
error line of a file that is not there; the images with their items. Exits 77 (skipped) without python3-jsonschema.

    check-schema.py SARVELINTH SOURCE_DIR
"""
import json
import pathlib
import re
import subprocess
import sys

try:
    import jsonschema
except ImportError:
    print("SKIPPED: python3-jsonschema is not installed (./test installs it)")
    sys.exit(77)

tool, source = sys.argv[1], pathlib.Path(sys.argv[2])
schema = json.loads((source / "docs/report.schema.json").read_text())
validator = jsonschema.Draft202012Validator(schema)
data = source / "tests/data"
files = [source / "samples/sample.mp4"] + sorted(
    p for p in data.iterdir() if p.suffix in {".mp4", ".m4a", ".mov", ".m4s", ".heic", ".avif"})
images = [f for f in files if f.suffix in {".heic", ".avif"}]


def documents(arguments):
    run = subprocess.run([tool, *arguments], capture_output=True, check=False)
    return run.stdout.decode()


def coverage_adds_up(coverage):
    parts, size, cells = coverage["parts"], coverage["fileSize"], coverage["map"]
    lengths = [min(cells["cellSize"], size - i * cells["cellSize"])
               for i in range(len(cells["structure"]))]
    return (sum(parts.values()) == size and sum(lengths) == size
            and all(sum(cells[part]) == parts[part] for part in parts)
            and all(sum(cells[part][i] for part in parts) == length
                    for i, length in enumerate(lengths)))


failures = 0
runs = [["--format", "json", "--deep", *map(str, files)],
        ["--format", "json", "--check", *map(str, files)],
        ["--format", "json", "--check", "--deep", str(files[0]), *map(str, images)],
        ["--format", "json", "--check", "--units", *map(str, files)],
        ["--format", "json", "--deep", "--value-base", "16", str(files[0])],
        ["--format", "json", *[str(f) for f in files if f.suffix == ".mp4"], "missing.mp4"],
        # Joined files, and packages read from their manifests.
        ["--format", "json", "--join", "--check",
         *map(str, sorted((data / "package-hls").glob("*.m*4*")))],
        ["--format", "json", "--deep", "--check", str(data / "package-dash-timeline/package.mpd"),
         str(data / "package-hls/package.m3u8")]]
lines = [line for arguments in runs for line in documents(arguments).splitlines()]
page = documents(["--format", "html", "--deep", str(files[0])])
lines += re.findall(r'<script type="application/json" class="report">(.*?)</script>', page, re.S)
for line in lines:
    document = json.loads(line)
    # The parts of the coverage add up to the file's size, and the cells of its map to them.
    if "coverage" in document and not coverage_adds_up(document["coverage"]):
        failures += 1
        print(f"{document['file']}: the parts of the coverage or of its map do not add up")
    for error in validator.iter_errors(document):
        failures += 1
        print(f"{document.get('file')}: {error.json_path}: {error.message}"[:400])
print(f"{len(lines)} documents, {failures} problems")
sys.exit(1 if failures else 0)
