"""The door to libkab: loading it, its calls and its messages.

Everything here is private to the package. The library writes its messages on one stream for the whole process, so
calls are made one after another under a lock; each one's lines go to the logger "kab" and into the exception.
"""

from __future__ import annotations

import ctypes
import enum
import logging
import os
import threading
from ctypes import POINTER, c_char, c_char_p, c_int32, c_int64, c_size_t, c_uint8, c_uint32, c_uint64, c_void_p
from typing import Any, Optional

_log = logging.getLogger("kab")


class Status(enum.IntEnum):
    """What a call of the library answers."""

    OK = 0
    IO_ERROR = 1
    GENERAL_FAILURE = 2
    OUT_OF_MEMORY = 3
    CREATE_FAILED = 4
    OPEN_FAILED = 5
    BUSY = 6
    NOT_SUPPORTED = 7
    NOT_MAPPED = 8
    BLOCK_INVALID = 9
    END_OF_LOG = 10
    NO_CHECKPOINT = 11
    INVALID_ARGUMENT = 12
    NOT_FOUND = 13
    DECRYPT_FAILED = 14
    ENCRYPT_FAILED = 15
    MAGIC_MISMATCH = 16
    VERSION_MISMATCH = 17
    DECOMPRESS_FAILED = 18
    INVALID_DEVICE_IDX = 22
    NO_SUPERBLOCK = 0xBAD0088


class KabError(Exception):
    """A call that failed.

    Attributes:
        status: the library's status as an int; compare it with the members of Status.
        messages: the lines that the library wrote about it, oldest first.
    """

    def __init__(self, what: str, status: int, messages: tuple[str, ...] = ()) -> None:
        self.status = status
        self.messages = messages
        text = f"{what}: {status_text(status)}"
        super().__init__("\n  ".join((text, *messages)))


class DiskCtx(ctypes.Structure):
    """The first fields of a disk context; the library allocates it, so those behind need no place here."""

    _fields_ = [
        ("fd", c_int32),
        ("dev_idx", c_int32),
        ("uuid_text", c_char * 37),
        ("alt_uuid_text", c_char * 37),
        ("path", c_char_p),
        ("disk_size", c_uint64),
        ("usable_size", c_uint64),
        ("open_disk_count", c_uint32),
        ("group", c_void_p),
        ("disks", c_void_p * 7),
        ("lock", c_void_p),
        ("meta_offset", c_uint64),
        ("data_offset", c_uint64),
        ("meta", c_uint8 * 4096),
        ("encrypted", c_uint8),
    ]


assert DiskCtx.uuid_text.offset == 8 and DiskCtx.path.offset == 88 and DiskCtx.disks.offset == 128
assert DiskCtx.meta_offset.offset == 192 and DiskCtx.meta.offset == 208 and DiskCtx.encrypted.offset == 4304


class OrloComponent(ctypes.Structure):
    """The first fields of an opened component."""

    _fields_ = [("uuid_text", c_char * 37), ("disk", c_void_p)]


assert OrloComponent.disk.offset == 40


class DumpCtx(ctypes.Structure):
    """A dump being written."""

    _fields_ = [
        ("fd", c_uint32),
        ("lock", c_void_p),
        ("header", c_uint8 * 4096),
        ("hash_state", c_void_p),
        ("compress", c_void_p),
        ("failed", c_uint8),
    ]


assert DumpCtx.header.offset == 16

DiskPtr = POINTER(DiskCtx)
ExtractWrite = ctypes.CFUNCTYPE(c_uint32, c_uint32, c_void_p, c_uint32, c_uint64)

