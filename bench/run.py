# SPDX-License-Identifier: Apache-2.0
"""Runs the measured programs, round after round, and prints what came of it; see docs/performance.md."""

import argparse
import csv
import json
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile

import gate
import report

PEERS = ["nelvo", "raw", "epoll", "sdbus_p2p", "sdbus_daemon", "grpc"]
# Payload in bytes: round trips before the measured ones, and measured.
PAYLOADS = {200: (2000, 20000), 4096: (200, 4000), 65536: (50, 1000), 1048576: (10, 100)}
STARTS = 50
LIBRARIES = {"libnelvo": ["src/libnelvo.so"],
          "both libraries": ["src/libnelvo.so", "host/libnelvo-host.so"]}
FIELDS = ["round", "program", "payload", "idle", "p50", "p99", "p99.9", "start", "initialize",
          "peak", "private_dirty", "growth", "system calls", "instructions", "in libnelvo", "size"]


class Measurements:
    """Rows as in the CSV file; one per round and case."""

    def __init__(self, rows=()):
        self.rows = list(rows)

    def add(self, round_, program, payload, idle, result):
        self.rows.append({"round": round_, "program": program, "payload": payload, "idle": idle,
                          **result})

    def of(self, field, program, payload=200, idle=0):
        """One value per round, in their order."""
        return [float(row[field]) for row in self.rows
                if (row["program"], int(row["payload"]), int(row["idle"])) ==
                (program, payload, idle) and row.get(field, "") != ""]

    def write(self, file):
        writer = csv.DictWriter(file, FIELDS, extrasaction="ignore", lineterminator="\n")
        writer.writeheader()
        writer.writerows(self.rows)


class Progress:
    """A line that shows how far we are; nothing where nobody is watching."""

    def __init__(self, steps):
        self.steps, self.done = steps, 0

    def step(self, what):
        self.done += 1
        if sys.stderr.isatty():
            filled = 40 * self.done // self.steps
            bar = "#" * filled + "." * (40 - filled)
            end = "\n" if self.done == self.steps else ""
            print(f"\r[{bar}] {self.done}/{self.steps} {what:<24}", end=end, file=sys.stderr,
                  flush=True)


def objects(command, environment):
    """What a command prints, one JSON object per line; FOLDER becomes an empty one of its own."""
    with tempfile.TemporaryDirectory() as folder:
        words = [folder if word == "FOLDER" else str(word) for word in command]
        run = subprocess.run(words, env=environment, check=True, stdout=subprocess.PIPE, text=True)
    return [json.loads(line) for line in run.stdout.splitlines()]


class Runner:
    def __init__(self, build, scale):
        self.programs = build / "bench"
        self.build = build
        self.scale = scale  # 1: as many round trips as above; less for a trial
        self.peers = [peer for peer in PEERS if (self.programs / f"bench_{peer}").exists()]
        self.missing = [peer for peer in PEERS if peer not in self.peers]
        self.with_allow_list = bool(gate.allow_list())
        self.measurements = Measurements()

    def cases(self):
        for payload in PAYLOADS:
            for peer in self.peers:
                yield peer, payload, 0
        for idle in report.IDLE:
            yield "nelvo", 200, idle

    def run(self, rounds):
        cases = list(self.cases())
        progress = Progress(rounds * (len(cases) + 1) + 1)
        for round_ in range(1, rounds + 1):
            for case in cases:
                self.measurements.add(round_, *case, self.round_trips(*case))
                progress.step(f"{case[0]}, {case[1]} B")
            self.start(round_)
            progress.step("start")
        self.count()
        self.sizes()
        progress.step("counts")
        return self.measurements

    def environment(self, idle=0):
        environment = {**os.environ, "NELVO_BENCH_WRAP": shlex.join(gate.allow_list(idle))}
        environment.pop("NELVO_LOG", None)
        return environment

    def times(self, count):
        return max(1, int(count * self.scale))

    def round_trips(self, peer, payload, idle):
        warm_up, requests = map(self.times, PAYLOADS[payload])
        [result] = objects([self.programs / f"bench_{peer}", "FOLDER", payload, warm_up, requests,
                            idle], self.environment(idle))
        return result

    def start(self, round_):
        names = ["bench_app", "bench_empty"]
        results = objects([self.programs / "bench_start", "FOLDER", self.times(STARTS),
                           *(self.programs / name for name in names)], self.environment())
        for name, result in zip(names, results):
            self.measurements.add(round_, f"start: {name}", 0, 0, result)

    def count(self):
        wrap = gate.allow_list()
        calls = gate.system_calls(self.programs, wrap)
        instructions = gate.instructions(self.programs, wrap)
        self.measurements.add(1, "counts", 200, 0, {
            "system calls": sum(calls.values()), "instructions": sum(instructions.values()),
            "in libnelvo": instructions["libnelvo"]})

    def sizes(self):
        for name, files in LIBRARIES.items():
            size = sum(stripped_size(self.build / file) for file in files) / 1024
            self.measurements.add(1, name, 0, 0, {"size": round(size, 1)})


def stripped_size(library):
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, library], check=True)
        return pathlib.Path(stripped.name).stat().st_size


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=pathlib.Path, help="folder of the optimised build")
    parser.add_argument("output", type=pathlib.Path,
                        help="folder for round_trips.csv, .md and .svg")
    parser.add_argument("--rounds", type=int, default=10)
    parser.add_argument("--scale", type=float, default=1,
                        help="the part of the round trips to make; less than 1 for a trial")
    return parser.parse_args()


def main():
    given = arguments()
    runner = Runner(given.build, given.scale)
    for peer in runner.missing:
        print(f"bench: {report.NAMES[peer]} is left out: its development package was not there "
              "when the programs were built")
    if not runner.with_allow_list:
        print("bench: no mount namespace to be had here, so no allow list: one system call more")
    if given.scale < 1:
        print("bench: a trial with fewer round trips than the budgets are for")
    load = os.getloadavg()[0]
    if load > 0.5:
        print(f"bench: the machine has other work (load {load:.1f}); trust ratios, not times")

    measurements = runner.run(given.rounds)
    tables = report.whole(measurements, runner.with_allow_list)
    given.output.mkdir(parents=True, exist_ok=True)
    with open(given.output / "round_trips.csv", "w") as file:
        measurements.write(file)
    (given.output / "round_trips.md").write_text(tables)
    (given.output / "round_trips.svg").write_text(report.draw(measurements))
    print(f"\n{tables}\nbench: {given.rounds} rounds; every measurement and a chart are in "
          f"{given.output}")


try:
    sys.exit(main())
except subprocess.CalledProcessError as error:
    sys.exit(f"bench: this failed, see above why (exit code {error.returncode}): "
             + " ".join(map(str, error.cmd)))
