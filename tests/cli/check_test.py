#!/usr/bin/env python3
"""Spoils sample groups with bare offsets, one thing at a time, and wants kab check to tell just that.

  check_test.py KAB FAIL_READS_LIBRARY DEDUP_SHAPE [unittest arguments]
"""
import os
import re
import struct
import subprocess
import sys
import unittest

FAIL_READS = os.path.abspath(sys.argv.pop(2))
DEDUP_SHAPE = os.path.abspath(sys.argv.pop(2))

import json_lines  # noqa: E402
from group_test import DATA, KAB, GroupCase, read_file  # noqa: E402  takes KAB from the arguments

BLOCK = 4096
UNIT = 2048
NO_UNIT = 0xFFFFFFFFF

CRC_TABLE = []
for byte in range(256):
    for _ in range(8):
        byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)
    CRC_TABLE.append(byte)


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc = CRC_TABLE[(crc ^ byte) & 255] ^ crc >> 8
    return crc ^ 0xFFFFFFFF


class Image:
    """One disk's file; what was written can be taken back."""

    def __init__(self, path):
        self.file = open(path, "r+b")
        self.former = []

    def read(self, offset, length):
        self.file.seek(offset)
        return self.file.read(length)

    def write(self, offset, data):
        self.former.append((offset, self.read(offset, len(data))))
        self.file.seek(offset)
        self.file.write(data)
        self.file.flush()

    def word(self, offset, form="<Q"):
        return struct.unpack(form, self.read(offset, struct.calcsize(form)))[0]

    def put(self, offset, value, form="<Q"):
        self.write(offset, struct.pack(form, value))

    def flip(self, offset, bits=1):
        self.write(offset, bytes([self.read(offset, 1)[0] ^ bits]))

    def restore(self):
        for offset, data in reversed(self.former):
            self.file.seek(offset)
            self.file.write(data)
        self.file.flush()
        self.former = []


class DedupDisk(Image):
    """A disk of the dedup layer, by bare offsets."""

    def __init__(self, path):
        super().__init__(path)
        field = {name: self.word(DATA + at) for name, at in (
            ("hmap", 116), ("hmap_size", 124), ("bmap", 132), ("xmap", 148), ("data", 164), ("units", 172))}
        self.__dict__.update(field)

    def at(self, block):
        return DATA + block * BLOCK

    def seal(self, block, copies=True):
        """Makes a block's checksum right, and its second copy the same."""
        content = bytearray(self.read(self.at(block), BLOCK))
        content[16:20] = bytes(4)
        content[16:20] = struct.pack("<I", crc32c(content))
        self.write(self.at(block), bytes(content))
        if copies and not self.hmap <= block < self.hmap + self.hmap_size:
            self.write(self.at(self.hmap + self.hmap_size + block), bytes(content))

    def records(self):
        """(logical block, device, first unit, second unit or None) of what is mapped."""
        for index in range((self.hmap - self.xmap) if self.hmap > self.xmap else 8):
            content = self.read(self.at(self.xmap + index), BLOCK)
            if content[:4] != b"\xaa\xda\x00\xb0" or content[4] != 5:
                continue
            for entry in range(225):
                at = 46 + 18 * entry + 8
                low, high = struct.unpack_from("<Q", content, at)[0], struct.unpack_from("<Q", content, at + 2)[0]
                first, second = low >> 8 & NO_UNIT, high >> 28
                if first != NO_UNIT:
                    yield (index * 225 + entry, content[at] >> 4, first - self.data,
                           None if second == NO_UNIT else second - self.data)

    def put_record(self, logical, device, first, second=None):
        block = self.xmap + logical // 225
        packed = 7 | device << 4 | first + self.data << 8 | (NO_UNIT if second is None else second + self.data) << 44
        self.write(self.at(block) + 46 + logical % 225 * 18 + 8, packed.to_bytes(10, "little"))
        self.seal(block)

    def put_bit(self, unit, value):
        block, bit = self.bmap + unit // 32448, unit % 32448
        at = self.at(block) + 40 + bit // 8
        old = self.read(at, 1)[0]
        self.write(at, bytes([old | 1 << bit % 8 if value else old & ~(1 << bit % 8)]))
        self.seal(block)

    def hash_entries(self):
        """(block, offset on the disk, device, unit)."""
        for index in range(self.hmap_size):
            content = self.read(self.at(self.hmap + index), BLOCK)
            for entry in range(119):
                pbn = struct.unpack_from("<Q", content, 50 + 34 * entry + 24)[0]
                if pbn != 0:
                    yield (self.hmap + index, self.at(self.hmap + index) + 50 + 34 * entry, pbn >> 44,
                           (pbn & (1 << 40) - 1) - self.data)


