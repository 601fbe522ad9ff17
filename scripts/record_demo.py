# SPDX-License-Identifier: Apache-2.0
"""Runs the example player and nelvoctl in a terminal, and draws what is to be seen there.

    record_demo.py BUILD          writes docs/demo.svg
    record_demo.py BUILD --check  fails when that is no longer what the programs print
"""
import re
import sys
from html import escape
from pathlib import Path

from terminal import COLOUR, ROOT, Terminal

COMMANDS = [
    "player 2>player.log &",
    "nelvoctl call demo.player play",
    "nelvoctl call demo.player set_volume '{\"volume\": 30}'",
    "nelvoctl call demo.player dance",
    "nelvoctl state demo.player",
]
RECORDING = ROOT / "docs/demo.svg"

COLUMNS, COLUMN, LINE, MARGIN = 84, 8.43, 19, 16
TYPED_SECONDS, PRINTED_SECONDS = 0.9, 0.12
COLOURS = {"2": "#8b949e", "31": "#ff7b72", "32": "#7ee787", "33": "#d29922", "0": None}
HEAD = """<!-- SPDX-License-Identifier: Apache-2.0 -->
<!-- made by scripts/record_demo.py -->
<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" xml:space="preserve" role="img"
    aria-label="A terminal in which nelvoctl drives the example player">
<style>
text {{ font: 14px ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; fill: #e6edf3; white-space: pre; }}
.typed {{ font-weight: bold; }}
@media (prefers-reduced-motion: no-preference) {{
    text {{ animation: appear 0.01s backwards; }}
    @keyframes appear {{ from {{ opacity: 0; }} }}
}}
</style>
<rect width="100%" height="100%" rx="8" fill="#0d1117"/>
"""


def record(build):
    """The lines of the terminal: each a command or not, and its text."""
    with Terminal(build / "docs/record", build) as terminal:
        terminal.say("PATH=build/release/examples/player:build/release/tools/nelvoctl:$PATH")
        for command in COMMANDS:
            yield True, "$ " + command
            for line in terminal.say(command)[1].splitlines():
                yield False, line


def wrapped(line):
    """As a terminal does it; colours take no columns."""
    pieces, used = [""], 0
    for part in re.findall(COLOUR.pattern + "|.", line):
        if not COLOUR.match(part):
            if used == COLUMNS:
                pieces.append("")
                used = 0
            used += 1
        pieces[-1] += part
    return pieces


def spans(text):
    drawn, colour = "", None
    for part in re.split(f"({COLOUR.pattern})", text):
        if COLOUR.match(part):
            colour = COLOURS[part[2:-1]]
        elif part:
            drawn += f'<tspan fill="{colour}">{escape(part)}</tspan>' if colour else escape(part)
    return drawn


def draw(lines):
    texts, seconds, y = [], 0.0, MARGIN + LINE * 0.75
    for is_command, line in lines:
        seconds += TYPED_SECONDS if is_command else PRINTED_SECONDS
        kind = ' class="typed"' if is_command else ""
        for piece in wrapped(line):
            texts.append(f'<text x="{MARGIN}" y="{y:g}"{kind} style="animation-delay: {seconds:.2f}s">'
                         f"{spans(piece)}</text>\n")
            y += LINE
    width = round(COLUMNS * COLUMN + 2 * MARGIN)
    return HEAD.format(width=width, height=round(y + MARGIN - LINE * 0.75)) + "".join(texts) + "</svg>\n"


def main():
    drawn = draw(list(record(Path(sys.argv[1]).resolve())))
    if sys.argv[2:] != ["--check"]:
        RECORDING.write_text(drawn)
        return 0
    if RECORDING.read_text() == drawn:
        return 0
    print("docs/demo.svg does not show what the programs print; run scripts/record_demo.py build/release")
    return 1


if __name__ == "__main__":
    sys.exit(main())
