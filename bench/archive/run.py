#!/usr/bin/python3
"""Reading archives from memory, beside named peers.

Every measurement is a process of its own, and its time is processor time (F1: the clock's). Peers alternate within a
round, ratios are formed within a round, and what is printed are medians over the rounds. The goals stand beside the
figures.

  run.py PEER_PROGRAM [--rounds N] [--only Z1,Z4] [--json]
"""
import argparse
import http.server
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import threading
import zipfile

MIB = 1024 * 1024
LIMITS = ["zlib", "libdeflate"]
ALL = ["orvan", "minizip-index", "libzip"] + LIMITS


def document(size, seed):
    """Text like that of a map document: it packs to about a quarter."""
    rng = random.Random(seed)
    pieces, length = [], 0
    while length < min(size, MIB):
        piece = (f"<Placemark><name>Point {rng.randrange(10 ** 6)}</name><styleUrl>#s{rng.randrange(50)}</styleUrl>"
                 f"<Point><coordinates>{rng.uniform(-180, 180):.6f},{rng.uniform(-90, 90):.6f},0</coordinates></Point>"
                 "</Placemark>\n")
        pieces.append(piece)
        length += len(piece)
    text = "".join(pieces).encode()[:min(size, MIB)]
    return text * (size // len(text))


def write_archive(path, entries, size, method=zipfile.ZIP_DEFLATED):
    with zipfile.ZipFile(path, "w", method) as archive:
        for i in range(entries):
            archive.writestr(f"images/tiles/icon_{i:06}.kml", document(size, i))


class Archives:
    """Made when first asked for."""
    MAKES = {"small": (10000, 4096), "mib": (100, MIB), "large": (1, 64 * MIB),
             "stored": (200, 65536, zipfile.ZIP_STORED), "http": (200, 16384), "6500": (6500, 64), "65000": (65000, 64)}

    def __init__(self, folder):
        self.folder = folder
        self.server = None

    def argument(self, name):
        """What the peers are given for it: names that are none of the above stand for themselves."""
        return self.serve() if name == "server" else self.path(name) if name in self.MAKES else name

    def serve(self):
        """The URL of a server that has one archive under every URL with ".kmz", and other bytes elsewhere."""
        if self.server:
            return self.server
        with open(self.path("http"), "rb") as f:
            archive = f.read()

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Length", str(len(archive)))
                self.end_headers()
                self.wfile.write(archive if ".kmz" in self.path else b"-" + archive[1:])

            def log_message(self, *_):
                pass

        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.server = f"http://127.0.0.1:{server.server_port}/"
        return self.server

    def path(self, name):
        path = os.path.join(self.folder, name)
        if not os.path.exists(path):
            write_archive(path, *self.MAKES[name])
        return path


class Workload:
    """What is measured on which archive, and by whom. Peers are names, or (name, peer, archive, count)."""

    def __init__(self, key, says, measure, archive, peers, count, different=0, goals=()):
        self.key, self.says, self.measure, self.goals, self.different = key, says, measure, goals, different
        self.runs = {}
        for peer in peers:
            name, peer, of, often = peer if isinstance(peer, tuple) else (peer, peer, archive, count)
            self.runs[name] = (peer, of, often)


def cost(base, mine="orvan"):
    return f"time of {base}", lambda r: r[mine]["microseconds"] / r[base]["microseconds"]


def speed(*bases):
    says = "speed of " + " and ".join(bases) if len(bases) == 1 else "speed of the best of " + ", ".join(bases)
    return says, lambda r: min(r[b]["microseconds"] for b in bases) / r["orvan"]["microseconds"]


def peak():
    return "peak memory of the entry", lambda r: r["orvan"]["peak_bytes"] / r["orvan"]["bytes"]


def heap():
    return "MiB of index and names", lambda r: r["orvan"]["heap_bytes"] / MIB


def per_entry(mine, base):
    return f"time per entry of {base}", lambda r: r[mine]["microseconds"] / r[base]["microseconds"] / 10


def at_most(peer):
    return f"microseconds of {peer}", lambda r: r[peer]["microseconds"]


def workloads():
    yield Workload("Z1", "open 10,000 entries, with the folded names", "open", "small",
                   ["orvan", "minizip", "minizip-index", "libzip"], 15,
                   goals=[(cost("minizip"), "<=", 1.1), (cost("libzip"), "<=", 0.6)])
    yield Workload("Z2", "10,000 of 4 KiB by name, random order", "extract", "small",
                   ["orvan", ("minizip", "minizip", "small", 200)] + ALL[1:], 10000,
                   goals=[(speed("minizip"), ">=", 300), (speed("minizip-index"), ">=", 1.5),
                          (speed("libzip"), ">=", 1.5), (speed("zlib"), "", None), (speed("libdeflate"), "", None)])
    yield Workload("Z3", "100 of 1 MiB", "extract", "mib", ALL, 100,
                   goals=[(speed("minizip-index", "libzip"), ">=", 2.0), (speed("libdeflate"), "", None)])
    yield Workload("Z4", "one of 64 MiB", "extract", "large", ALL, 3,
                   goals=[(speed("minizip-index"), ">=", 1.8), (speed("libdeflate"), "", None),
                          (peak(), "<=", 1.05)])
    yield Workload("Z5", "200 stored of 64 KiB", "extract", "stored", ALL, 2000,
                   goals=[(speed("minizip-index"), ">=", 2.5), (speed("libzip"), "", None)])
    yield Workload("Z6", "one of 4 KiB among 10,000, 1,000 times", "extract", "small", ALL, 1000, different=1,
                   goals=[(speed("minizip-index"), "", None), (speed("libzip"), "", None)])
    yield Workload("Z7", "memory of 10,000 entries, with the folded names", "open", "small",
                   ["orvan", "minizip-index", "libzip"], 1, goals=[(heap(), "<=", 4.0)])
    both = [("6500", "orvan", "6500", 15), ("65000", "orvan", "65000", 15)]
    yield Workload("H1", "open 6,500 and 65,000 entries, with the folded names", "open", "", both, 0,
                   goals=[(per_entry("65000", "6500"), "<=", 3.0)])
    both = [("6500", "orvan", "6500", 1000), ("65000", "orvan", "65000", 1000)]
    yield Workload("H2", "1,000 of 64 bytes by name among 6,500 and 65,000", "extract", "", both, 0,
                   goals=[(cost("6500", "65000"), "<=", 3.0)])

    for prefix in ("http://host/", "/home/user/"):
        yield Workload("T2", f"find one of 1,000 cached archives by its name, {prefix}...", "lookup", prefix,
                       ["orvan", "map"], 200000, goals=[(cost("map"), "<=", 1.5)])
    yield Workload("T3", "partial search in 64 KiB of slashes, 1,000 archives cached", "partial", "", ["orvan"], 5,
                   goals=[(at_most("orvan"), "<=", 20000)])
    yield Workload("F1", "fetch a file of a new archive of 200 over HTTP; of a cached one; bytes of that size",
                   "fetch", "server", ["first", "again", "plain"], 20,
                   goals=[(cost("plain", "first"), "", None), (cost("plain", "again"), "", None)])


def measure(program, load, name, archives):
    peer, archive, count = load.runs[name]
    command = [program, "--peer", peer, "--measure", load.measure, "--count", str(count), archives.argument(archive)]
    if load.different:
        command += ["--different", str(load.different)]
    # Without TZ the C library would look at a file for each date that libzip reads: most of its time of opening.
    env = dict(os.environ, TZ="UTC")
    out = subprocess.run(command, check=True, capture_output=True, text=True, timeout=300, env=env).stdout
    result = json.loads(out)
    if result.get("failed"):
        sys.exit(f"{load.key} {name}: {result['failed']} extractions failed")
    return result


def summarise(load, rounds):
    peers = {name: {figure: statistics.median(r[name][figure] for r in rounds) for figure in rounds[0][name]
                    if figure != "failed"} for name in load.runs}
    ratios = []
    for (says, ratio), sense, goal in load.goals:
        value = statistics.median(ratio(r) for r in rounds)
        met = None if goal is None else (value >= goal if sense == ">=" else value <= goal)
        ratios.append({"of": says, "ratio": value, "goal": "" if goal is None else f"{sense} {goal}", "met": met})
    return {"key": load.key, "workload": load.says, "rounds": len(rounds), "peers": peers, "ratios": ratios}


def show(result):
    print(f"\n{result['key']}  {result['workload']}  (medians of {result['rounds']} rounds)")
    for peer, figures in result["peers"].items():
        print(f"  {peer:13}" + "".join(f"  {name} {value:,.2f}" for name, value in figures.items()))
    for r in result["ratios"]:
        verdict = "" if r["met"] is None else ("  met" if r["met"] else "  MISSED")
        print(f"  {r['ratio']:8.3f} {r['of']}  {('goal ' + r['goal']) if r['goal'] else ''}{verdict}")
    sys.stdout.flush()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("program")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", default="", help="keys of workloads, separated by commas")
    parser.add_argument("--json", action="store_true")
    options = parser.parse_args()
    only = {k for k in options.only.upper().split(",") if k}
    results = []
    with tempfile.TemporaryDirectory() as folder:
        archives = Archives(folder)
        for load in workloads():
            if only and load.key not in only:
                continue
            rounds = []
            for number in range(options.rounds):
                order = list(load.runs) if number % 2 == 0 else list(load.runs)[::-1]
                rounds.append({name: measure(options.program, load, name, archives) for name in order})
            results.append(summarise(load, rounds))
            if not options.json:
                show(results[-1])
    if options.json:
        json.dump(results, sys.stdout, indent=1)
        print()


if __name__ == "__main__":
    main()
