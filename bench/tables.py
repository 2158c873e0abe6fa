#!/usr/bin/env python3
"""Makes the tables of docs/performance.md of what the benchmark has written, and tells how the run
stands to the aims.

    bench/tables.py CSV                print the aims
    bench/tables.py CSV GUIDE          put all tables where the guide has their marks, too
    bench/tables.py CSV -              print all tables

A table stands between the lines "<!-- table: NAME -->" and "<!-- end of table -->".
"""
import csv
import re
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

SIZES = {16: "16 B", 100: "100 B", 10000: "10 kB", 1000000: "1 MB"}


class Case:
    """The rows of all sides of one case."""

    def __init__(self, row):
        self.operation, self.log = row["operation"], row["log"]
        self.bytes, self.threads, self.connections = (
            int(row[name]) for name in ("bytes", "threads", "connections"))
        self.round_trip = float(row["round_trip_ms"])
        self.sides = {}

    @property
    def small(self):
        return self.bytes == 100 and self.log == "WARN" and self.round_trip == 0

    @property
    def even(self):
        return self.threads == self.connections

    def rate(self, side):
        return f"{float(self.sides[side]['calls_per_s']):,.0f}"

    def spread(self, of, to):
        """The ratio of two sides' rates, round by round: median and quartiles."""
        return tuple(float(self.sides[to][f"{of}_ratio{part}"]) for part in ("", "_q1", "_q3"))

    def ratio(self, of, to):
        return "{:.3f} [{:.3f}, {:.3f}]".format(*self.spread(of, to))

    def latency(self, side, percentile):
        return float(self.sides[side][percentile + "_us"])

    def latencies(self, side):
        return " / ".join(f"{self.latency(side, percentile):,.0f}" for percentile in ("p50", "p99", "p999"))

    def processor(self):
        return f"{float(self.sides['hiredis']['library_cpu_us_more']):+.2f}"

    def __str__(self):
        ends = [f"`{self.operation}`"]
        if self.bytes != 100:
            ends.append(SIZES.get(self.bytes, f"{self.bytes} B"))
        return ", ".join([*ends, f"{self.threads} / {self.connections}"])


def read_cases(path):
    cases = {}
    with open(path, newline="") as file:
        for row in csv.DictReader(file):
            key = tuple(row[name] for name in ("operation", "bytes", "threads", "connections", "log",
                                               "round_trip_ms"))
            cases.setdefault(key, Case(row)).sides[row["side"]] = row
    return list(cases.values())


# ---- The aims ----

def rates(of, to):
    """By how much one side calls more often than another."""
    return lambda case: case.spread(of, to)


def p99(of, to):
    """How many times the 99th percentile of one side is that of another."""
    return lambda case: (case.latency(of, "p99") / case.latency(to, "p99"),) * 3


@dataclass
class Aim:
    text: str
    at_least: float
    measured: Callable[[Case], tuple]
    holds_for: Callable[[Case], bool]
    seen: list = field(default_factory=list)

    def look_at(self, cases):
        self.seen = [(self.measured(case), case) for case in cases if self.holds_for(case)]

    def row(self):
        met = sum(ratio[0] >= self.at_least for ratio, _ in self.seen)
        (median, lower, upper), case = min(self.seen, key=lambda one: one[0][0])
        quartiles = f" [{lower:.3f}, {upper:.3f}]" if lower != upper else ""
        verdict = "met" if met == len(self.seen) else f"met by {met} of {len(self.seen)}" if met else "not met"
        return [self.text, f"{self.at_least:g}", verdict, f"{median:.3f}{quartiles}", str(case)]


def crowded(threads, *connections):
    return lambda case: case.small and case.threads == threads and case.connections in connections


AIMS = [
    Aim("one thread, library to hiredis", 0.97, rates("library", "hiredis"),
        lambda case: case.small and case.threads == case.connections == 1),
    Aim("one connection a thread, library to the pool", 0.97, rates("library", "pool"),
        lambda case: case.small and case.even),
    Aim("values of 1 MB, library to hiredis", 0.95, rates("library", "hiredis"),
        lambda case: case.bytes == 1000000),
    Aim("log at INFO, library to hiredis", 0.80, rates("library", "hiredis"),
        lambda case: case.log == "INFO"),
    Aim("one thread, shared to library", 0.98, rates("shared", "library"),
        lambda case: case.small and case.threads == case.connections == 1),
    Aim("one connection a thread, shared to hiredis", 0.97, rates("shared", "hiredis"),
        lambda case: case.small and case.even and case.threads > 1),
    Aim("16 threads on 1 and 2 connections, shared to hiredis", 1.3, rates("shared", "hiredis"),
        crowded(16, 1, 2)),
    Aim("64 threads on 1 and 2 connections, shared to hiredis", 1.7, rates("shared", "hiredis"),
        crowded(64, 1, 2)),
    Aim("64 threads on 8 connections, shared to hiredis", 1.5, rates("shared", "hiredis"),
        crowded(64, 8)),
    Aim("64 threads on 1, 2 and 8, 99th percentile, library to shared", 8, p99("library", "shared"),
        crowded(64, 1, 2, 8)),
    Aim("64 threads on one, 1 ms away, shared to library", 20, rates("shared", "library"),
        lambda case: case.round_trip == 1 and case.threads == 64 and case.connections == 1),
]


