#!/usr/bin/env python3
"""Reports the instructions of a call by owner, from the dumps of call_script under callgrind.

    bench/instructions.py FOLDER [--record] [--functions OPERATION]

FOLDER holds the dumps. Prints a table and compares the library's code, what it calls and the whole
call with bench/instructions.txt; the exit status is 1 if one has grown by more than the margin.
--record writes that file instead, --functions also lists the library's functions in one operation.
"""
import argparse
import re
import sys
from collections import Counter
from pathlib import Path

CALLS = 100  # of each operation by call_script
MARGIN = 0.05
RECORD = Path(__file__).with_name("instructions.txt")

# The objects, by the beginnings of their names. All others are the C library: libc with the
# threads, libstdc++, the loader.
OWNERS = {"libruvo": "library", "libstream_log": "library", "libACE": "ACE",
          "libhiredis": "hiredis", "call_script": "program"}


def owner_of(path):
    name = Path(path).name
    return next((owner for begin, owner in OWNERS.items() if name.startswith(begin)), "C library")


def read_dump(path):
    """The counts of a dump: its name, the instructions of each owner, and those of the library's
    functions. Those of the C library count for its caller."""
    names = {}

    def named(kind, text):
        match = re.match(r"\((\d+)\)(?: (.*))?$", text)
        if match[2]:
            names[kind, match[1]] = match[2]
        return names[kind, match[1]]

    operation = None
    owner = function = called = None
    expects_inclusive = False
    counts, functions = Counter(), Counter()
    for line in path.read_text().splitlines():
        if match := re.match(r"desc: Trigger: Client Request: (.*)", line):
            operation = match[1]
        elif line.startswith("ob="):
            owner = owner_of(named("ob", line[3:]))
        elif line.startswith("fn="):
            function = named("fn", line[3:])
            called = owner
        elif line.startswith("cob="):
            called = owner_of(named("ob", line[4:]))
        elif line.startswith("cfn="):
            named("fn", line[4:])
        elif line.startswith("calls="):
            expects_inclusive = True
        elif re.match(r"[+*\d-]", line):
            cost = int(line.split()[1])
            if expects_inclusive:
                if called == "C library" and owner != "C library" and function != "(below main)":
                    counts["C library for " + owner] += cost
                called = owner
                expects_inclusive = False
            else:
                counts[owner] += cost
                if owner == "library":
                    functions[function] += cost
    return operation, counts, functions


def read_dumps(folder):
    """The dumps by side and operation."""
    dumps = {}
    for path in folder.glob("dump.*"):
        operation, counts, functions = read_dump(path)
        if operation:
            side, name = operation.split(" ", 1)
            dumps[side, name] = (int(path.suffix[1:]), counts, functions)
    for (side, name), (_, counts, _) in dumps.items():
        if side == "ruvo.hpp":
            add_header(counts, dumps["library", name][1])
    return dict(sorted(dumps.items(), key=lambda dump: dump[1][0]))


def add_header(counts, flat):
    """Adds the code of ruvo.hpp, which is compiled into the program, to the library's count: what the
    program executes beyond what it executes for the flat function."""
    for owner, of in ("library", "program"), ("C library for library", "C library for program"):
        counts[owner] += counts[of] - flat[of]


def shares(counts):
    """The counts for each call: the library's code, its callees, hiredis with its callees."""
    own = counts["library"]
    called = counts["ACE"] + counts["C library for library"] + counts["C library for ACE"]
    hiredis = counts["hiredis"] + counts["C library for hiredis"]
    return tuple(round(count / CALLS) for count in (own, called, hiredis))


def name_of(side, name):
    return name if side == "library" else f"{name}, {side}"


def print_table(dumps):
    before = recorded()
    print(f"{'instructions for each call':28}{'library':>9}{'it calls':>9}{'hiredis':>9}"
          f"{'bare hiredis':>14}{'added':>8}{'whole / recorded':>18}")
    for (side, name), (_, counts, _) in dumps.items():
        if side == "hiredis":
            continue
        own, called, hiredis = shares(counts)
        bare = shares(dumps["hiredis", name][1])[2]
        title = f"{name}, log at INFO" if side == "INFO" else name_of(side, name)
        known = before.get(name_of(side, name))
        growth = f"{(own + called + hiredis) / sum(known):.3f}" if known else ""
        print(f"{title:28}{own:9}{called:9}{hiredis:9}{bare:14}{own + called + hiredis - bare:8}{growth:>18}")


def print_functions(functions):
    for function, cost in functions.most_common():
        if cost >= CALLS:
            print(f"{cost / CALLS:9.0f}  {function}")


def recorded():
    lines = [line.rsplit(None, 3) for line in RECORD.read_text().splitlines()
             if line and not line.startswith("#")]
    return {name: tuple(map(int, counts)) for name, *counts in lines}


def compare(found):
    """Lines about the counts that have grown."""
    before = recorded()
    for name, now in found.items():
        if name not in before:
            yield f"{name}: not in {RECORD.name}"
            continue
        known = before[name]
        for what, count, limit in (("the library's code", now[0], known[0]), ("what it calls", now[1], known[1]),
                                   ("the whole call", sum(now), sum(known))):
            if count > limit * (1 + MARGIN):
                yield f"{name}: {what} takes {count} instructions, {limit} are recorded"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=Path)
    parser.add_argument("--record", action="store_true")
    parser.add_argument("--functions", metavar="OPERATION")
    options = parser.parse_args()

    dumps = read_dumps(options.folder)
    print_table(dumps)
    if options.functions:
        print(f"\nthe library's functions in {options.functions}")
        print_functions(dumps["library", options.functions][2])
    found = {name_of(side, name): shares(counts)
             for (side, name), (_, counts, _) in dumps.items() if side in {"library", "ruvo.hpp", "pipelined"}}
    if not found:
        sys.exit("no dumps")
    if options.record:
        lines = [f"{name:18} {own:6} {called:6} {hiredis:7}" for name, (own, called, hiredis) in found.items()]
        RECORD.write_text("# Instructions for each call, at 100 B, log at WARN: the library's own code, ACE and"
                          "\n# the C library when it calls them, and hiredis with what that calls. Written by"
                          "\n# scripts/count_instructions.sh --record.\n" + "\n".join(lines) + "\n")
        return
    if grown := list(compare(found)):
        print("\n".join(["", *grown]))
        sys.exit(f"grown by more than {MARGIN:.0%}; if that is intended, run scripts/count_instructions.sh --record")
    print(f"none has grown by more than {MARGIN:.0%} over {RECORD.name}")


if __name__ == "__main__":
    main()
