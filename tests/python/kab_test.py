"""The Python package over a sample group: what the library does is tested elsewhere, here what the layer adds."""

import hashlib
import io
import os
import random
import subprocess
import tempfile
import unittest
import zlib

import kab

MIB = 1 << 20


class GroupCase(unittest.TestCase):
    """A sample group in a folder of its own, opened."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        subprocess.run([os.environ["SAMPLE_GROUP"], self.folder], check=True)
        self.ssd, self.disk0, self.disk1 = (self.path(name) for name in ("ssd.img", "disk0.img", "disk1.img"))
        self.group = kab.Group(self.ssd, [self.disk1, self.disk0])
        self.addCleanup(self.group.close)
        self.disk = self.group.disks[1]
        with open(self.disk0, "rb") as file:
            self.image = file.read()

    def path(self, name):
        return os.path.join(self.folder, name)


class OpenTest(GroupCase):
    def test_disks_know_their_place(self):
        self.assertEqual([(disk.path, disk.index) for disk in self.group.disks], [(self.disk1, 1), (self.disk0, 0)])
        self.assertEqual(self.group.ssd.index, -1)
        self.assertEqual(self.disk.size, len(self.image))
        self.assertEqual(self.disk.usable_size, len(self.image) - 3 * MIB - 16896)
        self.assertEqual(self.disk.metadata, self.image[MIB : MIB + 4096])
        self.assertEqual(self.disk.uuid.replace("-", ""), self.image[MIB + 12 : MIB + 28].hex())
        self.assertFalse(self.disk.encrypted)

    def test_failures_carry_the_librarys_lines(self):
        cases = (
            (lambda: kab.Group(self.path("absent")), kab.Status.OPEN_FAILED, "Failed to open device"),
            (lambda: kab.Group(self.ssd, [self.disk0, self.ssd]), kab.Status.OPEN_FAILED, "not part of given diskgroup"),
            (lambda: self.group.ssd.close(), kab.Status.BUSY, ""),
        )
        for act, status, line in cases:
            with self.subTest(line=line), self.assertRaises(kab.KabError) as caught:
                act()
            self.assertEqual(caught.exception.status, status)
            self.assertIn(line, "\n".join(caught.exception.messages))
        with self.assertLogs("kab", "DEBUG") as logged, self.assertRaises(kab.KabError):
            kab.open_disk(self.path("absent"))
        self.assertIn("absent", logged.output[0])

    def test_lines_belong_to_their_call(self):
        for path in ("a-rather-long-name-that-does-not-exist", "short"):
            with self.assertRaises(kab.KabError) as caught:
                kab.open_disk(path)
            self.assertEqual(len(caught.exception.messages), 1)
            self.assertIn(f" {path}:", caught.exception.messages[0])

    def test_mounted_disks_need_a_word(self):
        with open(self.disk0, "r+b") as file:
            file.seek(MIB + 11)
            file.write(b"\0")
        with self.assertRaisesRegex(kab.KabError, "is not unmounted"):
            kab.open_disk(self.disk0)
        with kab.open_disk(self.disk0, skip_unmount_check=True) as disk:
            self.assertEqual(disk.index, -1)

    def test_closing_is_final_and_repeatable(self):
        before = len(os.listdir("/proc/self/fd"))
        group = kab.Group(self.ssd, [self.disk0])
        self.assertEqual(len(os.listdir("/proc/self/fd")), before + 2)
        group.close()
        group.close()
        self.assertEqual(len(os.listdir("/proc/self/fd")), before)
        for act in (lambda: group.ssd.size, lambda: group.disks[0].read_at(0, 1), group.replay):
            with self.assertRaises(ValueError):
                act()
        for act in (lambda: kab.Group(self.ssd + "\0.old"), lambda: kab.open_disk(self.disk0 + "\0")):
            with self.assertRaisesRegex(ValueError, "NUL"):  # the library would open what stands before it
                act()
        with self.assertRaises(kab.KabError):  # the second disk fails; the first and the SSD are let go
            kab.Group(self.ssd, [self.disk0, self.path("absent")])
        self.assertEqual(len(os.listdir("/proc/self/fd")), before)


class FileTest(GroupCase):
    def test_behaves_like_the_image_itself(self):
        model, file = io.BytesIO(self.image), self.disk.open()
        dice = random.Random(20)
        for step in range(400):
            kind = dice.randrange(4)
            if kind == 0:
                offset = dice.choice((0, 3 * MIB - 5, 3 * MIB, len(self.image) - 7, len(self.image) + 9))
                self.assertEqual(file.seek(offset), model.seek(offset))
            elif kind == 1:
                offset = -dice.randrange(100000)
                self.assertEqual(file.seek(offset, io.SEEK_END), model.seek(offset, io.SEEK_END))
            else:
                length = dice.choice((0, 1, 511, 4096, 70000))
                self.assertEqual(file.read(length), model.read(length), f"step {step} at {model.tell()}")
            self.assertEqual(file.tell(), model.tell())
        file.seek(0)
        self.assertEqual(file.read(), self.image)
        with self.assertRaises(ValueError):
            file.seek(-1)
        self.assertFalse(file.writable())

    def test_ranges_are_the_disks(self):
        self.assertEqual(self.disk.read_at(3 * MIB + 1, 5000), self.image[3 * MIB + 1 :][:5000])
        self.assertEqual(self.disk.read_at(len(self.image), 0), b"")
        for offset, length in ((-1, 2), (0, -1), (len(self.image), 1), (0, len(self.image) + 1)):
            with self.subTest(offset=offset, length=length), self.assertRaises(ValueError):
                self.disk.read_at(offset, length)

    def test_only_group_members_have_the_groups_view(self):
        for disk in (self.group.ssd, kab.open_disk(self.disk1)):
            with self.assertRaises(ValueError):
                disk.open(group_view=True)
        self.group.disks[0].close()


class DumpTest(GroupCase):
    RANGES = ((3 * MIB - 100, 300000), (0, 1), (MIB, 4096))

    def dump(self, name="head.dump"):
        path = self.path(name)
        with kab.DumpWriter(path, self.disk) as dump:
            for offset, length in self.RANGES:
                dump.add_range(offset, length)
            dump.add(b"by hand", 5)
        return path

    def test_what_goes_in_comes_out(self):
        path = self.dump()
        records = []
        header = kab.walk(path, lambda offset, data: records.append((offset, data)))
        expected = [
            (offset + start, self.image[offset + start : offset + min(length, start + 262144)])
            for offset, length in self.RANGES
            for start in range(0, length, 262144)
        ] + [(5, b"by hand")]
        self.assertEqual(records, expected)
        self.assertEqual((header.records, header.disk_size, header.device), (5, len(self.image), "disk0.img"))
        digest = hashlib.sha256()
        for offset, data in records:
            digest.update(offset.to_bytes(8, "little") + len(data).to_bytes(4, "little") + data)
        self.assertEqual(header.sha256, digest.digest())
        self.assertEqual(header, kab.read_header(path))

        target = self.path("restored.img")
        kab.extract(path, target)
        model = bytearray(len(self.image))
        for offset, data in records:
            model[offset : offset + len(data)] = data
        with open(target, "rb") as file:
            self.assertEqual(file.read(), bytes(model))

    def test_damage_is_told_and_leaves_nothing_behind(self):
        path = self.dump()
        with open(path, "rb") as file:
            whole = file.read()
        stream = bytearray(zlib.decompress(whole[4096:]))
        stream[20] ^= 1
        damages = {
            "magic": (b"\0" + whole[1:], kab.Status.MAGIC_MISMATCH),
            "version": (whole[:4] + b"\2" + whole[5:], kab.Status.VERSION_MISMATCH),
            "digest": (whole[:4096] + zlib.compress(stream), kab.Status.GENERAL_FAILURE),
            "cut": (whole[:-100], kab.Status.GENERAL_FAILURE),
            "empty": (b"", kab.Status.MAGIC_MISMATCH),
            "short": (whole[:40], kab.Status.GENERAL_FAILURE),
        }
        for name, (data, status) in damages.items():
            damaged, target = self.path(name), self.path(name + ".img")
            with open(damaged, "wb") as file:
                file.write(data)
            for verify_first in (True, False):
                with self.subTest(name, verify_first=verify_first), self.assertRaises(kab.KabError) as caught:
                    kab.extract(damaged, target, verify_first=verify_first)
                self.assertEqual(caught.exception.status, status)
                self.assertFalse(os.path.exists(target))

    def test_existing_files_stay(self):
        path = self.dump()
        with self.assertRaises(FileExistsError):
            kab.extract(path, self.disk1)
        with self.assertRaisesRegex(kab.KabError, "File exists"):
            kab.DumpWriter(path, self.disk)
        kab.verify(path)

    def test_a_visitors_exception_comes_out(self):
        path = self.dump()
        with self.assertRaisesRegex(ZeroDivisionError, "division"):
            kab.walk(path, lambda offset, data: 1 // 0)

    def test_an_exception_leaves_an_unfinished_dump(self):
        path = self.path("unfinished.dump")
        with self.assertRaises(KeyboardInterrupt), kab.DumpWriter(path, self.disk) as dump:
            dump.add_range(0, 4096)
            raise KeyboardInterrupt
        with self.assertRaisesRegex(kab.KabError, "never finished"):
            kab.verify(path)
        with self.assertRaises(ValueError):
            dump.add_range(0, 4096)


if __name__ == "__main__":
    unittest.main()
