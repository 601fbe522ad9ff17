# SPDX-License-Identifier: Apache-2.0
"""gate.py PROGRAMS: fails when a round trip costs the application more than it may.

PROGRAMS is the folder that the benchmark's programs were built in."""

import pathlib
import subprocess
import sys

import counts
import goals


def show(title, values):
    print(f"{title} per round trip (200 B):")
    for name, value in sorted(values.items(), key=lambda entry: -entry[1]):
        print(f"  {name:<16}{value:10.2f}")


def main():
    programs = pathlib.Path(sys.argv[1])
    wrap = counts.allow_list()
    if not wrap:
        print("gate: no mount namespace to be had here, so no allow list: one system call more")
    calls = counts.system_calls(programs, wrap)
    instructions = counts.instructions(programs, wrap)
    show("system calls", calls)
    show("instructions", instructions)
    measured = {
        "system calls": sum(calls.values()),
        "instructions": sum(instructions.values()),
        "in libnelvo": instructions["libnelvo"],
    }
    limits = goals.counts(with_allow_list=bool(wrap))
    print(f"gate: {measured['system calls']:.2f} system calls, "
          f"{measured['instructions']:.0f} instructions, {measured['in libnelvo']:.0f} in libnelvo")
    failed = False
    for name, limit in limits.items():
        # A moved buffer may cost a call in a thousand round trips; that is no regression.
        if measured[name] <= limit + 0.02:
            continue
        reached = goals.REACHED.get(name, limit)
        failed = failed or measured[name] > reached
        print(f"gate: {name}: {measured[name]:.2f}, at most {limit} wanted"
              + (f", {reached} borne until then" if reached != limit else "")
              + "; see above what the round trip is spent on")
    return 1 if failed else 0


try:
    sys.exit(main())
except subprocess.CalledProcessError as error:
    sys.exit(f"gate: this failed, see above why (exit code {error.returncode}): "
             + " ".join(map(str, error.cmd)))
