#!/usr/bin/env python3
"""Drives the real tool: exit codes, texts, JSON, and what is left behind.

  cli_test.py KAB FAIL_READS_LIBRARY [unittest arguments]
With KAB_UPDATE_GOLDEN set, the golden files are written anew instead of compared.
"""
import hashlib
import itertools
import os
import resource
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

import json_lines

KAB = os.path.abspath(sys.argv.pop(1))
FAIL_READS = os.path.abspath(sys.argv.pop(1))
GOLDEN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "golden")
MIB = 1 << 20
DATA = 3 * MIB


def read_file(path, offset=0, length=-1):
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(length)


def patch(path, offset, data):
    with open(path, "r+b") as file:
        file.seek(offset)
        file.write(data)


def forge_dump(path, records, *, count=None, magic=0xCC0000CC, version=1, digest=None, disk_size=16 * MIB, stream=None,
               total=None, device=b"forged.img"):
    """A dump made from its description alone: records are (offset, stated length, data)."""
    raw = b"".join(struct.pack("<QI", offset, length) + data for offset, length, data in records)
    header = struct.pack("<IIQQQQ32s128s", magic, version, len(records) if count is None else count, disk_size,
                         len(raw) if total is None else total, 1_700_000_000_000_000,
                         hashlib.sha256(raw).digest() if digest is None else digest, device)
    with open(path, "wb") as file:
        file.write(header.ljust(4096, b"\0") + (zlib.compress(raw) if stream is None else stream(raw)))


