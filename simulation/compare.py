#!/usr/bin/env python3
"""Compares the model of docs/scaling.md with the library: measures (on an idle machine), simulates the same
points, and prints both as CSV.

    cmake --preset bench
    cmake --build --preset bench --target scaling_measurement scaling_simulation
    simulation/compare.py >docs/figures/scaling_measured.csv
"""
import csv
import subprocess
import sys
from pathlib import Path

PROGRAMS = Path(__file__).resolve().parent.parent / "build/bench/simulation"

# The model's parameters for both networks, in microseconds, chosen so that the median of one thread is right.
NETWORKS = {"far away": ("5 ms", {"round-trip": 5140, "service": 10, "host-work": 5}),
            "loopback": ("loopback", {"round-trip": 8, "service": 10, "host-work": 1})}
POINTS = [(1, 1), (4, 1), (4, 4), (16, 1), (16, 4), (16, 8), (16, 32)]  # threads, connections


def rows_of(program, *arguments):
    output = subprocess.run([PROGRAMS / program, *arguments], check=True, capture_output=True, text=True).stdout
    return list(csv.DictReader(output.splitlines()))


def simulated(network, shared, threads, connections):
    parameters = {"threads": threads, "connections": connections, "servers": 1, **NETWORKS[network][1]}
    options = [f"--{name}={value}" for name, value in parameters.items()]
    return rows_of("scaling_simulation", *options, *["--auto-pipelining"] * shared)[0]


def milliseconds(us):
    ms = float(us) / 1000
    return f"{ms:.2f}" if ms < 1 else f"{ms:.1f}" if ms < 100 else f"{ms:.0f}"


def main():
    measured = {(row["series"], int(row["threads"]), int(row["connections"])): row
                for row in rows_of("scaling_measurement")}
    writer = csv.writer(sys.stdout, lineterminator="\n")
    writer.writerow(["server", "threads", "connections", "auto_pipelining", "requests_per_second",
                     "model_requests_per_second", "p50_ms", "model_p50_ms", "p99_ms", "model_p99_ms"])
    for network, (name, _) in NETWORKS.items():
        for point in POINTS:
            for shared in (False, True):
                both = (measured[network + " shared" * shared, *point], simulated(network, shared, *point))
                writer.writerow([name, *point, "yes" if shared else "no"]
                                + [f"{float(row['requests_per_second']):.0f}" for row in both]
                                + [milliseconds(row["p50_us"]) for row in both]
                                + [milliseconds(row["p99_us"]) for row in both])


if __name__ == "__main__":
    main()
