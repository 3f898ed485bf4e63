"""Fixtures of the tests of import sarvelinth: the module, the command beside it and the test
files. Exits 77, counted as skipped, when the module was not built."""

import glob
import json
import os
import subprocess

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TOOL = os.environ.get("SARVELINTH_TOOL", os.path.join(ROOT, "build", "bin", "sarvelinth"))

try:
    import sarvelinth  # noqa: F401
except ImportError as error:
    pytest.exit("SKIPPED: the Python module is not built: %s" % error, returncode=77)


def data_files():
    """The test files, relative to the root, as a user would name them."""
    names = []
    for pattern in ("*.mp4", "*.mov", "*.m4a", "*.m4s", "regressions/*"):
        names += glob.glob(os.path.join("tests", "data", pattern), root_dir=ROOT)
    return sorted(names)


@pytest.fixture(autouse=True)
def at_root(monkeypatch):
    """File names are given relative to the root, to the module and to the command alike."""
    monkeypatch.chdir(ROOT)


def command(path, *options):
    """The command's JSON run over one file: exit status, document (None without) and
    stderr."""
    run = subprocess.run([TOOL, "--format", "json", *options, path], cwd=ROOT,
                         capture_output=True, timeout=120)
    document = run.stdout.decode().rstrip("\n")
    return run.returncode, document, run.stderr.decode()
