# SPDX-License-Identifier: Apache-2.0
"""The measurements as Markdown tables."""

import statistics

import goals
import measure

NAMES = {"nelvo": "Nelvo", "raw": "raw limit", "epoll": "limit with epoll",
         "sdbus_p2p": "sd-bus, peer to peer", "sdbus_daemon": "sd-bus, through a daemon",
         "grpc": "gRPC"}
SIZES = {200: "200 B", 4096: "4 KiB", 65536: "64 KiB", 1048576: "1 MiB"}


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
    for verdict in goals.judge(measurements, with_allow_list):
        unit = f" {verdict.goal.unit}" if verdict.goal.unit else ""
        one = verdict.lowest == verdict.highest
        spread = "" if one else f"{number(verdict.lowest)} to {number(verdict.highest)}"
        rows.append([verdict.goal.name, f"{number(verdict.goal.limit)}{unit}",
                     f"{number(verdict.value)}{unit}", spread, verdict.word])
    return table(["What", "at most", "measured", "spread", "verdict"], rows)


def times(measurements):
    rows = []
    for payload, size in SIZES.items():
        for peer, name in NAMES.items():
            values = [median(measurements.of(field, peer, payload))
                      for field in ("p50", "p99", "p99.9")]
            if values[0] is None:
                continue
            against = median(goals.ratio("p50", goals.case(peer, payload),
                                         goals.case("raw", payload))(measurements))
            rows.append([size, name, *map(number, values), number(against)])
    return table(["Payload", "Way", "p50, µs", "p99, µs", "p99.9, µs", "p50 / raw limit"], rows)


def idle_clients(measurements):
    rows = []
    for idle in [0, *measure.IDLE]:
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
