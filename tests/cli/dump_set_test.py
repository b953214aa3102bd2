#!/usr/bin/env python3
"""Drives the real tool over dumps of what it finds by itself, dump sets, and comparisons with a dump.

  dump_set_test.py KAB FAULT_SHIM FAIL_READS_LIBRARY [unittest arguments]
"""
import glob
import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import json_lines

KAB = os.path.abspath(sys.argv.pop(1))
FAULT_SHIM = os.path.abspath(sys.argv.pop(1))
FAIL_READS = os.path.abspath(sys.argv.pop(1))
MIB = 1 << 20
DATA = 3 * MIB
BLOCK = 4096


def read_file(path, offset=0, length=-1):
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(length)


def write_file(path, data, mode="wb", offset=0):
    with open(path, mode) as file:
        file.seek(offset)
        file.write(data)


def flip(path, offset):
    write_file(path, bytes([read_file(path, offset, 1)[0] ^ 1]), "r+b", offset)


class Case(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="kab-set-")

    def tearDown(self):
        shutil.rmtree(self.work)

    def path(self, name):
        return os.path.join(self.work, name)

    def kab(self, *arguments, code=0, **options):
        result = subprocess.run([KAB, *arguments], cwd=self.work, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                timeout=300, **options)
        error = result.stderr.decode(errors="replace")
        self.assertEqual(result.returncode, code, f"kab {' '.join(arguments)}\n{error}")
        return result.stdout.decode(errors="replace"), error

    def json(self, *arguments, **options):
        return json_lines.parse(self.kab("--json", *arguments, **options)[0])

    def sample(self, *arguments):
        """Makes a group in the folder "group" and returns its disks."""
        self.kab("sample", *arguments, "group")
        return self.disks("group")

    def disks(self, folder):
        names = sorted(name for name in os.listdir(self.path(folder)) if name.endswith(".img"))
        return [f"{folder}/ssd.img"] + [f"{folder}/{name}" for name in names if name.startswith("disk")]

    def manifest(self, folder="set"):
        return json_lines.parse(read_file(self.path(f"{folder}/manifest.json")))[0]

    def preload(self, library, **variables):
        environment = dict(os.environ, LD_PRELOAD=library, **variables)
        environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return environment

    def faults(self, plan, path=""):
        if "ASAN_OPTIONS" in os.environ:
            self.skipTest("the shim and the sanitizer both want malloc")
        return self.preload(FAULT_SHIM, KAB_FAULTS=plan, KAB_FAULT_PATH=path)

    def assert_unfinished(self, folder="set"):
        self.assertNotIn("manifest.json", os.listdir(self.path(folder)))
        self.assertEqual(self.json("verify", folder, code=3)[-1]["verdict"], "unfinished")
        before = os.listdir(self.work)
        self.assertIn("unfinished", self.kab("extract", folder, "copy", code=4)[1])
        self.assertEqual(os.listdir(self.work), before)


