#!/usr/bin/env python3
"""kab serve under the clients that people use, against the pictures that the sample builder keeps.

  serve_test.py KAB FAIL_READS PLUGIN [unittest arguments]
"""
import contextlib
import json
import os
import random
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import unittest

KAB = os.path.abspath(sys.argv.pop(1))
FAIL_READS = os.path.abspath(sys.argv.pop(1))
PLUGIN = os.path.abspath(sys.argv.pop(1))
MIB = 1 << 20
DATA = 3 * MIB

for program in "nbdkit", "nbdcopy", "qemu-img", "qemu-io":
    if shutil.which(program) is None:
        print(f"skipped: {program} is not installed")
        sys.exit(77)


def read_file(path, offset=0, length=-1):
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(length)


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300, check=False)


class ServeCase(unittest.TestCase):
    """A sample group made once a class; a test that spoils something works on a copy."""

    sample = []

    @classmethod
    def setUpClass(cls):
        if not cls.sample:
            raise unittest.SkipTest("the base of the others")
        cls.shared = tempfile.mkdtemp(prefix="kab-serve-")
        cls.folder = f"{cls.shared}/group"
        subprocess.run([KAB, "sample", *cls.sample, "--with-picture", cls.folder], check=True,
                       stdout=subprocess.DEVNULL)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.shared)

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="kab-serve-")
        self.socket = f"{self.work}/nbd.sock"

    def tearDown(self):
        shutil.rmtree(self.work)

    def copy(self):
        folder = f"{self.work}/group"
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(self.folder, folder)
        return folder

    def paths(self, folder=None):
        folder = folder or self.folder
        return [f"{folder}/ssd.img"] + sorted(f"{folder}/{name}" for name in os.listdir(folder)
                                              if name.startswith("disk") and name.endswith(".img"))

    def keys(self):
        return [argument for name in sorted(os.listdir(self.folder)) if name.endswith(".key")
                for argument in ("--key-file", read_file(f"{self.folder}/{name[:-4]}.uuid").decode().strip() +
                                 f"={self.folder}/{name}")]

    def start(self, *arguments, folder=None, preload=(), **environment):
        return subprocess.Popen([KAB, "serve", *self.keys(), *arguments, *self.paths(folder)], cwd=self.work,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_DFL),  # whatever nohup did
                                env={**os.environ, **self.preload(preload), **environment})

    @staticmethod
    def preload(libraries):
        libraries = [name for name in (os.environ.get("KAB_SERVE_PRELOAD"), *libraries) if name]
        return {"LD_PRELOAD": ":".join(libraries)} if libraries else {}

    @contextlib.contextmanager
    def serve(self, *arguments, by=signal.SIGINT, code=0, **options):
        """Yields the URI of the export; afterwards stops the server, which must end well and leave no socket."""
        where = [] if "--port" in arguments else ["--socket", self.socket]
        server = self.start(*where, *arguments, **options)
        try:
            uri = server.stdout.readline().decode().strip()
            self.assertTrue(uri.startswith("nbd"), uri or server.stderr.read().decode())
            yield uri
        finally:
            server.send_signal(by)
            _, self.lines = server.communicate(timeout=60)
            self.lines = self.lines.decode()
        self.assertEqual(server.returncode, code, self.lines)
        self.assertFalse(os.path.exists(self.socket))

    def refuse(self, *arguments, code, line, folder=None):
        server = self.start(*arguments, folder=folder)
        _, lines = server.communicate(timeout=60)
        self.assertEqual(server.returncode, code, lines.decode())
        self.assertIn(line, lines.decode())

    def assert_same(self, found, expected):
        """Megabytes in place of a diff of them; behind what is expected there is nothing but zeros."""
        self.assertGreaterEqual(len(found), len(expected))
        if found[:len(expected)] != expected:
            at = next(i for i, (a, b) in enumerate(zip(found, expected)) if a != b)
            self.fail(f"the first difference is at {at}")

    def client(self, *command):
        result = run(*command)
        self.assertEqual(result.returncode, 0, f"{command}\n{result.stdout.decode()}\n")
        return result.stdout.decode()

    def io(self, uri, *commands):
        """qemu-io's lines for commands on one connection."""
        return run("qemu-io", "-r", "-f", "raw", *(word for command in commands for word in ("-c", command)),
                   uri).stdout.decode()

    def check_copies(self, expected, *choice):
        """Every client's copy is the picture, and what the tool itself reads."""
        with self.serve(*choice) as uri:
            size = json.loads(self.client("qemu-img", "info", "--output", "json", "-f", "raw", uri))["virtual-size"]
            copies = {"qemu-img": ["qemu-img", "convert", "-f", "raw", "-O", "raw", uri],
                      "nbdcopy": ["nbdcopy", uri],
                      "parallel": ["nbdcopy", "--connections=4", "--threads=4", "--requests=32",
                                   "--request-size=65536", uri]}
            for name, command in copies.items():
                self.client(*command, f"{self.work}/{name}")
                self.assert_same(read_file(f"{self.work}/{name}"), expected)
            self.assertEqual(os.path.getsize(f"{self.work}/nbdcopy"), os.path.getsize(f"{self.work}/parallel"))
            self.assertLess(size - os.path.getsize(f"{self.work}/nbdcopy"), 512)  # qemu counts in sectors
            self.client("qemu-img", "compare", "-f", "raw", "-F", "raw", uri, f"{self.work}/parallel")
        return read_file(f"{self.work}/nbdcopy")


