"""The byte-exact report of ISO base media files (mp4, mov, fragmented mp4, HEIF...)."""

import os
from typing import Any, Optional, Union

import numpy
import numpy.typing

class Field:
    """A field of an element: where it lies and what it holds."""

    kind: str
    """'field', or 'raw' for bytes shown in hex."""
    name: str
    offset: int
    size: int
    value: str
    comment: str
    extra: str
    bit_field: bool
    bit_offset: int
    index: int

class Element:
    """An element of the file (a box, a list entry) with its fields and child elements."""

    name: str
    offset: int
    size: int
    note: str
    value: str
    index: int
    fields: list[Field]
    children: list["Element"]

class Report:
    """The report of one file, made by inspect()."""

    @property
    def file(self) -> str: ...
    @property
    def file_size(self) -> int: ...
    @property
    def container(self) -> str: ...
    @property
    def facts(self) -> Optional[dict[str, Any]]:
        """major_brand, timescale and duration of the file."""
    @property
    def streams(self) -> list[dict[str, Any]]:
        """The facts of each stream, in index order."""
    def samples(self, stream: int) -> numpy.typing.NDArray[numpy.void]:
        """The samples of a stream as a read-only NumPy structured array.

        Columns: index, offset, size, dts, pts, duration, key; with deep=True also
        presentation_time (valid where presented), chunk, stsc_entry, stts_entry, ctts_entry,
        moof, moof_offset, traf, trun and trun_entry (-1 where they do not apply).
        """
    @property
    def problems(self) -> Optional[list[dict[str, Any]]]:
        """With check=True the problems found: code, severity, offset, size, path, message."""
    @property
    def coverage(self) -> Optional[dict[str, Any]]:
        """With check=True where the file's bytes went."""
    @property
    def elements(self) -> Element:
        """The root of the element tree, made by parsing the file again on first use."""
    def to_json(self) -> str:
        """The command's JSON document of the file, with the same options."""

def inspect(
    path: Union[str, os.PathLike[str]],
    *,
    deep: bool = False,
    check: bool = False,
    units: bool = False,
    value_base: int = 10,
    size_base: int = 10,
    unknown_data: bool = True,
    max_unknown_data: int = 64,
) -> Report:
    """Reads a file, or one an http:// or https:// URL names, and returns its Report.

    The options are the command's --deep, --check, --units, --value-base, --size-base,
    --no-unknown-data and --max-unknown-data. units (which implies deep) reads the NAL units or
    OBUs of each sample: they are in to_json(), and with check the codec checks run. Parses without the interpreter's lock, so
    threads inspect files in parallel. Raises FileNotFoundError, IsADirectoryError or OSError
    when the file cannot be read and ValueError when no plugin takes it.
    """
