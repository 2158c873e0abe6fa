#!/usr/bin/env python3
"""Runs the examples of README.md, CONTRIBUTING.md and docs/*.md, to make sure that they work as written.

    scripts/check_docs.py [DOCUMENT...]      (no argument: all of them)

Needs the release build in build/release. The documents share a working folder, a copy of the tracked
files; the library is installed into its folder usr/local. Each document gets a Redis on loopback. The
fenced blocks of a document are handled in order, by their info string:

    sh         run with bash -euo pipefail
    ini, yaml  written to the file that the first line names, such as "# ruvo_redis.conf"
    cpp, c     complete programs: built with the line that the document shows for the file, or with its
               first such line, with warnings as errors, and run
    cmake      a CMakeLists.txt, whose first line names it: configured and built
    text       output and pictures: skipped

The script refuses any other block, and code without a fence. It writes all files that are named in
the first line of a block ("// host.cpp") before the first command runs. Every document can use
README's configuration files.
"""
import ctypes
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
BLOCK_LIMIT = 900  # seconds

# Commands that are shown but not run here.
NOT_RUN = {
    "scripts/test.sh": ".ci/run has run it",
    "scripts/test.sh asan": ".ci/run has run it",
    "scripts/test.sh tsan": ".ci/run has run it",
    "scripts/demo.sh": ".ci/run runs it",
    "scripts/bench.sh": ".ci/run runs it",
    "scripts/count_instructions.sh": ".ci/run runs it",
    "cmake -B build/plain -G Ninja -DRUVO_BUILD_TESTS=OFF": "this script installs the release build instead",
    "cmake --build build/plain": "this script installs the release build instead",
    "cmake --install build/plain --prefix /usr/local": "this script installs the release build instead",
    "cmake --workflow --preset package": "scripts/check_packages.sh runs it",
    "apt install ./build/package/*.deb": "scripts/check_packages.sh runs it",
    ".ci/run": "it runs this script",
    "ldconfig": "it writes the machine's own cache; LD_LIBRARY_PATH replaces it",
}

# Kinds of blocks that a document must have, so that a mistyped fence is noticed.
MUST_HOLD = {
    "README.md": {"sh", "ini", "cpp", "cmake"},
    "docs/configuration.md": {"sh", "ini", "yaml"},
    "docs/compatibility.md": {"sh", "ini"},
    "docs/logging.md": {"sh", "cpp"},
    "docs/operations.md": {"ini"},
    "docs/runbook.md": {"sh"},
    "docs/statistics.md": {"sh", "ini", "cpp"},
}

# Lines of every configuration that is shown.
NEW_SITE = ["connect_timeout = 200", "socket_timeout = 500", "recommended_defaults = true"]

# Documents that name files of the tree.
MAPS = {"CONTRIBUTING.md", "docs/architecture.md"}

WARNINGS = "-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"
COMPILERS = {"cpp": "c++", "c": "cc"}
FILE_NAME = re.compile(r"(?:#|//) ([\w./-]+\.\w+)$")


class Refused(Exception):
    pass


class Block:
    def __init__(self, line, kind, text):
        self.line, self.kind, self.text = line, kind, text
        named = FILE_NAME.match(text.split("\n", 1)[0])
        self.file = named[1] if named else None


def read_blocks(document):
    """The fenced blocks of a document."""
    blocks, fence, in_list, after_blank = [], None, False, True
    for number, line in enumerate((TREE / document).read_text().splitlines(), 1):
        mark = re.match(r"( *)```(.*)$", line)
        if fence is not None:
            if mark and not mark[2].strip():
                blocks.append(Block(*fence, "\n".join(body) + "\n"))
                fence = None
            else:
                body.append(line.removeprefix(indent))
        elif mark:
            fence, body, indent = (number, mark[2].strip()), [], mark[1]
        elif line.strip():
            if re.match(r" *([-*+]|\d+[.)]) ", line):
                in_list = True
            elif after_blank and line.startswith(("    ", "\t")) and not in_list:
                raise Refused(f"{document}:{number}: indented code: make it a fenced block")
            elif after_blank and not line.startswith(" "):
                in_list = False
        after_blank = not line.strip()
    if fence is not None:
        raise Refused(f"{document}:{fence[0]}: the block has no end")
    return blocks


class Ports:
    """Documents show the usual ports; here a free port replaces each. This is the only difference
    between the commands shown and the commands run."""

    SHOWN = re.compile(r"(127\.0\.0\.\d+:|(?<!\S)(?:-p|-s|--port|--tls-port) )(\d{4,5})\b")

    def __init__(self):
        self.held = {}

    def port(self, shown):
        if shown not in self.held:
            # The socket is bound but does not listen: the kernel gives the port to no other socket, a
            # server that sets SO_REUSEADDR may still use it, and until then connections are refused.
            holder = socket.socket()
            holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            holder.bind(("127.0.0.1", 0))
            self.held[shown] = holder
        return str(self.held[shown].getsockname()[1])

    def replace(self, text):
        return self.SHOWN.sub(lambda match: match[1] + self.port(match[2]), text)


