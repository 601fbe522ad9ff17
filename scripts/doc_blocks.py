# SPDX-License-Identifier: Apache-2.0
"""Checks a document: compiles its programs, runs its commands and compares what they print.

    doc_blocks.py BUILD DOCUMENT

The document is followed as a reader would, top to bottom, in one folder and one shell. By kind:

    c, cpp    a whole program: compiled and linked, warnings as errors
    console   commands behind "$ ", and all that they print; a command that fails must be followed
              by "$ echo $?"; "..." stands for anything in a line, alone for any lines, and a number
              of ten digits for any other
    sh        not run: its syntax, its ./dev commands and its presets are checked
    json, xml parsed

A comment before a block may change that:

    <!-- file: NAME -->      the block is also written to that file, for the commands that follow
    <!-- for: a device -->   commands that are run with the host platform for pkg-config's modules
    <!-- in: PATH -->        the block stands in that file of the project, line by line
    <!-- not run: REASON --> nothing is checked; the only way for other kinds

Links, the names of files, and functions that stand behind one, `FILE` `NAME()`, must be there.
"""
import difflib
import json
import os
import re
import subprocess
import sys
from pathlib import Path
from xml.dom import minidom
from xml.parsers.expat import ExpatError

from terminal import COLOUR, FOLDERS, ROOT, CommandFailed, Terminal

BLOCK = re.compile(r"(?:<!-- (file|in|for|not run): ([^\n]+) -->\n+)?^```(\w*)\n(.*?)^```$", re.M | re.S)
WARNINGS = ("-Wall -Wextra -Wpedantic -Wshadow -Wconversion"
            + (" -Werror" if os.environ.get("NELVO_WERROR") == "ON" else ""))
LIBRARIES = "-Iinclude -Ihost/include -Lbuild/release/src -Lbuild/release/host -lnelvo -lnelvo-host"


class Wrong(Exception):
    pass


def check(condition, what):
    if not condition:
        raise Wrong(what)


def run(arguments, folder):
    done = subprocess.run(arguments, cwd=folder, capture_output=True, text=True, check=False)
    check(done.returncode == 0, f"{' '.join(map(str, arguments))}:\n{done.stdout}{done.stderr}")


def check_program(text, compiler, folder):
    check("int main(" in text, "no whole program; say with a comment where it stands")
    source = folder / ("program." + ("c" if compiler == "cc" else "cpp"))
    source.write_text(text)
    run([compiler, *WARNINGS.split(), source, "-o", "program", *LIBRARIES.split()], folder)


def check_stands_in(text, path):
    lines = [line.strip() for line in (ROOT / path).read_text().splitlines()]
    wanted = [line.strip() for line in text.splitlines()]
    check(any(lines[at:at + len(wanted)] == wanted for at in range(len(lines))),
          f"{path} does not have these lines, or not one after the other")


def check_device_build(text, folder):
    """Against the host platform in place of the device's."""
    run(["bash", "-c", re.sub(r"\$\(pkg-config [^)]*\)",
                              "-Ihost/include -Lbuild/release/host -lnelvo-host", text)], folder)


def check_shell_text(text, folder):
    run(["bash", "-n", "-c", text], folder)
    commands = [path.stem for path in (ROOT / "scripts/dev").glob("*.sh")] + ["help"]
    presets = re.findall(r'"name": "(\w+)"', (ROOT / "CMakePresets.json").read_text())
    for name in re.findall(r"\./dev (\w+)", text):
        check(name in commands, f"./dev has no command {name}")
    for name in re.findall(r"--preset (\w+)", text):
        check(name in presets, f"there is no preset {name}")


def split_transcript(text):
    """Yields each command, and what it should print."""
    for part in re.split(r"^\$ ", text, flags=re.M)[1:]:
        command, output = re.match(r"((?:[^\n]*\\\n)*[^\n]*)\n(.*)", part, re.S).groups()
        yield command, output


def pattern_of(wanted):
    pattern = re.escape(wanted).replace(r"\.\.\.", "[^\n]*")
    pattern = re.sub(r"^\[\^\n\]\*\\\n", "(?:[^\n]*\n)*?", pattern, flags=re.M)
    return re.sub(r"\d{10,}", r"\\d{10,}", pattern)


def bare(text):
    return re.sub(r" +$", "", COLOUR.sub("", text), flags=re.M)


def check_transcript(text, terminal):
    check(text.startswith("$ "), "does not begin with a command")
    commands = list(split_transcript(text))
    for i, (command, wanted) in enumerate(commands):
        code, shown = terminal.say(command)
        shown = bare(shown)
        difference = "\n".join(difflib.unified_diff(
            wanted.splitlines(), shown.splitlines(), "the document", "the programs", lineterm=""))
        check(re.fullmatch(pattern_of(wanted), shown), f"$ {command}\n{difference}")
        shows_code = i + 1 < len(commands) and commands[i + 1][0] == "echo $?"
        check(code == 0 or shows_code, f"$ {command}\nends with {code}, and does not show it")


def check_block(note, value, kind, text, terminal):
    if note == "not run":
        return
    if note == "in":
        check_stands_in(text, value)
    if note == "file":
        path = terminal.folder / value
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)
    if kind in ("c", "cpp"):
        if note != "in" or "int main(" in text:
            check_program(text, {"c": "cc", "cpp": "c++"}[kind], terminal.folder)
    elif kind == "console":
        check_transcript(text, terminal)
    elif kind == "sh" and note == "for":
        check_device_build(text, terminal.folder)
    elif kind == "sh":
        check_shell_text(text, terminal.folder)
    elif kind == "json":
        json.loads(text)
    elif kind == "xml":
        minidom.parseString(text)
    else:
        check(note == "in", f"nothing can check a block of the kind \"{kind}\"")


def check_names(prose):
    # Without what stands for any name, TARGET.
    for path in re.findall(rf"`((?:{'|'.join(FOLDERS)})/[a-z_./-]*)`", prose):
        there = [ROOT / path, ROOT / "host/include" / path]
        check(any(at.exists() for at in there), f"there is no {path}")
    for path, name in re.findall(r"`([\w/]+\.\w+)`\s`(\w+)\(\)`", prose):
        check(re.search(rf"\b{name}\(", (ROOT / path).read_text()), f"{path} has no {name}()")


def check_prose(prose, document):
    check_names(prose)
    check("```" not in prose, "a fence that opens or closes nothing")
    check(not re.search(r"\n\n    +[^ \n]", prose), "an indented block; put it between fences")
    for link in re.findall(r"\]\(([^)#:]+)[)#]", prose):
        check((document.parent / link).exists(), f"the link {link} leads nowhere")


def main():
    build, document = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    text = document.read_text()
    line, skipped, wrong = 0, 0, []
    blocks = list(BLOCK.finditer(text))
    with Terminal(build / "docs" / document.stem, build) as terminal:
        for block in [*blocks, None]:
            line = text[:block.start(3) if block else 0].count("\n") + 1
            try:
                if block:
                    check_block(*block.groups(), terminal)
                    skipped += block[1] == "not run"
                else:
                    check_prose(BLOCK.sub("", text), document)
            except (Wrong, CommandFailed, ValueError, OSError, ExpatError) as error:
                wrong.append(f"{document.relative_to(ROOT)}:{line}: {error}")
    print("\n\n".join(wrong) or f"{len(blocks)} blocks, {skipped} of them not run")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
