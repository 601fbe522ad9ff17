# SPDX-License-Identifier: Apache-2.0
"""Measures everything and prints what it came to; see docs/performance.md."""

import argparse
import os
import pathlib
import subprocess
import sys

import chart
import measure
import report


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
    runner = measure.Runner(given.build, given.scale)
    for peer in runner.missing:
        print(f"bench: {report.NAMES[peer]} is left out: its development package was not there "
              "when the programs were built")
    if not runner.with_allow_list:
        print("bench: no mount namespace to be had here, so no allow list: one system call more")
    if given.scale < 1:
        print("bench: a trial with fewer round trips than the goals are for")
    load = os.getloadavg()[0]
    if load > 0.5:
        print(f"bench: the machine has other work (load {load:.1f}); trust ratios, not times")

    measurements = runner.run(given.rounds)
    tables = report.whole(measurements, runner.with_allow_list)
    given.output.mkdir(parents=True, exist_ok=True)
    with open(given.output / "round_trips.csv", "w") as file:
        measurements.write(file)
    (given.output / "round_trips.md").write_text(tables)
    (given.output / "round_trips.svg").write_text(chart.draw(measurements))
    print(f"\n{tables}\nbench: {given.rounds} rounds; every measurement and a chart are in "
          f"{given.output}")


try:
    sys.exit(main())
except subprocess.CalledProcessError as error:
    sys.exit(f"bench: this failed, see above why (exit code {error.returncode}): "
             + " ".join(map(str, error.cmd)))