class CheckCase(GroupCase):
    disk_class = Image

    def setUp(self):
        super().setUp()
        paths = self.paths(self.copy())
        self.ssd, self.disks = Image(paths[0]), [self.disk_class(path) for path in paths[1:]]

    def tearDown(self):
        for image in [self.ssd] + self.disks:
            image.file.close()
        super().tearDown()

    def check(self, *options, code=0, paths=None):
        return self.json("check", *options, *(paths or self.paths(f"{self.work}/group")), code=code)

    def check_failing(self, offset):
        """The same while the byte at an offset of every disk cannot be read."""
        former = dict(os.environ)
        os.environ.update(LD_PRELOAD=FAIL_READS, KAB_FAIL_FROM=str(offset), KAB_FAIL_TO=str(offset + 1),
                          ASAN_OPTIONS=former.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0")
        try:
            return self.check(code=4)
        finally:
            os.environ.clear()
            os.environ.update(former)

    def assert_tells(self, spoil, wanted, code, *options):
        """The codes of all findings but notes, and the place of one."""
        with self.subTest(spoil.__name__):
            offset = spoil()
            *findings, summary = self.check(*options, code=code)
            told = {finding["code"] for finding in findings if finding["severity"] != "info"}
            self.assertEqual(told, set(wanted), findings)
            if offset is not None:
                self.assertIn(offset, {finding["offset"] for finding in findings if finding["code"] == wanted[0]})
            self.assertEqual(summary["verdict"], "damaged" if code in (3, 4) else "clean")
        for image in [self.ssd] + self.disks:
            image.restore()


class Dedup(CheckCase):
    sample = ["--layout", "dedup", "--disks", "3", "--seed", "4"]
    disk_class = DedupDisk

    def setUp(self):
        super().setUp()
        self.mapped = [(number, *record) for number, disk in enumerate(self.disks) for record in disk.records()]
        uses = {}
        for _, _, device, first, _ in self.mapped:
            uses[device, first] = uses.get((device, first), 0) + 1
        self.uses = uses
        self.hashed = [(number, *entry) for number, disk in enumerate(self.disks) for entry in disk.hash_entries()]

    def pick(self, raw=None, shared=None):
        return next(record for record in self.mapped
                    if (raw is None or (record[4] is not None) == raw) and
                    (shared is None or (self.uses[record[2], record[3]] > 1) == shared))

    def unit_at(self, disk, unit):
        return DATA + (unit + 2 * disk.data) * UNIT

    def test_units(self):
        def used_but_free():
            _, _, device, first, _ = self.pick(raw=True)
            self.disks[device].put_bit(first, 0)
            return self.unit_at(self.disks[device], first)

        def second_unit_free():
            _, _, device, _, second = self.pick(raw=True)
            self.disks[device].put_bit(second, 0)
            return self.unit_at(self.disks[device], second)

        def in_use_but_unreferenced():
            disk = self.disks[1]
            disk.put_bit(disk.units - 1, 1)
            return self.unit_at(disk, disk.units - 1)

        def halves_crossed():
            number, logical, device, _, _ = self.pick(raw=False, shared=True)
            other = self.pick(raw=True)
            self.disks[number].put_record(logical, other[2], other[4])

        def unit_of_the_metadata():
            number, logical, device, _, _ = self.pick(raw=False, shared=True)
            self.disks[number].put_record(logical, device, -1)

        def unit_behind_the_disk():
            number, logical, device, _, _ = self.pick(raw=False, shared=True)
            self.disks[number].put_record(logical, device, self.disks[device].units)

        def member_that_is_not_there():
            number, logical, _, first, _ = self.pick(raw=False, shared=True)
            self.disks[number].put_record(logical, 5, first)

        def hash_entry_of_a_shared_unit_gone():
            shared = self.pick(shared=True)
            number, block, at, *_ = next(entry for entry in self.hashed if entry[3:] == shared[2:4])
            self.disks[number].put(at + 24, 0)
            self.disks[number].seal(block)
            return self.unit_at(self.disks[shared[2]], shared[3])

        def hash_entry_names_a_free_unit():
            number, block, at, *_ = next(entry for entry in self.hashed if self.uses.get(entry[3:]) == 1)
            disk = self.disks[number]
            disk.put(at + 24, 7 << 40 | number << 44 | disk.units - 3 + disk.data)
            disk.seal(block)
            return self.unit_at(disk, disk.units - 3)

        def hash_entry_names_no_data():
            number, block, at, *_ = next(entry for entry in self.hashed if self.uses.get(entry[3:]) == 1)
            self.disks[number].flip(at + 24 + 5, 4)
            self.disks[number].seal(block)
            return at

        def hash_entry_in_the_wrong_block():
            number, block, at, *_ = self.hashed[0]
            self.disks[number].flip(at, 255)
            self.disks[number].seal(block)
            return at

        for spoil, wanted, code in (
                (used_but_free, ["DDP-UNIT-FREE"], 3), (second_unit_free, ["DDP-UNIT-FREE"], 3),
                (in_use_but_unreferenced, ["DDP-UNIT-UNREFERENCED"], 0), (halves_crossed, ["DDP-UNIT-CROSSED"], 3),
                (unit_of_the_metadata, ["DDP-XMAP-REFERENCE"], 3), (unit_behind_the_disk, ["DDP-XMAP-REFERENCE"], 3),
                (member_that_is_not_there, ["DDP-XMAP-REFERENCE"], 3),
                (hash_entry_of_a_shared_unit_gone, ["DDP-UNIT-SHARED"], 0),
                (hash_entry_names_a_free_unit, ["DDP-HASH-FREE"], 3),
                (hash_entry_names_no_data, ["DDP-HASH-REFERENCE"], 3),
                (hash_entry_in_the_wrong_block, ["DDP-HASH-PLACE"], 3)):
            self.assert_tells(spoil, wanted, code)
            # The same with so little memory that the maps are read for one bitmap block's units at a time.
            if spoil is not halves_crossed:
                self.assert_tells(spoil, wanted, code, "--memory", "1")

    def test_blocks(self):
        def superblock_field():
            self.disks[1].flip(DATA + 84)
            self.disks[1].seal(0)
            return DATA + 84

        def superblock_checksum():
            self.disks[1].flip(DATA + 17)
            return DATA + 16

        def superblock_magic():
            self.disks[1].flip(DATA)
            return DATA

        def superblock_of_noise():
            self.disks[1].write(DATA, b"\x95" * BLOCK)
            for finding in self.check(code=4)[:-1]:
                self.assertLess(finding["offset"] or 0, 16 << 20, finding)
            return DATA

        def superblock_copy():
            disk = self.disks[2]
            disk.flip(disk.at(disk.hmap + disk.hmap_size) + 80, 16)
            return disk.at(disk.hmap + disk.hmap_size)

        def start_in_the_superblock_copy():
            disk = self.disks[2]
            disk.flip(disk.at(disk.hmap + disk.hmap_size) + 200)
            return disk.at(disk.hmap + disk.hmap_size) + 200

        def copy_of_the_bitmap():
            disk = self.disks[0]
            at = disk.at(disk.hmap + disk.hmap_size + disk.bmap)
            disk.flip(at + 77)
            return at

        def header(disk, block, at):
            def wrong_header():
                disk.write(disk.at(block) + at, b"\x55")
                disk.seal(block)
                return disk.at(block) + at
            return wrong_header

        disk = self.disks[2]
        self.assert_tells(superblock_field, ["DDP-SUPERBLOCK"], 3)
        self.assert_tells(superblock_checksum, ["DDP-SUPERBLOCK", "DDP-SUPERBLOCK-COPY"], 3)
        self.assert_tells(superblock_magic, ["DDP-SUPERBLOCK", "DDP-SUPERBLOCK-COPY"], 4)
        self.assert_tells(superblock_of_noise, ["DDP-SUPERBLOCK", "DDP-SUPERBLOCK-COPY"], 4)
        self.assert_tells(superblock_copy, ["DDP-SUPERBLOCK-COPY"], 0)
        self.assert_tells(start_in_the_superblock_copy, ["DDP-SUPERBLOCK-COPY"], 0)
        self.assert_tells(copy_of_the_bitmap, ["DDP-COPY"], 0)
        for block, code in (1, 3), (disk.bmap, 4), (disk.hmap, 4), (disk.xmap, 4):
            for at in 0, 4, 20, 28:
                self.assert_tells(header(disk, block, at), ["DDP-BLOCK-HEADER"], code)
        self.check("--quick")

    def test_a_member_that_is_not_given(self):
        """Its absence alone makes nothing damaged, and hides damage of nothing that is there."""
        paths = self.paths(f"{self.work}/group")[:-1]
        *findings, summary = self.check(code=4, paths=paths)
        self.assertEqual({finding["code"] for finding in findings if finding["severity"] != "info"},
                         {"META-DISK-MISSING"})
        self.assertEqual(summary["verdict"], "incomplete")
        record = next(record for record in self.mapped if record[0] == 0 and record[2] == 1)
        self.disks[1].put_bit(record[3], 0)
        self.assertIn("DDP-UNIT-FREE", self.check(code=4, paths=paths)[-1]["codes"])
        self.disks[1].put(DATA + 124, 1 << 40)  # a hash map that leaves the disk
        self.disks[1].seal(0, copies=False)
        self.assertIn("DDP-REGION", self.check(code=4, paths=paths)[-1]["codes"])

    def test_blocks_that_cannot_be_read(self):
        disk = self.disks[0]
        findings = self.check_failing(disk.at(disk.xmap + 1))[:-1]
        lost = [finding for finding in findings if finding["code"] == "DDP-UNREADABLE"]
        self.assertEqual([finding["offset"] for finding in lost], [disk.at(disk.xmap + 1)] * 3)  # one a disk


class LargeDedup(CheckCase):
    """Bitmaps of three blocks, the last one behind the units: the windows of little memory are three, too."""

    sample = ["--layout", "dedup", "--disks", "2", "--seed", "7", "--disk-size", "131M"]
    disk_class = DedupDisk

    def test_every_window_and_block_is_looked_at(self):
        disk = self.disks[1]
        self.assertEqual(self.disks[0].xmap - self.disks[0].bmap, 3)
        units = 0, 32447, 32448, disk.units - 1

        def in_use_but_unreferenced():
            for unit in units[1:]:
                disk.put_bit(unit, 1)
            return DATA + (units[1] + 2 * disk.data) * UNIT

        def block_behind_the_units():
            disk.flip(disk.at(disk.bmap + 2) + 4000)
            return disk.at(disk.bmap + 2) + 16

        for options in [], ["--memory", "1"]:
            self.assert_tells(in_use_but_unreferenced, ["DDP-UNIT-UNREFERENCED"], 0, *options)
            self.assert_tells(block_behind_the_units, ["DDP-BLOCK-HEADER", "DDP-COPY"], 4, *options)

    def test_the_progress_ends_at_its_end(self):
        for options in [], ["--memory", "1"], ["--quick"]:
            result = subprocess.run([KAB, "check", "--progress=json", *options, *self.paths()], stdout=subprocess.DEVNULL,
                                    stderr=subprocess.PIPE, check=True)
            ends = [line for line in json_lines.parse(result.stderr) if line["finished"]]
            self.assertEqual([line["task"] for line in ends], ["check log"] + ([] if "--quick" in options else ["check dedup"]))
            for line in ends:
                self.assertEqual(line["done"], line["total"] or 0)


class DedupShapes(CheckCase):
    """Layouts with and without second copies, map bitmaps, a hash map, an expansion of the translation map."""

    sample = ["--layout", "dedup", "--disks", "3"]
    disk_class = DedupDisk

    def test_each_is_clean_and_its_damage_told(self):
        for mode, copies, map_bitmaps, hash_map, expansion in (
                (2, 1, 1, 1, 5), (2, 1, 0, 1, 3), (2, 0, 0, 1, 0), (2, 1, 1, 0, 2), (1, 1, 1, 1, 4), (1, 0, 0, 0, 0)):
            shape = [str(part) for part in (mode, copies, map_bitmaps, hash_map, expansion)]
            folder = f"{self.work}/group"
            subprocess.run([DEDUP_SHAPE, folder, *shape], check=True)
            self.assertEqual(self.check()[-1]["codes"], {"LOG-END": 2}, shape)
            for image in self.disks:
                image.file.close()
            self.disks = [DedupDisk(path) for path in self.paths(folder)[1:]]
            disk = self.disks[1]
            written = disk.data + expansion - 1  # the expansion's last block; the copy of all follows

            def last_block_of_the_map_free():
                index = 4 * ((16 << 20) - DATA - 16896 >> 12) // 225
                block = written if expansion else disk.xmap + index
                unit = (disk.word(disk.at(block) + 46 + 224 * 18 + 8) >> 8 & NO_UNIT) - disk.data
                disk.put_bit(unit, 0) if copies else self.put_bit_alone(disk, unit)
                return DATA + (unit + 2 * disk.data) * UNIT

            def expansion_spoilt():
                disk.flip(disk.at(written) + 900)
                return disk.at(written) + 16

            def copy_of_the_expansion_spoilt():
                disk.flip(disk.at(written + expansion) + 900)
                return disk.at(written + expansion)

            self.assert_tells(last_block_of_the_map_free, ["DDP-UNIT-FREE"], 3)
            if expansion != 0:
                self.assert_tells(expansion_spoilt, ["DDP-BLOCK-HEADER", "DDP-COPY"], 4)
                self.assert_tells(copy_of_the_expansion_spoilt, ["DDP-COPY"], 0)

    @staticmethod
    def put_bit_alone(disk, unit):
        at = disk.at(disk.bmap) + 40 + unit // 8
        disk.write(at, bytes([disk.read(at, 1)[0] & ~(1 << unit % 8)]))
        disk.seal(disk.bmap, copies=False)


class Compressed(CheckCase):
    sample = ["--layout", "compress", "--disks", "2", "--seed", "6"]
    disk_class = DedupDisk

    def test_each_disk_is_judged_for_itself(self):
        disk = self.disks[1]
        logical, _, first, _ = next(disk.records())

        def used_but_free():
            disk.put_bit(first, 0)
            return DATA + (first + 2 * disk.data) * UNIT

        def in_use_but_unreferenced():
            disk.put_bit(disk.units - 1, 1)

        self.assertEqual(self.check()[-1]["verdict"], "clean")
        self.assert_tells(used_but_free, ["DDP-UNIT-FREE"], 3)
        self.assert_tells(in_use_but_unreferenced, ["DDP-UNIT-UNREFERENCED"], 0)


MASK = (1 << 64) - 1
MIX = ((43, 9, 8), (38, 23, 5), (35, 49, 11), (12, 18, 22))
NO_BLOCK = 0xFFFFFFFFFF5FF


def mix(a, b, c):
    for right, left, last in MIX:
        a = (a - b - c & MASK) ^ c >> right
        b = (b - c - a & MASK) ^ a << left & MASK
        c = (c - a - b & MASK) ^ b >> last
    return a, b, c


def unmix(a, b, c):
    for right, left, last in reversed(MIX):
        c = (c ^ b >> last) + a + b & MASK
        b = (b ^ a << left & MASK) + c + a & MASK
        a = (a ^ c >> right) + b + c & MASK
    return a, b, c


def mix_words(words, count):
    """The state of a log checksum after the first `count` words."""
    state = 42, 42, 0x9E3779B97F4A7C13
    for k in range(0, count, 3):
        state = mix(*(x + w & MASK for x, w in zip(state, words[k:k + 3])))
    return state


def block_checksum(content):
    words = list(struct.unpack("<512Q", content))
    words[7] = 0
    a, b, c = mix_words(words, 510)
    return mix(a + words[510] & MASK, b + words[511] & MASK, c + 512 & MASK)[2]


def record_checksum(content):
    words = list(struct.unpack("<17Q", content[:136])) + [struct.unpack("<I", content[136:140])[0] << 8]
    words[16] &= 0xFFFFFFFF  # the checksum itself begins in its upper half
    a, b, c = mix_words(words, 15)
    return mix(a + words[15] & MASK, b + words[16] & MASK, c + 140 & MASK)[2]


class Log(CheckCase):
    sample = ["--layout", "log", "--disks", "3", "--seed", "5", "--ssd-size", "16M"]

    def setUp(self):
        super().setUp()
        self.start, self.first, self.last = (self.ssd.word(DATA + at) for at in (20, 60, 68))

    def seal(self, block):
        content = self.ssd.read(self.at(block), BLOCK)
        self.ssd.put(self.at(block) + 56, block_checksum(content))

    def seal_record(self, copy):
        at = DATA + copy * BLOCK
        content = bytearray(self.ssd.read(at, 140))
        content[132:140] = bytes(8)
        self.ssd.put(at + 132, record_checksum(bytes(content)))

    @staticmethod
    def at(block):
        return DATA + block * BLOCK

    def spoilt_last_block(self, at, value, form):
        def last_block():
            self.ssd.put(self.at(self.last) + at, value, form)
            self.seal(self.last)
            return self.at(self.last) + at
        return last_block

    def test_checkpoint_records(self):
        self.assertEqual(record_checksum(self.ssd.read(DATA, 132) + bytes(8)), self.ssd.word(DATA + 132))
        for at, value, form in ((0, 2, "<H"), (2, 6, "<H"), (4, 1, "<Q"), (36, 3, "<Q"), (44, 20, "<Q"), (52, 1, "<Q"),
                                (60, 3, "<Q"), (68, 1 << 40, "<Q"), (76, 0, "<Q"), (84, 512, "<I"), (92, 1, "<Q"),
                                (100, 1, "<Q"), (108, 0, "<Q"), (120, 1, "<I"), (132, 1, "<Q")):
            def older_record():
                self.ssd.put(DATA + BLOCK + at, value, form)
                if at != 132:
                    self.seal_record(1)
                return DATA + BLOCK + (44 if at == 36 else at)  # with a first block the LLOG lacks a last one
            self.assert_tells(older_record, ["CPR-INVALID"], 3)

        def both_records():
            for copy in 0, 1:
                self.ssd.flip(DATA + copy * BLOCK + 4)
                self.seal_record(copy)
        self.assert_tells(both_records, ["CPR-INVALID", "CPR-NONE"], 4)

        for copy in 0, 1:  # kab info has no log to show then, and says so
            self.ssd.flip(DATA + copy * BLOCK + 12)
            self.assertEqual(self.json("info", self.paths(f"{self.work}/group")[0], code=4 * copy)[0]["log"] is None,
                             copy == 1)
        self.ssd.restore()

        def write_buffer_leaves_the_disk():
            self.ssd.put(DATA + 100, 1 << 50)
            self.ssd.put(DATA + 28, 1 << 40)
            self.seal_record(0)
            return DATA + 20
        self.assert_tells(write_buffer_leaves_the_disk, ["CPR-INVALID"], 3)

    def test_blocks(self):
        self.assertEqual(block_checksum(self.ssd.read(self.at(self.last), BLOCK)),
                         self.ssd.word(self.at(self.last) + 56))
        for at, value, form in ((0, 2, "<H"), (2, 6, "<H"), (4, 1, "<Q"), (13, 2, "<B"), (24, 7, "<Q")):
            self.assert_tells(self.spoilt_last_block(at, value, form), ["LOG-BLOCK"], 3)
        self.assert_tells(self.spoilt_last_block(16, 3, "<Q"), ["LOG-BLOCK"], 3)

        def torn_in_the_middle():
            self.ssd.flip(self.at(self.first + 5) + 99)
            return self.at(self.first + 4)
        self.assert_tells(torn_in_the_middle, ["LOG-SHORT"], 4)

        def returns_to_its_start():
            # A stored checksum of 0 switches the test of the link off; the last 40 bytes are what that takes.
            self.ssd.put(self.at(self.last) + 16, self.first)
            self.ssd.put(self.at(self.last) + 12, 0, "<B")
            words = list(struct.unpack("<512Q", self.ssd.read(self.at(self.last), BLOCK)))
            words[7] = 0
            a, b, c = unmix(1, 2, 0)
            before = mix_words(words, 507)
            words[507:510] = [x - y & MASK for x, y in zip(unmix(0, 0, c - 512 & MASK), before)]
            words[510:512] = [a, b]
            self.ssd.write(self.at(self.last), struct.pack("<512Q", *words))
        self.assert_tells(returns_to_its_start, ["LOG-CYCLE", "LOG-BLOCK", "PLOG-REPLAY"], 4)

    def test_entries(self):
        for at, value, form, wanted, code in (
                (64 + 20, 5000, "<I", ["LOG-ENTRY-LENGTH", "PLOG-REPLAY"], 4),
                (64 + 28, 2, "<H", ["LOG-ENTRY-PREFIX"], 3), (64 + 48 + 4, 3, "<I", ["LOG-ENTRY-TYPE"], 3),
                (64, 77, "<Q", ["LOG-ENTRY-DISK", "PLOG-REPLAY"], 4)):
            def entry():
                offset = self.spoilt_last_block(at, value, form)()
                return offset - (at - 64)
            self.assert_tells(entry, wanted, code)

        def extent_before_the_write_buffer():
            block = self.at(self.last)
            at = block + 64
            while self.ssd.word(at + 20, "<I") - self.ssd.word(at + 16, "<I") == 48:  # no map
                at += self.ssd.word(at + 20, "<I")
            packed = at + 48 + self.ssd.word(at + 16, "<I") + 2
            self.ssd.write(packed, bytes([self.ssd.read(packed, 1)[0] & 31]))
            self.ssd.write(packed + 2, bytes(5))
            self.seal(self.last)
            return at
        self.assert_tells(extent_before_the_write_buffer, ["LOG-ALLOC-MAP"], 3)

    def test_llog(self):
        """A chain of one block beside the PLOG's."""
        def llog(log_type, spoil=None):
            block = self.last + 60
            self.ssd.write(self.at(block), self.ssd.read(self.at(self.last), BLOCK))
            self.ssd.put(self.at(block) + 13, log_type, "<B")
            self.ssd.put(self.at(block) + 16, block + 1)
            if spoil is not None:
                self.ssd.put(self.at(block) + spoil, 5000, "<I")
            self.seal(block)
            for at, value in (36, block), (44, block), (52, 1):
                self.ssd.put(DATA + at, value)
            self.seal_record(0)
            told = {finding["code"] for finding in self.check(code=3 if log_type == 1 or spoil else 0)[:-1]}
            self.ssd.restore()
            return told - {"LOG-END"}

        self.assertEqual(llog(2), {"LLOG-NOT-REPLAYED"})
        self.assertEqual(llog(1), {"LOG-BLOCK", "LLOG-NOT-REPLAYED"})
        self.assertEqual(llog(2, 64 + 20), {"LOG-ENTRY-LENGTH", "LLOG-BROKEN"})

    def test_what_cannot_be_read(self):
        for fail, wanted in ((DATA + BLOCK, {"CPR-UNREADABLE", "CPR-NONE"}),
                             (self.at(self.first + 3), {"LOG-UNREADABLE", "PLOG-REPLAY"})):
            told = {finding["code"] for finding in self.check_failing(fail) if finding.get("severity") == "damage"}
            self.assertEqual(told, wanted)


class Orlo(CheckCase):
    sample = ["--layout", "orlo", "--seed", "3"]

    def setUp(self):
        super().setUp()
        self.component = next(line for line in self.json("component", "list", *self.paths())[1:]
                              if line["slot"] == 0 and line["hasSuperblock"] and self.levels(line) > 1)
        self.disk = self.disks[0]
        self.leaf = self.first_leaf(self.component)

    def at(self, block):
        return DATA + block * BLOCK

    def levels(self, component):
        levels, block = 1, component["mapBlock"]
        while not self.disks[0].word(self.at(block) + 16, "<H") & 0x8000:
            levels, block = levels + 1, self.disks[0].word(self.at(block) + 1374)
        return levels

    def first_leaf(self, component):
        block = component["mapBlock"]
        while not self.disks[0].word(self.at(block) + 16, "<H") & 0x8000:
            block = self.disks[0].word(self.at(block) + 1374)
        return self.at(block)

    def test_maps(self):
        disk, leaf, root = self.disk, self.leaf, self.at(self.component["mapBlock"])
        records = disk.word(leaf + 16, "<H") & 0x7FFF
        placed = [i for i in range(records) if disk.word(leaf + 1034 + 12 * i) != MASK]
        self.assertGreater(len(placed), 3)
        last = placed[-1]

        def too_many_keys():
            disk.put(root + 16, 0x7FFF, "<H")
            return root

        def empty_leaf():
            disk.put(leaf + 16, 0x8000, "<H")
            return leaf

        def keys_that_fall():
            disk.put(leaf + 18 + 4 * last, disk.word(leaf + 18 + 4 * (last - 1), "<I"), "<I")
            return leaf + 18 + 4 * last

        def runs_that_overlap():
            key = disk.word(leaf + 18 + 4 * (last - 1), "<I")
            disk.put(leaf + 1034 + 12 * (last - 1) + 8,
                     disk.word(leaf + 18 + 4 * last, "<I") - key + 1 | 1 << 26, "<I")
            disk.put(leaf + 1034 + 12 * (last - 1), MASK)
            return leaf + 18 + 4 * last

        def run_behind_the_disk():
            disk.put(leaf + 1034 + 12 * last, 1 << 40)
            return leaf

        def run_mapped_twice():
            disk.put(leaf + 1034 + 12 * last, disk.word(leaf + 1034 + 12 * placed[1]))
            return self.at(disk.word(leaf + 1034 + 12 * placed[1]))

        def run_over_its_own_map():
            disk.put(leaf + 1034 + 12 * last, self.component["mapBlock"])

        def node_that_returns_to_its_root():
            disk.put(root + 1374 + 8, self.component["mapBlock"])
            return root

        def node_behind_the_disk():
            disk.put(root + 1374 + 8, 1 << 30)

        for spoil, wanted, code in (
                (too_many_keys, ["ORLO-MAP", "ORLO-SUPERBLOCK"], 4), (empty_leaf, ["ORLO-MAP", "ORLO-SUPERBLOCK"], 4),
                (keys_that_fall, ["ORLO-MAP-ORDER"], 4), (runs_that_overlap, ["ORLO-MAP-OVERLAP"], 3),
                (run_behind_the_disk, ["ORLO-MAP-BOUNDS"], 3), (run_mapped_twice, ["ORLO-MAP-TWICE"], 3),
                (run_over_its_own_map, ["ORLO-MAP-TWICE"], 3),
                (node_that_returns_to_its_root, ["ORLO-MAP-TWICE"], 4), (node_behind_the_disk, ["ORLO-MAP-BOUNDS"], 4)):
            self.assert_tells(spoil, wanted, code)

    def test_superblocks_that_have_no_place(self):
        """The second component's must not pass for valid because the one before it was."""
        def map_without_records():
            root = self.at(self.component["mapBlock"])
            self.disk.put(root + 16, 0x8000, "<H")
            return root

        before = [line["id"] for line in self.json("component", "list", *self.paths())[1:]
                  if line["slot"] == 0 and line["hasSuperblock"]].index(self.component["id"])
        self.assertGreater(before, 0)
        self.assert_tells(map_without_records, ["ORLO-SUPERBLOCK"], 3)
        self.assert_tells(map_without_records, ["ORLO-SUPERBLOCK"], 3, "--quick")

    def test_a_component_listed_twice(self):
        """Told by its second entry; found, as the library finds it, by its first."""
        disk = self.disk
        entries = DATA + disk.word(DATA + 48) + 52
        first, second = (line["uuid"] for line in self.json("component", "list", *self.paths())[1:3])

        def second_name_is_the_first():
            disk.write(entries + 48 + 24, disk.read(entries + 24, 16))
            return entries + 48

        self.assert_tells(second_name_is_the_first, ["ORLO-REGISTRY-TWICE"], 3, "--quick")
        second_name_is_the_first()
        paths = self.paths(f"{self.work}/group")
        for uuid in first, first.upper():
            self.assertEqual(self.json("component", "info", "-u", uuid, *paths)[0]["id"], 1)
        self.json("component", "info", "-u", second, *paths, code=5)

    def test_too_little_memory_for_a_walk(self):
        told = [finding["code"] for finding in self.check("--memory", "100", code=4)[:-1]]
        self.assertEqual(told.count("ORLO-MAP-SKIPPED"), 2)
        self.check("--memory", "1K")

    def test_heads(self):
        disk = self.disk
        registry = DATA + disk.word(DATA + 48)

        def block0_version():
            disk.put(DATA + 4, 9, "<I")
            return DATA

        def block0_magic():
            disk.write(DATA, b"\x1b[31m\nOut of memory")  # a text to print, and none to believe
            return DATA

        def registry_behind_the_disk():
            disk.put(DATA + 48, 1 << 50)

        def registry_longer_than_its_buffer():
            disk.put(registry + 16, 1 << 40)
            return registry

        def entries_that_are_not_there():
            disk.put(registry + 36, 1 << 30, "<I")
            return registry

        def superblock():
            disk.flip(self.at(disk.word(self.leaf + 1034)))
            return self.at(self.component["mapBlock"])

        for spoil, wanted, code in (
                (block0_version, ["ORLO-BLOCK0"], 4), (block0_magic, ["ORLO-BLOCK0"], 4),
                (registry_behind_the_disk, ["ORLO-REGISTRY"], 4),
                (registry_longer_than_its_buffer, ["ORLO-REGISTRY-SHORT"], 0),
                (entries_that_are_not_there, ["ORLO-REGISTRY"], 4), (superblock, ["ORLO-SUPERBLOCK"], 3)):
            self.assert_tells(spoil, wanted, code)
            if spoil is not entries_that_are_not_there:
                self.assert_tells(spoil, wanted, code, "--quick")


class Metadata(CheckCase):
    sample = ["--layout", "log", "--disks", "3", "--seed", "2", "--ssd-size", "16M"]
    META = 1 << 20

    def test_disks_that_do_not_open(self):
        """The others are judged all the same, and the exit status tells of the refusal."""
        paths = self.paths(f"{self.work}/group")
        self.disks[1].flip(self.META + 12)  # another UUID: a foreign disk
        *findings, summary = self.check(code=5)
        refused = next(finding for finding in findings if finding["code"] == "META-DISK-REFUSED")
        self.assertEqual(refused["disk"], paths[2])
        self.assertIn("is not part of given diskgroup", refused["text"])
        self.assertIn("LOG-END", summary["codes"])
        self.disks[1].restore()
        for path in "missing", self.work:
            summary = self.check(code=1, paths=paths + [path])[-1]
            self.assertEqual((summary["codes"]["META-DISK-UNOPENED"], summary["complete"]), (1, False))

    def test_metadata_blocks(self):
        def not_unmounted():
            self.disks[2].put(self.META + 11, 0, "<B")
            return self.META + 11

        def modes():
            self.disks[0].put(self.META + 11, self.disks[0].word(self.META + 11, "<B") | 3 << 2, "<B")

        def disk_twice():
            self.ssd.write(self.META + 60 + 4 * 16, self.ssd.read(self.META + 60, 16))
            return self.META + 60 + 4 * 16

        self.assert_tells(not_unmounted, ["META-MOUNTED"], 0, "--skip-unmount-check")
        self.assert_tells(modes, ["META-MODES-DIFFER"], 0)
        ssd_last = sorted(self.paths(f"{self.work}/group"))
        codes = self.check(code=5, paths=ssd_last)[-1]["codes"]
        self.assertEqual((codes["META-TABLE-EMPTY"], codes["META-DISK-REFUSED"]), (1, 3))
        self.assert_tells(disk_twice, ["META-SLOT-TWICE", "META-DISK-MISSING"], 4)
        self.disks[0].put(self.META + 468, 19, "<B")
        self.assertEqual(self.check()[-1]["codes"]["META-VERSION-DIFFERS"], 1)
        self.disks[0].restore()
        uuid = self.disks[0].read(self.META + 12, 16)
        self.disks[0].write(self.META + 8, bytes([11, 1]) + uuid)  # another layout: state and UUID lie elsewhere
        codes = self.check(code=4)[-1]["codes"]
        self.assertEqual((codes["META-DISK-APART"], codes["META-DISK-MISSING"]), (1, 1))


class Golden(GroupCase):
    """Whole outputs, of groups as they are made and with some damage of each kind; KAB_UPDATE_GOLDEN writes them anew."""

    sample = ["--layout", "dedup", "--disks", "1"]
    GROUPS = {
        "log": ["--layout", "log", "--disks", "2", "--ssd-size", "16M"],
        "dedup": ["--layout", "dedup", "--disks", "2", "--seed", "4"],
        "orlo": ["--layout", "orlo-log", "--disks", "2", "--seed", "3"]}

    @staticmethod
    def spoil_log(disks):
        ssd = disks[0]
        last = ssd.word(DATA + 68)
        ssd.flip(DATA + 20)  # the newer checkpoint record's write buffer
        content = bytearray(ssd.read(DATA + last * BLOCK, BLOCK))
        content[13] = 9
        content[64:80] = bytes(16)
        content[56:64] = struct.pack("<Q", block_checksum(bytes(content)))
        ssd.write(DATA + last * BLOCK, bytes(content))

    @staticmethod
    def spoil_dedup(disks):
        disk = disks[2]
        record = next(disk.records())
        disks[1 + record[1]].put_bit(record[2], 0)
        disk.put_bit(disk.units - 1, 1)
        disk.flip(disk.at(disk.hmap + 1) + 2000)
        disk.flip(disk.at(disk.hmap + disk.hmap_size) + 200)

    @staticmethod
    def spoil_orlo(disks):
        registry = DATA + disks[1].word(DATA + 48)
        disks[1].put(registry + 16, 1 << 40)
        disks[2].put(DATA + 4, 9, "<I")

    def test_outputs(self):
        for group, options in self.GROUPS.items():
            self.kab("sample", *options, group)
            paths = [f"{group}/ssd.img", f"{group}/disk0.img", f"{group}/disk1.img"]
            self.compare(f"info_{group}", 0, "info", "--scan", *paths)
            self.compare(f"check_{group}", 0, "check", *paths)
            disks = [(DedupDisk if group == "dedup" and number else Image)(f"{self.work}/{path}")
                     for number, path in enumerate(paths)]
            getattr(self, f"spoil_{group}")(disks)
            for disk in disks:
                disk.file.close()
            self.compare(f"check_{group}_spoilt", {"log": 3, "dedup": 4, "orlo": 4}[group], "check", *paths)

    def compare(self, name, code, *arguments):
        folder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "golden")
        for form, ending in ([], "txt"), (["--json"], "json"):
            path = os.path.join(folder, f"{name}.{ending}")
            output = self.kab(*form, *arguments, code=code)
            if form:
                json_lines.parse(output)
            if "KAB_UPDATE_GOLDEN" in os.environ:
                with open(path, "wb") as file:
                    file.write(output)
            self.assertEqual(output.decode(), read_file(path).decode(), name)


class Document(unittest.TestCase):
    def test_every_code_is_described_and_exists(self):
        root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
        pattern = re.compile(r'[`"]((?:META|CPR|LOG|PLOG|LLOG|DDP|ORLO)-[A-Z0-9-]+)[`"]')
        source = {code for name in os.listdir(f"{root}/tools/kab") if name.endswith((".cc", ".h"))
                  for code in pattern.findall(read_file(f"{root}/tools/kab/{name}").decode())}
        document = pattern.findall(read_file(f"{root}/docs/findings.md").decode())
        self.assertEqual(sorted(source), sorted(document))  # once each
        self.assertEqual(source - set(pattern.findall(read_file(os.path.abspath(__file__)).decode())), set())


if __name__ == "__main__":
    unittest.main()
