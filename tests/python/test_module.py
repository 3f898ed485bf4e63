"""import sarvelinth against the command: the same JSON document, the same samples, the same
tree, problems and errors, and parses in parallel threads."""

import http.server
import json
import os
import re
import threading
from concurrent.futures import ThreadPoolExecutor

import numpy
import pytest

import sarvelinth
from conftest import command, data_files

MODES = {"plain": {}, "deep": {"deep": True}, "check": {"check": True},
         "deep+check": {"deep": True, "check": True}, "units+check": {"units": True, "check": True}}


def options_of(mode):
    return [option for name, option in (("deep", "--deep"), ("check", "--check"),
                                        ("units", "--units")) if MODES[mode].get(name)]


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("path", data_files())
def test_json_and_samples_are_the_commands(path, mode):
    status, document, err = command(path, *options_of(mode))
    if status not in (0, 4):
        # A file the command does not report raises with its message.
        expected = ValueError if status == 3 else OSError
        with pytest.raises(expected) as raised:
            sarvelinth.inspect(path, **MODES[mode])
        assert "sarvelinth: %s\n" % raised.value in err
        return
    report = sarvelinth.inspect(path, **MODES[mode])
    assert report.to_json() == document
    expected = json.loads(document)
    assert report.file == expected["file"]
    assert report.file_size == expected["fileSize"]
    assert report.container == expected["container"]
    assert len(report.streams) == len(expected["streams"])
    for stream, facts in zip(report.streams, expected["streams"]):
        assert (stream["index"], stream["width"], stream["height"], stream["codec_id"]) == (
            facts["index"], facts["width"], facts["height"], facts["codecId"])
        samples = report.samples(stream["index"])
        listed = facts["samples"]
        assert len(samples) == stream["samples"] == len(listed)
        for column, key in (("index", "index"), ("offset", "offset"), ("size", "size"),
                            ("dts", "dts"), ("pts", "pts"), ("duration", "duration"),
                            ("key", "keyFrame")):
            assert samples[column].tolist() == [sample[key] for sample in listed], column
        if (MODES[mode].get("deep") or MODES[mode].get("units")) and listed:
            times = [sample["presentationTime"] for sample in listed]
            assert samples["presented"].tolist() == [time is not None for time in times]
            assert [int(time) for time, shown in zip(samples["presentation_time"],
                                                     samples["presented"]) if shown] == [
                time for time in times if time is not None]
            for column, key in (("chunk", "chunk"), ("stsc_entry", "stscEntry"),
                                ("moof", "moof"), ("trun_entry", "trunEntry")):
                assert samples[column].tolist() == [
                    sample.get(key) if sample.get(key) is not None else
                    (0 if key == "chunk" else -1) for sample in listed], column


def same_tree(element, listed):
    """The module's element against the JSON document's list of its children."""
    fields = [node for node in listed if node["kind"] != "element"]
    children = [node for node in listed if node["kind"] == "element"]
    assert [(f.name, f.offset, f.size, f.comment) for f in element.fields] == [
        (f["name"], f["offset"], f["size"], f["comment"]) for f in fields]
    assert [f.value for f in element.fields] == [
        f["data"] if f["kind"] == "raw" else f["value"] for f in fields]
    assert [(e.name, e.offset, e.size, e.note, e.value, e.index) for e in element.children] == [
        (e["name"], e["offset"], e["size"], e["note"], e["value"], e["index"]) for e in children]
    for child, expected in zip(element.children, children):
        same_tree(child, expected["children"])


@pytest.mark.parametrize("path", ["samples/sample.mp4", "tests/data/deep-hevc.mp4"])
def test_the_tree_is_the_documents(path):
    report = sarvelinth.inspect(path, deep=True, value_base=16)
    _, document, _ = command(path, "--deep", "--value-base", "16")
    root = report.elements
    assert root.name == "" and root.fields == []
    same_tree(root, json.loads(document)["elements"])
    assert report.elements is root