class Cli(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.shared = tempfile.mkdtemp(prefix="kab-cli-")
        subprocess.run([KAB, "sample", "--disks", "3", "--encrypt", "1", "--with-clear", "--disk-size", "8M",
                        "--ssd-size", "8M", "group"], cwd=cls.shared, check=True, stdout=subprocess.DEVNULL)
        uuid = read_file(f"{cls.shared}/group/disk1.uuid").decode().strip()
        cls.key = ["--key-file", f"{uuid}=group/disk1.key"]
        cls.disks = ["group/ssd.img", "group/disk0.img", "group/disk1.img", "group/disk2.img"]

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.shared)

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="kab-cli-")
        os.symlink(f"{self.shared}/group", f"{self.work}/group")

    def tearDown(self):
        shutil.rmtree(self.work)

    def path(self, name):
        return os.path.join(self.work, name)

    def kab(self, *arguments, code=0, **options):
        result = subprocess.run([KAB, *arguments], cwd=self.work, stdout=options.pop("stdout", subprocess.PIPE),
                                stderr=subprocess.PIPE, timeout=300, **options)
        error = result.stderr.decode(errors="replace")
        self.assertEqual(result.returncode, code, f"kab {' '.join(arguments)}\n{error}")
        return result.stdout, error

    def json(self, *arguments, code=0):
        return json_lines.parse(self.kab("--json", *arguments, code=code)[0])

    def golden(self, name, text):
        path = os.path.join(GOLDEN, name)
        if "KAB_UPDATE_GOLDEN" in os.environ:
            with open(path, "wb") as file:
                file.write(text)
        self.assertEqual(text.decode(), read_file(path).decode())

    def copy(self, name, new):
        shutil.copyfile(self.path(name), self.path(new))
        return new

    # Arguments and opening

    def test_usage(self):
        group = self.disks
        for arguments, line in [
            ([], "subcommand is required"),
            (["nonsense"], "nonsense"),
            (["info"], "SSD"),
            (["info", "--nonsense", group[0]], "nonsense"),
            (["--progress", "loud", "info", group[0]], "progress"),
            (["read", group[0]], "range"),
            (["read", "-r", "12", group[0]], "not OFF:LEN"),
            (["read", "-r", "1x:2", group[0]], "not OFF:LEN"),
            (["read", "-r", "0:-1", group[0]], "not OFF:LEN"),
            (["read", "-r", "0:8388609", group[0]], "ends behind the disk's end at 8388608"),
            (["read", "-r", "8388609:", group[0]], "begins behind the disk's end"),
            (["read", "-r", "18446744073709551615:2", group[0]], "begins behind"),
            (["read", "-r", "17179869184G:1", group[0]], "not OFF:LEN"),
            (["read", "-r", "0:1", group[0], group[1], group[3]], "choose one with --disk"),
            (["read", "-r", "0:1", "-d", "6", group[0], group[1]], "none of the disks given"),
            (["dump", group[0]], "output"),
            (["dump", "-o", "-", group[0]], "header is written last"),
            (["extract", "x"], "TARGET"),
            (["--key-file", "x", "info", *group], "not of the form UUID=FILE"),
            (["--key-file", "0-0=x", "info", *group], "not of the form UUID=FILE"),
            (["sample", "--disks", "8", "new"], "at most 7"),
            (["sample", "--encrypt", "2", "new"], "no such disk"),
            (["sample", "--layout", "x", "new"], "x not in {plain,dedup,"),
            (["sample", "--disk-size", "3162624", "new"], "more than 3162624"),
            (["sample", "group"], "exists; --force replaces it"),
        ]:
            with self.subTest(arguments):
                output, error = self.kab(*arguments, code=2)
                self.assertEqual(output, b"")
                self.assertIn(line, error)
        self.assertFalse(os.path.exists(self.path("new")))

    def test_help(self):
        self.assertIn(b"disk in use, or not of this group", self.kab("--help")[0])
        self.assertTrue(self.kab("--version")[0].startswith(b"kab "))
        for command in "sample", "info", "read", "dump", "verify", "extract":
            self.assertIn(b"Example", self.kab(command, "--help")[0])

    def test_disks_that_do_not_open(self):
        def disk(name, size=8 * MIB, changes=()):
            shutil.copyfile(self.path("group/disk0.img"), self.path(name))
            os.truncate(self.path(name), size)
            for offset, data in changes:
                patch(self.path(name), offset, data)
            return name

        os.mkdir(self.path("folder"))
        os.mkfifo(self.path("fifo"))
        foreign = disk("foreign", changes=[(MIB + 12, b"\xee" * 16)])
        mounted = disk("mounted", changes=[(MIB + 11, b"\0")])
        for arguments, code, line in [
            (["missing"], 1, "Error: Failed to open device missing: No such file or directory"),
            (["folder"], 1, "neither a regular file nor a block device"),
            (["fifo"], 1, "neither a regular file nor a block device"),
            ([disk("empty", 0)], 1, "Error: Failed to read arvo metadata from disk empty"),
            ([disk("cut", MIB + 4095)], 1, "Error: Failed to read Arvo metadata: IO Error"),
            ([disk("small", 3162624)], 1, "Error: Disk: small is too small to be usable for Arvo"),
            ([disk("least", 3162625)], 0, ""),
            ([disk("new", changes=[(MIB + 468, b"\x15")])], 1, "Unknown disk format version 21 on disk"),
            ([mounted], 5, "device mounted is not unmounted"),
            (["--skip-unmount-check", mounted], 0, "Skipping unmount check, opening mounted disk mounted"),
            (["group/ssd.img", foreign], 5, "Disk foreign is not part of given diskgroup"),
            (["group/ssd.img", "group/disk0.img", "group/disk0.img"], 5, "is already open in this diskgroup"),
        ]:
            with self.subTest(arguments):
                error = self.kab("info", *arguments, code=code)[1]
                self.assertIn(line, error)

    def test_keys(self):
        uuid = self.key[1].split("=")[0]
        dek = read_file(self.path("group/disk1.key"))
        for name, content, code in [
            ("hex", dek.hex().encode() + b"\n", 0),
            ("upper", dek.hex().upper().encode(), 0),
            ("short", dek[:63], 2),
            ("long", dek + b"\n", 2),
            ("odd", dek.hex().encode()[:-1] + b"g", 2),
            ("empty", b"", 2),
        ]:
            with self.subTest(name):
                with open(self.path(name), "wb") as file:
                    file.write(content)
                output, error = self.kab("--key-file", f"{uuid.upper()}={name}", "info", *self.disks, code=code)
                self.assertIn("neither 64 bytes nor 128" if code else "", error)
                self.assertNotIn(dek.hex(), (output.decode() + error).lower())
        self.kab("--key-file", f"{uuid}=nowhere", "info", *self.disks, code=1)
        self.assertIn("Could not find key in cache", self.kab("info", *self.disks, code=1)[1])
        other = "0" * 8 + uuid[8:]
        self.kab("--key-file", f"{other}=hex", "info", *self.disks, code=1)

    # Texts

    def test_golden(self):
        self.golden("info.txt", self.kab(*self.key, "info", *self.disks)[0])
        self.golden("info.json", self.kab("info", "--json", *self.key, *self.disks)[0])
        self.golden("read_hex.txt", self.kab("read", "--hex", "-r", "1M:40", "-r", "0x480000:16", "-d", "0",
                                             *self.disks[:2])[0])
        self.golden("read.json", self.kab("read", "--json", "-r", "3M:20", *self.disks[:2])[0])
        self.golden("sample.json", self.kab("sample", "--json", "--disks", "1", "--encrypt", "0", "new")[0])

    def test_sample_repeats(self):
        for name, seed in ("a", "5"), ("b", "5"), ("c", "6"):
            self.kab("sample", "--encrypt", "0", "--seed", seed, name)
        for file in "ssd.img", "disk0.img", "disk1.img", "disk0.key":
            self.assertEqual(read_file(self.path(f"a/{file}")), read_file(self.path(f"b/{file}")), file)
            self.assertNotEqual(read_file(self.path(f"a/{file}")), read_file(self.path(f"c/{file}")), file)
        self.assertEqual(os.stat(self.path("a/disk0.key")).st_mode & 0o777, 0o600)
        self.kab("sample", "--force", "--encrypt", "0", "--seed", "6", "a")
        self.assertEqual(read_file(self.path("a/disk0.img")), read_file(self.path("c/disk0.img")))

    # Reading

    def test_read(self):
        clear = read_file(self.path("group/disk1.clear.img"))
        for offset, length in (DATA, 4096), (DATA + 2045, 10), (MIB, 4096), (DATA - 1, 1), (5 * MIB + 7, 70001):
            with self.subTest((offset, length)):
                output, _ = self.kab(*self.key, "read", "-d", "1", "-r", f"{offset}:{length}", *self.disks)
                self.assertEqual(output, clear[offset:offset + length])
        output, _ = self.kab(*self.key, "read", "-d", "1", "-r", "3M:8s", "-r", "1M:0", "-r", "0x400000:1K",
                             "-o", "out", *self.disks)
        self.assertEqual(read_file(self.path("out")), clear[DATA:DATA + 4096] + clear[4 * MIB:4 * MIB + 1024])
        self.kab("read", "-r", "1M:1", "-o", "out", self.disks[0], code=2)
        self.kab("read", "-r", "1M:1", "-o", "out", "--force", self.disks[0])
        self.assertEqual(len(read_file(self.path("out"))), 1)
        self.kab("read", "-r", "1M:1", "-o", "/dev/null", self.disks[0])
        header, *pieces = self.json(*self.key, "read", "-d", "1", "-r", "3M:10000", *self.disks)
        self.assertEqual((header["schema"], header["version"]), ("kab.read", 1))
        self.assertEqual(b"".join(bytes.fromhex(piece["data"]) for piece in pieces), clear[DATA:DATA + 10000])

    def test_dedup_layouts(self):
        # Both layers hold the same logical bytes for a seed, by quite different means.
        wanted = {}
        for layout in ("dedup", "compress"):
            self.kab("sample", "--layout", layout, "--disks", "2", layout)
            disks = [f"{layout}/ssd.img", f"{layout}/disk0.img", f"{layout}/disk1.img"]
            info = self.json("info", *disks)[0]
            self.assertEqual([disk["dedupMode"] for disk in info["disks"]], [2 if layout == "dedup" else 1] * 2)
            for disk in "01":
                out = f"{layout}{disk}.bin"
                self.kab("read", "--logical", "--disk", disk, "--range", "100:1M", "-o", out, *disks)
                logical = read_file(self.path(out))
                self.assertEqual(len(logical), MIB)
                self.assertGreater(MIB - logical.count(0), MIB // 3)
                self.assertEqual(wanted.setdefault(disk, logical), logical)
            self.kab("dump", "--disk", "1", "-o", f"{layout}.kabdump", *disks)
            self.kab("verify", f"{layout}.kabdump")
        self.assertNotEqual(wanted["0"], wanted["1"])
        self.kab("read", "--logical", "--disk", "ssd", "--range", "0:1", *disks, code=2)

    def test_disk_choice(self):
        uuid = read_file(self.path("group/disk2.uuid")).decode().strip()
        picture = {name: read_file(self.path(f"group/{name}.img"), DATA, 64) for name in ("ssd", "disk0", "disk2")}
        group = [self.disks[0], self.disks[1], self.disks[3]]
        for choice, name in ("ssd", "ssd"), ("0", "disk0"), ("2", "disk2"), (uuid, "disk2"), (uuid.upper(), "disk2"), \
                (self.disks[3], "disk2"):
            self.assertEqual(self.kab("read", "-r", "3M:64", "-d", choice, *group)[0], picture[name], choice)
        self.assertEqual(self.kab("read", "-r", "3M:64", *group[:2])[0], picture["disk0"])
        self.assertEqual(self.kab("read", "-r", "3M:64", group[0])[0], picture["ssd"])

    def test_output_that_breaks(self):
        command = [KAB, "read", "-r", "0:", self.disks[0]]
        process = subprocess.Popen(command, cwd=self.work, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.read(10)
        process.stdout.close()
        self.assertEqual((process.stderr.read(), process.wait()), (b"", 1))
        process.stderr.close()
        with open("/dev/full", "wb") as full:
            for command in ["info"], ["check"], ["check", "--json"], ["read", "-r", "0:1M"], ["log"]:
                error = self.kab(*command, self.disks[0], stdout=full, code=1)[1]
                self.assertEqual(error.count("No space left"), 1, command)

    # Dumping

    def test_round_trip(self):
        clear = read_file(self.path("group/disk1.clear.img"))
        ranges = [(DATA, 262145), (MIB, 4096), (8 * MIB - 100, 100), (6 * MIB + 3, 1)]
        arguments = [word for offset, length in ranges for word in ("-r", f"{offset}:{length}")]
        dumped, = self.json(*self.key, "dump", "-o", "d", "--disk", "1", *arguments, *self.disks)
        self.assertEqual(dumped["ranges"], [{"offset": o, "length": n} for o, n in ranges])
        self.assertEqual((dumped["records"], dumped["dumpedInClear"], dumped["unreadableBytes"]), (5, True, 0))
        error = self.kab(*self.key, "dump", "-o", "d2", "--disk", "1", *arguments, *self.disks)[1]
        self.assertIn("is encrypted, and the dump holds its data in clear", error)

        verified, = self.json("verify", "d")
        self.assertEqual((verified["verdict"], verified["recordsReplayed"]), ("intact", 5))
        self.assertEqual(verified["dataBytes"], sum(length for _, length in ranges))
        self.assertEqual(verified["sha256"], dumped["sha256"])
        extracted, = self.json("extract", "d", "t")
        self.assertEqual((extracted["recordsWritten"], extracted["device"]), (5, "disk1.img"))
        expected = bytearray(len(clear))
        for offset, length in ranges:
            expected[offset:offset + length] = clear[offset:offset + length]
        self.assertEqual(read_file(self.path("t")), bytes(expected))

    def test_clear_data_is_not_laid_over_an_encrypted_disk(self):
        """Not unasked, and never without a word where the flag stays set."""
        self.kab(*self.key, "dump", "-o", "d", "--disk", "1", "-r", "1M:4K", "-r", "3M:4K", *self.disks)
        self.kab(*self.key, "dump", "-o", "data", "--disk", "1", "-r", "3M:4K", *self.disks)
        disk = self.copy("group/disk1.img", "disk")
        eleven = self.copy("group/disk0.img", "eleven")
        patch(self.path("eleven"), MIB + 8, b"\x0b\x09")
        for target in disk, eleven:
            before = read_file(self.path(target))
            error = self.kab("extract", "--in-place", "data", target, code=2)[1]
            self.assertIn(f"{target} says that it is encrypted", error)
            self.assertEqual(read_file(self.path(target)), before)
            self.assertIn("yet says", self.kab("extract", "--in-place", "--force", "data", target)[1])
            self.assertNotEqual(read_file(self.path(target)), before)
        self.assertIn("(bit 0 of byte 1049608)", self.kab("extract", "d", "new")[1])
        self.assertEqual(self.kab("extract", "data", "unmarked")[1], "")
        self.assertEqual(self.kab("extract", "--in-place", "data", self.copy("group/disk0.img", "plain"))[1], "")
        self.kab(*self.key, "dump", "-o", "set", "--all-disks", *self.disks)
        error = self.kab("extract", "set", "images")[1]
        self.assertEqual([line.split()[2] for line in error.splitlines()], ["images/disk1.img"])

    def test_metadata_is_the_default(self):
        self.kab("dump", "-o", "d", self.disks[0])
        self.kab("extract", "--no-verify", "d", "t")
        picture, target = read_file(self.path("group/ssd.img")), read_file(self.path("t"))
        self.assertEqual(len(picture), len(target))
        self.assertEqual(picture[MIB:MIB + 4096], target[MIB:MIB + 4096])

    def test_outputs_are_kept(self):
        self.kab("dump", "-o", "d", "-r", "1M:4K", self.disks[0])
        self.kab("dump", "-o", "d", "-r", "1M:8K", self.disks[0], code=2)
        self.assertEqual(self.json("verify", "d")[0]["dataBytes"], 4096)
        self.kab("dump", "-o", "d", "--force", "-r", "1M:8K", self.disks[0])
        self.assertEqual(self.json("verify", "d")[0]["dataBytes"], 8192)
        with open(self.path("t"), "wb") as file:
            file.write(b"\xaa" * (9 * MIB))
        self.kab("extract", "d", "t", code=2)
        self.kab("extract", "--in-place", "d", "t")
        picture, target = read_file(self.path("group/ssd.img")), read_file(self.path("t"))
        self.assertEqual(target, b"\xaa" * MIB + picture[MIB:MIB + 8192] + b"\xaa" * (8 * MIB - 8192))
        self.kab("extract", "--force", "d", "t")
        target = read_file(self.path("t"))
        self.assertEqual(target, bytes(MIB) + picture[MIB:MIB + 8192] + bytes(7 * MIB - 8192))
        self.kab("extract", "--in-place", "d", "nowhere", code=2)
        for arguments in ["extract", "--force", "d", "./d"], ["extract", "--in-place", "d", "d"], \
                ["dump", "--force", "-o", "group/ssd.img", self.disks[0]], \
                ["read", "--force", "-r", "0:1", "-o", "group/disk0.img", *self.disks[:2]]:
            self.assertIn("is what this command reads from", self.kab(*arguments, code=2)[1])
        self.assertEqual(sorted(os.listdir(self.work)), ["d", "group", "t"])

    def test_what_is_no_file_is_not_replaced(self):
        """A dump comes to its name by a renaming, which would take away a device's or a pipe's."""
        os.mkfifo(self.path("fifo"))
        os.mkdir(self.path("folder"))
        os.symlink("/dev/null", self.path("link"))
        before = {name: os.lstat(self.path(name)) for name in ("fifo", "folder", "link")}
        for name, force in itertools.product(before, ([], ["--force"])):
            with self.subTest(name, force=force):
                error = self.kab("dump", *force, "-o", name, "-r", "1M:4K", self.disks[0], code=2)[1]
                self.assertIn(f"{name}: neither new nor a regular file", error)
                now = os.lstat(self.path(name))
                self.assertEqual((now.st_ino, now.st_mode), (before[name].st_ino, before[name].st_mode))

    def test_damaged_dumps(self):
        whole = [(MIB, 3, b"abc"), (5, 0, b""), (2 * MIB, 4, b"defg")]

        def forge(name, records=whole, **how):
            forge_dump(self.path(name), records, **how)
            return name

        cases = [  # file, verdict, exit codes of verify and extract
            (forge("good"), "intact", 0, 0),
            (forge("none", []), "intact", 0, 0),
            (forge("beyond", [(17 * MIB, 1, b"x")]), "intact", 0, 0),
            (forge("tail", stream=lambda raw: zlib.compress(raw) + b"rest"), "intact", 0, 0),
            (forge("digest", digest=b"\1" * 32), "digest-mismatch", 6, 6),
            (forge("fewer", count=2), "digest-mismatch", 6, 6),
            (forge("more", count=4), "broken", 3, 4),
            (forge("endless", count=2**64 - 1), "broken", 3, 4),
            (forge("total", total=20), "broken", 3, 4),
            (forge("length", [(0, 2**32 - 1, b"abc")]), "broken", 3, 4),
            (forge("cut", stream=lambda raw: zlib.compress(raw)[:-6]), "broken", 3, 4),
            (forge("nothing", stream=lambda raw: b""), "broken", 3, 4),
            (forge("noise", stream=lambda raw: b"\xff" * 100), "broken", 3, 4),
            (forge("magic", magic=0xCC0000CD), "not-a-dump", 3, 4),
            (forge("unfinished", magic=0), "unfinished", 3, 4),
            (forge("version", version=2), "foreign-version", 3, 4),
            ("short", "not-a-dump", 3, 4),
        ]
        with open(self.path("short"), "wb") as file:
            file.write(b"\xcc\0\0\xcc\1\0\0\0")
        for name, verdict, verify_code, extract_code in cases:
            for way in [], ["--no-verify"]:
                with self.subTest((name, way)):
                    before = set(os.listdir(self.work))
                    self.assertEqual(self.json("verify", name, code=verify_code)[0]["verdict"], verdict)
                    self.kab("extract", *way, name, "target", code=extract_code)
                    made = set(os.listdir(self.work)) - before
                    self.assertEqual(made, {"target"} if extract_code == 0 else set())
                    if made:
                        os.remove(self.path("target"))
        with open(self.path("kept"), "wb") as file:
            file.write(b"old")
        self.kab("extract", "--no-verify", "--force", "digest", "kept", code=6)
        self.assertEqual(read_file(self.path("kept")), b"old")
        error = self.kab("extract", "--no-verify", "--in-place", "digest", "kept", code=6)[1]
        self.assertIn("kept was written to and is not to be trusted", error)
        # One verdict for several files: the worst, every file judged.
        output = self.kab("verify", "good", "missing", "cut", code=1)[0].decode()
        self.assertIn("good: intact", output)
        self.assertIn("cut: broken", output)
        self.assertEqual(self.kab("verify", "cut", "digest", code=6)[0].count(b"\n"), 2)

    def test_a_device_name_is_only_shown(self):
        """Whatever a dump calls its device, it changes neither the verdict nor the terminal."""
        for name in b"\x1b[31mred\x07\x7f", b"\x1b]0;title\nnext", b"Total Hash mismatch for dump", b"Out of memory":
            forge_dump(self.path("d"), [(MIB, 3, b"abc")], device=name)
            for options in [], ["-v"]:
                for command in ["verify", "d"], ["extract", "--force", "d", "t"], ["diff", "--raw", "d", "t"]:
                    with self.subTest(name, command=command, options=options):
                        output, error = self.kab(*options, *command)
                        self.assertEqual([c for c in output.decode() + error if c < " " and c != "\n" or c == "\x7f"], [])

    def test_target_size_that_cannot_be(self):
        forge_dump(self.path("d"), [], disk_size=2**63)
        self.assertIn("9223372036854775808", self.kab("extract", "d", "t", code=1)[1])
        forge_dump(self.path("d"), [(2**63 - 1, 1, b"x")])
        self.kab("extract", "d", "t", code=1)
        self.assertEqual(sorted(os.listdir(self.work)), ["d", "group"])

    def test_forged_length_takes_no_memory(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_AS, (512 * MIB, 512 * MIB))

        if "ASAN_OPTIONS" in os.environ:
            self.skipTest("the sanitizer needs more address space than the limit")
        forge_dump(self.path("d"), [(0, 2**32 - 1, b"abc")])
        self.kab("verify", "d", code=3, preexec_fn=limit)

    def test_more_than_4_gib(self):
        self.kab("sample", "--disks", "1", "--disk-size", "5G", "big")
        marks = {9 * (1 << 29) + 1: b"behind four gigabytes", 5 * (1 << 30) - 30: b"at the very end"}
        for offset, text in marks.items():
            patch(self.path("big/disk0.img"), offset, text)
        arguments = [word for offset in marks for word in ("-r", f"{offset}:21")]
        self.kab("dump", "-o", "d", *arguments, "big/ssd.img", "big/disk0.img")
        self.kab("extract", "d", "t")
        self.assertEqual(os.stat(self.path("t")).st_size, 5 << 30)
        for offset, text in marks.items():
            self.assertEqual(read_file(self.path("t"), offset, len(text)), text)

    def test_unreadable_blocks(self):
        environment = dict(os.environ, LD_PRELOAD=FAIL_READS, KAB_FAIL_FROM=str(DATA + 300001),
                           KAB_FAIL_TO=str(DATA + 310000))
        environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        error = self.kab("dump", "-o", "d", "-r", "3M:1M", *self.disks[:2], code=4, env=environment)[1]
        self.assertIn("bytes could not be read and are not in the dump", error)
        self.kab("extract", "d", "t")
        picture = read_file(self.path("group/disk0.img"), DATA, MIB)
        target = read_file(self.path("t"), DATA, MIB)
        first, last = 300001 // 4096 * 4096, -(-310000 // 4096) * 4096
        self.assertEqual(target, picture[:first] + bytes(last - first) + picture[last:])
        self.assertIn("reading", self.kab("read", "-r", "3M:1M", "-o", "out", *self.disks[:2], code=1,
                                          env=environment)[1])
        self.assertFalse(os.path.exists(self.path("out")))

    def test_full_target(self):
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (65536, 65536))

        error = self.kab("dump", "-o", "d", "-r", "3M:1M", *self.disks[:2], code=1, preexec_fn=limit)[1]
        self.assertIn("d is unfinished", error)
        self.assertEqual(read_file(self.path("d"), 0, 4096).strip(b"\0"), b"")
        self.kab("verify", "d", code=3)
        self.kab("dump", "-o", "whole", "-r", "3M:1M", *self.disks[:2])
        self.kab("dump", "-o", "whole", "--force", "-r", "3M:1M", *self.disks[:2], code=1, preexec_fn=limit)
        self.kab("verify", "whole")
        self.kab("extract", "whole", "t", code=1, preexec_fn=limit)
        self.kab("read", "-r", "3M:1M", "-o", "r", *self.disks[:2], code=1, preexec_fn=limit)
        self.assertEqual(sorted(os.listdir(self.work)), ["d", "group", "whole"])

    # Being interrupted, telling how far

    def interrupt(self, *arguments):
        """Starts the tool, waits for its first sign of progress, and sends SIGINT."""
        process = subprocess.Popen([KAB, "--progress=json", *arguments], cwd=self.work, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE)
        line = json_lines.parse(process.stderr.readline())[0]
        self.assertEqual((line["schema"], line["finished"]), ("kab.progress", False))
        process.send_signal(signal.SIGINT)
        error = process.stderr.read().decode()
        process.stderr.close()
        self.assertEqual(process.wait(timeout=60), 1, error)
        self.assertIn("interrupted", error)

    def test_interruption(self):
        self.kab("sample", "--disks", "0", "--ssd-size", "4G", "big")
        self.interrupt("dump", "-o", "d", "-r", "0:", "big/ssd.img")
        self.assertEqual(read_file(self.path("d"), 0, 4096).strip(b"\0"), b"")
        self.assertIn("unfinished", self.kab("verify", "d", code=3)[0].decode())
        os.remove(self.path("d"))
        self.interrupt("read", "-o", "r", "-r", "0:", "big/ssd.img")
        self.kab("dump", "-o", "whole", "-r", "0:1G", "big/ssd.img")
        self.interrupt("verify", "whole")
        self.interrupt("extract", "--no-verify", "whole", "t")
        self.assertEqual(sorted(os.listdir(self.work)), ["big", "group", "whole"])

    def test_progress(self):
        error = self.kab("--progress=json", "dump", "-o", "d", "-r", "3M:1M", *self.disks[:2])[1]
        last = json_lines.parse(error.splitlines()[-1])[0]
        self.assertEqual((last["task"], last["done"], last["total"], last["finished"]), ("dump", MIB, MIB, True))
        self.assertEqual(self.kab("dump", "-o", "d2", "-r", "3M:1M", *self.disks[:2])[1], "")
        self.assertIn("Extracting chunk number (0/4)", self.kab("-v", "verify", "d")[1])
        self.assertEqual(self.kab("-q", "extract", "d", "t"), (b"", ""))


if __name__ == "__main__":
    unittest.main(verbosity=1)
