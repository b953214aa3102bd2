"""The physical log of a group's SSD, entry by entry."""

from __future__ import annotations

import ctypes
import struct
from dataclasses import dataclass
from typing import TYPE_CHECKING, Iterator, Optional

from . import _native
from ._native import KabError, Status

if TYPE_CHECKING:
    from ._disk import Disk

_BLOCK = 4096
_HEADER = 64
_PREFIX = 48
_WRITES = (1, 4)
_RELEASE = 2


@dataclass(frozen=True)
class LogEntry:
    """One entry of the physical log.

    Attributes:
        block_offset: where its block lies on the SSD, in bytes.
        entry_offset: where the entry lies within the block, in bytes.
        disk_uuid: the capacity disk that it is about.
        type: 1 and 4 are writes, 2 releases log sequence numbers.
        lsns: a write's own number; of a release those that it releases.
        lba: first logical byte of a write, else None.
        length: bytes of a write, else None.
        data: the entry's bytes, prefix and allocation map included.
    """

    block_offset: int
    entry_offset: int
    disk_uuid: str
    type: int
    lsns: tuple[int, ...]
    lba: Optional[int]
    length: Optional[int]
    data: bytes


def uuid_text(raw: bytes) -> str:
    """16 bytes in the form in which the library prints them."""
    digits = raw.hex()
    return "-".join((digits[:8], digits[8:12], digits[12:16], digits[16:20], digits[20:]))


def blocks(ssd: Disk) -> Iterator[tuple[bytes, int]]:
    """The blocks of the physical log and their byte offsets on the SSD, oldest first."""
    # Asked for its context before every call: between two blocks the caller may close the disk.
    _native.check("choosing a checkpoint record", "KABSSDLOGGetValidCheckPointRecord", ssd._open())
    current = None
    seen: set[int] = set()
    while True:
        block = ctypes.create_string_buffer(_BLOCK)
        offset = ctypes.c_uint64()
        status, lines = _native.call("KABSSDLOGPlogReadNext", ssd._open(), current, block, ctypes.byref(offset))
        if status == Status.END_OF_LOG:
            return
        if status != Status.OK:
            raise KabError("reading the log", status, lines)
        if offset.value in seen:  # every checksum can be right in a chain that bites its own tail
            raise KabError(f"the log returns to its block at {offset.value}", Status.BLOCK_INVALID)
        seen.add(offset.value)
        yield block.raw, offset.value
        current = block


def entries(ssd: Disk) -> Iterator[LogEntry]:
    """See Group.log_entries."""
    for block, offset in blocks(ssd):
        yield from block_entries(block, offset)


def block_entries(block: bytes, block_offset: int) -> Iterator[LogEntry]:
    """The entries of one block."""
    at = _HEADER
    for _ in range(block[12]):
        if at + _PREFIX + 8 > _BLOCK:
            raise _broken(block_offset, at)
        (length,) = struct.unpack_from("<I", block, at + 20)
        if length < _PREFIX + 8 or length > _BLOCK - at:
            raise _broken(block_offset, at)
        yield _parse(block[at : at + length], block_offset, at)
        at += length


def _parse(entry: bytes, block_offset: int, at: int) -> LogEntry:
    (kind,) = struct.unpack_from("<I", entry, 52)
    lsns: tuple[int, ...] = ()
    lba = length = None
    try:
        if kind in _WRITES:
            lsn, lba, length = struct.unpack_from("<QQI", entry, 56)
            lsns = (lsn & ((1 << 55) - 1),)
        elif kind == _RELEASE:
            (count,) = struct.unpack_from("<I", entry, 56)
            if count > (len(entry) - 60) // 8:
                raise _broken(block_offset, at)
            lsns = struct.unpack_from(f"<{count}Q", entry, 60)
    except struct.error:
        raise _broken(block_offset, at) from None
    return LogEntry(block_offset, at, uuid_text(entry[:16]), kind, lsns, lba, length, entry)


def _broken(block_offset: int, at: int) -> KabError:
    return KabError(f"the log entry at byte {at} of the block at {block_offset} is broken", Status.BLOCK_INVALID)
