"""The Python package over groups with a log, with a dedup layer and with components, made by `kab sample` together with
pictures of what a reader should get."""

import glob
import json
import os
import shutil
import subprocess
import tempfile
import unittest

import kab

MIB = 1 << 20
DATA = 3 * MIB
TOOL = os.environ["KAB_TOOL"]


class LayoutCase(unittest.TestCase):
    """A sample group made once a class; a test that spoils something works on a copy."""

    layout = ""

    @classmethod
    def setUpClass(cls):
        if not cls.layout:
            raise unittest.SkipTest("the base of the others")
        parent = tempfile.TemporaryDirectory()
        cls.addClassCleanup(parent.cleanup)
        cls.folder = os.path.join(parent.name, "group")
        command = [TOOL, "sample", "--layout", cls.layout, "--disks", "2", "--with-picture", cls.folder]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    def group(self, folder=None):
        group = kab.Group(*self.paths(folder))
        self.addCleanup(group.close)
        return group

    def paths(self, folder=None):
        folder = folder or self.folder
        return os.path.join(folder, "ssd.img"), [os.path.join(folder, f"disk{i}.img") for i in range(2)]

    def read(self, name):
        with open(os.path.join(self.folder, name), "rb") as file:
            return file.read()

    def spoilt(self, name, offset):
        """A copy of the group with one bit changed."""
        parent = tempfile.TemporaryDirectory()
        self.addCleanup(parent.cleanup)
        folder = os.path.join(parent.name, "group")
        shutil.copytree(self.folder, folder)
        with open(os.path.join(folder, name), "r+b") as file:
            file.seek(offset)
            byte = file.read(1)[0]
            file.seek(offset)
            file.write(bytes([byte ^ 1]))
        return folder

    def findings(self, folder=None):
        ssd, disks = self.paths(folder)
        return list(kab.check(ssd, disks))

    def assert_same(self, found, expected):
        self.assertTrue(found == expected, f"{len(found)} bytes are not the {len(expected)} expected")

    def assert_found(self, name, offset, code):
        found = self.findings(self.spoilt(name, offset))
        self.assertIn(code, {finding.code for finding in found}, f"after a change at {offset} of {name}")
        self.assertTrue(all(finding.disk and finding.text for finding in found))


class LogTest(LayoutCase):
    layout = "log"

    def test_entries_are_those_that_the_tool_lists(self):
        ssd, disks = self.paths()
        listed = subprocess.run([TOOL, "--json", "log", "--only", "plog", ssd, *disks], check=True, capture_output=True)
        lines = [json.loads(line) for line in listed.stdout.splitlines()]
        expected = [line for line in lines if "entry" in line]
        found = list(self.group().log_entries())
        self.assertGreater(len(found), 100)
        self.assertEqual(len(found), len(expected))
        for entry, line in zip(found, expected):
            self.assertEqual(entry.block_offset + entry.entry_offset, line["offset"])
            self.assertEqual((entry.disk_uuid, entry.type), (line["uuid"], line["typeCode"]))
            self.assertEqual(entry.lsns, tuple(line["lsns"]) if "lsns" in line else (line["lsn"],))
            self.assertEqual((entry.lba, entry.length), (line.get("lba"), line.get("length")))
            self.assertEqual(len(entry.data), line["entryLength"])

    def test_a_walk_of_the_log_ends_with_its_group(self):
        group = self.group()
        walk = group.log_entries()
        first = next(walk)
        group.close()
        with self.assertRaisesRegex(ValueError, "closed"):  # at the next block at the latest
            while next(walk).block_offset == first.block_offset:
                pass
        with self.assertRaisesRegex(ValueError, "closed"):
            group.log_entries()

    def test_a_disk_is_a_file_as_its_group_sees_it(self):
        group = self.group()
        with self.assertRaisesRegex(kab.KabError, "reading"):  # before the replay
            group.disks[0].open(group_view=True).read(1)
        group.replay()
        for disk in group.disks:
            picture = self.read(f"disk{disk.index}.picture")
            with disk.open(group_view=True) as file:
                self.assert_same(file.read(len(picture)), picture)
                file.seek(len(picture) - 12345)
                self.assert_same(file.read(5000), picture[-12345:][:5000])
            self.assertFalse(disk.read_at(DATA, len(picture)) == picture)  # the log does matter

    def test_damage_is_found(self):
        self.assertEqual(self.findings(), [])
        self.assert_found("ssd.img", DATA + 20, "CPR-INVALID")
        entry = next(iter(self.group().log_entries()))
        # A block that is spoilt is where the log ends, which is no damage: what was before it is read.
        folder = self.spoilt("ssd.img", entry.block_offset + 100)
        self.assertEqual(list(self.group(folder).log_entries()), [])
        with open(os.path.join(folder, "ssd.img"), "r+b") as file:
            for copy in range(2):
                file.seek(DATA + copy * 4096 + 4)
                file.write(b"no magic")
        self.assertEqual([finding.code for finding in self.findings(folder)][-1], "CPR-NONE")
        with self.assertRaises(kab.KabError):
            self.group(folder).replay()


