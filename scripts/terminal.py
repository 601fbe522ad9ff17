# SPDX-License-Identifier: Apache-2.0
"""A shell with a terminal, in a folder made for it, for commands that a document shows."""
import os
import pty
import re
import select
import shutil
import socket
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
FOLDERS = ("bench", "client", "cmake", "docs", "examples", "fuzz", "host", "include", "scripts",
           "src", "testkit", "tests", "tools")
SECONDS_PER_COMMAND = 30
STARTED_SECONDS = 10  # for an application to listen
MARK = "\x02done"
COLOUR = re.compile("\x1b\\[[0-9;]*m")


SKIPPED = 77  # the exit code that ctest takes for a skipped test


class CommandFailed(Exception):
    pass


def open_terminal():
    """A pseudo-terminal's two ends. Without one to be had, ends the program as a skipped test."""
    try:
        return pty.openpty()
    except OSError as error:
        print(f"skipped: no pseudo-terminal is to be had here: {error}; is /dev/pts mounted?")
        sys.exit(SKIPPED)


def make_folder(folder, build):
    """What a reader has after a checkout and a build: the tree by links, build/release is build.

    Nothing else that lies in the tree, such as the application of somebody who has followed the
    document there.
    """
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "build").mkdir(parents=True)
    (folder / "build/release").symlink_to(build)
    for name in FOLDERS:
        (folder / name).symlink_to(ROOT / name)
    (folder / "run").mkdir(mode=0o700)


class Terminal:
    """One shell: what a command sets or starts in the background lasts until the end."""

    def __init__(self, folder, build):
        make_folder(folder, build)
        self.folder = folder
        self.sockets = folder / "run/nelvo"
        # Relative, since a socket's path must be short; nothing of the user's own settings.
        environment = {
            "PATH": os.environ["PATH"],
            "HOME": str(folder),
            "XDG_RUNTIME_DIR": "run",
            "TERM": "dumb",
            "LC_ALL": "C.UTF-8",
        }
        self.output, theirs = open_terminal()
        self.shell = subprocess.Popen(["bash", "--norc"], cwd=folder, env=environment, text=True,
                                      stdin=subprocess.PIPE, stdout=theirs, stderr=theirs,
                                      start_new_session=True)
        os.close(theirs)
        self.say("set +m")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.shell.communicate('kill $(jobs -p) 2>/dev/null; wait 2>/dev/null\n', timeout=10)
        except subprocess.TimeoutExpired:
            os.killpg(self.shell.pid, 9)
            self.shell.wait()
        os.close(self.output)

    def say(self, command):
        """Returns the exit code and what was printed, with its colours."""
        sockets = self.listening()
        self.shell.stdin.write(f"{command}\n__code=$?; printf '{MARK}%d\\n' $__code; (exit $__code)\n")
        self.shell.stdin.flush()
        text = self.read(command)
        before, _, code = text.rpartition(MARK)
        if command.endswith("&"):
            self.wait_for_socket(command, sockets)
        return int(code), before

    def listening(self):
        """The sockets by name and age: an application that was killed leaves its own behind."""
        return {(path.name, path.lstat().st_ctime_ns) for path in self.sockets.glob("*:message")}

    def wait_for_socket(self, command, before):
        end = time.monotonic() + STARTED_SECONDS
        while not any(self.accepts(name) for name, _ in self.listening() - before):
            if time.monotonic() > end:
                raise CommandFailed(f"{command}: does not listen after {STARTED_SECONDS} s")
            time.sleep(0.01)

    def accepts(self, name):
        folder = os.open(self.sockets, os.O_PATH)
        with socket.socket(socket.AF_UNIX) as attempt:
            code = attempt.connect_ex(f"/proc/self/fd/{folder}/{name}")
        os.close(folder)
        return code == 0

    def read(self, command):
        text = ""
        end = time.monotonic() + SECONDS_PER_COMMAND
        while not re.search(MARK + r"\d+\n$", text):
            if not select.select([self.output], [], [], max(0, end - time.monotonic()))[0]:
                raise CommandFailed(f"{command}: not done after {SECONDS_PER_COMMAND} s: {text}")
            text += os.read(self.output, 65536).decode(errors="replace").replace("\r\n", "\n")
        return text