def descendants(pid):
    for task in Path(f"/proc/{pid}/task").glob("*/children"):
        for child in task.read_text().split():
            yield int(child)
            yield from descendants(child)


def end_processes():
    """Ends all processes that this script has started, and those that they have left behind: this
    script is a subreaper, so it becomes the parent of daemons."""
    for sent in (signal.SIGTERM, signal.SIGKILL):
        deadline = time.monotonic() + 5
        for pid in list(descendants(os.getpid())):
            try:
                os.kill(pid, sent)
            except ProcessLookupError:
                pass
        while time.monotonic() < deadline:
            try:
                if os.waitpid(-1, os.WNOHANG) == (0, 0):
                    time.sleep(0.02)
            except ChildProcessError:
                return


class Sandbox:
    def __init__(self, folder):
        self.tree = folder / "tree"
        self.output = folder / "output"
        self.ports = Ports()
        root = folder / "root"
        prefix = root / "usr/local"
        self.env = os.environ | {
            "DESTDIR": str(root),
            "PATH": f"{prefix}/bin:{os.environ['PATH']}",
            "LD_LIBRARY_PATH": f"{prefix}/lib",
            "PKG_CONFIG_PATH": f"{prefix}/lib/pkgconfig",
            "CMAKE_PREFIX_PATH": str(prefix),
            "DEMO_SECONDS": "7",
            "RUVO_BENCH_ROUNDS": "1",  # enough to see that it runs
            # With ccache, a block reuses what an earlier one has built.
            "CCACHE_BASEDIR": str(folder),
            "CCACHE_NOHASHDIR": "1",
        }
        for name in self.command(["git", "ls-files", "-z"], TREE).split("\0"):
            if (TREE / name).is_file():
                (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(TREE / name, self.tree / name)
        self.command(["cmake", "--install", "build/release", "--prefix", "/usr/local"], TREE)

    def command(self, words, folder=None):
        """Runs a command and returns its output. The output goes through a file: a server that a
        block leaves in the background would keep a pipe open."""
        with self.output.open("w+") as output:
            try:
                result = subprocess.run(words, cwd=folder or self.tree, env=self.env, text=True,
                                        stdin=subprocess.DEVNULL, stdout=output,
                                        stderr=subprocess.STDOUT, timeout=BLOCK_LIMIT)
            except subprocess.TimeoutExpired as error:
                raise Refused(f"not finished after {BLOCK_LIMIT} seconds") from error
            output.seek(0)
            text = output.read()
        if result.returncode != 0:
            raise Refused(f"{text}exit status {result.returncode}")
        return text

    def start_redis(self):
        port = self.ports.port("6379")
        subprocess.Popen(["redis-server", "--port", port, "--bind", "127.0.0.1", "127.0.0.2",
                          "--save", "", "--appendonly", "no"],
                         cwd=self.tree, stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            try:
                return socket.create_connection(("127.0.0.1", int(port))).close()
            except ConnectionRefusedError:
                time.sleep(0.02)
        raise Refused("no redis-server")

    def write(self, block):
        path = self.tree / block.file
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(self.ports.replace(block.text))
        return path

    def run(self, block):
        if block.kind == "sh":
            self.run_shell(block)
        elif block.kind in COMPILERS:
            self.run_program(block)
        elif block.kind == "cmake":
            folder = str((self.tree / block.file).parent)
            self.command(["cmake", "-G", "Ninja", "-S", folder, "-B", f"{folder}/checked"])
            self.command(["cmake", "--build", f"{folder}/checked"])

    def run_shell(self, block):
        lines = []
        for line in block.text.splitlines():
            reason = NOT_RUN.get(line.split("#")[0].strip())
            lines.append(f": # {reason}" if reason else line)
        script = self.ports.replace("\n".join(lines))
        self.command(["bash", "-euo", "pipefail", "-c", script])

    def run_program(self, block):
        source = self.write(block)
        program = self.output.with_suffix(".program")
        self.command(["bash", "-euo", "pipefail", "-c",
                      re.sub(r" \S+ -o \S+", f" {WARNINGS} {source} -o {program}", block.built_with)])
        self.command([str(program)])


def find_build_lines(document, blocks):
    """Gives each program the line that the document builds it with."""
    for block in blocks:
        if block.kind not in COMPILERS:
            continue
        shown = [line.strip() for other in blocks if other.kind == "sh" for line in other.text.splitlines()
                 if re.match(rf"\s*{re.escape(COMPILERS[block.kind])} .* -o ", line)]
        if not block.file or not shown:
            raise Refused(f"{document}:{block.line}: a program without a name or a line that builds it")
        block.built_with = next((line for line in shown if f" {block.file} " in line), shown[0])


def refuse_mistakes(document, blocks):
    """Refuses a faulty document before anything runs."""
    for block in blocks:
        if block.kind not in {"sh", "ini", "yaml", "cmake", "text", *COMPILERS}:
            raise Refused(f"{document}:{block.line}: unknown kind of block: '{block.kind}'")
        if block.kind in {"ini", "yaml", "cmake"} and not block.file:
            raise Refused(f"{document}:{block.line}: the first line does not name the file")
    files = [block.file for block in blocks if block.file]
    if len(files) != len(set(files)):
        raise Refused(f"{document}: a file is written twice")
    if missing := MUST_HOLD.get(document, set()) - {block.kind for block in blocks}:
        raise Refused(f"{document}: shows no block of: {', '.join(sorted(missing))}")
    for block in blocks:
        missing = [line for line in NEW_SITE if line not in block.text.splitlines()]
        if block.kind == "ini" and "[common]" in block.text and missing:
            raise Refused(f"{document}:{block.line}: {block.file} lacks {', '.join(missing)}")
    find_build_lines(document, blocks)


def headings(path):
    """The anchors of a document's headings."""
    found = re.findall(r"^#+ (.*)$", re.sub(r"^ *```.*?^ *```", "", path.read_text(), flags=re.M | re.S), re.M)
    return {re.sub(r"[^\w -]", "", heading).lower().replace(" ", "-") for heading in found}


def refuse_dead_links(document):
    """Refuses a link to a missing file or heading."""
    for link in re.findall(r"\]\(([^):\s]+)\)", (TREE / document).read_text()):
        target, _, anchor = link.partition("#")
        path = (TREE / document).parent / target if target else TREE / document
        if not path.exists() or (anchor and anchor not in headings(path)):
            raise Refused(f"{document}: dead link to {link}")


def refuse_missing_lines(document):
    """Refuses a list of log lines that lacks a WARN or ERROR line of the library: the longest text
    between two directives of each line must be in it."""
    logged = re.compile(r'(?:RUVO_LOG\w*\([^";]*?\b(?:WARN|ERROR),[^";]*?|null_\w+ =)\s*((?:"[^"]*"\s*)+)')
    guide = (TREE / document).read_text()
    for source in sorted(TREE.glob("src/**/*.cpp")) + sorted(TREE.glob("src/**/*.h")):
        for match in logged.finditer(source.read_text()):
            line = "".join(re.findall(r'"([^"]*)"', match[1])).split("| ")[-1]
            text = max(re.split(r"%[a-z]+|\\n", line), key=len).strip(" ,.:")
            if text not in guide:
                raise Refused(f"{document}: the line '{line}' of {source.name} is missing")


def refuse_missing_places(document):
    """Refuses a document that names a missing file of the tree: "walk.cpp", "tests/walk_test.cpp",
    "pipeline.{h,cpp}" for two."""
    tracked = subprocess.run(["git", "ls-files", "-z"], cwd=TREE, check=True, capture_output=True,
                             text=True).stdout.split("\0")
    text = re.sub(r"([\w./]+)\.\{(\w+),(\w+)\}", r"\1.\2 \1.\3", (TREE / document).read_text())
    named = re.findall(r"(?<![\w./-])[\w./-]+\.(?:cpp|h|hpp|sh|py|txt|map|in|symbols|cmake)\b", text)
    missing = {name for name in named if not any(f"/{path}".endswith(f"/{name}") for path in tracked)}
    if missing or not named:
        raise Refused(f"{document}: not in the tree: {', '.join(sorted(missing))}")


def check(document, sandbox):
    """Runs a document's blocks. Returns how many passed and how many failed."""
    try:
        blocks = read_blocks(document)
        refuse_mistakes(document, blocks)
        refuse_dead_links(document)
        if document == "docs/log_lines.md":
            refuse_missing_lines(document)
        if document in MAPS:
            refuse_missing_places(document)
        first = [block for block in read_blocks("README.md") if block.kind == "ini"]
        for block in first + blocks:
            if block.file:
                sandbox.write(block)
        sandbox.start_redis()
    except Refused as refused:
        print(f"FAIL {refused}")
        return 0, 1
    passed = failed = 0
    for block in blocks:
        if block.kind == "text":
            continue
        begin = time.monotonic()
        try:
            sandbox.run(block)
            verdict, said = "PASS", ""
            passed += 1
        except Refused as refused:
            verdict, said = "FAIL", f"\n{refused}"
            failed += 1
        seconds = time.monotonic() - begin
        print(f"{verdict} {document}:{block.line} {block.kind} ({seconds:.1f} s){said}", flush=True)
    return passed, failed


def main():
    documents = sys.argv[1:] or ["README.md", "CONTRIBUTING.md", *sorted(f"docs/{p.name}" for p in TREE.glob("docs/*.md"))]
    set_child_subreaper = 36
    ctypes.CDLL(None).prctl(set_child_subreaper, 1, 0, 0, 0)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    passed = failed = 0
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        sandbox = Sandbox(Path(folder))
        for document in documents:
            try:
                more = check(document, sandbox)
            finally:
                end_processes()
            passed, failed = passed + more[0], failed + more[1]
    print(f"documents: {len(documents)}, blocks: {passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