class DedupTest(LayoutCase):
    layout = "dedup"

    def test_packed_blocks_read_as_they_were(self):
        group = self.group()
        group.replay()
        for disk in group.disks:
            self.assertEqual(disk.dedup_mode, 2)
            picture = self.read(f"disk{disk.index}.picture")
            self.assertGreater(len(picture), MIB)
            with disk.open(group_view=True) as file:
                self.assert_same(file.read(len(picture)), picture)

    def test_the_whole_of_a_disk_is_what_the_tool_reads(self):
        ssd, disks = self.paths()
        command = [TOOL, "read", "--as-group", "--disk", "0", "--range", "0:", ssd, *disks]
        expected = subprocess.run(command, check=True, capture_output=True).stdout
        group = self.group()
        group.replay()
        self.assertGreater(len(expected), group.disks[0].usable_size)  # packed, more than the disk could hold
        with group.disks[0].open(group_view=True) as file:
            self.assert_same(file.read(), expected)

    def test_damage_is_found(self):
        self.assertEqual(self.findings(), [])
        for offset in (DATA, DATA + 84, DATA + 116):
            self.assert_found("disk1.img", offset, "DDP-SUPERBLOCK")


class ComponentCase:
    """Components with pictures: their bytes from the superblock on."""

    def pictures(self):
        for path in sorted(glob.glob(os.path.join(self.folder, "*-*.picture"))):
            yield os.path.basename(path)[: -len(".picture")], self.read(os.path.basename(path))

    def allocated(self, uuid, start):
        """The allocated runs of the map that the tool lists, joined where they touch."""
        ssd, disks = self.paths()
        command = [TOOL, "--json", "component", "map", "-u", uuid, ssd, *disks]
        listed = subprocess.run(command, check=True, capture_output=True)
        runs = []
        for line in map(json.loads, listed.stdout.splitlines()[1:]):
            if line["type"] != 1 or line["offset"] < start:
                continue
            offset, length = line["offset"] - start, line["length"]
            if runs and sum(runs[-1]) == offset:
                offset, length = runs[-1][0], runs.pop()[1] + length
            runs.append((offset, length))
        return runs

    def test_components_read_as_they_were(self):
        group, seen = self.group(), 0
        start = 4 * MIB if group.ssd.format_version else 2 * MIB
        for uuid, picture in self.pictures():
            with group.component(uuid) as component:
                length = len(picture) - start
                self.assert_same(component.read_at(0, length), picture[start:])
                for offset, count in ((1, 4097), (4095, 2), (length // 2 + 7, 70001), (length - 3, 3), (0, 0)):
                    self.assert_same(component.read_at(offset, count), picture[start + offset :][:count])
                self.assertEqual(list(component.extents()), self.allocated(uuid, start))
            with self.assertRaises(ValueError):
                component.read_at(0, 1)
            seen += 1
        self.assertGreater(seen, 3)

    def test_a_component_ends_with_its_disk(self):
        group = self.group()
        ssd, disks = self.paths()
        listed = subprocess.run([TOOL, "--json", "component", "list", ssd, *disks], check=True, capture_output=True)
        of_disk = {line["uuid"]: line["disk"] for line in map(json.loads, listed.stdout.splitlines()[1:])}
        self.assertIn(group.disks[1].uuid, of_disk.values())
        opened = {uuid: group.component(uuid) for uuid in of_disk}
        group.disks[1].close()
        for uuid, component in opened.items():
            if of_disk[uuid] == group.disks[0].uuid:
                component.read_at(0, 1)
                continue
            with self.assertRaisesRegex(ValueError, "closed"):
                component.read_at(0, 1)
            component.close()

    def test_what_is_not_there_is_told(self):
        group = self.group()
        with group.component(next(self.pictures())[0]) as component:
            for offset, length in ((-1, 1), (0, -1), (1 << 63, 1), (1 << 64, 1), ((1 << 63) - 1, 1)):
                with self.subTest(offset=offset), self.assertRaises(ValueError):
                    component.read_at(offset, length)
        for uuid in ("00000000-0000-0000-0000-000000000000", "no uuid"):
            with self.assertRaises(kab.KabError) as caught:
                group.component(uuid)
            self.assertEqual(caught.exception.status, kab.Status.NOT_FOUND)

    def test_damage_is_found(self):
        self.assertEqual(self.findings(), [])
        self.assert_found("disk0.img", DATA, "ORLO-BLOCK0")


class OrloTest(ComponentCase, LayoutCase):
    layout = "orlo"


class LoggedOrloTest(ComponentCase, LayoutCase):
    layout = "orlo-log"


if __name__ == "__main__":
    unittest.main()
