#!/usr/bin/env python3
"""Runs every command that the documents show, and follows their links.

  docs_test.py SOURCE KAB LIBRARY_FOLDER [unittest arguments]

A ```console block holds commands behind "$ " (continued by a backslash) and what they print, both streams in order.
"..." stands for anything within a line, and on a line of its own for any number of lines. The blocks of one document
run in one bash and in one folder, which is empty at first. A command succeeds, unless the next one is `echo $?`.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.abspath(sys.argv.pop(1))
KAB = os.path.abspath(sys.argv.pop(1))
LIBRARY = os.path.abspath(sys.argv.pop(1))
SHOWS_STATUS = "echo $?"


def documents():
    for folder, folders, files in os.walk(SOURCE):
        folders[:] = [name for name in folders if not name.startswith((".", "build"))]
        for name in sorted(files):
            if name.endswith(".md"):
                yield os.path.relpath(os.path.join(folder, name), SOURCE)


def read(document):
    with open(os.path.join(SOURCE, document), encoding="utf-8") as file:
        return file.read()


def blocks(document, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", read(document), re.M | re.S)


def commands(block):
    """(command, the lines it shows) one after the other."""
    found = []
    for line in block.splitlines():
        if line.startswith("$ "):
            found.append([line[2:], []])
        elif found[-1][0].endswith("\\") and not found[-1][1]:
            found[-1][0] += "\n" + line
        else:
            found[-1][1].append(line)
    return found


def matches(shown, printed):
    pattern = ""
    for line in shown:
        if line.strip() == "...":
            pattern += r"(?:.*\n)*?"
        else:
            pattern += ".*".join(re.escape(part) for part in line.split("...")) + r"\n"
    return re.fullmatch(pattern, printed) is not None


def anchors(document):
    """The names by which a heading is linked to."""
    text = re.sub(r"^```.*?^```$", "", read(document), flags=re.M | re.S)
    for heading in re.findall(r"^#+ (.*)$", text, re.M):
        yield re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


class Docs(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="kab-docs-")
        self.addCleanup(shutil.rmtree, self.folder)
        os.mkdir(f"{self.folder}/bin")
        os.symlink(KAB, f"{self.folder}/bin/kab")
        self.environment = {**os.environ, "PATH": f"{self.folder}/bin:{os.environ['PATH']}", "LC_ALL": "C.UTF-8",
                            "LD_LIBRARY_PATH": LIBRARY}

    def run_document(self, document, number):
        work = f"{self.folder}/{number}"
        results = f"{work}.results"
        os.mkdir(work)
        os.mkdir(results)
        todo = [command for block in blocks(document, "console") for command in commands(block)]
        script = "status=0\n"
        for i, (command, _) in enumerate(todo):
            # What a command sets must last, hence no subshell; $? is the last command's own.
            script += f"(exit $status)\n{{ {command}\n}} >{results}/{i} 2>&1\nstatus=$?; echo $status >{results}/{i}.status\n"
        subprocess.run(["bash"], input=script.encode(), cwd=work, env=self.environment, timeout=600, check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for i, (command, shown) in enumerate(todo):
            with self.subTest(document, command=command):
                self.assertTrue(os.path.exists(f"{results}/{i}.status"), "the shell did not get that far")
                with open(f"{results}/{i}.status", encoding="ascii") as file:
                    status = int(file.read())
                with open(f"{results}/{i}", encoding="utf-8", errors="replace") as file:
                    printed = file.read()
                followed = i + 1 < len(todo) and todo[i + 1][0] == SHOWS_STATUS
                self.assertTrue(status == 0 or followed, f"exit status {status}\n{printed}")
                self.assertTrue(matches(shown, printed), f"this is printed:\n{printed}")

    def test_commands_do_what_is_shown(self):
        ran = 0
        for number, document in enumerate(documents()):
            if blocks(document, "console"):
                self.run_document(document, number)
                ran += 1
        self.assertGreaterEqual(ran, 2, "README.md and docs/tutorial.md show commands")

    def test_c_programs_run(self):
        subprocess.run([KAB, "sample", "--disks", "1", "group"], cwd=self.folder, check=True, stdout=subprocess.DEVNULL)
        for document in documents():
            for program in blocks(document, "c"):
                if "int main(" not in program:
                    continue
                with self.subTest(document):
                    with open(f"{self.folder}/program.c", "w", encoding="utf-8") as file:
                        file.write(program)
                    flags = os.environ.get("CFLAGS", "").split()
                    subprocess.run([os.environ.get("CC", "cc"), "-std=c11", "-Wall", "-Wextra", "-Werror", *flags,
                                    f"-I{SOURCE}/include", "program.c", f"-L{LIBRARY}", "-lkab", "-o", "program"],
                                   cwd=self.folder, check=True)
                    subprocess.run(["./program", "group/ssd.img", "group/disk0.img"], cwd=self.folder, check=True,
                                   env=self.environment)

    def test_links_lead_somewhere(self):
        for document in documents():
            text = re.sub(r"^```.*?^```$", "", read(document), flags=re.M | re.S)
            for link in re.findall(r"\]\(([^)\s]+)\)", text):
                if re.match(r"[a-z]+:", link):
                    continue
                with self.subTest(document, link=link):
                    path, _, anchor = link.partition("#")
                    target = os.path.normpath(os.path.join(os.path.dirname(document), path)) if path else document
                    self.assertTrue(os.path.exists(os.path.join(SOURCE, target)), "no such file")
                    if anchor and target.endswith(".md"):
                        self.assertIn(anchor, list(anchors(target)))


if __name__ == "__main__":
    unittest.main(verbosity=2)
