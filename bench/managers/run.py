#!/usr/bin/python3
"""Service calls through both network managers, beside libcurl's easy handles, against one nginx on loopback.

Peers: "each" is NetworkManager, a connection for each request; "shared" and "direct" are CmNetworkManager, with
completions on the main thread and on callback threads; "easy" is an easy handle for each request, "kept" one that is
used again, with a thread for each request under way. For the rest see bench/fetch/run.py, whose loads these are.

  run.py PEER_PROGRAM [--rounds N] [--only M1,M3] [--quick] [--json]
"""
import importlib.util
import pathlib

SPEC = importlib.util.spec_from_file_location("fetch_run", pathlib.Path(__file__).parent.parent / "fetch" / "run.py")
fetch = importlib.util.module_from_spec(SPEC)
SPEC.loader.exec_module(fetch)


def rate(mine, base):
    return f"requests/s, {mine} of {base}", lambda r: r[base]["seconds"] / r[mine]["seconds"]


def cpu(mine, base):
    return f"client CPU, {mine} of {base}", lambda r: r[mine]["cpu_seconds"] / max(r[base]["cpu_seconds"], 1e-9)


def cost(mine, base):
    return f"time, {mine} of {base}", lambda r: r[mine]["microseconds"] / r[base]["microseconds"]


def report(*ratios):
    return [(ratio, "", None) for ratio in ratios]


def workloads():
    # Each request leaves a closed socket behind for a minute, so there are not too many of them.
    for key, scheme in (("M1", "http"), ("M2", "https")):
        for n in (1, 6):
            yield fetch.Workload(
                key, f"{scheme}, 1 KiB, {n} outstanding, a connection for each request", ["each", "easy", "shared"],
                1000, n, tls=scheme == "https",
                goals=report(rate("each", "easy"), cpu("each", "easy"), rate("shared", "each"), cpu("shared", "each")))
    for key, scheme in (("M3", "http"), ("M4", "https")):
        for n in (1, 6, 24):
            yield fetch.Workload(
                key, f"{scheme}, 1 KiB, {n} outstanding, connections kept", ["shared", "direct", "kept"], 4000, n,
                tls=scheme == "https",
                goals=report(rate("shared", "kept"), cpu("shared", "kept"), rate("direct", "shared"),
                             cpu("direct", "shared")))
    yield fetch.Workload("M5", "make and end one connection", ["each", "easy"], 200, measure="connection",
                         goals=report(cost("each", "easy")))


if __name__ == "__main__":
    fetch.main(workloads(), __doc__)