def test_problems_and_coverage_come_with_check():
    path = "tests/data/regressions/elst-count-beyond-the-box.mp4"
    assert sarvelinth.inspect(path).problems is None
    assert sarvelinth.inspect(path).coverage is None
    report = sarvelinth.inspect(path, deep=True, check=True)
    expected = json.loads(command(path, "--deep", "--check")[1])
    assert report.problems
    assert [(p["code"], p["severity"], p["offset"], p["size"], p["path"], p["message"])
            for p in report.problems] == [
        (p["code"], p["severity"], p["offset"], p["size"], p["path"], p["message"])
        for p in expected["problems"]]
    coverage = report.coverage
    names = {"structure": "structure", "sample_data": "sampleData", "item_data": "itemData",
             "unreferenced_media_data": "unreferencedMediaData", "filler": "filler",
             "unknown": "unknown", "trailing": "trailing"}
    assert {names[part]: bytes for part, bytes in coverage.items() if part in names} == expected[
        "coverage"]["parts"]
    assert coverage["file_size"] == report.file_size == sum(
        coverage[part] for part in names)
    cells = expected["coverage"]["map"]
    assert coverage["cell_size"] == cells["cellSize"]
    assert [cell["structure"] for cell in coverage["cells"]] == cells["structure"]


def test_errors_are_exceptions_with_the_tools_message(tmp_path):
    with pytest.raises(FileNotFoundError, match=r"^missing\.mp4: no such file$"):
        sarvelinth.inspect("missing.mp4")
    with pytest.raises(IsADirectoryError, match=r": is a directory$"):
        sarvelinth.inspect(tmp_path)
    with pytest.raises(ValueError, match=r"aac\.mov: not a supported container format"):
        sarvelinth.inspect("tests/data/deep-h264-aac.mov")
    with pytest.raises(ValueError, match="value_base: the base must be a number from 2 to 36"):
        sarvelinth.inspect("samples/sample.mp4", value_base=1)
    report = sarvelinth.inspect("samples/sample.mp4")
    with pytest.raises(IndexError):
        report.samples(len(report.streams))
    samples = report.samples(0)
    with pytest.raises(ValueError):
        samples["size"][0] = 0
    assert report.samples(0) is samples


def test_threads_parse_in_parallel_with_the_same_results():
    paths = [path for path in data_files() if path.endswith(".mp4")] * 4
    serial = {path: sarvelinth.inspect(path, deep=True).to_json() for path in set(paths)}

    def inspect(path):
        report = sarvelinth.inspect(path, deep=True)
        arrays = [report.samples(stream["index"]) for stream in report.streams]
        return path, report.to_json(), sum(int(numpy.sum(a["size"])) for a in arrays)

    with ThreadPoolExecutor(max_workers=4) as pool:
        for path, document, total in pool.map(inspect, paths):
            assert document == serial[path]
            assert total == sum(sample["size"] for stream in json.loads(document)["streams"]
                                for sample in stream["samples"])


def test_a_url_is_read_like_the_file():
    """The module reads URLs with the command's reader: a server on 127.0.0.1 that honours
    Range, started and stopped here."""

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args):
            pass

        def do_GET(self):
            if not os.path.isfile(self.path.lstrip("/")):
                self.send_error(404)
                return
            with open(self.path.lstrip("/"), "rb") as file:
                data = file.read()
            start, end = map(int, re.fullmatch(r"bytes=(\d+)-(\d+)",
                                               self.headers["Range"]).groups())
            end = min(end, len(data) - 1)
            self.send_response(206)
            self.send_header("Content-Range", "bytes %d-%d/%d" % (start, end, len(data)))
            self.send_header("Content-Length", str(end + 1 - start))
            self.end_headers()
            self.wfile.write(data[start:end + 1])

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()
    try:
        path = "tests/data/deep-edits.mp4"
        url = "http://127.0.0.1:%d/%s" % (server.server_address[1], path)
        report = sarvelinth.inspect(url, deep=True)
        assert report.to_json() == command(url, "--deep")[1]
        local = sarvelinth.inspect(path, deep=True)
        assert report.samples(0).tolist() == local.samples(0).tolist()
        with pytest.raises(OSError, match="the server answered 404"):
            sarvelinth.inspect(url.replace("deep-edits", "missing"))
    finally:
        server.shutdown()
        server.server_close()
        thread.join(10)
