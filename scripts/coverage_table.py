#!/usr/bin/python3
"""Reads what `llvm-cov export -summary-only` prints: coverage_table.py <folder> <percent of lines that each wants>

Prints lines and branches for each folder below the given one, and ends with 1 if one has too few lines.
"""
import collections
import json
import pathlib
import sys

root, wanted = pathlib.Path(sys.argv[1]).resolve(), float(sys.argv[2])
folders = collections.defaultdict(collections.Counter)
for file in json.load(sys.stdin)["data"][0]["files"]:
    path = pathlib.Path(file["filename"])
    if root in path.parents:
        for kind in ("lines", "branches"):
            for figure in ("count", "covered"):
                for row in (path.parent.relative_to(root.parent), "all"):
                    folders[str(row)][kind, figure] += file["summary"][kind][figure]

few = []
print("%-24s %14s %8s %14s %8s" % ("", "lines", "%", "branches", "%"))
for name, sums in sorted(folders.items(), key=lambda item: (item[0] == "all", item[0])):
    cells = [name]
    for kind in ("lines", "branches"):
        count, covered = sums[kind, "count"], sums[kind, "covered"]
        percent = 100 * covered / count if count else 100
        cells += ["%d of %d" % (covered, count), percent]
        if kind == "lines" and percent < wanted:
            few.append(name)
    print("%-24s %14s %8.1f %14s %8.1f" % tuple(cells))
if few or not folders:
    sys.exit("Fewer than %g %% of the lines are run: %s" % (wanted, ", ".join(few) or "nothing was counted"))
