#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Breaks the library in small ways and sees whether the tests notice.

Works in a copy of the tree, with all test sources in one program; every case runs in a process of
its own, as under ctest, and the first one that fails ends the run. With --matrix all cases run against each
mutant, and a table tells how many mutants each suite notices, and how many no other suite does.
"""
import collections
import concurrent.futures
import json
import os
import pathlib
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

from mutation_rules import File

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutants"
TREE = WORK / "tree"
BUILD = WORK / "build"

WANTED = 0.96
COMPILE_SECONDS = 120
LINKER = ["-fuse-ld=gold"] if shutil.which("ld.gold") else []  # twice as fast
CASE_SECONDS = 5  # and ten times what the case takes with the library whole
MEMORY = 4 << 30  # of one process: a broken loop must not take the machine's


class Trouble(Exception):
    """What keeps the work from being done, for the user to read."""


def run(command, cwd, seconds, output=None):
    """The exit code; None when it took too long."""
    process = subprocess.Popen(command, cwd=cwd, stdin=subprocess.DEVNULL,
                               stdout=output or subprocess.DEVNULL, stderr=subprocess.STDOUT,
                               start_new_session=True)
    try:
        return process.wait(seconds)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        return None


def must(command, cwd):
    log = WORK / "build.log"
    with open(log, "wb") as output:
        if run(command, cwd, 3600, output) != 0:
            raise Trouble(f"{log.read_text(errors='replace')}\nfailed: {shlex.join(command)}")


def copy_tree():
    shutil.rmtree(TREE, ignore_errors=True)
    shutil.copytree(ROOT, TREE, ignore=lambda folder, names: [
        name for name in names if name.startswith(".")
        or name == "build" and pathlib.Path(folder) == ROOT])


class Program:
    """The test program: how to compile one source of the library, and how to link it all."""

    def __init__(self):
        must(["cmake", "-S", str(TREE), "-B", str(BUILD), "-G", "Ninja", "-DCMAKE_BUILD_TYPE=",
              "-DCMAKE_CXX_FLAGS=-O0 -w", "-DCMAKE_CXX_COMPILER=g++", "-DCMAKE_C_COMPILER=gcc",
              "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"], TREE)
        self.compiles = {}
        tests = []
        for entry in json.loads((BUILD / "compile_commands.json").read_text()):
            if TREE not in pathlib.Path(entry["file"]).parents:
                continue  # made by the build
            source = pathlib.Path(entry["file"]).relative_to(TREE)
            arguments = shlex.split(entry["command"])
            if source.parts[0] == "src":
                self.compiles[source] = arguments
            elif source.match("tests/library/*_test.cpp"):
                tests.append(arguments[arguments.index("-o") + 1])
        own = [arguments[arguments.index("-o") + 1] for arguments in self.compiles.values()]
        target = "tests/library/" + pathlib.Path(tests[0]).parent.name.removesuffix(".dir")
        must(["cmake", "--build", str(BUILD), "--target", target, *tests], TREE)
        commands = subprocess.run(["ninja", "-C", str(BUILD), "-t", "commands", target], text=True,
                                  check=True, capture_output=True).stdout.splitlines()
        link = commands[-1]
        link = shlex.split(link[link.index("g++ "):link.index(" && ", link.index("g++ "))])
        others = [a for a in link[1:] if a not in own and a not in tests]
        del others[others.index("-o"):others.index("-o") + 2]
        self.link_rest = [*tests, *others]
        self.includers = includers(self.compiles)
        self.precompile()

    def precompile(self):
        """Compiles once what is not ours: that takes more than half of the time."""
        files = [TREE / file for file in self.includers]
        lines = {line for file in files
                 for line in re.findall(r"^#include <.+>", file.read_text(), flags=re.M)}
        header = WORK / "outside.h"
        header.write_text("\n".join(sorted(lines)) + "\n")
        arguments = self.compile(next(iter(self.compiles)), TREE, header.with_suffix(".h.gch"))
        at = arguments.index("-c")
        must([*arguments[:at], "-x", "c++-header", str(header)], BUILD)
        for arguments in self.compiles.values():
            arguments[1:1] = ["-include", str(header)]

    def link(self, objects, program):
        return ["g++", *objects, *self.link_rest, *LINKER, "-o", str(program)]

    def objects(self, replaced):
        """The library's objects, some of them in another place."""
        return [str(replaced.get(source, arguments[arguments.index("-o") + 1]))
                for source, arguments in self.compiles.items()]

    def compile(self, source, tree, output):
        arguments = list(self.compiles[source])
        arguments[arguments.index("-o") + 1] = str(output)
        arguments[arguments.index("-c") + 1] = str(tree / source)
        return arguments


