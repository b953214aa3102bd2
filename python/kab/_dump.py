"""Dump files: compressed, hashed copies of ranges of one disk."""

from __future__ import annotations

import ctypes
import datetime
import os
import struct
from dataclasses import dataclass
from types import TracebackType
from typing import Callable, Optional

from . import _native
from ._disk import Disk, Path, _check_range, ctx_of, encode_path
from ._native import DumpCtx, ExtractWrite, KabError, Status

MAGIC = 0xCC0000CC
VERSION = 1
_PIECE = 1 << 30
_NO_WRITE = ctypes.cast(ctypes.c_void_p(), ExtractWrite)


@dataclass(frozen=True)
class DumpHeader:
    """What a finished dump says of itself.

    Attributes:
        records: number of records.
        disk_size: bytes of the source disk.
        stream_length: bytes of all records before compression, 12 a record included.
        created: when the dump was begun.
        sha256: of all records before compression.
        device: the last component of the source's path.
    """

    records: int
    disk_size: int
    stream_length: int
    created: datetime.datetime
    sha256: bytes
    device: str


def read_header(path: Path) -> DumpHeader:
    """Reads a dump's header.

    Raises:
        KabError: MAGIC_MISMATCH for a file that is no dump or was never finished, VERSION_MISMATCH for a newer one.
        OSError: when the file cannot be read.
    """
    with open(path, "rb") as file:
        return _header(file.read(200), os.fsdecode(path))


def _header(raw: bytes, name: str) -> DumpHeader:
    raw = raw.ljust(200, b"\0")
    magic, version, records, size, length, created = struct.unpack_from("<IIQQQQ", raw)
    if magic != MAGIC:
        why = "a dump that was never finished" if not any(raw) else "not a dump"
        raise KabError(f"{name} is {why}", Status.MAGIC_MISMATCH)
    if version != VERSION:
        raise KabError(f"{name} is a dump of version {version}", Status.VERSION_MISMATCH)
    epoch = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
    try:
        moment = epoch + datetime.timedelta(microseconds=created)
    except OverflowError:
        moment = epoch
    device = raw[72:200].split(b"\0")[0].decode("utf-8", "backslashreplace")
    return DumpHeader(records, size, length, moment, raw[40:72], device)


class DumpWriter:
    """Writes a dump of one disk; the file must not exist yet.

        with kab.DumpWriter("head.dump", disk) as dump:
            dump.add_range(0, 4 << 20)

    Leaving the block finishes the dump. An exception on the way leaves the file unfinished, which readers can tell.

    Raises:
        KabError: when the file cannot be made.
    """

    def __init__(self, path: Path, disk: Disk) -> None:
        self._disk = disk
        self._name = os.fsdecode(path)
        self._dump: Optional[int] = _native.make(
            f"creating {self._name}",
            Status.CREATE_FAILED,
            "KABInitDumpFile",
            encode_path(path),
            encode_path(disk.path),
            disk.size,
        )

    def _open(self) -> int:
        if self._dump is None:
            raise ValueError("the dump is closed")
        return self._dump

    def add_range(self, offset: int, length: int) -> None:
        """Adds a range of the disk, decrypted.

        Raises:
            ValueError: for a range that does not lie on the disk.
            KabError: for a failed read or write.
        """
        _check_range(offset, length, self._disk.size)
        for start in range(0, length, _PIECE):
            piece = min(_PIECE, length - start)
            what = f"dumping {piece} bytes at {offset + start}"
            _native.check(what, "KABAddChunkToDump", self._open(), ctx_of(self._disk), piece, offset + start)

    def add(self, data: bytes, offset: int) -> None:
        """Adds the caller's own bytes as those of the disk at `offset`."""
        _check_range(offset, len(data), self._disk.size)
        for start in range(0, len(data), _PIECE):
            piece = data[start : start + _PIECE]
            what = f"dumping {len(piece)} bytes for {offset + start}"
            _native.check(what, "KABAddBufferToDump", self._open(), piece, len(piece), offset + start)

    def close(self) -> None:
        """Finishes the dump; closing it again does nothing.

        Raises:
            KabError: when it could not be finished; the file then is not a dump.
        """
        if self._dump is None:
            return
        dump, self._dump = self._dump, None
        try:
            _native.check(f"finishing {self._name}", "KABCloseDumpFile", dump)
        finally:
            _native.free(dump)

    def __enter__(self) -> DumpWriter:
        return self

    def __exit__(
        self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        if kind is None:
            self.close()
            return
        self._abandon()

    def _abandon(self) -> None:
        # Marked failed, the dump keeps its zero header when it is closed, and the close releases what it holds.
        if self._dump is None:
            return
        DumpCtx.from_address(self._dump).failed = 1
        try:
            self.close()
        except KabError:
            pass


def walk(path: Path, visit: Callable[[int, bytes], None]) -> DumpHeader:
    """Calls visit(offset, data) for every record of a dump, in the order in which they were added.

    The digest is compared at the end: data handed to `visit` is not to be trusted before walk returns. An exception
    from `visit` ends the walk and comes out of it.

    Raises:
        KabError: for a damaged dump, or a file that is none.
    """
    name = os.fsdecode(path)
    raised: list[BaseException] = []

    def take(_fd: int, data: Optional[int], length: int, offset: int) -> int:
        try:
            visit(offset, ctypes.string_at(data, length) if data else b"")
        except BaseException as error:  # nothing may pass through the library's frames
            raised.append(error)
            return Status.GENERAL_FAILURE
        finally:
            _native.free(data)
        return Status.OK

    callback = ExtractWrite(take)
    with open(path, "rb") as file:
        header = _header(file.read(200), name)
        status, lines = _native.call("KABVerifyAndExtractDump", file.fileno(), 0, 0, callback)
    if raised:
        raise raised[0]
    if status != Status.OK:
        raise KabError(f"verifying {name}", status, lines)
    return header


def verify(path: Path) -> DumpHeader:
    """Reads a dump to its end and compares its digest; writes nothing.

    Raises:
        KabError: for a damaged dump, or a file that is none.
    """
    return walk(path, lambda _offset, _data: None)


def extract(path: Path, target: Path, *, verify_first: bool = True) -> DumpHeader:
    """Writes a dump's records into a new image file as long as the source disk.

    Args:
        path: the dump.
        target: the image; it must not exist.
        verify_first: reads the whole dump before anything is written.

    Raises:
        FileExistsError: when the target is there already.
        KabError: for a damaged dump; no target is left behind.
    """
    header = verify(path) if verify_first else read_header(path)
    fd = os.open(target, os.O_RDWR | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o644)
    try:
        with open(path, "rb") as file:
            what = f"extracting {os.fsdecode(path)}"
            _native.check(what, "KABExtractDumpToDisk", file.fileno(), fd, 1, _NO_WRITE)
        os.fsync(fd)
    except BaseException:
        os.unlink(target)
        raise
    finally:
        os.close(fd)
    return header