class Disk(ServeCase):
    """Two disks under a log, one of them enciphered; their size is a multiple of nothing."""

    sample = ["--layout", "log", "--disks", "2", "--encrypt", "1", "--seed", "7", "--ssd-size", "10M",
              "--disk-size", "17M"]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for slot in range(2):
            with open(f"{cls.folder}/disk{slot}.img", "ab") as disk:
                disk.write(b"x" * 77)

    def picture(self, slot):
        return read_file(f"{self.folder}/disk{slot}.picture")

    def test_copies_are_what_the_group_sees(self):
        for slot in range(2):
            raw = read_file(f"{self.folder}/disk{slot}.img", DATA, len(self.picture(slot)))
            self.assertTrue(raw != self.picture(slot))  # the log and the key do matter
            found = self.check_copies(self.picture(slot), "--disk", str(slot))
            read = subprocess.run([KAB, "read", *self.keys(), "--as-group", "-d", str(slot), "-r", "0:",
                                   *self.paths()], check=True, stdout=subprocess.PIPE)
            self.assertEqual(found, read.stdout)
            self.assertNotEqual(len(found) % 512, 0)

    def test_reads_that_overlap_in_time_and_place(self):
        dice = random.Random(3)
        picture = self.picture(1)
        with self.serve("--disk", "1") as uri:
            copies = [subprocess.Popen(["nbdcopy", "--connections=2", uri, f"{self.work}/copy{i}"]) for i in range(3)]
            reads = []
            for _ in range(100):
                offset = dice.randrange(len(picture) // 512 - 256) * 512
                length = dice.randrange(1, 256) * 512
                reads.append(f"aio_read {offset} {length}")
            lines = self.io(uri, *reads, "aio_flush")
            self.assertEqual(lines.count(" bytes at offset"), 100, lines)
            self.assertEqual([copy.wait(300) for copy in copies], [0, 0, 0])
            for i in range(3):
                self.assert_same(read_file(f"{self.work}/copy{i}"), picture)

    def test_a_bad_sector_fails_alone(self):
        # Where the SSD is at its end already: reads of both fail by their offset.
        piece = next(piece for piece in self.pieces(1)
                     if piece["source"] == "disk" and piece["length"] > 3 * 4096 and piece["place"] > 10 * MIB)
        bad = (piece["offset"] + 4096) // 4096 * 4096 + 3 * 512
        picture = self.picture(1)
        # A part of an enciphered unit is read with its unit: 2048 bytes.
        unit = bad // 2048 * 2048
        place = piece["place"] + bad - piece["offset"]
        with self.serve("--disk", "1", preload=[FAIL_READS], KAB_FAIL_FROM=str(place),
                        KAB_FAIL_TO=str(place + 512)) as uri:
            self.assertNotEqual(run("nbdcopy", uri, f"{self.work}/copy").returncode, 0)
            lines = self.io(uri, f"read {unit - 65536} 65536", f"read {unit} 512", f"read {unit + 2048} 65536",
                            f"read {unit - MIB} {2 * MIB}")
            self.assertEqual(lines.count("read failed: Input/output error"), 2, lines)
            self.assertEqual(lines.count("read 65536/65536"), 2, lines)
            self.client("qemu-img", "convert", "--salvage", "-f", "raw", "-O", "raw", uri, f"{self.work}/salvaged")
        expected = picture[:unit] + bytes(2048) + picture[unit + 2048:]
        self.assert_same(read_file(f"{self.work}/salvaged"), expected)
        self.assertIn(f"4096 bytes at {bad // 4096 * 4096} cannot be read", self.lines)

    def pieces(self, slot):
        result = subprocess.run([KAB, "--json", "read", *self.keys(), "--as-group", "--explain", "-d", str(slot), "-r",
                                 f"0:{len(self.picture(slot))}", *self.paths()], check=True, stdout=subprocess.PIPE)
        return [json.loads(line) for line in result.stdout.splitlines()][1:]

    def test_writes_are_refused_and_change_nothing(self):
        before = [read_file(path) for path in self.paths()]
        with self.serve("--disk", "0") as uri:
            lines = run("qemu-io", "-f", "raw", "-c", "write 0 4096", uri).stdout.decode()
            self.assertIn("Permission denied", lines)
            self.assertNotEqual(run("nbdcopy", f"{self.folder}/disk0.picture", uri).returncode, 0)
        self.assertTrue(before == [read_file(path) for path in self.paths()])

    def test_a_signal_stops_it_whatever_clients_do(self):
        for by in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
            with self.serve("--disk", "0", by=by):
                self.assertEqual(stat.S_IMODE(os.stat(self.socket).st_mode), 0o600)
                idle = socket.socket(socket.AF_UNIX)
                idle.connect(self.socket)
                self.assertEqual(idle.recv(8), b"NBDMAGIC")
            while idle.recv(4096):
                pass  # closed by the server's end
            idle.close()

    def test_a_port_is_open_to_this_machine_alone(self):
        with self.serve("--disk", "0", "--port", "0") as uri:
            port = int(uri.rsplit(":", 1)[1])
            with open("/proc/net/tcp", encoding="ascii") as table:
                listening = [line.split()[1] for line in table if line.split()[3] == "0A"]
            self.assertIn(f"0100007F:{port:04X}", listening)
            self.assertNotIn(f"00000000:{port:04X}", listening)
            self.client("nbdcopy", uri, f"{self.work}/copy")
            self.assert_same(read_file(f"{self.work}/copy"), self.picture(0))
            with socket.create_connection(("127.0.0.1", port)):
                self.refuse("--disk", "0", "--port", str(port), code=1, line="Address already in use")

    @unittest.skipIf("KAB_SERVE_PRELOAD" in os.environ,
                     "under the sanitizer's runtime nbdkit waits for a lock of its own in exit, whatever its plugin")
    def test_without_its_parent_the_server_ends(self):
        server = self.start("--socket", self.socket, "--disk", "0")
        server.stdout.readline()
        idle = socket.socket(socket.AF_UNIX)
        idle.connect(self.socket)
        idle.recv(8)
        server.kill()
        idle.close()
        server.communicate(timeout=60)  # only when nobody holds its other end any more
        with self.assertRaises(ConnectionRefusedError), socket.socket(socket.AF_UNIX) as late:
            late.connect(self.socket)

    def test_what_cannot_be_served_is_told_as_ever(self):
        where = ["--socket", self.socket]
        nobody = "00000000-0000-0000-0000-000000000001"
        spoilt = self.copy()
        for block in 0, 1:  # both checkpoint records
            with open(f"{spoilt}/ssd.img", "r+b") as ssd:
                ssd.seek(DATA + block * 4096 + 20)
                ssd.write(b"\xff")
        with open(f"{self.work}/taken", "w", encoding="ascii"):
            pass
        for arguments, code, line, folder in (
                ([*where, "-d", "0"], 4, "the log cannot be replayed", spoilt),
                ([*where, "-c", nobody], 5, f"no component {nobody}", None),
                ([*where], 2, "choose one with --disk", None),
                ([*where, "-d", "ssd"], 2, "not a capacity disk of the group", None),
                ([*where, "-d", "0", "-c", nobody], 2, "exclude each other", None),
                ([*where, "-d", "0", "--port", "1"], 2, "needs --socket or --port", None),
                (["-d", "0"], 2, "needs --socket or --port", None),
                (["-d", "0", "--socket", "s" * 200], 2, "longer than 107 bytes", None),
                (["-d", "0", "--socket", f"{self.work}/taken"], 1, "Address already in use", None)):
            with self.subTest(arguments=arguments):
                self.refuse(*arguments, code=code, line=f"kab: ", folder=folder)
                self.refuse(*arguments, code=code, line=line, folder=folder)
        self.assertTrue(os.path.exists(f"{self.work}/taken"))

    def test_the_plugin_alone_wants_one_thing_to_serve(self):
        ssd, *disks = self.paths()
        group = [f"ssd={ssd}"] + [f"disk={disk}" for disk in disks]
        keys = [f"key-file={key}" for key in self.keys()[1::2]]
        for arguments, line in ((group[1:], "ssd=PATH is missing"),
                                (group[:1], "needs one disk=PATH"),
                                (group, "needs one disk=PATH"),
                                ([*group, "serve=0", "component=00000000-0000-0000-0000-000000000001"], "exclude each"),
                                ([*group, "serve=9"], "none of the disks given"),
                                ([*group, "serve=0", "skip-unmount-check=maybe"], "maybe"),
                                ([*group, "serve=0", "colour=red"], "colour: no such parameter")):
            with self.subTest(arguments=arguments):
                result = subprocess.run(["nbdkit", "-U", "-", PLUGIN, *keys, *arguments, "--run", "true"],
                                        timeout=60, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                                        env={**os.environ, **self.preload(())})
                self.assertEqual(result.returncode, 1, result.stdout.decode())
                self.assertIn(line, result.stdout.decode())

    def test_without_nbdkit_nothing_is_promised(self):
        server = self.start("--socket", self.socket, "--disk", "0", PATH=self.work)
        promised, lines = server.communicate(timeout=60)
        self.assertEqual((server.returncode, promised), (1, b""))
        self.assertIn(b"kab: nbdkit: No such file or directory", lines)
        self.assertFalse(os.path.exists(self.socket))


class Dedup(ServeCase):
    sample = ["--layout", "dedup", "--disks", "2", "--seed", "4"]

    def test_copies_are_the_logical_bytes(self):
        for slot in range(2):
            picture = read_file(f"{self.folder}/disk{slot}.picture")
            found = self.check_copies(picture, "--disk", str(slot))
            self.assertEqual(found[len(picture):].count(0), len(found) - len(picture))

    def test_hostile_bytes_end_as_errors(self):
        dice = random.Random(11)
        for _ in range(6):
            folder = self.copy()
            with open(f"{folder}/disk1.img", "r+b") as disk:
                for _ in range(400):
                    disk.seek(dice.randrange(DATA + 4096, os.path.getsize(disk.name)))
                    disk.write(dice.randbytes(16))
            with self.serve("--disk", "1", folder=folder) as uri:
                run("qemu-img", "convert", "--salvage", "-f", "raw", "-O", "raw", uri, f"{self.work}/salvaged")


class ComponentCase(ServeCase):
    def components(self, folder=None):
        listed = subprocess.run([KAB, "--json", "component", "list", *self.paths(folder)], check=False,
                                stdout=subprocess.PIPE).stdout
        return [one for one in map(json.loads, listed.splitlines()[1:]) if one["hasSuperblock"]]


class Component(ComponentCase):
    """Its log moves a part of every map and of the data to the SSD."""

    sample = ["--layout", "orlo-log", "--seed", "3"]

    def test_copies_are_the_pictures(self):
        for component in self.components():
            uuid = component["uuid"]
            picture = read_file(f"{self.folder}/{uuid}.picture")
            self.assertEqual(self.check_copies(picture, "--component", uuid), picture)
            with self.serve("--component", uuid) as uri:  # holes are told to the client
                runs = json.loads(self.client("qemu-img", "map", "--output", "json", "-f", "raw", uri))
            holes = sum(one["length"] for one in runs if one["zero"])
            self.assertEqual(holes, len(picture) - component["allocated"])

    def test_hostile_bytes_end_as_errors(self):
        component = max(self.components(), key=lambda one: one["extents"])
        dice = random.Random(5)
        outcomes = set()
        for _ in range(10):
            folder = self.copy()
            with open(f"{folder}/ssd.img", "r+b") as ssd:
                for _ in range(6):  # map blocks and data in the write buffer
                    ssd.seek(dice.randrange(DATA + 4 * MIB, os.path.getsize(ssd.name) - 65536) // 4096 * 4096)
                    ssd.write(dice.randbytes(64))
            server = self.start("--socket", self.socket, "--component", component["uuid"], folder=folder)
            uri = server.stdout.readline().decode().strip()
            if uri:
                run("qemu-img", "convert", "--salvage", "-f", "raw", "-O", "raw", uri, f"{self.work}/salvaged")
            server.send_signal(signal.SIGINT)
            _, lines = server.communicate(timeout=60)
            self.assertIn(server.returncode, (0, 4) if uri else (1, 4, 5), lines.decode())
            outcomes.add(server.returncode)
        self.assertIn(0, outcomes)


class UnloggedComponent(ComponentCase):
    """All of it lies on the disk."""

    sample = ["--layout", "orlo", "--seed", "3"]

    def test_a_bad_block_fails_alone(self):
        """For a client, and for kab component read, which leaves zeros in its place."""
        component = max(self.components(), key=lambda one: one["extents"])
        uuid = component["uuid"]
        picture = read_file(f"{self.folder}/{uuid}.picture")
        mapped = subprocess.run([KAB, "--json", "component", "map", "-u", uuid, *self.paths()], check=True,
                                stdout=subprocess.PIPE).stdout
        runs = [one for one in map(json.loads, mapped.splitlines()[1:]) if one["place"] is not None]
        longest = max(runs, key=lambda one: one["length"])
        bad = longest["offset"] + longest["length"] - 4096
        place = longest["place"] + longest["length"] - 1
        expected = picture[:bad] + bytes(4096) + picture[bad + 4096:]
        fault = {"KAB_FAIL_FROM": str(place), "KAB_FAIL_TO": str(place + 1)}
        with self.serve("--component", uuid, preload=[FAIL_READS], **fault) as uri:
            self.assertEqual(self.io(uri, f"read {bad} 512").count("Input/output error"), 1)
            self.client("qemu-img", "convert", "--salvage", "-f", "raw", "-O", "raw", uri, f"{self.work}/salvaged")
        self.assert_same(read_file(f"{self.work}/salvaged"), expected)
        read = subprocess.run([KAB, "component", "read", "-u", uuid, "-o", f"{self.work}/read", *self.paths()],
                              env={**os.environ, **self.preload([FAIL_READS]), **fault}, check=False,
                              stderr=subprocess.DEVNULL)
        self.assertEqual(read.returncode, 4)
        self.assert_same(read_file(f"{self.work}/read"), expected)


if __name__ == "__main__":
    unittest.main()