# name: result, arguments
_PROTOTYPES: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "KABInit": (c_uint32, (c_uint32, c_void_p)),
    "KABErrorStr": (c_char_p, (c_uint32,)),
    "KABFree": (None, (c_void_p,)),
    "KABOpenSSD": (DiskPtr, (c_char_p, c_uint32, c_uint8)),
    "KABOpenDisk": (DiskPtr, (c_char_p, c_uint32, DiskPtr, c_uint8)),
    "KABCloseDisk": (c_uint32, (DiskPtr,)),
    "KABRead": (c_uint32, (DiskPtr, c_void_p, c_uint32, c_int64)),
    "KABInitDumpFile": (c_void_p, (c_char_p, c_char_p, c_uint64)),
    "KABAddBufferToDump": (c_uint32, (c_void_p, c_char_p, c_uint32, c_uint64)),
    "KABAddChunkToDump": (c_uint32, (c_void_p, DiskPtr, c_uint32, c_uint64)),
    "KABCloseDumpFile": (c_uint32, (c_void_p,)),
    "KABVerifyAndExtractDump": (c_uint32, (c_uint32, c_uint32, c_uint8, ExtractWrite)),
    "KABExtractDumpToDisk": (c_uint32, (c_uint32, c_uint32, c_uint8, ExtractWrite)),
    "KABSSDLOGGetValidCheckPointRecord": (c_uint32, (DiskPtr,)),
    "KABSSDLOGRecovPlogLog": (c_uint32, (DiskPtr,)),
    "KABSSDLOGRecovLlogLog": (c_uint32, (DiskPtr,)),
    "KABSSDLOGPlogReadNext": (c_uint32, (DiskPtr, c_void_p, c_void_p, POINTER(c_uint64))),
    "KABSSDLOGCheckLogBlkHdr": (c_uint32, (DiskPtr, c_char_p, c_uint64, c_uint32)),
    "KABSSDLOGCheckCPR": (c_uint32, (DiskPtr, c_char_p)),
    "KABSSDLOGCheckLogEntryPrefix": (c_uint32, (DiskPtr, c_char_p)),
    "KABSSDLOGCheckPlogLogEntry": (c_uint32, (DiskPtr, c_char_p)),
    "KABSSDLOGCheckAllocMap": (c_uint32, (DiskPtr, c_char_p)),
    "KABPlogRead": (c_uint32, (DiskPtr, c_void_p, c_uint32, c_uint64)),
    "DDPReadSuperBlk": (c_uint32, (DiskPtr, c_void_p, c_void_p)),
    "DDPValidateSuperBlk": (c_uint32, (DiskPtr, POINTER(c_uint8))),
    "OrloReadBlock0": (c_uint32, (DiskPtr, c_void_p, c_void_p)),
    "OrloCheckBlock0": (c_uint32, (DiskPtr, c_void_p)),
    "OrloOpenComponent": (c_void_p, (DiskPtr, c_char_p)),
    "OrloReadComponent": (c_uint32, (c_void_p, c_void_p, c_uint64, c_uint32)),
    "OrloReadComponentLbaBitMap": (c_void_p, (c_void_p,)),
    "OrloCloseComponent": (c_uint32, (c_void_p,)),
}


def _load() -> ctypes.CDLL:
    path = os.environ.get("KAB_LIBRARY", "libkab.so.0")
    try:
        library = ctypes.CDLL(path)
    except OSError as failure:
        raise ImportError(f"libkab is not installed, or KAB_LIBRARY does not name it: {failure}") from failure
    for name, (result, arguments) in _PROTOTYPES.items():
        function = getattr(library, name, None)
        if function is None:  # a minor version added it; call() says so when it is asked for
            continue
        function.restype = result
        function.argtypes = arguments
    return library


class _MessageStream:
    """A C stream in memory: what the library writes between begin() and lines()."""

    def __init__(self) -> None:
        libc = ctypes.CDLL(None)
        libc.open_memstream.restype = c_void_p
        libc.open_memstream.argtypes = (POINTER(c_void_p), POINTER(c_size_t))
        libc.rewind.restype = None
        libc.rewind.argtypes = (c_void_p,)
        libc.fflush.argtypes = (c_void_p,)
        self._libc = libc
        self._text = c_void_p()
        self._length = c_size_t()
        self.stream = libc.open_memstream(ctypes.byref(self._text), ctypes.byref(self._length))
        if not self.stream:
            raise MemoryError("no stream for the messages of libkab")

    def begin(self) -> None:
        self._libc.rewind(self.stream)

    def lines(self) -> tuple[str, ...]:
        self._libc.fflush(self.stream)
        if not self._length.value or not self._text.value:
            return ()
        text = ctypes.string_at(self._text.value, self._length.value)
        return tuple(text.decode("utf-8", "backslashreplace").splitlines())


_lock = threading.RLock()
library = _load()
_messages = _MessageStream()
library.KABInit(0, _messages.stream)


def status_text(status: int) -> str:
    """The library's text for a status; a number in words for those that have none."""
    if 0 <= status <= Status.DECOMPRESS_FAILED:
        return str(library.KABErrorStr(status).decode())
    return f"status {status:#x}"


def call(name: str, *arguments: Any) -> tuple[Any, tuple[str, ...]]:
    """Calls a function of the library; gives its result and the lines that it wrote."""
    function = getattr(library, name, None)
    if function is None:
        raise KabError(f"this libkab has no {name}", Status.NOT_SUPPORTED)
    with _lock:
        _messages.begin()
        result = function(*arguments)
        lines = _messages.lines()
    for line in lines:
        _log.debug("%s", line)
    return result, lines


def check(what: str, name: str, *arguments: Any) -> None:
    """Calls a function that answers with a status; raises KabError unless it is 0."""
    status, lines = call(name, *arguments)
    if status != Status.OK:
        raise KabError(what, status, lines)


def make(what: str, failure: Status, name: str, *arguments: Any) -> Any:
    """Calls a function that answers with a pointer; raises KabError when that is null."""
    pointer, lines = call(name, *arguments)
    if not pointer:
        raise KabError(what, failure, lines)
    return pointer


def free(pointer: Optional[int]) -> None:
    """Releases a block that the library allocated."""
    slot = c_void_p(pointer)
    library.KABFree(ctypes.byref(slot))
