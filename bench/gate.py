# SPDX-License-Identifier: Apache-2.0
"""gate.py PROGRAMS: counts what one round trip costs the application, and fails when it is too much.

PROGRAMS is the folder that the benchmark's programs were built in. Counts are the same at every run. The
counts of a short and a long run are subtracted, so that the start drops out."""

import collections
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

# Per round trip of 200 B, in the application: without an allow list the library looks for the file each time.
BUDGETS = {
    True: {"system calls": 3, "instructions": 9000, "in libnelvo": 1650},
    False: {"system calls": 4, "instructions": 10100, "in libnelvo": 1650},
}

BENCH = pathlib.Path(__file__).parent
FEW, MANY = 1000, 3000

# The part of an object's file name that says whom its instructions belong to.
OWNERS = {
    "libnelvo.so": "libnelvo",
    "libnelvo-host.so": "host platform",
    "libc.so": "C library",
    "libstdc++.so": "C++ library",
    "bench_app": "application",
}


def allow_list(idle=0):
    """Words before a command that runs it with an allow list; none where the system refuses."""
    words = [str(BENCH / "with_allow_list.sh"), str(idle)]
    works = subprocess.run(words + ["true"], capture_output=True).returncode == 0
    return words if works else []


def drive(programs, requests, wrap, payload=200):
    environment = {**os.environ, "NELVO_BENCH_WRAP": shlex.join(wrap)}
    environment.pop("NELVO_LOG", None)
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([programs / "bench_nelvo", folder, str(payload), "0", str(requests), "0"],
                       env=environment, check=True, stdout=subprocess.DEVNULL)


def per_round_trip(count):
    """count(requests) is a Counter; what of it belongs to one request."""
    few, many = count(FEW), count(MANY)
    return {name: (many[name] - few[name]) / (MANY - FEW) for name in many
            if many[name] != few[name]}


def system_calls(programs, wrap):
    def count(requests):
        with tempfile.NamedTemporaryFile("r") as log:
            drive(programs, requests, wrap + ["strace", "-qq", "-o", log.name])
            return collections.Counter(re.findall(r"^(\w+)\(", log.read(), re.MULTILINE))
    return per_round_trip(count)


def instructions(programs, wrap):
    def count(requests):
        with tempfile.NamedTemporaryFile("r") as profile:
            drive(programs, requests, wrap + ["valgrind", "--quiet", "--tool=callgrind",
                                              f"--callgrind-out-file={profile.name}"])
            return self_cost(profile)
    return per_round_trip(count)


def self_cost(profile):
    """Instructions per owner in a file that callgrind wrote: what ran in that object itself."""
    names = {}
    cost = collections.Counter()
    owner = None
    inclusive = False
    for line in profile:
        if line.startswith("ob="):
            number, _, name = line[3:].strip().partition(" ")
            names.setdefault(number, name)
            owner = owner_of(names[number])
        elif line.startswith("cob="):  # names the object that is called, here for the first time
            number, _, name = line[4:].strip().partition(" ")
            names.setdefault(number, name)
        elif line.startswith("calls="):
            inclusive = True  # the next line is the cost of the call, counted where it arose
        elif re.match(r"[0-9+*-]", line):
            if not inclusive:
                cost[owner] += int(line.split()[1])
            inclusive = False
    return cost


def owner_of(file):
    name = pathlib.Path(file).name
    return next((owner for start, owner in OWNERS.items() if name.startswith(start)), "other")


def show(title, values):
    print(f"{title} per round trip (200 B):")
    for name, value in sorted(values.items(), key=lambda entry: -entry[1]):
        print(f"  {name:<16}{value:10.2f}")


def main():
    programs = pathlib.Path(sys.argv[1])
    wrap = allow_list()
    budgets = BUDGETS[bool(wrap)]
    print("gate: with an allow list, in a mount namespace" if wrap else
          "gate: without an allow list, since there is no mount namespace to be had here")
    calls, costs = system_calls(programs, wrap), instructions(programs, wrap)
    show("system calls", calls)
    show("instructions", costs)
    measured = {"system calls": sum(calls.values()), "instructions": sum(costs.values()),
                "in libnelvo": costs["libnelvo"]}
    # A moved buffer may cost a call in a thousand round trips.
    over = [name for name in budgets if measured[name] > budgets[name] + 0.02]
    print("gate: " + ", ".join(f"{measured[name]:.{2 if name == 'system calls' else 0}f} {name} "
                               f"(budget {budgets[name]:,})" for name in budgets))
    for name in over:
        print(f"gate: {name}: over the budget; the tables above say what the round trip is spent on")
    return 1 if over else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except subprocess.CalledProcessError as error:
        sys.exit(f"gate: this failed, see above why (exit code {error.returncode}): "
                 + " ".join(map(str, error.cmd)))
