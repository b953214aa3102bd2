#!/usr/bin/env python3
"""Drives the real tool over groups with a log and with components, against the pictures that the sample builder keeps.

  group_test.py KAB [unittest arguments]
"""
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

import json_lines

KAB = os.path.abspath(sys.argv.pop(1))
MIB = 1 << 20
DATA = 3 * MIB


def read_file(path, offset=0, length=-1):
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(length)


def flip(path, offset):
    with open(path, "r+b") as file:
        file.seek(offset)
        byte = file.read(1)[0]
        file.seek(offset)
        file.write(bytes([byte ^ 1]))


class GroupCase(unittest.TestCase):
    """A sample group made once a class; a test that spoils something works on a copy."""

    sample = []

    @classmethod
    def setUpClass(cls):
        if cls is GroupCase:
            raise unittest.SkipTest("the base of the others")
        cls.shared = tempfile.mkdtemp(prefix="kab-group-")
        subprocess.run([KAB, "sample", *cls.sample, "--with-picture", f"{cls.shared}/group"], check=True,
                       stdout=subprocess.DEVNULL)
        cls.folder = f"{cls.shared}/group"

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.shared)

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="kab-group-")

    def tearDown(self):
        shutil.rmtree(self.work)

    def paths(self, folder=None):
        folder = folder or self.folder
        return [f"{folder}/ssd.img"] + sorted(f"{folder}/{name}" for name in os.listdir(folder)
                                              if name.startswith("disk") and name.endswith(".img"))

    def copy(self):
        folder = f"{self.work}/group"
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(self.folder, folder)
        return folder

    def kab(self, *arguments, code=0):
        result = subprocess.run([KAB, *arguments], cwd=self.work, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                timeout=300)
        self.assertEqual(result.returncode, code, f"kab {' '.join(arguments)}\n{result.stderr.decode()}")
        return result.stdout

    def assert_same(self, found, expected):
        """Megabytes in place of a diff of them."""
        self.assertEqual(len(found), len(expected))
        if found != expected:
            at = next(i for i, (a, b) in enumerate(zip(found, expected)) if a != b)
            self.fail(f"the first difference is at {at}")

    def json(self, *arguments, code=0):
        return json_lines.parse(self.kab("--json", *arguments, code=code))

    def findings(self, folder, code):
        lines = self.json("check", *self.paths(folder), code=code)
        return [line for line in lines if "severity" in line], lines[-1]

    def assert_found(self, folder, wanted, code):
        findings, summary = self.findings(folder, code)
        self.assertIn(wanted, {finding["code"] for finding in findings})
        self.assertEqual(sum(summary["codes"].values()), len(findings))


