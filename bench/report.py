# SPDX-License-Identifier: Apache-2.0
"""The measurements as Markdown tables with their budgets, and as a chart."""

import statistics
from dataclasses import dataclass
from typing import Callable, Optional

import gate

IDLE = [1, 100, 1000]  # clients that are connected and do nothing
NAMES = {"nelvo": "Nelvo", "raw": "raw limit", "epoll": "limit with epoll",
         "sdbus_p2p": "sd-bus, peer to peer", "sdbus_daemon": "sd-bus, through a daemon",
         "grpc": "gRPC"}
SIZES = {200: "200 B", 4096: "4 KiB", 65536: "64 KiB", 1048576: "1 MiB"}


# --- budgets ------------------------------------------------------------------------------------

@dataclass
class Budget:
    name: str
    limit: float
    measured: Callable  # takes the measurements, gives one value per round; none when missing
    unit: str = ""


@dataclass
class Verdict:
    budget: Budget
    value: Optional[float] = None  # the median
    lowest: Optional[float] = None
    highest: Optional[float] = None

    @property
    def word(self):
        if self.value is None:
            return "not measured"
        return "within" if round(self.value, 2) <= self.budget.limit else "over"


def case(program, payload=200, idle=0):
    return program, payload, idle


def ratio(field, ours, other):
    """One quotient per round: what disturbs a round disturbs both of its values."""
    def measured(measurements):
        return [a / b for a, b in zip(measurements.of(field, *ours), measurements.of(field, *other))
                if b]
    return measured


def value(field, program, payload=200, idle=0):
    return lambda measurements: measurements.of(field, program, payload, idle)


OURS = case("nelvo")


def budgets(with_allow_list):
    limits = gate.BUDGETS[with_allow_list]
    return [
        Budget("round trip, 200 B / raw limit", 1.55, ratio("p50", OURS, case("raw"))),
        Budget("round trip, 64 KiB / raw limit", 1.55,
             ratio("p50", case("nelvo", 65536), case("raw", 65536))),
        Budget("round trip, 1 MiB / raw limit", 1.90,
             ratio("p50", case("nelvo", 1048576), case("raw", 1048576))),
        Budget("p99, 200 B / raw limit", 2.00, ratio("p99", OURS, case("raw"))),
        Budget("round trip, 200 B / sd-bus, peer to peer", 0.85,
             ratio("p50", OURS, case("sdbus_p2p"))),
        Budget("round trip, 200 B / sd-bus, through a daemon", 0.33,
             ratio("p50", OURS, case("sdbus_daemon"))),
        Budget("round trip, 200 B / gRPC", 0.33, ratio("p50", OURS, case("grpc"))),
        Budget("1,000 idle clients / 1", 1.05,
             ratio("p50", case("nelvo", idle=1000), case("nelvo", idle=1))),
        Budget("system calls per round trip", limits["system calls"],
             value("system calls", "counts")),
        Budget("instructions per round trip", limits["instructions"],
             value("instructions", "counts")),
        Budget("of them in libnelvo", limits["in libnelvo"], value("in libnelvo", "counts")),
        Budget("peak resident memory", 4096, value("peak", "nelvo"), "KiB"),
        Budget("growth, request 2,000 to 22,000", 0, value("growth", "nelvo"), "KiB"),
        Budget("exec to ready / empty C++ program", 2.00,
             ratio("start", case("start: bench_app", 0), case("start: bench_empty", 0))),
        Budget("nelvo_initialize()", 1000, value("initialize", "start: bench_app", 0), "µs"),
        Budget("stripped size, libnelvo", 72, value("size", "libnelvo", 0), "KiB"),
        Budget("stripped size, with the host platform", 256,
             value("size", "both libraries", 0), "KiB"),
    ]


def judge(measurements, with_allow_list):
    for budget in budgets(with_allow_list):
        values = budget.measured(measurements)
        if values:
            yield Verdict(budget, statistics.median(values), min(values), max(values))
        else:
            yield Verdict(budget)


# --- tables -------------------------------------------------------------------------------------

def table(heading, rows):
    lines = [heading, ["---"] * len(heading), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def number(value):
    """Three digits, or all before the point."""
    if value is None:
        return "-"
    if value == int(value) or abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.2f}" if abs(value) < 10 else f"{value:.1f}"


def median(values):
    return statistics.median(values) if values else None


