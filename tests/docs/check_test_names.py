#!/usr/bin/env python3
"""Each test and suite that docs/, comments of libs/ and the seeded faults name is there: check_test_names.py <source root>"""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])


def find(pattern, *folders):
    files = (f for folder in folders for f in (root / folder).rglob("*") if f.suffix in (".cpp", ".h", ".md", ".toml"))
    return {(match, str(f.relative_to(root))) for f in files for match in re.findall(pattern, f.read_text("utf-8"))}


tests = {name for (suite, test), _ in find(r"\nTEST(?:_[FP])?\((\w+),\s*(\w+)\)", "tests")
         for name in (suite, suite + "." + test)}
named = find(r"\b[A-Z]\w+(?<!For)Test\b(?:\.[A-Z]\w+)?", "docs", "libs", "tests/faults")
missing = sorted((name, place) for name, place in named if name not in tests)
for name, place in missing:
    print("%s names %s, which is not there" % (place, name))
bare = [row for row in (root / "docs/hazards.md").read_text("utf-8").splitlines()
        if row.startswith("| ") and not re.search(r"(Test\.\w+`|none: |scripts/|Held by)[^|]*\|$", row)]
for row in bare:
    print("docs/hazards.md does not say what holds: " + row)
assert len(tests) > 100 and len(named) > 20, "the tests are not written as this expects"
sys.exit(bool(missing or bare))
