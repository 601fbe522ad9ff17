# SPDX-License-Identifier: Apache-2.0
"""What the measurements should come to."""

import statistics
from dataclasses import dataclass
from typing import Callable, Optional


def counts(with_allow_list):
    """Per round trip, in the application; without the file, looking for it is a call more."""
    return {
        "system calls": 3 if with_allow_list else 4,
        "instructions": 6000,
        "in libnelvo": 2000,
    }


# What a round trip costs now, where that is more than it should: no worse until it is less.
REACHED = {"instructions": 9000}


@dataclass
class Goal:
    name: str
    limit: float
    measured: Callable  # takes the measurements, gives one value per round; none when missing
    unit: str = ""


@dataclass
class Verdict:
    goal: Goal
    value: Optional[float] = None  # the median
    lowest: Optional[float] = None
    highest: Optional[float] = None

    @property
    def word(self):
        if self.value is None:
            return "not measured"
        return "met" if round(self.value, 2) <= self.goal.limit else "MISSED"


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


def goals(with_allow_list):
    limits = counts(with_allow_list)
    return [
        Goal("round trip, 200 B / raw limit", 1.20, ratio("p50", OURS, case("raw"))),
        Goal("round trip, 64 KiB / raw limit", 1.20,
             ratio("p50", case("nelvo", 65536), case("raw", 65536))),
        Goal("round trip, 1 MiB / raw limit", 1.35,
             ratio("p50", case("nelvo", 1048576), case("raw", 1048576))),
        Goal("p99, 200 B / raw limit", 1.25, ratio("p99", OURS, case("raw"))),
        Goal("round trip, 200 B / sd-bus, peer to peer", 0.50,
             ratio("p50", OURS, case("sdbus_p2p"))),
        Goal("round trip, 200 B / sd-bus, through a daemon", 0.21,
             ratio("p50", OURS, case("sdbus_daemon"))),
        Goal("round trip, 200 B / gRPC", 0.21, ratio("p50", OURS, case("grpc"))),
        Goal("1,000 idle clients / 1", 1.05,
             ratio("p50", case("nelvo", idle=1000), case("nelvo", idle=1))),
        Goal("system calls per round trip", limits["system calls"],
             value("system calls", "counts")),
        Goal("instructions per round trip", limits["instructions"],
             value("instructions", "counts")),
        Goal("of them in libnelvo", limits["in libnelvo"], value("in libnelvo", "counts")),
        Goal("peak resident memory", 3150, value("peak", "nelvo"), "KiB"),
        Goal("growth, request 2,000 to 22,000", 0, value("growth", "nelvo"), "KiB"),
        Goal("exec to ready / empty C++ program", 1.20,
             ratio("start", case("start: bench_app", 0), case("start: bench_empty", 0))),
        Goal("nelvo_initialize()", 60, value("initialize", "start: bench_app", 0), "µs"),
        Goal("stripped size, libnelvo", 48, value("size", "libnelvo", 0), "KiB"),
        Goal("stripped size, with the host platform", 128,
             value("size", "both libraries", 0), "KiB"),
    ]


def judge(measurements, with_allow_list):
    for goal in goals(with_allow_list):
        values = goal.measured(measurements)
        if values:
            yield Verdict(goal, statistics.median(values), min(values), max(values))
        else:
            yield Verdict(goal)
