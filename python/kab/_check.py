"""Checking a group: what the library can tell of its metadata, its log and its layers."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Any, Iterator, Optional, Sequence

from . import _native
from ._disk import Disk, Group, Path, ctx_of
from ._log import block_entries, blocks
from ._native import KabError, Status

_BLOCK = 4096
_BLOCK0_SIZE = 96
_DDP_AREA = 3 << 20
_PLOG = 1
_NO_BLOCK = 0xFFFFFFFFFF5FF
_FORMATS_OF_ORLO = (6, 7)


@dataclass(frozen=True)
class Finding:
    """One piece of damage.

    Attributes:
        code: stable, the same as those of the command `kab check`.
        disk: UUID of the disk.
        offset: bytes from the start of the disk, or None.
        text: for people.
    """

    code: str
    disk: str
    offset: Optional[int]
    text: str


def check(ssd: Path, disks: Sequence[Path] = (), *, skip_unmount_check: bool = False) -> Iterator[Finding]:
    """Opens a group on its own and yields what is damaged: checkpoint records, log blocks and entries, what the replay
    refuses, dedup superblocks and the block 0 of Orlo disks. Nothing is written.

    The command `kab check` looks further, at every metadata block and every component's map.

    Raises:
        KabError: when a disk cannot be opened.
    """
    with Group(ssd, disks, skip_unmount_check=skip_unmount_check) as group:
        yield from _checkpoints(group.ssd)
        try:
            yield from _log(group.ssd)
            group.replay()
        except KabError as failure:
            code = "CPR-NONE" if failure.status in (Status.NO_CHECKPOINT, Status.BLOCK_INVALID) else "PLOG-REPLAY"
            yield Finding(code, group.ssd.uuid, None, str(failure))
            return
        for disk in group.disks:
            yield from _dedup(disk)
            yield from _orlo(disk)


def _lines(code: str, disk: Disk, offset: Optional[int], lines: Sequence[str]) -> Iterator[Finding]:
    for line in lines:
        yield Finding(code, disk.uuid, offset, line)


def _checkpoints(ssd: Disk) -> Iterator[Finding]:
    for copy in range(2):
        offset = ssd.data_offset + copy * _BLOCK
        try:
            record = ssd.read_at(offset, _BLOCK)
        except (KabError, ValueError) as failure:
            yield Finding("CPR-UNREADABLE", ssd.uuid, offset, str(failure))
            continue
        valid, lines = _native.call("KABSSDLOGCheckCPR", ctx_of(ssd), record)
        if not valid:
            yield from _lines("CPR-INVALID", ssd, offset, lines or ("the checkpoint record breaks a rule",))


def _log(ssd: Disk) -> Iterator[Finding]:
    ctx = ctx_of(ssd)
    previous = 0
    for block, offset in blocks(ssd):
        valid, lines = _native.call("KABSSDLOGCheckLogBlkHdr", ctx, block, previous, _PLOG)
        if not valid and int.from_bytes(block[16:24], "little") != _NO_BLOCK:
            yield from _lines("LOG-BLOCK", ssd, offset, lines or ("the block has an invalid header",))
        previous = offset
        try:
            for entry in block_entries(block, offset):
                yield from _entry(ssd, ctx, offset + entry.entry_offset, entry.data)
        except KabError as failure:
            yield Finding("LOG-ENTRY-LENGTH", ssd.uuid, offset, str(failure))


def _entry(ssd: Disk, ctx: Any, offset: int, data: bytes) -> Iterator[Finding]:
    cases = (
        ("LOG-ENTRY-PREFIX", "KABSSDLOGCheckLogEntryPrefix", 0),
        ("LOG-ENTRY-TYPE", "KABSSDLOGCheckPlogLogEntry", 48),
        ("LOG-ALLOC-MAP", "KABSSDLOGCheckAllocMap", 0),
    )
    for code, name, at in cases:
        valid, lines = _native.call(name, ctx, data[at:])
        if not valid:
            yield Finding(code, ssd.uuid, offset, "; ".join(lines) or "the log entry is invalid")
            return


def _dedup(disk: Disk) -> Iterator[Finding]:
    ctx = ctx_of(disk)
    if not disk.dedup_mode:
        return
    valid, lines = _native.call("DDPValidateSuperBlk", ctx, ctypes.byref(ctypes.c_uint8()))
    yield from _lines("DDP-SUPERBLOCK", disk, _DDP_AREA, lines or (() if valid else ("no dedup superblock",)))


def _orlo(disk: Disk) -> Iterator[Finding]:
    if disk.format_version not in _FORMATS_OF_ORLO:
        return
    ctx = ctx_of(disk)
    buffer = ctypes.create_string_buffer(_BLOCK0_SIZE)
    status, lines = _native.call("OrloReadBlock0", ctx, buffer, None)
    if status == Status.OK:
        status, lines = _native.call("OrloCheckBlock0", ctx, buffer)
    if status != Status.OK:
        yield from _lines("ORLO-BLOCK0", disk, disk.data_offset, lines or (_native.status_text(status),))