class Log(GroupCase):
    sample = ["--layout", "log", "--disks", "3", "--seed", "5", "--ssd-size", "64M"]

    def picture(self, disk):
        return read_file(f"{self.folder}/disk{disk}.picture")

    def test_a_disk_reads_as_its_group_sees_it(self):
        dice = random.Random(1)
        for disk in range(3):
            picture = self.picture(disk)
            self.assert_same(self.kab("read", "--as-group", "-d", str(disk), "-r", f"0:{len(picture)}", *self.paths()),
                             picture)
            raw = self.kab("read", "-d", str(disk), "-r", f"{DATA}:{len(picture)}", *self.paths())
            self.assertTrue(raw != picture)  # the log does matter
            for _ in range(5):
                offset = dice.randrange(len(picture))
                length = dice.randrange(1, min(300000, len(picture) - offset) + 1)
                self.assert_same(self.kab("read", "--as-group", "-d", str(disk), "-r", f"{offset}:{length}",
                                          *self.paths()), picture[offset:offset + length])
        self.kab("read", "--as-group", "-d", "ssd", "-r", "0:1", *self.paths(), code=2)
        self.kab("read", "--explain", "-d", "0", "-r", "0:1", *self.paths(), code=2)

    def test_every_piece_is_where_explain_says(self):
        picture = self.picture(1)
        files = {"write buffer": f"{self.folder}/ssd.img", "disk": f"{self.folder}/disk1.img"}
        pieces = self.json("read", "--as-group", "--explain", "-d", "1", "-r", f"0:{len(picture)}", *self.paths())[1:]
        at = 0
        for piece in pieces:
            self.assertEqual(piece["offset"], at)
            expected = picture[at:at + piece["length"]]
            if piece["source"] == "zero write":
                self.assert_same(expected, bytes(piece["length"]))
            else:
                self.assert_same(read_file(files[piece["source"]], piece["place"], piece["length"]), expected)
            at += piece["length"]
        self.assertEqual(at, len(picture))
        self.assertEqual({piece["source"] for piece in pieces}, {"write buffer", "zero write", "disk"})

    def test_the_log_is_listed_to_its_end(self):
        header, *lines = self.json("log", *self.paths())
        entries = [line for line in lines if "entry" in line]
        ends = {line["log"]: line for line in lines if "end" in line}
        self.assertEqual([record["chosen"] for record in header["checkpoints"]], [True, False])
        self.assertGreater(len(entries), 800)
        self.assertEqual({entry["type"] for entry in entries}, {"write", "release"})
        self.assertEqual({entry["slot"] for entry in entries}, {0, 1, 2})
        self.assertEqual(ends["PLOG"]["end"], "the next block is torn or was never written")
        self.assertEqual(ends["LLOG"]["end"], "it is empty")
        lsns = [entry["lsn"] for entry in entries if entry["type"] == "write"]
        self.assertEqual(lsns, list(range(1, len(lsns) + 1)))
        write = next(entry for entry in entries if entry["type"] == "write" and "offset" in entry["extents"][0])
        self.assertLess(write["extents"][0]["offset"], os.path.getsize(f"{self.folder}/ssd.img"))
        text = self.kab("log", "--only", "plog", *self.paths()).decode()
        self.assertEqual(text.count("\n"), 2 + 1 + len(entries) + 1)

    def test_a_torn_block_ends_the_log_earlier(self):
        folder = self.copy()
        blocks = {line["block"] for line in self.json("log", *self.paths(folder)) if "block" in line}
        flip(f"{folder}/ssd.img", DATA + (min(blocks) + 20) * 4096 + 100)
        end = next(line for line in self.json("log", *self.paths(folder)) if line.get("log") == "PLOG" and "end" in line)
        self.assertEqual(end["blocks"], 20)

    def test_checkpoint_records_are_judged(self):
        for spoilt, code, chosen in ([0], 3, [False, True]), ([1], 3, [True, False]), ([0, 1], 4, [False, False]):
            folder = self.copy()
            for copy in spoilt:
                flip(f"{folder}/ssd.img", DATA + copy * 4096 + 20)
            header = self.json("log", *self.paths(folder), code=code)[0]
            self.assertEqual([record["chosen"] for record in header["checkpoints"]], chosen)
            self.assert_found(folder, "CPR-INVALID" if len(spoilt) == 1 else "CPR-NONE", code)
        self.kab("read", "--as-group", "-d", "0", "-r", "0:1", *self.paths(folder), code=4)

    def test_check_is_clean_and_tells_of_what_is_not(self):
        findings, summary = self.findings(self.folder, 0)
        self.assertEqual(summary["verdict"], "clean")
        self.assertEqual({finding["severity"] for finding in findings}, {"info"})

        lines = self.json("check", *self.paths()[:-1], code=4)
        self.assertIn("META-DISK-MISSING", {line.get("code") for line in lines})
        self.assertEqual(lines[-1]["verdict"], "incomplete")

        folder = self.copy()
        with open(f"{folder}/ssd.img", "r+b") as ssd:  # slot 4 names the disk of slot 1
            ssd.seek(MIB + 60 + 16)
            uuid = ssd.read(16)
            ssd.seek(MIB + 60 + 4 * 16)
            ssd.write(uuid)
        self.assert_found(folder, "META-SLOT-TWICE", 4)

        folder = self.copy()
        before = read_file(f"{folder}/ssd.img")
        self.findings(folder, 0)
        self.assert_same(read_file(f"{folder}/ssd.img"), before)  # nothing is ever written


class Dedup(GroupCase):
    sample = ["--layout", "dedup", "--disks", "3", "--seed", "4"]

    def test_logical_bytes_read_with_and_without_the_log(self):
        for disk in range(3):
            picture = read_file(f"{self.folder}/disk{disk}.picture")
            for how in "--logical", "--as-group":
                self.assert_same(self.kab("read", how, "-d", str(disk), "-r", f"0:{len(picture)}", *self.paths()), picture)
        piece = self.json("read", "--as-group", "--explain", "-d", "1", "-r", "0:64K", *self.paths())[1]
        self.assertEqual((piece["source"], piece["place"]), ("dedup layer", None))

    def test_check_is_clean_and_tells_of_what_is_not(self):
        self.assertEqual(self.findings(self.folder, 0)[1]["verdict"], "clean")
        for offset, code, exit_code in ((DATA + 56, "DDP-SUPERBLOCK", 4), (DATA + 84, "DDP-SUPERBLOCK", 3),
                                        (DATA, "DDP-SUPERBLOCK", 4)):
            folder = self.copy()
            flip(f"{folder}/disk1.img", offset)
            self.assert_found(folder, code, exit_code)
        superblock = read_file(f"{self.folder}/disk2.img", DATA, 4096)
        for start_at, code in (84, 3), (132, 4), (116, 4), (148, 4):  # a block of each metadata region
            folder = self.copy()
            flip(f"{folder}/disk2.img", DATA + struct.unpack_from("<Q", superblock, start_at)[0] * 4096 + 200)
            self.assert_found(folder, "DDP-BLOCK-HEADER", code)
        self.kab("check", "--quick", *self.paths(folder))


