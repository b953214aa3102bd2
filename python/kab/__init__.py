"""kab: the disks of an Arvo disk group, read offline.

A thin layer over libkab. Disks are opened read-only; failures are KabError, with the library's own lines in it.

    import kab

    with kab.Group("ssd.img", ["disk0.img"]) as group:
        disk = group.disks[0]
        print(disk.uuid, disk.size)
        with disk.open() as file:            # the disk as a binary file
            file.seek(disk.data_offset)
            print(file.read(16).hex())
        with kab.DumpWriter("head.dump", disk) as dump:
            dump.add_range(0, 4 << 20)
    print(kab.verify("head.dump").sha256.hex())
    for finding in kab.check("ssd.img", ["disk0.img"]):
        print(finding.code, finding.text)

The library's lines also go to the logger "kab", level DEBUG. KAB_LIBRARY in the environment names another libkab than
the installed one.
"""

from ._check import Finding, check
from ._component import Component
from ._disk import Disk, Group, open_disk
from ._dump import DumpHeader, DumpWriter, extract, read_header, verify, walk
from ._log import LogEntry
from ._native import KabError, Status

__all__ = [
    "Component",
    "Disk",
    "DumpHeader",
    "DumpWriter",
    "Finding",
    "Group",
    "KabError",
    "LogEntry",
    "Status",
    "check",
    "extract",
    "open_disk",
    "read_header",
    "verify",
    "walk",
]
