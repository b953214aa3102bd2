"""Components: objects whose blocks lie on a group's capacity disks."""

from __future__ import annotations

import ctypes
import re
from types import TracebackType
from typing import TYPE_CHECKING, Iterator, Optional

from . import _native
from ._disk import ctx_of
from ._native import Status

if TYPE_CHECKING:
    from ._disk import Disk, Group

_BLOCK = 4096
_BITMAP_BITS = 0x3FC0000
_FIRST_BLOCK = 1024  # the bitmap's bit 0
_PIECE = 1 << 24
_END = 1 << 63


class Component:
    """One component, opened by Group.component; closed with its disk or its group at the latest."""

    def __init__(self, group: Group, uuid: str) -> None:
        ssd = ctx_of(group.ssd)
        # An SSD whose logical log holds entries is refused here: its newest data could not be read.
        _native.check("replaying the logical log", "KABSSDLOGRecovLlogLog", ssd)
        what = f"opening component {uuid}"
        handle: int = _native.make(what, Status.NOT_FOUND, "OrloOpenComponent", ssd, uuid.encode("ascii", "replace"))
        self._handle: Optional[int] = handle
        self.uuid = uuid
        lies_on = _native.OrloComponent.from_address(handle).disk
        self._disk: Disk = next(disk for disk in group.disks if disk._address() == lies_on)
        self._disk._components.append(self)
        # Component data begins behind the reserve that the group's format version keeps.
        self._start = 4 << 20 if group.ssd.format_version else 2 << 20

    def read_at(self, offset: int, length: int) -> bytes:
        """Reads component bytes; what was never written is zeros.

        Raises:
            KabError: for a failed read or a broken map.
        """
        if self._handle is None:
            raise ValueError("the component is closed")
        if offset < 0 or length < 0:
            raise ValueError("offset and length count from 0")
        if offset + length > _END - self._start:
            raise ValueError("a component ends before 2^63 bytes")
        result = bytearray()
        while length:
            # The map is searched in whole blocks.
            skip = (self._start + offset) % _BLOCK
            count = min(length, _PIECE - skip)
            whole = -(-(skip + count) // _BLOCK) * _BLOCK
            buffer = ctypes.create_string_buffer(whole)
            what = f"reading {count} bytes at {offset} of component {self.uuid}"
            start = self._start + offset - skip
            _native.check(what, "OrloReadComponent", self._handle, buffer, start, whole)
            result += buffer.raw[skip : skip + count]
            offset += count
            length -= count
        return bytes(result)

    def extents(self) -> Iterator[tuple[int, int]]:
        """The ranges that the map calls allocated, as (offset, length) in bytes, rising and apart.

        Raises:
            KabError: when the map cannot be read.
        """
        if self._handle is None:
            raise ValueError("the component is closed")
        bits = _native.make(
            f"reading the map of component {self.uuid}",
            Status.GENERAL_FAILURE,
            "OrloReadComponentLbaBitMap",
            self._handle,
        )
        data = ctypes.string_at(bits, _BITMAP_BITS // 8)
        begin = end = -1
        for run in re.finditer(rb"[^\0]+", data):
            for index in range(run.start(), run.end()):
                for bit in range(8):
                    if not data[index] >> bit & 1:
                        continue
                    if index * 8 + bit != end:
                        if end > begin:
                            yield self._extent(begin, end)
                        begin = index * 8 + bit
                    end = index * 8 + bit + 1
        if end > begin:
            yield self._extent(begin, end)

    def _extent(self, begin: int, end: int) -> tuple[int, int]:
        return (_FIRST_BLOCK + begin) * _BLOCK - self._start, (end - begin) * _BLOCK

    def close(self) -> None:
        """Closes the component; closing it again does nothing."""
        if self._handle is not None:
            _native.call("OrloCloseComponent", self._handle)
            self._handle = None
            self._disk._components.remove(self)

    def __enter__(self) -> Component:
        return self

    def __exit__(
        self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()