def includers(sources):
    """For each file of the library the sources that have to be compiled when it changes."""
    found = collections.defaultdict(list)
    for source in sources:
        seen, todo = set(), [source]
        while todo:
            file = todo.pop()
            if file in seen:
                continue
            seen.add(file)
            found[file].append(source)
            for name in re.findall(r'^#include "(.+)"', (TREE / file).read_text(), flags=re.M):
                todo += [path for path in (file.parent / name, pathlib.Path("src") / name)
                         if (TREE / path).exists()]
    return found


class Cases:
    """The cases of the test program, those first that have noticed most."""

    def __init__(self, program):
        # It does not stand where the build would have put it.
        os.environ["LD_LIBRARY_PATH"] = f"{BUILD / 'tests/support'}:{BUILD / 'host'}"
        names = subprocess.run([program, "--gtest_list_tests"], text=True, check=True, cwd=WORK,
                               capture_output=True).stdout
        self._seconds = {}
        self._kills = collections.Counter()
        self._lock = threading.Lock()
        suite = ""
        for line in names.splitlines():
            name = line.split("#")[0].rstrip()
            if name.endswith("."):
                suite = name.strip()
            elif name.startswith("  ") and "DISABLED_" not in name:
                self._seconds[suite + name.strip()] = CASE_SECONDS
        for case in self._seconds:
            begin = time.monotonic()
            if not self.passes(program, case, WORK):
                raise Trouble(f"{case} fails with the library whole; see ./dev test")
            self._seconds[case] = time.monotonic() - begin

    def passes(self, program, case, cwd):
        limit = CASE_SECONDS + 10 * self._seconds[case]
        return run([program, "--gtest_filter=" + case], cwd, limit) == 0

    def in_order(self, file):
        with self._lock:
            return sorted(self._seconds, key=lambda case: (
                -self._kills[file, case], -self._kills[case], self._seconds[case]))

    def noticed(self, file, case):
        with self._lock:
            self._kills[file, case] += 1
            self._kills[case] += 1


def suite_of(case):
    """OfPlay/RequestTest.Name/0 and RequestTest.Name both belong to RequestTest."""
    return case.split(".")[0].split("/")[-1]


def try_mutant(mutant, text, program, cases, worker, all_suites):
    """The suites that notice it, only the first unless all are asked for; None when it does not compile."""
    folder = WORK / f"worker{worker}"
    broken = folder / mutant.file
    broken.write_text(text[:mutant.start] + mutant.text + text[mutant.end:])
    try:
        objects = {}
        for source in program.includers[mutant.file]:
            objects[source] = folder / (source.stem + ".o")
            if run(program.compile(source, folder, objects[source]), BUILD, COMPILE_SECONDS) != 0:
                return None
        binary = folder / "tests"
        if run(program.link(program.objects(objects), binary), BUILD, COMPILE_SECONDS) != 0:
            return None
        suites = set()
        for case in cases.in_order(mutant.file):
            if suite_of(case) not in suites and not cases.passes(binary, case, folder):
                cases.noticed(mutant.file, case)
                suites.add(suite_of(case))
                if not all_suites:
                    break
        return suites
    finally:
        broken.write_text(text)


