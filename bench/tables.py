#!/usr/bin/env python3
"""Makes the tables of docs/performance.md from the benchmark's results, and compares the run with
the aims.

    bench/tables.py CSV                print the aims
    bench/tables.py CSV GUIDE          also replace all tables of the guide
    bench/tables.py CSV -              print all tables

A table is between the lines "<!-- table: NAME -->" and "<!-- end of table -->".
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
    def standard(self):
        """100 B on loopback, with the log at WARN."""
        return self.bytes == 100 and self.log == "WARN" and self.round_trip == 0

    @property
    def connection_per_thread(self):
        return self.threads == self.connections

    def rate(self, side):
        return f"{float(self.sides[side]['calls_per_s']):,.0f}"

    def spread(self, of, to):
        """The ratio of two sides' rates, round by round: median and quartiles."""
        return tuple(float(self.sides[to][f"{of}_ratio{part}"]) for part in ("", "_q1", "_q3"))

    def ratio(self, of, to):
        return f"{self.spread(of, to)[0]:.2f}"

    def latency(self, side, percentile):
        return float(self.sides[side][percentile + "_us"])

    def latencies(self, side):
        """The median and the 99th percentile; in milliseconds over a network."""
        one, digits = (1000, 2) if self.round_trip else (1, 0)
        return " / ".join(f"{self.latency(side, percentile) / one:,.{digits}f}" for percentile in ("p50", "p99"))

    def has(self, *sides):
        return all(side in self.sides for side in sides)

    def __str__(self):
        ends = [f"`{self.operation}`"]
        if self.bytes != 100:
            ends.append(SIZES.get(self.bytes, f"{self.bytes} B"))
        if self.round_trip:
            ends.append(f"{self.round_trip:g} ms")
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
    """The rate of one side, relative to another."""
    return (of, to), lambda case: case.spread(of, to)


def latency(percentile, of, to):
    """A percentile of one side, relative to another."""
    return (of, to), lambda case: (case.latency(of, percentile) / case.latency(to, percentile),) * 3


@dataclass
class Aim:
    """A bound for the cases that it applies to, with their measured values."""
    text: str
    bound: float
    measures: tuple[tuple[str, str], Callable[[Case], tuple]]
    applies_to: Callable[[Case], bool]
    at_most: bool = False
    seen: list = field(default_factory=list)

    def look_at(self, cases):
        sides, measured = self.measures
        self.seen = [(measured(case), case) for case in cases
                     if self.applies_to(case) and case.has(*sides)]

    def is_met(self, ratio):
        return ratio <= self.bound if self.at_most else ratio >= self.bound

    def row(self):
        met = sum(self.is_met(ratio[0]) for ratio, _ in self.seen)
        worst = max if self.at_most else min
        (median, lower, upper), case = worst(self.seen, key=lambda one: one[0][0])
        quartiles = f" [{lower:.3f}, {upper:.3f}]" if lower != upper else ""
        verdict = "met" if met == len(self.seen) else f"met by {met} of {len(self.seen)}" if met else "not met"
        bound = f"{'at most' if self.at_most else 'at least'} {self.bound:g}"
        return [self.text, bound, verdict, f"{median:.3f}{quartiles}", str(case)]


def loopback(threads, *connections):
    """GET of 100 B by this many threads on one of these numbers of connections, on loopback."""
    return lambda case: (case.standard and case.operation == "GET" and case.threads == threads
                         and case.connections in connections)


def network(round_trips=(0.2, 1, 5), threads=(2, 4, 16, 64)):
    """GET of 100 B on one connection over a network."""
    return lambda case: (case.operation == "GET" and case.bytes == 100 and case.connections == 1
                         and case.threads in threads and case.round_trip in round_trips)


def single(case):
    return case.standard and case.threads == case.connections == 1


