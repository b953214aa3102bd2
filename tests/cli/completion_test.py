#!/usr/bin/env python3
"""Loads the completions into the real shells, types into them and looks at what they offer.

  completion_test.py KAB [unittest arguments]
"""
import fcntl
import os
import pty
import select
import shlex
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

import help_page

KAB = os.path.abspath(sys.argv.pop(1))
FILES = ["file two.img", "file1.img"]
FILE_NAMES = ("SSD", "DISK", "FILE", "DUMP", "TARGET")
INSERT_ALL = b"\x1b*"  # insert every completion there is
SHOW = b"\x07"  # append the line to $OUT
KILL = b"\x15"

BASHRC = r"""
source kab.bash
show() { printf '%s\n' "$READLINE_LINE" >>"$OUT"; }
bind -x '"\C-g": show'
bind '"\e*": insert-completions'
bind 'set completion-query-items 0'
show
"""

ZSHRC = r"""
fpath=($PWD $fpath)
autoload -Uz compinit && compinit -D -u
unsetopt zle_bracketed_paste list_beep
zle -C all-matches complete-word _generic
bindkey '\e*' all-matches
zstyle ':completion:all-matches:*' insert yes
zstyle ':completion:all-matches::::' completer _all_matches _complete
show() { print -r -- "$BUFFER" >>$OUT }
zle -N show
bindkey '^G' show
bindkey '^U' kill-whole-line
zle-line-init() { [[ -s $OUT ]] || print >>$OUT }
zle -N zle-line-init
"""


class Typist:
    """An interactive shell on a terminal of its own, so that the shell itself splits words and quotes names."""

    def __init__(self, folder, *command):
        self.out = os.path.join(folder, "out")
        self.lines = 0
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.environ.update(TERM="vt100", OUT=self.out, ZDOTDIR=folder, LC_ALL="C.UTF-8", PS1="$ ")
            os.environ.pop("INPUTRC", None)
            os.execvp(command[0], command)
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 100, 4000, 0, 0))
        self.wait()  # for the first prompt

    def wait(self):
        """The next line that the shell has shown."""
        said = b""
        deadline = time.monotonic() + 120
        while time.monotonic() < deadline:
            if select.select([self.terminal], [], [], 0.02)[0]:
                said += os.read(self.terminal, 65536)
            if os.path.exists(self.out):
                with open(self.out, encoding="utf-8") as file:
                    shown = file.read().split("\n")
                if len(shown) > self.lines + 1:
                    self.lines += 1
                    return shown[self.lines - 1]
        raise AssertionError(f"the shell does not answer: {said[-1000:]!r}")

    def complete(self, line):
        os.write(self.terminal, KILL + line.encode() + INSERT_ALL + SHOW)
        completed = self.wait()
        if completed.rstrip() == line.rstrip():
            return []
        before = len(shlex.split(line)) - (0 if line.endswith(" ") else 1)
        return shlex.split(completed)[before:]

    def close(self):
        os.close(self.terminal)
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


class Fish:
    def __init__(self, folder):
        self.folder = folder

    def complete(self, line):
        script = f"source kab.fish; complete -C {shlex.quote(line)}"
        answer = subprocess.run(["fish", "--no-config", "-c", script], cwd=self.folder, check=True, timeout=120,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if answer.stderr:
            raise AssertionError(answer.stderr)
        return [candidate.split("\t")[0] for candidate in answer.stdout.splitlines()]

    def close(self):
        pass


class Shell:
    """The cases; a shell is a class with a name and a way to start it."""

    @classmethod
    def setUpClass(cls):
        if shutil.which(cls.shell) is None:
            raise unittest.SkipTest(f"{cls.shell} is not installed")
        cls.folder = tempfile.mkdtemp(prefix="kab-completion-")
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        for name in FILES:
            open(os.path.join(cls.folder, name), "w").close()
        os.mkdir(os.path.join(cls.folder, "folder"))
        script = os.path.join(cls.folder, cls.script)
        with open(script, "wb") as file:
            subprocess.run([KAB, "completion", cls.shell], check=True, stdout=file)
        cls.typist = cls.start(cls.folder)
        cls.addClassCleanup(cls.typist.close)
        cls.commands = help_page.commands(KAB)
        cls.globals = help_page.Page(KAB).long_options

    def offers(self, line, *expected):
        with self.subTest(line):
            # Not every shell marks a folder here.
            self.assertEqual(sorted(word.rstrip("/") for word in self.typist.complete(line)), sorted(expected))

    def test_commands(self):
        self.offers("kab ", *self.commands)
        self.offers("kab --json --key-file x=y --progress none ", *self.commands)
        self.offers("kab ver", "verify")
        self.offers("kab dump ver")

    def test_options_of_every_command(self):
        self.offers("kab --", *self.globals)
        for command in self.commands:
            page = help_page.Page(KAB, command)
            self.offers(f"kab {command} --", *(page.long_options | self.globals))

    def test_files_where_files_stand(self):
        for command in self.commands:
            page = help_page.Page(KAB, command)
            if page.arguments and page.arguments[0] in FILE_NAMES:
                self.offers(f"kab {command} file", *FILES)
            for option, value in page.options.items():
                if value in FILE_NAMES:
                    self.offers(f"kab {command} {option} file", *FILES)
        self.offers("kab component list file", *FILES)
        self.offers("kab info file1.img file1.img file", *FILES)
        self.offers("kab --json dump -o x file", *FILES)
        self.offers("kab sample fo", "folder")
        self.offers("kab dump --output=file1", "--output=file1.img")
        self.offers("kab --key-file UUID=file1", "UUID=file1.img")
        self.offers("kab dump --range 1M:4 file1", "file1.img")
        self.offers("kab dump --range file")
        self.offers("kab verify -- file", *FILES)

    def test_values(self):
        self.offers("kab --progress ", "auto", "json", "none")
        self.offers("kab dump --progress j", "json")
        self.offers("kab log --only ", "llog", "plog")
        self.offers("kab sample --layout ", "compress", "dedup", "log", "orlo", "orlo-log", "plain")
        self.offers("kab component ", "info", "list", "map", "read")
        self.offers("kab component --uuid x l", "list")
        self.offers("kab completion ", "bash", "fish", "zsh")


class BashTest(Shell, unittest.TestCase):
    shell, script = "bash", "kab.bash"

    @staticmethod
    def start(folder):
        with open(os.path.join(folder, "bashrc"), "w", encoding="utf-8") as file:
            file.write(BASHRC)
        return Typist(folder, "bash", "--noprofile", "--rcfile", "bashrc", "-i")


class ZshTest(Shell, unittest.TestCase):
    shell, script = "zsh", "_kab"

    @staticmethod
    def start(folder):
        with open(os.path.join(folder, ".zshrc"), "w", encoding="utf-8") as file:
            file.write(ZSHRC)
        return Typist(folder, "zsh", "-d", "-i")


class FishTest(Shell, unittest.TestCase):
    shell, script = "fish", "kab.fish"
    start = Fish


if __name__ == "__main__":
    unittest.main(verbosity=2)
