#!/usr/bin/env python3
"""Plants one-line faults in libraries and tools, one after the other, and lists those that no test catches.

    scripts/plant_faults.py                      all rows of scripts/faults.txt
    scripts/plant_faults.py 3 17 --only walk     rows by number; those with this text
    scripts/plant_faults.py --tests walk,raw     tried with these tests only
    scripts/plant_faults.py --idle               also lists the tests that have noticed none of these rows
    scripts/plant_faults.py --list               the rows, without trying them: do they apply?

Each of the --jobs works in a copy of the tree with its own build folder, which it keeps for all of its
rows, and with --folder for the next run as well. If test programs follow a file's name in the table, all
of them run for each of its rows, and the tests that noticed the fault are printed. Otherwise any program
but those of the tools (cli_*, chaos_*) may catch the fault, and the row ends with the first one that does.
A row whose text is not in its file exactly once, or that does not compile, is an error of the table. The
exit status is 0 if every fault was caught, 1 if one was not, 2 if a row is in error.

The regular checks run --list only: every other use builds and runs the tests for each row.
"""

import argparse
import collections
import contextlib
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parent.parent
TABLE = ROOT / "scripts" / "faults.txt"
SEPARATOR = " ~> "
TEST_TIMEOUT = 60  # seconds; a test that hangs has caught its fault
# No symbols and no optimisation: most of the time goes into compiling and linking.
CONFIGURATION = ["-DCMAKE_BUILD_TYPE=None", "-DRUVO_BUILD_EXAMPLES=OFF", "-DRUVO_BUILD_DEMO=OFF",
                 "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DCMAKE_COMPILE_WARNING_AS_ERROR=OFF"]
NO_WARNINGS = {"CXXFLAGS": "-w", "CFLAGS": "-w"}


@dataclass
class Fault:
    number: int
    file: str
    tests: list  # of the file, by the names of their programs; empty: any but those of the tools
    original: str
    replacement: str

    def __str__(self):
        return f"{self.number:3} {self.file}: {self.original}{SEPARATOR}{self.replacement}"

    def plant(self, text):
        """The text with the fault. A blank of the row matches any run of blanks."""
        pattern = r"\s+".join(re.escape(word) for word in self.original.split())
        found = list(re.finditer(pattern, text))
        if len(found) != 1:
            raise ValueError(f"its text occurs {len(found)} times in the file")
        return text[:found[0].start()] + self.replacement + text[found[0].end():]


def read_table():
    faults = []
    file = None
    tests = []
    for line in TABLE.read_text().splitlines():
        if head := re.fullmatch(r"\[(\S+)\]((?: \w+)*)", line):
            file = head[1]
            tests = [name + "_test" for name in head[2].split()]
        elif line.strip() and not line.startswith("#"):
            original, separator, replacement = line.partition(SEPARATOR.rstrip())
            if not separator or file is None:
                sys.exit(f"{TABLE.name}: neither a file nor a fault: {line}")
            faults.append(Fault(len(faults) + 1, file, tests, original.strip(), replacement.strip()))
    return faults