def verdicts(measurements, with_allow_list):
    rows = []
    for verdict in judge(measurements, with_allow_list):
        unit = f" {verdict.budget.unit}" if verdict.budget.unit else ""
        one = verdict.lowest == verdict.highest
        spread = "" if one else f"{number(verdict.lowest)} to {number(verdict.highest)}"
        rows.append([verdict.budget.name, f"{number(verdict.budget.limit)}{unit}",
                     f"{number(verdict.value)}{unit}", spread, verdict.word])
    return table(["What", "budget", "measured", "spread", "verdict"], rows)


def times(measurements):
    rows = []
    for payload, size in SIZES.items():
        for peer, name in NAMES.items():
            values = [median(measurements.of(field, peer, payload))
                      for field in ("p50", "p99", "p99.9")]
            if values[0] is None:
                continue
            against = median(ratio("p50", case(peer, payload),
                                         case("raw", payload))(measurements))
            rows.append([size, name, *map(number, values), number(against)])
    return table(["Payload", "Way", "p50, µs", "p99, µs", "p99.9, µs", "p50 / raw limit"], rows)


def idle_clients(measurements):
    rows = []
    for idle in [0, *IDLE]:
        values = [median(measurements.of(field, "nelvo", 200, idle))
                  for field in ("p50", "p99", "p99.9", "peak", "private_dirty")]
        if values[0] is not None:
            rows.append([f"{idle:,}", *map(number, values)])
    return table(["Idle clients", "p50, µs", "p99, µs", "p99.9, µs", "peak, KiB",
                  "private dirty, KiB"], rows)


def start(measurements):
    rows = []
    for program, name in (("bench_app", "Nelvo application"), ("bench_empty", "empty C++ program")):
        values = [median(measurements.of(field, f"start: {program}", 0))
                  for field in ("start", "peak", "private_dirty")]
        rows.append([name, *map(number, values)])
    return table(["Just started", "exec to ready, µs", "peak, KiB", "private dirty, KiB"], rows)


def whole(measurements, with_allow_list):
    parts = [verdicts(measurements, with_allow_list)]
    parts += [part(measurements) for part in (times, idle_clients, start)]
    return "\n".join(parts)


# --- the chart ----------------------------------------------------------------------------------

PANEL, LABELS, BAR, GAP, TOP = 205, 185, 20, 8, 64
OUR_COLOUR, OTHERS, INK, QUIET = "#c2410c", "#94a3b8", "#1e293b", "#64748b"


def text(x, y, content, anchor="start", colour=INK, size=12, weight="normal"):
    return (f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" fill="{colour}" '
            f'font-size="{size}" font-weight="{weight}">{content}</text>')


def panel(measurements, payload, size, left, peers):
    """Bars of one payload: as long as the medians are, and what these are in microseconds."""
    medians = {peer: median(measurements.of("p50", peer, payload)) for peer in peers}
    longest = max(value for value in medians.values() if value is not None)
    room = PANEL - 75
    yield text(left, TOP - 12, size, weight="bold")
    for row, (peer, value) in enumerate(medians.items()):
        if value is None:
            continue
        top = TOP + row * (BAR + GAP)
        width = max(1, room * value / longest)
        yield (f'<rect x="{left}" y="{top}" width="{width:.1f}" height="{BAR}" rx="2" '
               f'fill="{OUR_COLOUR if peer == "nelvo" else OTHERS}"/>')
        yield text(left + width + 5, top + 14, number(value), colour=QUIET, size=11)


def draw(measurements):
    peers = [peer for peer in NAMES if measurements.of("p50", peer)]
    width = LABELS + PANEL * len(SIZES) + 10
    height = TOP + len(peers) * (BAR + GAP) + 12
    parts = ["<!-- SPDX-License-Identifier: Apache-2.0 -->",
             f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}" font-family="system-ui, sans-serif">',
             f'<rect width="{width}" height="{height}" rx="6" fill="#ffffff"/>',
             text(12, 26, "One round trip, payload both ways, both processes on one core: median "
                  "in µs, shorter is better", size=14, weight="bold")]
    for row, peer in enumerate(peers):
        parts.append(text(LABELS - 10, TOP + row * (BAR + GAP) + 14, NAMES[peer], "end",
                          weight="bold" if peer == "nelvo" else "normal"))
    for column, (payload, size) in enumerate(SIZES.items()):
        parts += panel(measurements, payload, size, LABELS + column * PANEL, peers)
    return "\n".join([*parts, "</svg>"]) + "\n"
