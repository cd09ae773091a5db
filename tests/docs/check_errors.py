#!/usr/bin/env python3
"""Compares the tables of docs/errors.md with the code: check_errors.py <source root>"""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
header = (root / "libs/net/http/http_status.h").read_text("utf-8")
source = (root / "libs/net/http/http_status.cpp").read_text("utf-8")
document = (root / "docs/errors.md").read_text("utf-8").replace("&nbsp;", " ")

words = re.findall(r"constexpr unsigned int (kStatus(?!Http|\w*Mask)\w+) = (0x\w{8});", header)
states = re.findall(r"constexpr FetchState (k\w+) = (\d+);", header)
texts = {state: "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', text)) for state, text in re.findall(
    r'\{\s*(\w+),\s*\{?\s*QT_TRANSLATE_NOOP3?\(\s*"QObject",\s*((?:"(?:[^"\\]|\\.)*"\s*)+)', source)}

code = {(word, "`%s`" % name) for name, word in words}
code |= {(number, "`%s`" % name, texts.get(name, "Unknown error")) for name, number in states}
code |= {(number, text) for number, text in texts.items() if number.isdigit()}
rows = [[cell.strip() for cell in line.strip("| ").split("|")] for line in document.splitlines() if line.startswith("| ")]
told = {tuple(row[:2]) for row in rows if re.fullmatch(r"0x\w{8}|[2-5]\d\d", row[0])}
told |= {tuple(row[:3]) for row in rows if re.fullmatch(r"\d\d?", row[0])}

for row in sorted(code - told):
    print("docs/errors.md does not have: " + " | ".join(row))
for row in sorted(told - code):
    print("the code does not have: " + " | ".join(row))
assert len(words) > 5 and len(states) > 20 and len(texts) > 50, "the code is not written as this expects"
sys.exit(code != told)