class Workplace:
    """A copy of the tree, its build folder, and the tests in it."""

    # Shared by all workplaces:
    seconds = {}  # duration by program
    catches = collections.Counter()  # of faults in a file, by program
    known = set()  # tests that have run, as "program Suite.Name"
    noticed = collections.Counter()  # faults, by test
    interrupted = False

    def __init__(self, folder, faults, wanted):
        self.tree = pathlib.Path(folder) / "tree"
        self.build = pathlib.Path(folder) / "build"
        files = subprocess.run(["git", "ls-files", "-z", "--cached", "--others",
                                "--exclude-standard"],
                               cwd=ROOT, check=True, capture_output=True, text=True).stdout
        for name in filter(None, files.split("\0")):
            if (ROOT / name).exists():
                self.copy(ROOT / name, self.tree / name)
        self.run(["cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build, *CONFIGURATION])
        every = {path.stem for path in (self.tree / "tests").glob("*_test.cpp")}
        self.wanted = wanted
        self.anywhere = sorted(test for test in every if not test.startswith(("cli_", "chaos_")))
        needed = {test for fault in faults for test in self.programs(fault)}
        if unknown := needed - every:
            raise RuntimeError(f"no such test: {' '.join(unknown)}")
        self.run(["cmake", "--build", self.build, "-j2", "--target", *needed])
        for test in needed:
            if failed := self.failures(test):
                raise RuntimeError(f"without any fault: {', '.join(failed)}")

    def programs(self, fault):
        return self.wanted or fault.tests or self.anywhere

    @staticmethod
    def copy(source, target):
        """Skips a file with the same content, so that nothing is built again."""
        if not target.exists() or target.read_bytes() != source.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)

    def run(self, command):
        if Workplace.interrupted:
            raise RuntimeError("interrupted")
        # The compiler's cache serves any workplace.
        cache = {"CCACHE_BASEDIR": str(self.tree.parent.resolve()), "CCACHE_NOHASHDIR": "1"}
        done = subprocess.run(command, env={**os.environ, **NO_WARNINGS, **cache},
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace")
        if done.returncode != 0:
            raise RuntimeError(done.stdout[-2000:])

    def failures(self, test):
        """The tests of a program that fail."""
        begin = time.monotonic()
        with tempfile.TemporaryFile("w+", errors="replace") as output:
            # In its own session CTRL-C does not reach it; it ends with this process.
            process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", self.build / "tests" / test],
                                       stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=subprocess.DEVNULL, start_new_session=True)
            try:
                status = process.wait(TEST_TIMEOUT)
            except subprocess.TimeoutExpired:
                status = -1
            finally:
                if process.poll() is None:
                    os.killpg(process.pid, signal.SIGKILL)
                    process.wait()
            output.seek(0)
            told = output.read()
        begun = re.findall(r"\[ RUN      \] (\S+)", told)
        ended = re.findall(r"\[  (?:     OK|SKIPPED|FAILED ) \] (\S+?),? .*\(\d+ ms\)", told)
        self.known.update(f"{test} {name}" for name in begun)
        if status == 0:
            self.seconds[test] = time.monotonic() - begin
            return []
        failed = re.findall(r"\[  FAILED  \] ([^\s,]+).*\(\d+ ms\)", told)
        failed += [name for name in begun if name not in ended]  # the one that it died in
        return [f"{test} {name}" for name in failed] or [test]

    def caught_by(self, fault):
        """The tests that notice the fault."""
        path = self.tree / fault.file
        sound = path.read_text()
        path.write_text(fault.plant(sound))
        caught = []
        try:
            # If any may catch it: first the test of the file itself, then those that have caught
            # faults in this file, then the quick ones. Each is built just before it runs.
            subject = pathlib.PurePath(fault.file).stem
            for test in sorted(self.programs(fault),
                               key=lambda test: (not test.startswith(subject),
                                                 -self.catches[fault.file, test],
                                                 self.seconds[test])):
                self.run(["cmake", "--build", self.build, "-j2", "--target", test])
                failed = self.failures(test)
                caught += failed
                self.catches[fault.file, test] += 1 if failed else 0
                if failed and not (self.wanted or fault.tests):
                    break
        finally:
            path.write_text(sound)
        self.noticed.update(caught)
        return caught


def work(folder, faults, tests, waiting, report):
    try:
        place = Workplace(folder, faults, tests)
    except (RuntimeError, OSError) as error:
        report(None, f"no workplace: {error}")
        return
    while not Workplace.interrupted:
        try:
            fault = waiting.get_nowait()
        except queue.Empty:
            return
        try:
            caught = place.caught_by(fault)
            report(fault, f"caught by {', '.join(caught)}" if caught else "NOT CAUGHT")
        except (ValueError, RuntimeError, OSError) as error:
            report(fault, f"ERROR: {error}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("rows", nargs="*", type=int, help="numbers of rows")
    parser.add_argument("--only", metavar="SUBSTRING", help="rows that contain this text")
    parser.add_argument("--jobs", type=int, default=1, help="number of rows that are tried at a time")
    parser.add_argument("--tests", metavar="NAMES", help="comma-separated, without _test")
    parser.add_argument("--idle", action="store_true",
                        help="also list the tests that have noticed nothing")
    parser.add_argument("--folder", help="folder of the copies, which is kept")
    parser.add_argument("--list", action="store_true",
                        help="print the rows, and check that each text occurs once")
    arguments = parser.parse_args()
    faults = [fault for fault in read_table()
              if (not arguments.rows or fault.number in arguments.rows)
              and (not arguments.only or arguments.only in str(fault))]
    missed, errors = [], []

    def report(fault, outcome):
        print(f"{fault or 'job'}: {outcome}", flush=True)
        if outcome == "NOT CAUGHT":
            missed.append(fault)
        elif not outcome.startswith("caught"):
            errors.append(fault)

    for fault in faults:
        try:
            fault.plant((ROOT / fault.file).read_text())
            if arguments.list:
                print(fault)
        except (ValueError, OSError) as error:
            report(fault, f"ERROR: {error}")
    if arguments.list:
        print(f"{len(faults)} faults, {len(errors)} do not apply")
    elif not errors:
        waiting = queue.Queue()
        for fault in faults:
            waiting.put(fault)
        with (contextlib.nullcontext(arguments.folder) if arguments.folder
              else tempfile.TemporaryDirectory(prefix="ruvo-faults-", ignore_cleanup_errors=True)) as folder:
            tests = [name + "_test" for name in (arguments.tests or "").split(",") if name]
            jobs = [threading.Thread(target=work, daemon=True,
                                     args=(f"{folder}/{job}", faults, tests, waiting, report))
                    for job in range(arguments.jobs)]
            for job in jobs:
                job.start()
            try:
                for job in jobs:
                    job.join()
            except KeyboardInterrupt:
                signal.signal(signal.SIGINT, signal.SIG_IGN)  # a second CTRL-C must not stop the clean-up
                Workplace.interrupted = True
                sys.exit(130)
        print(f"\n{len(faults)} faults, {len(missed)} not caught, {len(errors)} errors")
        for fault in sorted(missed, key=lambda fault: fault.number):
            print(fault)
        if arguments.idle:
            idle = sorted(Workplace.known - set(Workplace.noticed))
            print(f"\n{len(idle)} of {len(Workplace.known)} tests noticed nothing", *idle, sep="\n")
    return 2 if errors else 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