class WhatIsDumped(Case):
    def extract(self, disks, *what):
        """Dumps, verifies and extracts a set, and compares the images with the disks it was made from."""
        self.kab("dump", "--all-disks", "-o", "set", *what, *disks)
        verdicts = self.json("verify", "set")
        self.assertEqual({line["verdict"] for line in verdicts}, {"intact"})
        self.assertEqual(len(verdicts), len(self.manifest()["disks"]) + 1)
        self.kab("extract", "set", "copy")
        for disk in self.manifest()["disks"]:
            name = disk["file"].removesuffix(".kabdump") + ".img"
            original, image = read_file(self.path(f"group/{name}")), read_file(self.path(f"copy/{name}"))
            expected = bytearray(len(original))
            for offset, length in disk["ranges"]:
                expected[offset:offset + length] = original[offset:offset + length]
            self.assertTrue(image == expected, name)
        return [f"copy/{os.path.basename(disk)}" for disk in disks]

    def test_metadata_judges_and_lists_like_the_group_itself(self):
        layouts = {"log": ["--ssd-size", "32M"], "dedup": [], "compress": [], "orlo": [], "orlo-log": [], "plain": []}
        for layout, size in layouts.items():
            with self.subTest(layout):
                disks = self.sample("--layout", layout, "--disks", "2", *size)
                copies = self.extract(disks)
                for command in ("check", "log"):
                    answers = []
                    for group in disks, copies:
                        result = subprocess.run([KAB, command, *group], cwd=self.work, capture_output=True)
                        answers.append((result.returncode, result.stdout))
                    self.assertEqual(*answers)
                if layout.startswith("orlo"):
                    self.assertEqual(self.kab("component", "list", *copies), self.kab("component", "list", *disks))
                for name in "group", "set", "copy":
                    shutil.rmtree(self.path(name))

    def test_metadata_holds_no_data(self):
        disks = self.sample("--layout", "dedup", "--disks", "2")
        self.kab("dump", "--all-disks", "-o", "set", *disks)
        for disk in self.manifest()["disks"][1:]:
            image = self.path(f"group/{disk['file'].removesuffix('.kabdump')}.img")
            data_start, = struct.unpack("<Q", read_file(image, DATA + 164, 8))
            expansion, = struct.unpack("<Q", read_file(image, DATA + 261, 8))
            self.assertEqual(disk["ranges"], [[MIB, BLOCK], [DATA, (data_start + expansion) * BLOCK]])
        shutil.rmtree(self.path("group"))
        # Of an SSD with a log: nothing of the write buffer but the blocks that kab log walks.
        disks = self.sample("--layout", "log", "--disks", "1", "--ssd-size", "32M")
        lines = self.json("log", *disks)
        blocks = {line["block"] for line in lines if "block" in line}
        start = lines[0]["checkpoints"][0]["writeBufferStart"]
        self.kab("dump", "--log", "-o", "log", *disks)
        held = self.json("dump", "--log", "--all-disks", "-o", "logs", *disks)[0]["disks"]
        self.assertEqual([disk["role"] for disk in held], ["ssd"])
        dumped = {(offset - DATA) // BLOCK + i for offset, length in held[0]["ranges"] if offset >= DATA
                  for i in range(length // BLOCK)}
        self.assertTrue(blocks <= dumped)
        self.assertLessEqual(len({block for block in dumped if block >= start} - blocks), 1)  # the torn end
        self.kab("extract", "log", "log.img")
        self.assertEqual(self.kab("log", "log.img"), self.kab("log", disks[0]))

    def test_a_component_reads_from_a_set(self):
        disks = self.sample("--layout", "orlo-log", "--disks", "2", "--with-picture")
        pictures = [name for name in os.listdir(self.path("group")) if name.endswith(".picture")]
        self.assertEqual(len(pictures), 6)
        for picture in pictures:
            uuid = picture.removesuffix(".picture")
            with self.subTest(uuid):
                self.kab("dump", "--all-disks", "-o", "set", "--component", uuid.upper(), *disks)
                self.kab("extract", "set", "copy")
                copies = self.disks("copy")
                self.assertEqual(len(copies), 2)  # the SSD and the disk that holds it
                self.kab("component", "read", "--uuid", uuid, "-o", "read", "--force", *copies)
                self.assertTrue(read_file(self.path("read")) == read_file(self.path(f"group/{picture}")))
                # In one file it would lack what lies in the write buffer.
                self.assertIn("--all-disks", self.kab("dump", "-o", "d", "--component", uuid, *disks, code=2)[1])
                self.assertFalse(os.path.exists(self.path("d")))
                shutil.rmtree(self.path("set"))
                shutil.rmtree(self.path("copy"))
        self.assertIn("no component", self.kab("dump", "-o", "d", "--component", "x", *disks, code=5)[1])

    def test_a_component_in_one_file(self):
        disks = self.sample("--layout", "orlo", "--disks", "2", "--with-picture")
        for picture in [name for name in os.listdir(self.path("group")) if name.endswith(".picture")]:
            uuid = picture.removesuffix(".picture")
            slot = self.json("component", "info", "--uuid", uuid, *disks)[0]["slot"]
            self.kab("dump", "-f", "-o", "d", "--component", uuid, *disks)
            self.kab("extract", "-f", "d", f"disk{slot}.img")
            group = [disks[0], f"disk{slot}.img"]
            self.kab("component", "read", "-f", "--uuid", uuid, "-o", "read", *group)
            self.assertTrue(read_file(self.path("read")) == read_file(self.path(f"group/{picture}")))

    def test_damage_is_left_out_and_told(self):
        def once(disks, file, offset, data, text):
            saved = read_file(self.path(file), offset, len(data))
            write_file(self.path(file), data, "r+b", offset)
            with self.subTest((file, offset, text)):
                self.assertIn(text, self.kab("dump", "--all-disks", "-o", "set", *disks, code=4)[1])
                self.kab("verify", "set")
                size = sum(length for disk in self.manifest()["disks"] for _, length in disk["ranges"])
                self.assertLess(size, 24 * MIB)  # forged numbers make no dump of everything
            shutil.rmtree(self.path("set"), ignore_errors=True)
            write_file(self.path(file), saved, "r+b", offset)

        disks = self.sample("--layout", "orlo", "--disks", "1", "--disk-size", "64M")  # of version 7
        roots = [DATA + line["mapBlock"] * BLOCK for line in self.json("component", "list", *disks)[1:]]
        leaf, tree = roots[0], roots[1]
        root = struct.pack("<Q", (tree - DATA) // BLOCK)
        for offset, data, text in [
            (DATA, b"XXXX", "the registry and the maps"),
            (DATA + 48, b"\xff" * 8, "the registry and the maps"),
            (leaf + 16, b"\xff" * 32, "a part of the map"),
            (leaf + 18, struct.pack("<2I", 9, 9), "a part of the map"),  # keys that do not rise
            (leaf + 1034, struct.pack("<Q", 1 << 40), "what leaves disk"),
            (leaf + 1042, struct.pack("<I", (1 << 26) - 1 | 1 << 26), "a part of the map"),  # a run over all behind it
            (tree + 1374, root, "a part of the map"),  # its own child
            (tree + 1374, struct.pack("<Q", 1 << 44), "a part of the map"),
        ]:
            once(disks, disks[1], offset, data, text)
        shutil.rmtree(self.path("group"))
        disks = self.sample("--layout", "dedup", "--disks", "1", "--disk-size", "64M")
        once(disks, disks[1], DATA, b"\0", "no dedup superblock")
        shutil.rmtree(self.path("group"))
        disks = self.sample("--layout", "log", "--disks", "1", "--ssd-size", "32M")
        second = read_file(self.path(disks[0]), DATA + BLOCK + 20, 1)
        write_file(self.path(disks[0]), bytes([second[0] ^ 1]), "r+b", DATA + BLOCK + 20)
        first = read_file(self.path(disks[0]), DATA + 20, 1)
        once(disks, disks[0], DATA + 20, bytes([first[0] ^ 1]), "no valid checkpoint record")

    def test_usage(self):
        disks = self.sample("--disks", "2")
        os.mkdir(self.path("full"))
        write_file(self.path("full/x"), b"")
        os.mkdir(self.path("empty"))
        for arguments, text in [
            (["-o", "full", "--all-disks"], "not an empty folder"),
            (["-o", "new", "--all-disks", "--force"], "does not replace a set"),
            (["-o", "new", "--all-disks", "--disk", "0"], "excludes"),
            (["-o", "new", "--log", "--metadata", "--disk", "0"], "several disks"),
            (["-o", "new", "--log", "--disk", "0"], "holds nothing of that"),
            (["-o", "new", "--all-disks", "--range", "15M:2M"], "ends behind"),
            (["-o", "new", "--metadata"], "choose one with --disk"),
        ]:
            with self.subTest(arguments):
                self.assertIn(text, self.kab("dump", *arguments, *disks, code=2)[1])
        self.assertFalse(os.path.exists(self.path("new")))
        self.kab("dump", "-o", "empty", "--all-disks", "-r", "1M:4K", "-r", "5M:1", *disks)
        self.assertEqual([disk["ranges"] for disk in self.manifest("empty")["disks"]], [[[MIB, BLOCK], [5 * MIB, 1]]] * 3)
        self.assertEqual(self.kab("-q", "verify", "empty")[1], "")
        self.assertEqual(self.kab("-q", "extract", "empty", "copy"), ("", ""))
        self.assertIn("exists", self.kab("extract", "empty", "copy", code=2)[1])
        self.kab("extract", "--in-place", "empty", "copy", code=2)


class Sets(Case):
    """Sets that are not whole."""

    def setUp(self):
        super().setUp()
        self.group = self.sample("--disks", "2", "--ssd-size", "8M", "--disk-size", "8M")
        self.kab("dump", "--all-disks", "-o", "set", "-r", "3M:1M", "-r", "1M:4K", *self.group)

    def judge(self, verdict, verify_code, extract_code, file=None):
        lines = {line["path"]: line for line in self.json("verify", "set", code=verify_code)}
        line = lines[f"set/{file}" if file else "set"]
        self.assertEqual(line["verdict"], verdict, line)
        self.assertNotEqual(lines["set"]["verdict"], "intact")
        for way in [], ["--no-verify"]:
            error = self.kab("extract", *way, "set", "copy", code=extract_code)[1]
            self.assertIn("copy was not made", error)
            self.assertEqual(sorted(os.listdir(self.work)), ["group", "set"])
        self.kab("diff", "set", *self.group, code=extract_code)
        return line["reason"]

    def test_damaged_members(self):
        member, other = self.path("set/disk0.kabdump"), self.path("set/disk1.kabdump")
        whole = read_file(member)

        def swap():
            os.rename(member, self.path("t"))
            os.rename(other, member)
            os.rename(self.path("t"), other)

        def link():
            os.rename(member, self.path("group/elsewhere"))
            os.symlink("../group/elsewhere", member)

        def make_fifo():
            os.remove(member)
            os.mkfifo(member)

        for name, spoil, verdict, codes in [
            ("data", lambda: flip(member, len(whole) // 2), "digest-mismatch", (6, 6)),  # noise is stored as it is
            ("cut", lambda: os.truncate(member, len(whole) - 100), "broken", (3, 4)),
            ("header", lambda: flip(member, 8), "broken", (3, 4)),
            ("magic", lambda: flip(member, 0), "not-a-dump", (3, 4)),
            ("empty header", lambda: write_file(member, bytes(BLOCK), "r+b"), "unfinished", (3, 4)),
            ("digest", lambda: flip(member, 40), "digest-mismatch", (6, 6)),
            ("gone", lambda: os.remove(member), "missing", (3, 4)),
            ("swapped", swap, "digest-mismatch", (6, 6)),
            ("link", link, "broken", (3, 4)),
            ("fifo", make_fifo, "broken", (3, 4)),
            ("empty", lambda: os.truncate(member, 0), "unfinished", (3, 4)),
        ]:
            with self.subTest(name):
                shutil.copytree(self.path("set"), self.path("saved"), symlinks=True)
                spoil()
                shutil.move(self.path("saved"), self.path("../saved-" + os.path.basename(self.work)))
                self.judge(verdict, *codes, file="disk0.kabdump")
                shutil.rmtree(self.path("set"))
                shutil.move(self.path("../saved-" + os.path.basename(self.work)), self.path("set"))

    def test_hostile_manifests(self):
        path = self.path("set/manifest.json")
        whole = self.manifest()

        def changed(change):
            manifest = json.loads(json.dumps(whole))
            change(manifest)
            return json.dumps(manifest).encode()

        def disk(**members):
            return changed(lambda manifest: manifest["disks"][1].update(members))

        sha, uuid = whole["disks"][1]["sha256"], whole["disks"][2]["uuid"]
        cases = [  # bytes, verdict, part of the reason
            *((disk(file=name), "broken", "plain name") for name in
              ("../set/disk0.kabdump", "/etc/passwd", "..", ".", "", "a/b", "manifest.json", "a\nb", "a" * 129, "\u00e9")),
            (disk(file=7), "broken", "not a text"),
            (disk(file="disk1.kabdump"), "broken", "twice"),
            (disk(uuid=uuid), "broken", "twice"),
            (disk(slot=1), "broken", "twice"),
            (disk(role="ssd", slot=None), "broken", "twice"),
            (disk(uuid="x" * 36), "broken", "not a UUID"),
            (disk(slot=7), "broken", "slot"),
            (disk(slot=-1), "broken", "whole number"),
            (disk(role="boss"), "broken", "role"),
            (disk(size=2**63), "broken", "size"),
            (disk(size=2**64), "broken", "whole number"),
            (disk(size=1.5), "broken", "whole number"),
            (disk(sha256=sha[:-1]), "broken", "not a digest"),
            (disk(ranges=7), "broken", "not a list"),
            (disk(ranges=[[1]]), "broken", "offset, length"),
            (disk(ranges=[[0, 0]]), "broken", "empty"),
            (disk(ranges=[[4096, 1], [0, 1]]), "broken", "out of order"),
            (disk(ranges=[[0, 10], [9, 10]]), "broken", "out of order"),
            (disk(ranges=[[2**64 - 1, 2]]), "broken", "outside the disk"),
            (changed(lambda manifest: manifest["disks"][1].pop("records")), "broken", "missing"),
            (changed(lambda manifest: manifest.update(disks={})), "broken", "not a list"),
            (changed(lambda manifest: manifest.update(disks=manifest["disks"] * 1000)), "broken", "twice"),
            (changed(lambda manifest: manifest.update(version=2)), "foreign-version", "version 2"),
            (changed(lambda manifest: manifest.update(schema="x")), "broken", "schema"),
            (b"", "broken", "not JSON"),
            (b"[]", "broken", "missing"),
            (json.dumps(whole).encode()[:-1], "broken", "not JSON"),
            (json.dumps(whole).encode() + b"{}", "broken", "not JSON"),
            (b'{"schema": 1e999}', "broken", "not JSON"),
            (b"\xff\xfe", "broken", "not JSON"),
            (b"[" * (8 * MIB), "broken", "nests too deeply"),
            (b" " * (65 * MIB), "broken", "longer than"),
        ]
        for data, verdict, reason in cases:
            with self.subTest(data[:200]):
                write_file(path, data)
                self.assertIn(reason, self.judge(verdict, 3, 4))
        for spoil, reason in ((lambda: os.symlink("../group/ssd.img", path), "symbolic link"),
                              (lambda: os.mkfifo(path), "regular file"), (lambda: os.mkdir(path), "regular file")):
            os.remove(path)
            spoil()
            self.assertIn(reason, self.judge("broken", 3, 4))
            if os.path.isdir(path):
                os.rmdir(path)
                write_file(path, b"")
        # What the manifest says of a member is held against its header and its records.
        for members, verdict, codes, reason in [
            ({"records": 6}, "broken", (3, 4), "counts and lengths"),
            ({"streamLength": 1}, "broken", (3, 4), "counts and lengths"),
            ({"size": 9 * MIB}, "broken", (3, 4), "counts and lengths"),
            ({"sha256": "0" * 64}, "digest-mismatch", (6, 6), "digest"),
            ({"ranges": [[DATA, MIB]]}, "broken", (3, 4), "do not cover"),
            ({"ranges": [[MIB, BLOCK], [DATA, MIB + 1]]}, "broken", (3, 4), "do not cover"),
            ({"ranges": []}, "broken", (3, 4), "do not cover"),
        ]:
            with self.subTest(members):
                write_file(path, disk(**members))
                self.assertIn(reason, self.judge(verdict, *codes, file="disk0.kabdump"))
        write_file(path, json.dumps(whole).encode())
        self.kab("verify", "set")

    def test_full_disk(self):
        """Whatever cannot be written, the set is unfinished, and extraction leaves nothing."""
        shutil.rmtree(self.path("set"))
        for plan, path in [("pwrite@1=ENOSPC", "ssd.kabdump"), ("pwrite@1=ENOSPC", "disk0.kabdump"),
                           ("pwrite@2=ENOSPC", "disk1.kabdump"), ("pwrite@1=short", "disk1.kabdump"),
                           ("fsync@1=EIO", "disk0.kabdump"), ("close@1=EIO", "disk1.kabdump"),
                           ("open@1=ENOSPC", "disk1.kabdump"), ("write@1=ENOSPC", "manifest.json"),
                           ("fsync@1=EIO", "manifest.json"), ("close@1=ENOSPC", "manifest.json")]:
            with self.subTest((plan, path)):
                error = self.kab("dump", "--all-disks", "-o", "set", "-r", "3M:1M", *self.group, code=1,
                                 env=self.faults(plan, path))[1]
                self.assertIn("set is unfinished", error)
                self.assert_unfinished()
                shutil.rmtree(self.path("set"))
        self.kab("dump", "--all-disks", "-o", "set", "-r", "3M:1M", *self.group)
        for plan, path in [("pwrite@1=ENOSPC", "ssd.img"), ("pwrite@3+=ENOSPC", "disk1.img"),
                           ("pwrite@2=short", "disk0.img"), ("ftruncate@1=EFBIG", "disk0.img"),
                           ("fsync@1=EIO", "disk1.img"), ("pread@3=EIO", "disk1.kabdump")]:
            for way in [], ["--no-verify"]:
                with self.subTest((plan, path, way)):
                    self.kab("extract", *way, "set", "copy", code=1, env=self.faults(plan, path))
                    self.assertEqual(sorted(os.listdir(self.work)), ["group", "set"])

    def test_unreadable_blocks(self):
        shutil.rmtree(self.path("set"))
        environment = self.preload(FAIL_READS, KAB_FAIL_FROM=str(DATA + 300001), KAB_FAIL_TO=str(DATA + 310000))
        error = self.kab("dump", "--all-disks", "-o", "set", "-r", "3M:1M", *self.group, code=4, env=environment)[1]
        first, last = DATA + 300001 // BLOCK * BLOCK, DATA + -(-310000 // BLOCK) * BLOCK
        for disk in self.manifest()["disks"]:
            self.assertEqual(disk["unreadable"], [[first, last - first]])
            self.assertEqual(disk["ranges"], [[DATA, first - DATA], [last, DATA + MIB - last]])
        self.assertIn(f"{3 * (last - first)} bytes could not be read", error)
        self.kab("verify", "set")
        self.kab("diff", "set", *self.group)


class Interrupted(Case):
    @staticmethod
    def has_open(name):
        return lambda pid: any(os.path.realpath(link).endswith(name) for link in glob.glob(f"/proc/{pid}/fd/*"))

    def stop(self, number, reached, *arguments):
        """Starts the tool, waits until it has got somewhere, and sends a signal. Returns what it said."""
        process = subprocess.Popen([KAB, *arguments], cwd=self.work, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        while process.poll() is None and not reached(process.pid):
            time.sleep(0.002)
        process.send_signal(number)
        error = process.stderr.read().decode()
        process.stderr.close()
        self.assertEqual(process.wait(timeout=60), 1 if number == signal.SIGINT else -number, error)
        return error

    def test_nothing_half_made_looks_whole(self):
        disks = self.sample("--disks", "2", "--ssd-size", "64M", "--disk-size", "256M")
        for file in "ssd.kabdump", "disk0.kabdump", "disk1.kabdump":
            for number in signal.SIGINT, signal.SIGKILL:
                with self.subTest((file, number)):
                    error = self.stop(number, lambda _: os.path.exists(self.path(f"set/{file}")),
                                      "dump", "--all-disks", "-o", "set", "-r", "0:", *disks)
                    if number == signal.SIGINT:
                        self.assertIn("interrupted; set is unfinished", error)
                    self.assert_unfinished()
                    shutil.rmtree(self.path("set"))
        self.kab("dump", "--all-disks", "-o", "set", "-r", "0:", *disks)
        for file in "ssd.img", "disk1.img":
            for number in signal.SIGINT, signal.SIGKILL:
                with self.subTest((file, number)):
                    self.stop(number, lambda _: glob.glob(self.path(f"copy.kab-*/{file}")),
                              "extract", "--no-verify", "set", "copy")
                    left = set(os.listdir(self.work)) - {"group", "set"}
                    self.assertTrue(all(name.startswith("copy.kab-") for name in left), left)
                    self.assertEqual(bool(left), number == signal.SIGKILL)
                    for name in left:
                        shutil.rmtree(self.path(name))
        self.assertIn("interrupted", self.stop(signal.SIGINT, self.has_open("ssd.kabdump"), "diff", "set", *disks))


class Diff(Case):
    def setUp(self):
        super().setUp()
        self.group = self.sample("--disks", "3", "--ssd-size", "8M", "--disk-size", "8M", "--encrypt", "1")
        uuid = read_file(self.path("group/disk1.uuid")).decode().strip()
        self.key = ["--key-file", f"{uuid}=group/disk1.key"]
        self.kab(*self.key, "dump", "--all-disks", "-o", "set", "-r", "3M:1M", "-r", f"{6 * MIB + 100}:1000",
                 *self.group)

    def differences(self, dump, *disks, code):
        lines = self.json(*self.key, "diff", dump, *disks, code=code)
        summaries = [line for line in lines if "same" in line]
        self.assertEqual(len(summaries), len(disks))
        found = [(line["disk"], line["offset"], line["length"], line["result"]) for line in lines if "result" in line]
        for summary in summaries:
            mine = [length for disk, _, length, result in found
                    if disk == summary["disk"] and result in ("differs", "behind-end")]
            self.assertEqual((summary["differingBytes"], summary["same"]), (sum(mine), not mine))
        return found

    def test_same(self):
        self.assertEqual(self.differences("set", *self.group, code=0), [])
        text = self.kab(*self.key, "diff", "set", *self.group)[0]
        self.assertEqual(text.count("0 of 1049576 dumped bytes differ"), 4)
        self.assertEqual(self.kab(*self.key, "-q", "diff", "--no-verify", "set", *self.group), ("", ""))

    def test_changed_bytes(self):
        disk = self.group[1]
        for offset in DATA - 1, DATA + MIB, 6 * MIB + 99, 6 * MIB + 1100, 7 * MIB:  # beside the dumped ranges
            flip(self.path(disk), offset)
        self.assertEqual(self.differences("set", *self.group, code=0), [])
        for offset in DATA, DATA + 511, DATA + 1024, DATA + 262143, DATA + 262144, DATA + MIB - 1, 6 * MIB + 100, \
                6 * MIB + 1099:
            flip(self.path(disk), offset)
        expected = [(disk, DATA, 512, "differs"), (disk, DATA + 1024, 512, "differs"),
                    (disk, DATA + 262144 - 512, 1024, "differs"), (disk, DATA + MIB - 512, 512, "differs"),
                    (disk, 6 * MIB + 100, 412, "differs"), (disk, 6 * MIB + 1024, 76, "differs")]
        self.assertEqual(self.differences("set", *self.group, code=3), expected)
        self.assertEqual(self.differences("set/disk0.kabdump", disk, code=3), expected)
        text = self.kab("-q", "diff", "set/disk0.kabdump", disk, code=3)[0]
        self.assertEqual(text, "".join(f"{disk}: {offset}+{length} differs\n" for _, offset, length, _ in expected))

    def test_encrypted_disk_is_compared_in_clear(self):
        flip(self.path("group/disk1.img"), DATA + 5000)  # spoils a whole cipher block, within one sector
        self.assertEqual(self.differences("set", *self.group, code=3), [("group/disk1.img", DATA + 4608, 512, "differs")])

    def test_disks_that_do_not_fit(self):
        self.kab("sample", "--seed", "2", "--disks", "1", "other")
        for image in "other/ssd.img", "other/disk0.img":
            with open(self.path(image), "r+b") as file:  # a UUID of its own
                file.seek(MIB + 12)
                file.write(b"\xee" * 16)
        self.assertIn("no dump of disk", self.kab("diff", "set", "other/disk0.img", code=5)[1])
        self.kab("diff", "set/disk0.kabdump", *self.group[:2], code=2)
        self.kab("diff", "--raw", "set", self.group[0], code=2)
        self.kab("diff", "set/disk0.kabdump", "nowhere", code=1)
        # A disk that does not open any more is compared as it is.
        disk = self.group[1]
        os.truncate(self.path(disk), DATA + 1000)
        self.assertIn("--raw", self.kab("diff", "set/disk0.kabdump", disk, code=1)[1])
        found = self.json("diff", "--raw", "set/disk0.kabdump", disk, code=3)
        self.assertEqual([(line["offset"], line["length"], line["result"]) for line in found[1:-1]],
                         [(DATA + 1000, MIB - 1000, "behind-end"), (6 * MIB + 100, 1000, "behind-end")])

    def test_unreadable(self):
        header, lost, summary = self.json("diff", "--raw", "--no-verify", "set/disk0.kabdump", self.group[1], code=4,
                                          env=self.faults("pread@1=EIO,pread@3=EIO", "disk0.img"))
        self.assertEqual(header["uuid"], None)
        self.assertEqual((lost["offset"], lost["length"], lost["result"]), (DATA + 512, 512, "unreadable"))
        self.assertEqual((summary["unreadableBytes"], summary["same"]), (512, False))

    def test_ways_to_stop(self):
        for sector in range(0, MIB, 1024):
            flip(self.path(self.group[1]), DATA + sector)
        process = subprocess.Popen([KAB, "--json", "diff", "set/disk0.kabdump", self.group[1]], cwd=self.work,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.read(10)
        process.stdout.close()
        self.assertEqual((process.stderr.read(), process.wait(timeout=60)), (b"", 1))
        process.stderr.close()
        last = json.loads(self.kab("--progress=json", "diff", "--no-verify", "set/disk0.kabdump", self.group[1],
                                   code=3)[1].splitlines()[-1])
        self.assertEqual((last["task"], last["finished"]), ("diff", True))


if __name__ == "__main__":
    unittest.main(verbosity=1)
