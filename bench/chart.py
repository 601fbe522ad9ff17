# SPDX-License-Identifier: Apache-2.0
"""The round trips as bars, one panel per payload, as an SVG picture."""

import report

PANEL, LABELS, BAR, GAP, TOP = 205, 185, 20, 8, 64
OURS, OTHERS, INK, QUIET = "#c2410c", "#94a3b8", "#1e293b", "#64748b"


def text(x, y, content, anchor="start", colour=INK, size=12, weight="normal"):
    return (f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" fill="{colour}" '
            f'font-size="{size}" font-weight="{weight}">{content}</text>')


def panel(measurements, payload, size, left, peers):
    """Bars of one payload: as long as the medians are, and what these are in microseconds."""
    medians = {peer: report.median(measurements.of("p50", peer, payload)) for peer in peers}
    longest = max(value for value in medians.values() if value is not None)
    room = PANEL - 75
    yield text(left, TOP - 12, size, weight="bold")
    for row, (peer, value) in enumerate(medians.items()):
        if value is None:
            continue
        top = TOP + row * (BAR + GAP)
        width = max(1, room * value / longest)
        yield (f'<rect x="{left}" y="{top}" width="{width:.1f}" height="{BAR}" rx="2" '
               f'fill="{OURS if peer == "nelvo" else OTHERS}"/>')
        yield text(left + width + 5, top + 14, report.number(value), colour=QUIET, size=11)


def draw(measurements):
    peers = [peer for peer in report.NAMES if measurements.of("p50", peer)]
    width = LABELS + PANEL * len(report.SIZES) + 10
    height = TOP + len(peers) * (BAR + GAP) + 12
    parts = ["<!-- SPDX-License-Identifier: Apache-2.0 -->",
             f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}" font-family="system-ui, sans-serif">',
             f'<rect width="{width}" height="{height}" rx="6" fill="#ffffff"/>',
             text(12, 26, "One round trip, payload both ways, both processes on one core: median "
                  "in µs, shorter is better", size=14, weight="bold")]
    for row, peer in enumerate(peers):
        parts.append(text(LABELS - 10, TOP + row * (BAR + GAP) + 14, report.NAMES[peer], "end",
                          weight="bold" if peer == "nelvo" else "normal"))
    for column, (payload, size) in enumerate(report.SIZES.items()):
        parts += panel(measurements, payload, size, LABELS + column * PANEL, peers)
    return "\n".join([*parts, "</svg>"]) + "\n"