class Orlo(GroupCase):
    sample = ["--layout", "orlo", "--seed", "3"]

    def components(self):
        """Those that have a superblock."""
        listed = self.json("component", "list", *self.paths())[1:]
        self.assertEqual(len(listed), 8)
        return [component for component in listed if component["hasSuperblock"]]

    def replayed(self, slot):
        """A disk's data area as the group sees it: what the log holds is not on the disk."""
        return self.kab("read", "--as-group", "-d", str(slot), "-r", "0:", *self.paths())

    def test_components_are_listed_and_read(self):
        components = self.components()
        self.assertEqual(len(components), 6)
        for component in components:
            self.assertTrue(component["superblockValid"] and component["mapWhole"])
            picture = read_file(f"{self.folder}/{component['uuid']}.picture")
            out = f"{self.work}/out"
            self.kab("component", "read", "-u", component["uuid"], "-f", "-o", out, *self.paths())
            self.assert_same(read_file(out), picture)
            self.assertLess(os.stat(out).st_blocks * 512, len(picture))  # sparse
            self.assert_same(self.kab("component", "read", "-u", component["uuid"], "-o", "-", *self.paths()), picture)
            info = self.json("component", "info", "-u", component["uuid"], *self.paths())[0]
            self.assertEqual({key: info[key] for key in component}, component)
        self.kab("component", "info", "-u", "00000000-0000-0000-0000-000000000001", *self.paths(), code=5)
        self.kab("component", "read", "-u", components[0]["uuid"], *self.paths(), code=2)

    def test_the_map_tells_where_the_bytes_are(self):
        for component in self.components():
            picture = read_file(f"{self.folder}/{component['uuid']}.picture")
            disk = self.replayed(component["slot"])
            end = allocated = 0
            for extent in self.json("component", "map", "-u", component["uuid"], *self.paths())[1:]:
                self.assertGreaterEqual(extent["offset"], end)
                end = extent["offset"] + extent["length"]
                expected = picture[extent["offset"]:end]
                if extent["place"] is None:
                    self.assert_same(expected, bytes(extent["length"]))
                else:
                    allocated += extent["length"]
                    place = extent["place"] - DATA
                    self.assert_same(disk[place:place + extent["length"]], expected)
            self.assertEqual((end, allocated), (component["end"], component["allocated"]))

    def test_damage_is_told_and_the_rest_goes_on(self):
        self.assertEqual(self.findings(self.folder, 0)[1]["verdict"], "clean")
        component = self.components()[0]
        disk = f"disk{component['slot']}.img"
        place = self.json("component", "map", "-u", component["uuid"], *self.paths())[1]["place"]

        folder = self.copy()
        flip(f"{folder}/{disk}", place)  # the superblock's magic
        self.assert_found(folder, "ORLO-SUPERBLOCK", 3)
        listed = self.json("component", "list", *self.paths(folder), code=3)[1:]
        self.assertEqual([line["uuid"] for line in listed if line["hasSuperblock"] and not line["superblockValid"]],
                         [component["uuid"]])

        folder = self.copy()
        flip(f"{folder}/{disk}", DATA)  # block 0's magic
        self.assert_found(folder, "ORLO-BLOCK0", 4)

        folder = self.copy()
        registry = struct.unpack("<Q", read_file(f"{folder}/{disk}", DATA + 48, 8))[0]
        with open(f"{folder}/{disk}", "r+b") as image:  # more entries than the registry holds
            image.seek(DATA + registry + 36)
            image.write(struct.pack("<I", 2**32 - 1))
        self.assert_found(folder, "ORLO-REGISTRY", 4)

        folder = self.copy()
        with open(f"{folder}/{disk}", "r+b") as image:  # a root without a count: a leaf of no entries or a bad node
            image.seek(DATA + component["mapBlock"] * 4096 + 16)
            image.write(b"\xff\x7f")
        self.assert_found(folder, "ORLO-MAP", 4)
        self.kab("component", "read", "-u", component["uuid"], "-f", "-o", f"{self.work}/out", *self.paths(folder),
                 code=4)

    def test_a_run_that_leaves_the_disk_fills_no_file(self):
        component = next(one for one in self.components() if one["slot"] == 0)  # its map is one leaf
        folder = self.copy()
        with open(f"{folder}/disk0.img", "r+b") as image:
            leaf = DATA + component["mapBlock"] * 4096
            image.seek(leaf + 16)
            record = leaf + 1034 + 12 * ((struct.unpack("<H", image.read(2))[0] & 0x7fff) - 1)
            image.seek(record)
            image.write(struct.pack("<QI", 64, 1 << 26 | 0x3ffffff))  # 256 GiB from block 64 on
        out = f"{self.work}/out"
        self.kab("component", "read", "-u", component["uuid"], "-o", out, *self.paths(folder), code=4)
        self.assertGreater(os.path.getsize(out), 1 << 37)
        self.assertLess(os.stat(out).st_blocks * 512, 64 * MIB)


class LoggedOrlo(Orlo):
    sample = ["--layout", "orlo-log", "--seed", "3"]
    test_a_run_that_leaves_the_disk_fills_no_file = None  # the map is in the log

    def test_damage_is_told_and_the_rest_goes_on(self):
        """Damage on the disk under what the log holds is no damage."""
        component = self.components()[0]
        folder = self.copy()
        flip(f"{folder}/disk{component['slot']}.img", DATA + component["mapBlock"] * 4096 + 16)
        self.assertEqual(self.findings(folder, 0)[1]["verdict"], "clean")


if __name__ == "__main__":
    unittest.main()
