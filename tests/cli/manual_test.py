#!/usr/bin/env python3
"""The manual pages: one a command, without a warning from the formatter, and holding what --help says.

  manual_test.py KAB [unittest arguments]
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import help_page

KAB = os.path.abspath(sys.argv.pop(1))


class Manual(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="kab-manual-")
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        subprocess.run([KAB, "manual", cls.folder], check=True)
        cls.pages = {"kab.1": help_page.Page(KAB)}
        cls.pages.update({f"kab-{command}.1": help_page.Page(KAB, command) for command in help_page.commands(KAB)})

    def formatted(self, *command):
        """For each page what a formatter makes of it, and what it has to say about it."""
        if shutil.which(command[0]) is None:
            self.skipTest(f"{command[0]} is not installed")
        for name in self.pages:
            result = subprocess.run([*command, name], cwd=self.folder, stdout=subprocess.PIPE, check=False,
                                    stderr=subprocess.PIPE, text=True, env={**os.environ, "MANROFFSEQ": ""})
            yield name, result.stdout, result.stderr

    def test_one_page_a_command(self):
        self.assertEqual(sorted(os.listdir(self.folder)), sorted(self.pages))

    def test_groff(self):
        for name, text, said in self.formatted("groff", "-man", "-ww", "-Tascii", "-P-c", "-rLL=200n"):
            with self.subTest(name):
                self.assertEqual(said, "")
                text = re.sub(".\b", "", text)  # bold is struck twice
                titles = re.findall(r"^[A-Z][A-Z ]+$", text, re.M)
                self.assertEqual(titles[:3], ["NAME", "SYNOPSIS", "DESCRIPTION"])
                self.assertEqual(titles[-3:], ["EXIT STATUS", "EXAMPLES", "SEE ALSO"])
                page = self.pages[name]
                words = " ".join(text.split())
                usage = page.sections["Usage"].removeprefix("Usage:")
                for wanted in [usage, *page.options, *page.arguments, *page.examples]:
                    self.assertIn(" ".join(wanted.split()), words)

    def test_man(self):
        for name, _, said in self.formatted("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z"):
            with self.subTest(name):
                self.assertEqual(said, "")

    def test_mandoc(self):
        for name, text, _ in self.formatted("mandoc", "-man", "-Tlint", "-Wwarning"):
            with self.subTest(name):
                # A page carries no date, so that the same source makes the same bytes.
                self.assertEqual([line for line in text.splitlines() if "missing date" not in line], [])

    def test_help_fits_a_terminal(self):
        for name, page in self.pages.items():
            for title, section in page.sections.items():
                for line in section.splitlines():
                    with self.subTest(name, section=title):
                        self.assertTrue(len(line) <= 80 or title == "Examples", line)


if __name__ == "__main__":
    unittest.main(verbosity=2)
