#!/usr/bin/env python3
"""Opens a disk group and prints the SHA-256 of the first MiB of each disk's data:  head.py SSD [DISK...]"""

import hashlib
import sys

import kab


def main() -> int:
    if len(sys.argv) < 2:
        print(f"usage: {sys.argv[0]} SSD [DISK...]", file=sys.stderr)
        return 2
    try:
        with kab.Group(sys.argv[1], sys.argv[2:]) as group:
            for disk in group.disks:
                with disk.open() as file:
                    file.seek(disk.data_offset)
                    digest = hashlib.sha256(file.read(1 << 20)).hexdigest()
                print(f"{disk.index} {disk.uuid} {digest}")
    except kab.KabError as failure:
        print(failure, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
