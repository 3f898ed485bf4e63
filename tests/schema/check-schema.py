#!/usr/bin/python3
"""Checks the documents the command writes against docs/report.schema.json: the basic and
the deep reports of every real file of the tests, the documents of an HTML page and the
error line of a file that is not there. Exits 77 (skipped) without python3-jsonschema.

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
    p for p in data.iterdir() if p.suffix in {".mp4", ".m4a", ".mov", ".m4s"})


def documents(arguments):
    run = subprocess.run([tool, *arguments], capture_output=True, check=False)
    return run.stdout.decode()


failures = 0
runs = [["--format", "json", "--deep", *map(str, files)],
        ["--format", "json", "--check", *map(str, files)],
        ["--format", "json", "--check", "--deep", str(files[0])],
        ["--format", "json", "--deep", "--value-base", "16", str(files[0])],
        ["--format", "json", *[str(f) for f in files if f.suffix == ".mp4"], "missing.mp4"]]
lines = [line for arguments in runs for line in documents(arguments).splitlines()]
page = documents(["--format", "html", "--deep", str(files[0])])
lines += re.findall(r'<script type="application/json" class="report">(.*?)</script>', page, re.S)
for line in lines:
    document = json.loads(line)
    # The parts of the coverage add up to the file's size.
    if "coverage" in document and sum(document["coverage"]["parts"].values()) != document["fileSize"]:
        failures += 1
        print(f"{document['file']}: the parts of the coverage do not add up to the file size")
    for error in validator.iter_errors(document):
        failures += 1
        print(f"{document.get('file')}: {error.json_path}: {error.message}"[:400])
print(f"{len(lines)} documents, {failures} problems")
sys.exit(1 if failures else 0)
