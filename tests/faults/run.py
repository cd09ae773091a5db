#!/usr/bin/env python3
"""Seeds faults: makes each mistake of faults.toml in a copy of the committed tree, builds, and runs the tests.

    tests/faults/run.py                              all of them: about an hour on two busy cores
    tests/faults/run.py --scratch DIR purge-by-age   one of them, in a copy and a build that stay for the next time

A fault that no test notices has survived: the tests that it names are run first, and all only if those are green.
Ends with 1 if fewer than nine in ten are killed, and with 2 if the table is wrong: a text that does not stand exactly
once in its file, a fault that does not build, or tests that are red already.
"""
import argparse
import datetime
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import tomllib

ROOT = pathlib.Path(__file__).resolve().parents[2]
JOBS = str(os.cpu_count())


def start(tree, *command):
    return subprocess.Popen(command, cwd=tree, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="latin-1")


def must(tree, *command):
    with start(tree, *command) as process:
        output = process.stdout.read()
    if process.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))} failed:\n{output[-3000:]}")


def culprits(log):
    """Who noticed: the cases that failed or did not end, or else the programs. A log may be very long."""
    cases, programs, running = [], [], []
    for line in log:
        if case := re.match(r"\[ RUN      \] (\S+)", line):
            cases += running
            running = [case[1] + " (did not end)"]
        elif case := re.match(r"\[  FAILED  \] ([\w/]+\.[\w/]+)|\[ +(OK|SKIPPED) +\]", line):
            cases += [case[1]] if case[1] else []
            running = []
        elif program := re.match(r"\s+\d+ - (\w+) \(", line):
            programs.append(program[1])
    return list(dict.fromkeys(cases + running)) or programs or ["the test run"]


def test(tree, preset, programs, seconds):
    """Builds, runs these programs or, for none, everything, and returns who noticed something."""
    build = tree / "build" / preset
    must(tree, "cmake", "--build", build, "-j", JOBS, "--target", *(programs or ["all"]))
    stop = datetime.datetime.now() + datetime.timedelta(seconds=seconds)
    which = ["-R", f"^({'|'.join(programs)})$"] if programs else ["--stop-on-failure"]
    with start(tree, "ctest", "--test-dir", build, "--output-on-failure", "-j", JOBS, "--stop-time",
               stop.strftime("%H:%M:%S"), *which) as process:
        noticed = culprits(process.stdout)
    return noticed if process.returncode != 0 else []


def try_fault(tree, preset, fault):
    place = tree / fault["file"]
    right = place.read_text()
    place.write_text(right.replace(fault["old"], fault["new"]))
    noticed = test(tree, preset, fault["tests"].split(), 200) or test(tree, preset, [], 900)
    place.write_text(right)
    return noticed


def run_all(tree, faults):
    for name, fault in faults.items():
        if (count := (tree / fault["file"]).read_text().count(fault["old"])) != 1:
            raise RuntimeError(f"{name}: its text stands {count} times in {fault['file']}, not once")
    killed = 0
    for preset in dict.fromkeys(fault.get("preset", "dev") for fault in faults.values()):
        # Programs need not be linked again because a shared library has changed behind its interface.
        must(tree, "cmake", "--preset", preset, "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON")
        chosen = {name: fault for name, fault in faults.items() if fault.get("preset", "dev") == preset}
        programs = sorted({program for fault in chosen.values() for program in fault["tests"].split()})
        if red := test(tree, preset, programs, 900):
            raise RuntimeError(f"{preset}: red without any fault: {', '.join(red)}")
        for name, fault in chosen.items():
            began = time.monotonic()
            noticed = try_fault(tree, preset, fault)
            killed += bool(noticed)
            how = "killed by " + ", ".join(noticed) if noticed else "SURVIVED: " + fault["breaks"]
            print(f"{name} ({time.monotonic() - began:.0f} s): {how}", flush=True)
    print(f"{killed} of {len(faults)} killed")
    return 0 if killed >= 0.9 * len(faults) else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="FAULT", help="which to try; all of them if none is named")
    parser.add_argument("--scratch", type=pathlib.Path, metavar="DIR", help="keep copy and builds here")
    options = parser.parse_args()
    table = tomllib.loads(pathlib.Path(__file__).with_name("faults.toml").read_text())
    if unknown := set(options.names) - set(table):
        parser.error("no such fault: " + ", ".join(unknown))
    with tempfile.TemporaryDirectory(prefix="orvan-faults-") as temporary:
        tree = (options.scratch or pathlib.Path(temporary)).absolute() / "tree"
        try:
            if not tree.exists():
                must(ROOT, "git", "clone", "--quiet", ROOT, tree)
            must(tree, "git", "fetch", "--quiet", ROOT, "HEAD")
            must(tree, "git", "reset", "--quiet", "--hard", "FETCH_HEAD")
            return run_all(tree, {name: table[name] for name in options.names or table})
        except RuntimeError as wrong:
            print(wrong, file=sys.stderr)
            return 2


if __name__ == "__main__":
    sys.exit(main())