# ---- The tables ----

OPERATION = {"Operation": lambda case: case.operation}
THREADS = {"Threads": lambda case: case.threads}
CONNECTIONS = {"Connections": lambda case: case.connections}
SIZE = {"Size": lambda case: SIZES.get(case.bytes, case.bytes)}
RATES = {
    "Library/s": lambda case: case.rate("library"),
    "Shared/s": lambda case: case.rate("shared"),
    "hiredis/s": lambda case: case.rate("hiredis"),
    "Pool/s": lambda case: case.rate("pool"),
    "Library to hiredis": lambda case: case.ratio("library", "hiredis"),
    "Library to the pool": lambda case: case.ratio("library", "pool"),
    "Shared to hiredis": lambda case: case.ratio("shared", "hiredis"),
}
PROCESSOR = {"CPU µs": lambda case: case.processor()}
LATENCIES = {
    "Shared to library": lambda case: case.ratio("shared", "library"),
    "Shared to hiredis": lambda case: case.ratio("shared", "hiredis"),
    "Library, µs": lambda case: case.latencies("library"),
    "Shared, µs": lambda case: case.latencies("shared"),
    "hiredis, µs": lambda case: case.latencies("hiredis"),
}


def table(heads, rows, names):
    """As Markdown; the first columns, so many, hold names."""
    lines = [heads, ["---"] * names + ["---:"] * (len(heads) - names), *rows]
    return [f"| {' | '.join(line)} |" for line in lines]


def table_of(cases, columns):
    return table([*columns], [[str(value(case)) for value in columns.values()] for case in cases], 1)


def tables(cases):
    small = [case for case in cases if case.small]
    crowd = sorted((case for case in cases if case.bytes == 100 and case.log == "WARN"
                    and case.operation == "GET" and case.threads > 1),
                   key=lambda case: (case.round_trip, case.threads, case.connections))
    return {
        "one thread": table_of([case for case in small if case.threads == case.connections == 1],
                               OPERATION | RATES | PROCESSOR),
        "threads": table_of([case for case in small if case.operation == "GET"]
                            + [case for case in small if case.operation == "SET" and case.even],
                            OPERATION | THREADS | CONNECTIONS | RATES | PROCESSOR),
        "shared": table_of([case for case in crowd if case.round_trip == 0], THREADS | CONNECTIONS | LATENCIES),
        "distance": table_of([case for case in crowd if case.round_trip > 0], THREADS | CONNECTIONS | LATENCIES),
        "sizes": table_of([case for case in cases if case.bytes != 100],
                          OPERATION | SIZE | THREADS | RATES | PROCESSOR),
        "log": table_of([case for case in cases if case.log == "INFO"],
                        OPERATION | THREADS | RATES | PROCESSOR),
        "aims": table(["Ratio", "at least", "", "lowest", "of"], [aim.row() for aim in AIMS if aim.seen], 1),
    }


def put_into(guide, made):
    text = guide.read_text()
    for name, lines in made.items():
        mark, end = f"<!-- table: {name} -->", "<!-- end of table -->"
        text, times = re.subn(f"{mark}.*?{end}", lambda _: "\n".join([mark, *lines, end]), text, flags=re.DOTALL)
        if times != 1:
            sys.exit(f"{guide}: the mark of table \"{name}\" stands in it {times} times")
    guide.write_text(text)


def print_aims():
    rows = [["ratio", "at least", "", "lowest", "of"], *(aim.row() for aim in AIMS if aim.seen)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    for row in rows:
        print("  ".join(text.ljust(width) for text, width in zip(row, widths)).rstrip())


def main():
    cases = read_cases(sys.argv[1])
    for aim in AIMS:
        aim.look_at(cases)
    if sys.argv[2:] == ["-"]:
        for name, lines in tables(cases).items():
            print(f"{name}:", *lines, "", sep="\n")
        return
    print_aims()
    if len(sys.argv) > 2:
        put_into(Path(sys.argv[2]), tables(cases))


if __name__ == "__main__":
    main()
