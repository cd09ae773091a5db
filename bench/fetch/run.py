#!/usr/bin/python3
"""Speed and memory of fetching, beside named peers, against one nginx on loopback.

Every measurement is a process of its own. Peers alternate within a round, ratios are formed within a round, and what
is printed are medians over the rounds. The goals stand beside the figures.

  run.py PEER_PROGRAM [--rounds N] [--only N1,N5] [--quick] [--json]
"""
import argparse
import json
import os
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

MIB = 1024 * 1024


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Nginx:
    """HTTP on four ports and HTTPS on four more, serving the same folder."""

    def __init__(self, folder):
        self.folder = folder
        self.ports = [free_port() for _ in range(4)]
        self.tls_ports = [free_port() for _ in range(4)]
        self.ca = os.path.join(folder, "ca.crt")
        key = os.path.join(folder, "key.pem")
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
             "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", key, "-out", self.ca],
            check=True, capture_output=True)
        listens = "".join(f"listen 127.0.0.1:{p};" for p in self.ports)
        listens += "".join(f"listen 127.0.0.1:{p} ssl;" for p in self.tls_ports)
        paths = "".join(f"{n}_temp_path {folder}/{n};" for n in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(os.path.join(folder, "nginx.conf"), "w") as f:
            f.write(f"daemon off; master_process off; pid {folder}/pid; error_log stderr crit;"
                    f"events {{ worker_connections 4096; }} http {{ access_log off; {paths} keepalive_requests 1000000;"
                    f"sendfile on; server {{ {listens} root {folder}/www; ssl_certificate {self.ca};"
                    f"ssl_certificate_key {key}; }} }}\n")
        www = os.path.join(folder, "www")
        os.mkdir(www)
        for name, size in (("1k", 1024), ("1m", MIB), ("256m", 256 * MIB)):
            with open(os.path.join(www, name), "wb") as f:
                block = os.urandom(min(size, MIB))
                for _ in range(max(1, size // MIB)):
                    f.write(block)
        self.process = subprocess.Popen(["nginx", "-p", folder + "/", "-c", "nginx.conf"], stdin=subprocess.DEVNULL)
        for port in self.ports + self.tls_ports:
            self.wait_for(port)

    @staticmethod
    def wait_for(port, host="127.0.0.1"):
        for _ in range(100):
            try:
                socket.create_connection((host, port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        sys.exit("nginx does not listen")

    def urls(self, name, servers, tls):
        ports = (self.tls_ports if tls else self.ports)[:servers]
        return [f"{'https' if tls else 'http'}://127.0.0.1:{p}/{name}" for p in ports]

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()


class Workload:
    def __init__(self, key, says, peers, requests=1, outstanding=1, servers=1, body="1k", tls=False, goals=(),
                 measure="load"):
        self.key, self.says, self.peers = key, says, peers
        self.requests, self.outstanding, self.servers = requests, outstanding, servers
        self.body, self.tls, self.goals, self.measure = body, tls, goals, measure


def rate(base):
    return f"requests/s of {base}", lambda r: (r["orvan"]["requests"] / r["orvan"]["seconds"]) / (
        r[base]["requests"] / r[base]["seconds"])


def cpu(base):
    return f"client CPU of {base}", lambda r: r["orvan"]["cpu_seconds"] / max(r[base]["cpu_seconds"], 1e-9)


def peak():
    return "peak memory of the body", lambda r: r["orvan"]["peak_bytes"] / r["orvan"]["bytes"]


def cost(base):
    return f"time of {base}", lambda r: r["orvan"]["microseconds"] / r[base]["microseconds"]


def workloads():
    small, all_peers = 4000, ["orvan", "floor", "curl"]
    for n in (1, 6, 24):
        yield Workload("N1", f"http, 1 KiB, one host, {n} outstanding", all_peers, small, n,
                       goals=[(rate("floor"), ">=", 0.95), (cpu("floor"), "<=", 1.10), (rate("curl"), "", None)])
    yield Workload("N2", "http, 1 KiB, 24 outstanding over 4 servers", ["orvan", "floor", "main", "curl"], small, 24, 4,
                   goals=[(rate("floor"), ">=", 0.85), (rate("main"), ">=", 1.10), (rate("curl"), "", None)])
    for n in (1, 6, 24):
        yield Workload("N3", f"https, 1 KiB, one host, {n} outstanding", all_peers, small, n, tls=True,
                       goals=[(rate("floor"), ">=", 0.80), (rate("curl"), "", None)])
    yield Workload("N4", "https, 1 KiB, 24 outstanding over 4 servers", all_peers, small, 24, 4, tls=True,
                   goals=[(rate("floor"), ">=", 0.65), (rate("curl"), "", None)])
    yield Workload("N5", "http, one body of 256 MiB", all_peers, body="256m",
                   goals=[(rate("floor"), ">=", 1.8), (rate("curl"), ">=", 1.3), (peak(), "<=", 1.4)])
    yield Workload("N6", "https, one body of 256 MiB", all_peers, body="256m", tls=True,
                   goals=[(rate("floor"), ">=", 2.2), (rate("curl"), ">=", 0.65), (peak(), "<=", 1.2)])
    yield Workload("N7", "http, 200 bodies of 1 MiB, 6 outstanding", all_peers, 200, 6, body="1m",
                   goals=[(rate("floor"), ">=", 0.95)])
    yield Workload("N8", "dispatch of 1,000 completions that piled up", ["orvan", "events"], 1000, measure="dispatch",
                   goals=[(cost("events"), "<=", 2.0)])
    yield Workload("N9", "make and destroy one connection", ["orvan", "bare"], 200, measure="connection",
                   goals=[(cost("bare"), "<=", 1.5)])


def measure(program, load, peer, nginx, quick):
    requests = load.requests if not quick or load.requests < 1000 else load.requests // 10
    command = [program, "--peer", peer, "--measure", load.measure, "--requests", str(requests), "--outstanding",
               str(load.outstanding), "--port", str(nginx.ports[0])]
    if load.tls:
        command += ["--ca", nginx.ca]
    if load.measure == "load":
        command += nginx.urls(load.body, load.servers, load.tls)
    env = {k: v for k, v in os.environ.items() if not k.lower().endswith("_proxy")}
    out = subprocess.run(command, check=True, capture_output=True, text=True, timeout=300, env=env).stdout
    result = json.loads(out)
    if result.get("failed"):
        sys.exit(f"{load.key} {peer}: {result['failed']} requests failed")
    return result


def main(all_loads, says):
    parser = argparse.ArgumentParser(description=says.split("\n")[0])
    parser.add_argument("program")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", default="", help="keys of workloads, separated by commas")
    parser.add_argument("--quick", action="store_true", help="a tenth of the requests")
    parser.add_argument("--json", action="store_true")
    options = parser.parse_args()
    only = {k for k in options.only.upper().split(",") if k}
    results = []
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        nginx = Nginx(folder)
        try:
            for load in all_loads:
                if only and load.key not in only:
                    continue
                rounds = []
                for number in range(options.rounds):
                    order = load.peers if number % 2 == 0 else load.peers[::-1]
                    rounds.append({peer: measure(options.program, load, peer, nginx, options.quick) for peer in order})
                results.append(summarise(load, rounds))
                if not options.json:
                    show(results[-1])
        finally:
            nginx.stop()
    if options.json:
        json.dump(results, sys.stdout, indent=1)
        print()


def summarise(load, rounds):
    peers = {}
    for peer in load.peers:
        mine = [r[peer] for r in rounds]
        if load.measure == "load":
            peers[peer] = {
                "requests_per_second": statistics.median(m["requests"] / m["seconds"] for m in mine),
                "mib_per_second": statistics.median(m["bytes"] / m["seconds"] / MIB for m in mine),
                "cpu_ms_per_1000": statistics.median(m["cpu_seconds"] / m["requests"] * 1e6 for m in mine),
                "peak_mib": statistics.median(m["peak_bytes"] / MIB for m in mine),
                "p50_ms": statistics.median(m["p50_ms"] for m in mine),
                "p99_ms": statistics.median(m["p99_ms"] for m in mine),
            }
        else:
            peers[peer] = {"microseconds": statistics.median(m["microseconds"] for m in mine)}
    ratios = []
    for (says, ratio), sense, goal in load.goals:
        value = statistics.median(ratio(r) for r in rounds)
        met = None if goal is None else (value >= goal if sense == ">=" else value <= goal)
        ratios.append({"of": says, "ratio": value, "goal": "" if goal is None else f"{sense} {goal}", "met": met})
    return {"key": load.key, "workload": load.says, "rounds": len(rounds), "peers": peers, "ratios": ratios}


def show(result):
    print(f"\n{result['key']}  {result['workload']}  (medians of {result['rounds']} rounds)")
    for peer, figures in result["peers"].items():
        print(f"  {peer:7}" + "".join(f"  {name} {value:,.2f}" for name, value in figures.items()))
    for r in result["ratios"]:
        verdict = "" if r["met"] is None else ("  met" if r["met"] else "  MISSED")
        print(f"  {r['ratio']:.3f} of the {r['of']}  {('goal ' + r['goal']) if r['goal'] else ''}{verdict}")
    sys.stdout.flush()


if __name__ == "__main__":
    main(workloads(), __doc__)
