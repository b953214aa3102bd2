#!/usr/bin/env python3
"""What every command does alike: --json, --quiet, an interruption, a reader that leaves, and the exit statuses.

  manners_test.py KAB FAIL_READS_LIBRARY [unittest arguments]
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import json_lines

KAB = os.path.abspath(sys.argv.pop(1))
FAIL_READS = os.path.abspath(sys.argv.pop(1))

LOG = ["log/ssd.img", "log/disk0.img", "log/disk1.img"]
ORLO = ["orlo/ssd.img", "orlo/disk0.img", "orlo/disk1.img"]
DEDUP = ["dedup/ssd.img", "dedup/disk0.img", "dedup/disk1.img"]


class Command:
    """A command line; `json` when it prints objects with --json, `reads` when it reads so much that an interruption
    must stop it. What it makes is NEW."""

    def __init__(self, *words, json=True, reads=False):
        self.words, self.json, self.reads = list(words), json, reads


class Manners(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.shared = tempfile.mkdtemp(prefix="kab-manners-")
        for layout in "log", "orlo", "dedup":
            cls.run_kab(cls.shared, "sample", "--layout", layout, layout)
        cls.run_kab(cls.shared, "dump", "-o", "whole.kabdump", "-r", "0:", *LOG[:1])
        cls.run_kab(cls.shared, "dump", "--all-disks", "-o", "whole.set", *ORLO)
        listed = json_lines.parse(cls.run_kab(cls.shared, "component", "list", "--json", *ORLO).stdout)[1:]
        uuid = next(line["uuid"] for line in listed if line["hasSuperblock"])
        cls.commands = [
            Command("info", *DEDUP), Command("info", "--scan", *DEDUP, reads=True), Command("info", *ORLO),
            Command("check", *LOG, reads=True), Command("check", *DEDUP, reads=True), Command("check", *ORLO, reads=True),
            Command("log", *LOG, reads=True), Command("read", "-r", "3M:3M", *LOG[:1], reads=True),
            Command("read", "--logical", "-d", "0", "-r", "0:200K", *DEDUP),
            Command("read", "--as-group", "--explain", "-d", "0", "-r", "0:1M", *LOG),
            Command("component", "list", *ORLO), Command("component", "info", "-u", uuid, *ORLO),
            Command("component", "map", "-u", uuid, *ORLO),
            Command("component", "read", "-u", uuid, "-o", "NEW", *ORLO, json=False, reads=True),
            Command("dump", "-o", "NEW", "-r", "0:", *LOG[:1], reads=True),
            Command("dump", "--all-disks", "-o", "NEW", *ORLO, reads=True),
            Command("verify", "whole.kabdump", reads=True), Command("verify", "whole.set"),
            Command("extract", "whole.kabdump", "NEW", reads=True), Command("extract", "whole.set", "NEW"),
            Command("diff", "whole.kabdump", *LOG[:1], reads=True), Command("diff", "whole.set", *ORLO),
            Command("sample", "NEW")]

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.shared)

    @staticmethod
    def run_kab(folder, *words, **options):
        return subprocess.run([KAB, *words], cwd=folder, stdout=options.pop("stdout", subprocess.PIPE),
                              stderr=subprocess.PIPE, timeout=300, **options)

    def setUp(self):
        self.new = os.path.join(self.shared, "NEW")

    def clean(self):
        """What the command before made is taken away."""
        if os.path.isdir(self.new):
            shutil.rmtree(self.new)
        elif os.path.exists(self.new):
            os.remove(self.new)

    def test_json_is_all_that_stdout_holds(self):
        for command in self.commands:
            with self.subTest(" ".join(command.words)):
                self.clean()
                result = self.run_kab(self.shared, "--json", *command.words)
                self.assertEqual((result.returncode, result.stderr), (0, b""))
                if command.json:
                    self.assertGreater(len(json_lines.parse(result.stdout)), 0)
                else:
                    self.assertEqual(result.stdout, b"")

    def test_quiet_leaves_stderr_empty(self):
        for command in self.commands:
            with self.subTest(" ".join(command.words)):
                self.clean()
                loud = self.run_kab(self.shared, *command.words)
                self.clean()
                quiet = self.run_kab(self.shared, "--quiet", *command.words)
                self.assertEqual((quiet.returncode, quiet.stderr), (0, b""))
                self.assertLessEqual(len(quiet.stdout), len(loud.stdout))

    def test_an_interruption_ends_it_in_good_order(self):
        environment = dict(os.environ, LD_PRELOAD=FAIL_READS)
        environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        for at in 1, 7, 40:
            for command in self.commands:
                with self.subTest(" ".join(command.words)):
                    self.clean()
                    result = self.run_kab(self.shared, *command.words, env=dict(environment, KAB_INTERRUPT_AT=str(at)))
                    self.assertIn(result.returncode, (1,) if command.reads and at == 1 else (0, 1), result.stderr)
                    if result.returncode == 1:
                        self.assertTrue(result.stderr.splitlines()[-1].startswith(b"kab: interrupted"), result.stderr)
                        if command.words[0] in ("extract", "component", "read"):
                            self.assertFalse(os.path.exists(self.new))  # nothing that looks whole

    def test_a_reader_that_leaves(self):
        for command in self.commands:
            with self.subTest(" ".join(command.words)):
                self.clean()
                for form in [], ["--json"]:
                    self.clean()
                    ours, theirs = os.pipe()
                    os.close(ours)
                    result = self.run_kab(self.shared, *form, *command.words, stdout=theirs)
                    os.close(theirs)
                    prints = bool(self.run_kab(self.shared, "--force", *form, *command.words).stdout) \
                        if "NEW" in command.words else True
                    if prints:
                        self.assertEqual((result.returncode, result.stderr), (1, b""))

    def test_exit_statuses(self):
        """Usage, a disk that is not there, one of another group: alike wherever disks are named."""
        for command in self.commands:
            with self.subTest(" ".join(command.words)):
                self.clean()
                if command.words[0] == "sample":
                    continue
                self.assertEqual(self.run_kab(self.shared, "--nonsense", *command.words).returncode, 2)
                words = [word if not word.endswith((".img", ".kabdump", ".set")) else "missing" for word in command.words]
                self.assertEqual(self.run_kab(self.shared, *words).returncode, 1)
                if command.words[-1].endswith("disk1.img"):
                    foreign = command.words[:-1] + [("log" if "dedup" in command.words[-1] else "dedup") + "/disk5.img"]
                    folder = os.path.dirname(os.path.join(self.shared, foreign[-1]))
                    self.make_foreign(command.words[-1], folder)
                    self.assertEqual(self.run_kab(self.shared, *foreign).returncode, 5)

    def make_foreign(self, disk, folder):
        shutil.copyfile(os.path.join(self.shared, disk), os.path.join(folder, "disk5.img"))
        with open(os.path.join(folder, "disk5.img"), "r+b") as image:
            image.seek((1 << 20) + 12)
            image.write(b"\xee" * 16)


if __name__ == "__main__":
    unittest.main()
