#!/usr/bin/python3
"""Checks that a library shows what its installed headers mark as exported, and nothing else.

    check_symbols.py INCLUDE_FOLDER LIBRARY...

A symbol of ours belongs to classes that are marked, nested ones by themselves, or is a marked function or variable.
What comes out of templates of others must be weak. Everything marked as a function or a variable must be there.
Prints one line for each offence and ends with 1 if there is any.
"""

import pathlib
import re
import subprocess
import sys

# Marked in a header that is not installed: by it the test bed turns the main thread by hand.
FOR_TESTS = {"EventPump"}

MARK = r"ORVAN_\w+_EXPORT"
CLASS = re.compile(rf"\b(?:class|struct)\s[^;{{]*?{MARK}\s(?:\w+\([^)]*\)\s)?(\w+)")
OTHER = re.compile(rf"^(?:extern )?{MARK}\s+([^;({{=]*)[;({{=]", re.MULTILINE)
KIND_OF_DATA = re.compile(r"^(?:vtable|VTT|typeinfo name|typeinfo) for ")
THUNK = re.compile(r"^(?:non-virtual thunk to|virtual thunk to|guard variable for|covariant return thunk to) ")
WEAK = set("WVwvu")


def read_marks(include):
    """The names of marked classes and of other marked things, and of the namespaces, in installed headers."""
    classes, others, namespaces = set(FOR_TESTS), set(), set()
    for path in sorted((include / "orvan").rglob("*.h")):
        text = re.sub(r"//[^\n]*", "", path.read_text(encoding="utf-8"))
        classes |= set(CLASS.findall(text))
        for declared in OTHER.findall(text):
            others.add(re.search(r"operator\W+$|operator \w+$|\w+$", declared.strip()).group())
        for names in re.findall(r"\bnamespace\s+([\w:]+)\s*{", text):
            namespaces |= set(names.split("::"))
    return classes, others, namespaces


def symbols_of(library):
    """Pairs of nm's letter and the demangled name."""
    out = subprocess.run(["nm", "-DC", "--defined-only", library], check=True, capture_output=True, text=True).stdout
    return [line.split(maxsplit=2)[1:] for line in out.splitlines()]


def scopes_of(name):
    """"int orvan::A<b::c>::f(d::e)" is in the scopes orvan, A, and is called f; of data all are scopes."""
    data = KIND_OF_DATA.match(name)
    name = KIND_OF_DATA.sub("", THUNK.sub("", name))
    operator = re.search(r"\boperator(?: \w+|\W+?)(?=\()", name)
    flat, depth = "", 0
    for letter in name[:operator.start()] if operator else name:
        depth += letter == "<"
        if depth == 0 and letter == "(":
            break
        flat += letter if depth == 0 else ""
        depth -= letter == ">"
    flat = flat.split(" ")[-1] + (operator.group() if operator else "")
    parts = flat.split("::")
    return (parts, None) if data else (parts[:-1], parts[-1].split("[")[0].strip())


def offences_of(library, marks):
    classes, others, namespaces = marks
    for letter, name in symbols_of(library):
        scopes, what = scopes_of(name)
        if scopes[:1] != ["orvan"] and what not in others:
            if letter not in WEAK:
                yield f"{library}: {name} is not ours, and not weak ({letter})"
            continue
        inner = [scope for scope in scopes if scope not in namespaces]
        if inner and not classes.issuperset(inner):
            yield f"{library}: {name} is of a class that no installed header marks"
        elif not inner and what not in others:
            yield f"{library}: {name} is in no installed header"


def main(arguments):
    marks = read_marks(pathlib.Path(arguments[0]))
    offences = [offence for library in arguments[1:] for offence in offences_of(library, marks)]
    there = {scopes_of(name)[1] for library in arguments[1:] for _, name in symbols_of(library)}
    offences += [f"{name} is marked, and nowhere defined" for name in sorted(marks[1] - there)]
    for offence in offences:
        print(offence)
    return 1 if offences else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
