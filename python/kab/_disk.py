"""Disk groups and their disks."""

from __future__ import annotations

import ctypes
import io
import os
from types import TracebackType
from typing import TYPE_CHECKING, Any, Callable, Iterator, Optional, Sequence, Union

from . import _native
from ._native import KabError, Status

if TYPE_CHECKING:
    from ._component import Component
    from ._log import LogEntry

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

#: The most that one call of the library is asked to move.
_PIECE = 1 << 30

_BLOCK = 4096
_MAP_ENTRIES = 225  # a block of the translation map; each stands for a block of the disk
_MOST_MAP_BLOCKS = ((1 << 63) - 1) // (_MAP_ENTRIES * _BLOCK) // 2  # a hostile superblock may name more


def _writable(buffer: Any, length: int) -> Any:
    """`buffer` as an argument of the library."""
    return (ctypes.c_char * length).from_buffer(buffer)


def encode_path(path: Path) -> bytes:
    """A path as the library takes it; ValueError for one with a NUL, before which the library's name would end."""
    encoded = os.fsencode(path)
    if b"\0" in encoded:
        raise ValueError("a path with a NUL character")
    return encoded


class Disk:
    """One opened disk. Made by Group and open_disk, never directly.

    A disk lives until its group is closed (or, for one from open_disk, until close()).
    """

    def __init__(self, ctx: Any, path: bytes) -> None:
        self._ctx: Any = ctx
        self._path = path  # the library keeps a pointer to these bytes
        self._components: list[Component] = []  # those that lie on it

    def _open(self) -> Any:
        if self._ctx is None:
            raise ValueError("the disk is closed")
        return self._ctx

    def _address(self) -> Optional[int]:
        return ctypes.cast(self._ctx, ctypes.c_void_p).value if self._ctx else None

    @property
    def path(self) -> str:
        """The device or image file, as it was given."""
        return os.fsdecode(self._path)

    @property
    def uuid(self) -> str:
        """The disk's UUID as the library prints it, 36 lower-case characters."""
        return str(self._open().contents.uuid_text.decode())

    @property
    def size(self) -> int:
        """Bytes of the device or file."""
        return int(self._open().contents.disk_size)

    @property
    def usable_size(self) -> int:
        """Bytes of the data area."""
        return int(self._open().contents.usable_size)

    @property
    def data_offset(self) -> int:
        """Where the data area begins, in bytes."""
        return int(self._open().contents.data_offset)

    @property
    def index(self) -> int:
        """The disk's place in its group, 0 to 6; -1 for an SSD and for a disk without a group."""
        return int(self._open().contents.dev_idx)

    @property
    def encrypted(self) -> bool:
        """Whether the data area is enciphered. Reads give plain text all the same."""
        return bool(self._open().contents.encrypted)

    @property
    def metadata(self) -> bytes:
        """The 4096 bytes of the metadata block, as they were read when the disk was opened."""
        return bytes(self._open().contents.meta)

    @property
    def format_version(self) -> int:
        """The disk's format version, 0 to 20."""
        return int(self._open().contents.meta[468])

    @property
    def dedup_mode(self) -> int:
        """0 without the dedup layer, 1 for a disk that compresses, 2 for one of a deduplicating group."""
        meta = self._open().contents.meta
        return 0 if meta[8] == 11 else int(meta[11]) >> 2 & 3

    def read_at(self, offset: int, length: int) -> bytes:
        """Reads bytes of the disk itself, decrypted; what the group's log holds plays no part.

        Raises:
            ValueError: for a range that does not lie on the disk.
            KabError: for a failed read.
        """
        _check_range(offset, length, self.size)
        buffer = bytearray(length)
        self._read_into(memoryview(buffer), offset)
        return bytes(buffer)

    def _read_into(self, view: memoryview, offset: int) -> None:
        self._transfer("KABRead", view, offset)

    def _read_group_view_into(self, view: memoryview, offset: int) -> None:
        self._transfer("KABPlogRead", view, offset)

    def _transfer(self, name: str, view: memoryview, offset: int) -> None:
        for start in range(0, len(view), _PIECE):
            piece = view[start : start + _PIECE]
            _native.check(
                f"reading {len(piece)} bytes at {offset + start} of {self.path}",
                name,
                self._open(),
                _writable(piece, len(piece)),
                len(piece),
                offset + start,
            )

    def open(self, group_view: bool = False) -> io.BufferedReader:
        """The disk as a read-only binary file: read, seek, tell, with blocks.

        Args:
            group_view: False gives the whole device, byte 0 being its first. True gives the data area of a capacity
                disk as its group sees it, the newest data coming from the SSD's log; byte 0 is the first of the data
                area. Of a disk with the dedup layer these are the logical bytes, unpacked, as many as its map has
                room for. The group must have been replayed.
        """
        if not group_view:
            return io.BufferedReader(_DiskFile(self._read_into, self.size), 1 << 16)
        if self._open().contents.group is None:
            raise ValueError("only a capacity disk of a group has a group's view")
        return io.BufferedReader(_DiskFile(self._read_group_view_into, self._group_view_size()), 1 << 16)

    def _group_view_size(self) -> int:
        if self.dedup_mode not in (1, 2):
            return self.usable_size
        block = ctypes.create_string_buffer(_BLOCK)
        _native.check(f"reading the superblock of {self.path}", "DDPReadSuperBlk", self._open(), block, None)
        map_blocks = int.from_bytes(block.raw[156:164], "little")
        expansion = int.from_bytes(block.raw[261:269], "little") // 2
        return (min(map_blocks, _MOST_MAP_BLOCKS) + min(expansion, _MOST_MAP_BLOCKS)) * _MAP_ENTRIES * _BLOCK

    def close(self) -> None:
        """Closes the disk and the components that lie on it; closing it again does nothing.

        Raises:
            KabError: for an SSD that still has disks attached; it stays usable.
        """
        if self._ctx is None:
            return
        for component in self._components[:]:
            component.close()
        _native.check(f"closing {self.path}", "KABCloseDisk", self._ctx)
        _native.free(ctypes.cast(self._ctx, ctypes.c_void_p).value)
        self._ctx = None

    def __enter__(self) -> Disk:
        return self

    def __exit__(
        self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<kab.Disk {self.path!r} {'closed' if self._ctx is None else self.uuid}>"


def _check_range(offset: int, length: int, size: int) -> None:
    if offset < 0 or length < 0 or offset + length > size:
        raise ValueError(f"{length} bytes at {offset} do not lie within {size} bytes")


class _DiskFile(io.RawIOBase):
    """The unbuffered file under Disk.open."""

    def __init__(self, read_into: Callable[[memoryview, int], None], size: int) -> None:
        super().__init__()
        self._read_into = read_into
        self._size = size
        self._position = 0

    def readable(self) -> bool:
        return True

    def seekable(self) -> bool:
        return True

    def tell(self) -> int:
        return self._position

    def seek(self, offset: int, whence: int = io.SEEK_SET) -> int:
        base = {io.SEEK_SET: 0, io.SEEK_CUR: self._position, io.SEEK_END: self._size}.get(whence)
        if base is None:
            raise ValueError(f"whence {whence} is not supported")
        if base + offset < 0:
            raise ValueError("a position before the disk's first byte")
        self._position = base + offset
        return self._position

    def readinto(self, buffer: Any) -> int:
        if self.closed:
            raise ValueError("the file is closed")
        view = memoryview(buffer).cast("B")
        count = max(0, min(len(view), self._size - self._position))
        if count:
            self._read_into(view[:count], self._position)
        self._position += count
        return count


def open_disk(path: Path, *, skip_unmount_check: bool = False) -> Disk:
    """Opens one capacity disk read-only without its group: no device index, no view through the log.

    Raises:
        KabError: with the library's reasons in `messages`.
    """
    encoded = encode_path(path)
    ctx = _native.make(
        f"opening {os.fsdecode(encoded)}",
        Status.OPEN_FAILED,
        "KABOpenDisk",
        encoded,
        os.O_RDONLY,
        None,
        int(skip_unmount_check),
    )
    return Disk(ctx, encoded)


class Group:
    """A disk group: one cache SSD and any of its capacity disks, opened read-only.

        with kab.Group("ssd.img", ["disk0.img", "disk1.img"]) as group:
            for disk in group.disks:
                print(disk.index, disk.uuid, disk.size)

    A group is used by one thread at a time.

    Args:
        ssd: device or image file of the SSD.
        disks: the capacity disks, in any order.
        skip_unmount_check: opens disks that are still mounted, too.

    Raises:
        KabError: when a disk cannot be opened; nothing stays open then.
    """

    def __init__(self, ssd: Path, disks: Sequence[Path] = (), *, skip_unmount_check: bool = False) -> None:
        self.disks: list[Disk] = []
        self._replayed = False
        encoded = encode_path(ssd)
        what = f"opening {os.fsdecode(encoded)}"
        skip = int(skip_unmount_check)
        ctx = _native.make(what, Status.OPEN_FAILED, "KABOpenSSD", encoded, os.O_RDONLY, skip)
        self.ssd = Disk(ctx, encoded)
        try:
            for path in disks:
                encoded = encode_path(path)
                what = f"opening {os.fsdecode(encoded)}"
                ctx = _native.make(what, Status.OPEN_FAILED, "KABOpenDisk", encoded, os.O_RDONLY, ctx_of(self.ssd), skip)
                self.disks.append(Disk(ctx, encoded))
        except BaseException:
            self.close()
            raise

    def replay(self) -> None:
        """Chooses the checkpoint record and replays the log, so that views through it can be read. Once is enough.

        Raises:
            KabError: NO_CHECKPOINT or BLOCK_INVALID without a usable checkpoint record; others for a broken log.
        """
        ssd = ctx_of(self.ssd)
        if self._replayed:
            return
        _native.check("choosing a checkpoint record", "KABSSDLOGGetValidCheckPointRecord", ssd)
        _native.check("replaying the log", "KABSSDLOGRecovPlogLog", ssd)
        self._replayed = True

    def log_entries(self) -> Iterator[LogEntry]:
        """The entries of the physical log, oldest first. A torn or stale block is where the log ends.

        Raises:
            KabError: without a usable checkpoint record, for a failed read, or for a log that is broken.
        """
        from ._log import entries

        ctx_of(self.ssd)  # a closed group is told here, not at the first entry
        return entries(self.ssd)

    def component(self, uuid: str) -> Component:
        """Opens a component of the group; replays the log first where that has not been done.

        Raises:
            KabError: NOT_FOUND when no disk of the group lists the component.
        """
        from ._component import Component

        self.replay()
        return Component(self, uuid)

    def close(self) -> None:
        """Closes components, capacity disks and SSD, in this order. Closing again does nothing."""
        for disk in self.disks:
            disk.close()
        self.ssd.close()

    def __enter__(self) -> Group:
        return self

    def __exit__(
        self, kind: Optional[type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<kab.Group {self.ssd.path!r} with {len(self.disks)} disks>"


def ctx_of(disk: Disk) -> Any:
    """The library's context of an open disk."""
    return disk._open()


__all__ = ["Disk", "Group", "KabError", "open_disk"]
