#!/usr/bin/env python3
"""Prints the tables of docs/performance.md from what the benchmark has written.

    bench/tables.py docs/figures/performance.csv
"""
import csv
import sys

SIZES = {16: "16 B", 100: "100 B", 10000: "10 kB", 1000000: "1 MB"}


class Case:
    """The rows of the three sides of one case."""

    def __init__(self, row):
        self.operation, self.log = row["operation"], row["log"]
        self.bytes, self.threads, self.connections = (
            int(row[name]) for name in ("bytes", "threads", "connections"))
        self.sides = {}

    def rate(self, side):
        return f"{float(self.sides[side]['calls_per_s']):,.0f}"

    def ratio(self, side):
        median, lower, upper = (float(self.sides[side]["library_ratio" + part])
                                for part in ("", "_q1", "_q3"))
        return f"{median:.3f} [{lower:.3f}, {upper:.3f}]"

    def figures(self):
        more = float(self.sides["hiredis"]["library_cpu_us_more"])
        return [*map(self.rate, ("library", "hiredis", "pool")), *map(self.ratio, ("hiredis", "pool")),
                f"{more:+.2f}"]


def read_cases(path):
    cases = {}
    with open(path, newline="") as file:
        for row in csv.DictReader(file):
            key = tuple(row[name] for name in ("operation", "bytes", "threads", "connections", "log"))
            cases.setdefault(key, Case(row)).sides[row["side"]] = row
    return list(cases.values())


def print_table(title, cases, columns):
    heads = [*columns, "Library/s", "hiredis/s", "Pool/s", "To hiredis", "To the pool",
             "CPU µs more than hiredis"]
    print(f"{title}:\n\n| {' | '.join(heads)} |\n|---|{'---:|' * (len(heads) - 1)}")
    for case in cases:
        names = [str(value(case)) for value in columns.values()]
        print(f"| {' | '.join([*names, *case.figures()])} |")
    print()


def main():
    cases = read_cases(sys.argv[1])
    silent = [case for case in cases if case.log == "WARN"]
    small = [case for case in silent if case.bytes == 100]
    operation = {"Operation": lambda case: case.operation}
    threads = {"Threads": lambda case: case.threads}
    connections = {"Connections": lambda case: case.connections}
    size = {"Size": lambda case: SIZES.get(case.bytes, case.bytes)}
    print_table("One thread, one connection, values of 100 B (`LRANGE` and `SMEMBERS`: 100 of them)",
                [case for case in small if case.threads == case.connections == 1], operation)
    print_table("Threads and connections, values of 100 B",
                [case for case in small if case.operation == "GET"]
                + [case for case in small if case.operation == "SET" and case.threads == case.connections],
                operation | threads | connections)
    print_table("Other sizes, as many connections as threads",
                [case for case in silent if case.bytes != 100], operation | size | threads)
    print_table("Log at INFO, to a file (values of 100 B, as many connections as threads)",
                [case for case in cases if case.log == "INFO"], operation | threads)


if __name__ == "__main__":
    main()