def show_progress(done, total, survived, begin):
    left = (time.monotonic() - begin) / done * (total - done) / 60
    text = f"{done} of {total}, {survived} survived, {left:.0f} min left"
    if sys.stderr.isatty():
        end = "\n" if done == total else ""
        print(f"\r[{'#' * (30 * done // total):30}] {text} ", end=end, file=sys.stderr, flush=True)
    elif done % 50 == 0:
        print(text, file=sys.stderr, flush=True)


def try_all(mutants, texts, program, cases, all_suites):
    workers = list(range(os.cpu_count() or 1))
    for worker in workers:
        shutil.copytree(TREE / "src", WORK / f"worker{worker}" / "src", dirs_exist_ok=True)
    results = {}
    begin = time.monotonic()

    def work(mutant):
        worker = workers.pop()
        try:
            return try_mutant(mutant, texts[mutant.file], program, cases, worker, all_suites)
        finally:
            workers.append(worker)

    with concurrent.futures.ThreadPoolExecutor(len(workers)) as pool:
        running = {pool.submit(work, mutant): mutant for mutant in mutants}
        for future in concurrent.futures.as_completed(running):
            results[running[future]] = future.result()
            survived = sum(result == set() for result in results.values())
            show_progress(len(results), len(mutants), survived, begin)
    return results


def one_line(text):
    return re.sub(r"\s+", " ", text).strip()


def describe(mutant, text):
    begin = text.rfind("\n", 0, mutant.start) + 1
    end = text.find("\n", mutant.end)
    line = text.count("\n", 0, mutant.start) + 1
    before = one_line(text[begin:end])
    after = one_line(text[begin:mutant.start] + mutant.text + text[mutant.end:end])
    return f"{mutant.file}:{line}\n    before  {before}\n    after   {after}"


def print_matrix(results):
    noticed = collections.Counter(suite for suites in results for suite in suites)
    alone = collections.Counter(suite for suites in results if len(suites) == 1 for suite in suites)
    print(f"{'suite':32} notices  alone")
    for suite, count in noticed.most_common():
        print(f"{suite:32} {count:7} {alone[suite]:6}")


def sample(mutants, count):
    """The same ones each time, spread over all files."""
    return [mutants[i * len(mutants) // count] for i in range(min(count, len(mutants)))]


def main(arguments):
    matrix = "--matrix" in arguments
    arguments = [argument for argument in arguments if argument != "--matrix"]
    if len(arguments) > 1 or arguments and not re.fullmatch("[1-9][0-9]*", arguments[0]):
        raise Trouble("mutants takes the number of mutants to make, and --matrix")
    for name in [name for name in os.environ if name.startswith("NELVO_")]:
        del os.environ[name]
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))

    print("Building a copy in build/mutants ...", flush=True)
    WORK.mkdir(parents=True, exist_ok=True)
    copy_tree()
    program = Program()
    must(program.link(program.objects({}), WORK / "tests"), BUILD)
    cases = Cases(WORK / "tests")

    texts, mutants = {}, []
    for path in sorted([*TREE.glob("src/**/*.cpp"), *TREE.glob("src/**/*.h")]):
        name = path.relative_to(TREE)
        texts[name] = path.read_text()
        mutants += File(name, texts[name]).mutants
    if arguments:
        mutants = sample(mutants, int(arguments[0]))
    results = try_all(mutants, texts, program, cases, matrix)

    if matrix:
        print_matrix([suites for suites in results.values() if suites])
    survivors = [mutant for mutant in mutants if results[mutant] == set()]
    for mutant in survivors:
        print(describe(mutant, texts[mutant.file]))
    compiled = sum(result is not None for result in results.values())
    noticed = compiled - len(survivors)
    share = noticed / compiled if compiled else 1
    print(f"mutants: {len(mutants)} made, {noticed} noticed ({100 * share:.1f} %), "
          f"{len(survivors)} survived, {len(mutants) - compiled} did not compile")
    return 0 if share >= WANTED else 1


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except Trouble as trouble:
        sys.exit(f"mutants: {trouble}")
