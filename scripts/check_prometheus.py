#!/usr/bin/env python3
"""A Prometheus from Debian's packages scrapes what `ruvo_cli stats --prometheus` writes for a host, and evaluates
the alerts of conf/ruvo_alerts.yml. Needs the release build, redis-server and prometheus; all listen on loopback.

The host counts calls for a while, then its server dies: the alert that no call succeeds must fire, and no rule may
fail.
"""
import functools
import http.server
import json
import re
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
BUILD = TREE / "build/release"
LIMIT = 90  # seconds

HOST = """
import ctypes, sys, time
ruvo = ctypes.CDLL(sys.argv[1])
ruvo.RUVO_Init(sys.argv[2].encode())
while True:
    ruvo.RUVO_InsertKey(b"key", b"value", ctypes.c_ulong(5), 60, 1, None)
    time.sleep(0.005)
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(what, condition):
    deadline = time.monotonic() + LIMIT
    while time.monotonic() < deadline:
        try:
            if result := condition():
                return result
        except OSError:
            pass
        time.sleep(0.2)
    raise SystemExit(f"check_prometheus.py: did not happen within {LIMIT} s: {what}")


class Prometheus:
    def __init__(self, folder, target):
        # The rules use minutes; here they use seconds, so that the check ends.
        rules = TREE / "conf/ruvo_alerts.yml"
        subprocess.run(["promtool", "check", "rules", rules], check=True, stdout=subprocess.DEVNULL)
        shorter = re.sub(r"\[\d+m\]", "[5s]", re.sub(r"for: \d+m", "for: 0s", rules.read_text()))
        (folder / "shorter.yml").write_text(shorter)
        (folder / "prometheus.yml").write_text(
            "global: {scrape_interval: 500ms, evaluation_interval: 500ms}\n"
            "rule_files: [shorter.yml]\n"
            "scrape_configs:\n"
            f"  - {{job_name: ruvo, metrics_path: /ruvo.prom, static_configs: [{{targets: ['127.0.0.1:{target}']}}]}}\n")
        self.address = f"127.0.0.1:{free_port()}"
        self.process = subprocess.Popen(
            ["prometheus", f"--config.file={folder}/prometheus.yml", f"--storage.tsdb.path={folder}/data",
             f"--web.listen-address={self.address}", "--log.level=error"])

    def get(self, path):
        with urllib.request.urlopen(f"http://{self.address}/api/v1/{path}") as answer:
            return json.load(answer)["data"]

    def value(self, query):
        result = self.get("query?query=" + urllib.request.quote(query))["result"]
        return float(result[0]["value"][1]) if result else None

    def rules(self):
        return [rule for group in self.get("rules")["groups"] for rule in group["rules"]]


def write_statistics(folder, is_ended):
    """Does the work of a timer on a host's machine."""
    while not is_ended.is_set():
        text = subprocess.run([BUILD / "tools/cli/ruvo_cli", "stats", folder / "ruvo.stats", "--prometheus"],
                              check=False, capture_output=True, text=True)
        if text.returncode == 0:
            (folder / "ruvo.prom.new").write_text(text.stdout)
            (folder / "ruvo.prom.new").rename(folder / "ruvo.prom")
        is_ended.wait(0.3)


class QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


def run(folder, processes):
    redis_port = free_port()
    redis = subprocess.Popen(["redis-server", "--port", str(redis_port), "--bind", "127.0.0.1", "--save", ""],
                             stdout=subprocess.DEVNULL)
    processes.append(redis)
    address = f"127.0.0.1:{redis_port}"
    wait_for("Redis", lambda: socket.create_connection(("127.0.0.1", redis_port)).close() or True)
    (folder / "redis.conf").write_text(
        f"[common]\nstats_file = {folder}/ruvo.stats\ntemp_server = {address}\npersist_server = {address}\n"
        f"personality_server = {address}\n")
    (folder / "sruvo.conf").write_text(f"[redis_cfg]\nredis_cfg_path = {folder}/redis.conf\n")
    host = subprocess.Popen([sys.executable, "-c", HOST, BUILD / "src/libruvo.so.1", folder / "sruvo.conf"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    processes.append(host)

    is_ended = threading.Event()
    writer = threading.Thread(target=write_statistics, args=(folder, is_ended))
    writer.start()
    try:
        handler = functools.partial(QuietHandler, directory=folder)
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as pages:
            threading.Thread(target=pages.serve_forever, daemon=True).start()
            prometheus = Prometheus(folder, pages.server_address[1])
            processes.append(prometheus.process)
            ok = 'ruvo_calls_total{pool="temp",result="ok"}'
            wait_for("calls that Prometheus counts", lambda: (prometheus.value(ok) or 0) > 100)
            wait_for("a p99", lambda: prometheus.value(
                "histogram_quantile(0.99, rate(ruvo_call_duration_seconds_bucket{pool='temp'}[5s]))"))
            redis.kill()
            wait_for("the alert that no call succeeds", lambda: any(
                rule["name"] == "RuvoPoolDown" and rule["state"] == "firing" for rule in prometheus.rules()))
            for rule in prometheus.rules():
                if rule["health"] != "ok":
                    raise SystemExit(f"check_prometheus.py: {rule['name']}: {rule.get('lastError')}")
            print(f"Prometheus counts the calls; {len(prometheus.rules())} rules are evaluated, the right one fires")
            pages.shutdown()
    finally:
        is_ended.set()
        writer.join()


def main():
    processes = []
    with tempfile.TemporaryDirectory() as folder:
        try:
            run(Path(folder), processes)
        finally:
            for process in processes:
                process.kill()
                process.wait()


if __name__ == "__main__":
    sys.exit(main())