AIMS = [
    # auto_pipelining over a network.
    Aim("network, one connection, 2 to 64 threads: pipelined to hiredis", 0.97, rates("pipelined", "hiredis"), network()),
    Aim("the same: p50 of pipelined to hiredis", 1.05, latency("p50", "pipelined", "hiredis"), network(), at_most=True),
    Aim("network of 1 ms, one connection, 64 threads: pipelined to hiredis", 1.3, rates("pipelined", "hiredis"),
        network((1,), (64,))),
    # auto_pipelining on loopback.
    *(Aim(f"{threads} threads on one connection: pipelined to hiredis", bound, rates("pipelined", "hiredis"),
          loopback(threads, 1)) for threads, bound in ((64, 2.0), (16, 1.4), (4, 0.95), (2, 0.85))),
    Aim("64 threads on two connections: pipelined to hiredis", 2.0, rates("pipelined", "hiredis"), loopback(64, 2)),
    Aim("a connection for each thread: pipelined to hiredis", 0.97, rates("pipelined", "hiredis"),
        lambda case: case.standard and case.connection_per_thread and case.threads > 1),
    Aim("64 threads on one and two connections: p99 of pipelined to hiredis", 1.0, latency("p99", "pipelined", "hiredis"),
        loopback(64, 1, 2), at_most=True),
    Aim("64 threads on eight connections: p99 of pipelined to hiredis", 1.5, latency("p99", "pipelined", "hiredis"),
        loopback(64, 8), at_most=True),
    Aim("one thread: pipelined to library", 0.98, rates("pipelined", "library"), single),
    Aim("GET and HGET of 1 MB: pipelined to hiredis", 1.0, rates("pipelined", "hiredis"),
        lambda case: case.bytes == 1000000 and case.operation in ("GET", "HGET")),
    # The library without the key.
    Aim("GET and HGET of 1 MB: library to hiredis", 1.0, rates("library", "hiredis"),
        lambda case: case.bytes == 1000000 and case.operation in ("GET", "HGET")),
    Aim("one thread: library to hiredis", 0.97, rates("library", "hiredis"), single),
    Aim("a connection for each thread: library to the pool", 0.97, rates("library", "pool"),
        lambda case: case.standard and case.connection_per_thread),
    Aim("log at INFO: library to hiredis", 0.80, rates("library", "hiredis"), lambda case: case.log == "INFO"),
]


# ---- The tables ----

# The columns of the guide by their heads, which the guide explains. Quartiles, and the cases that no table has,
# are in the CSV.
ROUND_TRIP = {"RTT, ms": lambda case: f"{case.round_trip:g}"}
THREADS = {"Threads": lambda case: case.threads}
CONNECTIONS = {"Connections": lambda case: case.connections}
HIREDIS = {"hiredis, calls/s": lambda case: case.rate("hiredis")}
LIBRARY = {"Library, calls/s": lambda case: case.rate("library")}
PIPELINED = {"Pipelined, calls/s": lambda case: case.rate("pipelined")}
POOL = {"Pool, calls/s": lambda case: case.rate("pool")}
LIBRARY_RATIO = {"Library / hiredis": lambda case: case.ratio("library", "hiredis")}
PIPELINED_RATIO = {"Pipelined / hiredis": lambda case: case.ratio("pipelined", "hiredis")}


def latencies(unit, *sides):
    heads = {"hiredis": "hiredis", "library": "Library", "pipelined": "Pipelined"}
    return {f"{heads[side]}, p50 / p99, {unit}": lambda case, side=side: case.latencies(side) for side in sides}


def table(heads, rows, names):
    """As Markdown; the first `names` columns hold names."""
    lines = [heads, ["---"] * names + ["---:"] * (len(heads) - names), *rows]
    return [f"| {' | '.join(line)} |" for line in lines]


def table_of(cases, columns):
    return table([*columns], [[str(value(case)) for value in columns.values()] for case in cases], 1)


def tables(cases):
    gets = sorted((case for case in cases
                   if case.bytes == 100 and case.log == "WARN" and case.operation == "GET"),
                  key=lambda case: (case.round_trip, case.threads, case.connections))
    return {
        "network": table_of([case for case in gets if network(threads=(1, 16, 64))(case)],
                            ROUND_TRIP | THREADS | HIREDIS | PIPELINED | PIPELINED_RATIO
                            | latencies("ms", "hiredis", "pipelined")),
        "loopback": table_of([case for case in gets if case.round_trip == 0 and case.threads in (1, 4, 16, 64)
                              and (case.connections == 1 or case.connection_per_thread)],
                             THREADS | CONNECTIONS | HIREDIS | POOL | LIBRARY | PIPELINED | LIBRARY_RATIO
                             | PIPELINED_RATIO | latencies("µs", "hiredis", "library", "pipelined")),
        "aims": table(["Ratio", "Aim", "", "Worst", "Of"], [aim.row() for aim in AIMS if aim.seen], 1),
    }


def put_into(guide, made):
    text = guide.read_text()
    for name, lines in made.items():
        mark, end = f"<!-- table: {name} -->", "<!-- end of table -->"
        text, times = re.subn(f"{mark}.*?{end}", lambda _: "\n".join([mark, *lines, end]), text, flags=re.DOTALL)
        if times != 1:
            sys.exit(f"{guide}: the mark of table \"{name}\" occurs {times} times")
    guide.write_text(text)


def print_aims():
    rows = [["ratio", "aim", "", "worst", "of"], *(aim.row() for aim in AIMS if aim.seen)]
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
