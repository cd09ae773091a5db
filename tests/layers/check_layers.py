#!/usr/bin/python3
"""Checks that the folders of libs/ are layers: which header may include which, and that no circle forms.

    check_layers.py ROOT [INTERNAL_HEADERS]

ROOT is the tree; INTERNAL_HEADERS a file with one path per line, below libs/, of the headers that are not
installed. Prints one line for each offence and ends with 1 if there is any.
"""

import pathlib
import re
import sys

# Folder below libs/ -> the layers right below it. Everything below those may be included too. Headers only:
# a .cpp file may include what it needs, which is where the circles between classes end.
LAYERS = {
    "support": [],
    "net/text": ["support"],
    "net/http": ["net/text"],
    "net/identity": ["net/http"],
    "net/http/qnetwork": ["net/identity"],
    "net/connection": ["net/http"],
    "net/manager": ["net/connection"],
    "net": ["net/connection"],
}

# Not where their folder would put them: the lowest layer of the network library.
BELOW_HTTP = re.compile(r"net/(server/.*|url_text\.h|content_type\.h|export\.h)$")

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)


def layer_of(header):
    """The layer of a path below libs/."""
    if BELOW_HTTP.match(header):
        return "net/text"
    return max((layer for layer in LAYERS if header.startswith(layer + "/")), key=len)


def reachable(layer):
    """The layer itself and everything below it."""
    below = {layer}
    for next_layer in LAYERS[layer]:
        below |= reachable(next_layer)
    return below


def includes_of(path):
    """The includes of a file: pairs of the quote and the name."""
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def own_includes(path):
    """The paths below libs/ that a file includes."""
    return [name[len("orvan/"):] for _, name in includes_of(path) if name.startswith("orvan/")]


def find_circle(graph):
    """One circle of the graph as a list that begins and ends alike, or None."""
    done, trail = set(), []

    def visit(node):
        if node in trail:
            return trail[trail.index(node):] + [node]
        if node in done:
            return None
        trail.append(node)
        for target in graph.get(node, []):
            circle = visit(target)
            if circle:
                return circle
        trail.pop()
        done.add(node)
        return None

    for node in sorted(graph):
        circle = visit(node)
        if circle:
            return circle
    return None


def check_headers(libs):
    graph = {str(path.relative_to(libs)): own_includes(path) for path in sorted(libs.rglob("*.h"))}
    for header, targets in graph.items():
        allowed = reachable(layer_of(header))
        for target in targets:
            if target not in graph:
                yield f"libs/{header} includes orvan/{target}, which does not exist"
            elif layer_of(target) not in allowed:
                yield f"libs/{header} ({layer_of(header)}) includes orvan/{target} ({layer_of(target)})"
    circle = find_circle(graph)
    if circle:
        yield "headers include each other in a circle: " + " -> ".join(circle)


def check_sources(root):
    libs = root / "libs"
    for path in sorted(libs.rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        where = path.relative_to(root)
        for quote, name in includes_of(path):
            if quote == '"' and not name.startswith("orvan/") and not name.endswith(".moc"):
                yield f'{where} includes "{name}": own headers are named from the top, orvan/...'
            if str(where).startswith("libs/support/") and name.startswith("orvan/net/"):
                yield f"{where} includes {name}: the support library knows nothing of the network"
            if str(where).startswith("libs/net/http/") and "/qnetwork/" not in str(where) and "/qnetwork/" in name:
                yield f"{where} includes {name}: only the transport knows which transport it is"


def check_users(root, internal):
    for folder in ("tools", "bench", "examples"):
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            for target in own_includes(path):
                if target in internal:
                    yield f"{path.relative_to(root)} includes orvan/{target}, which is not installed"


def main(arguments):
    root = pathlib.Path(arguments[0])
    internal = set(pathlib.Path(arguments[1]).read_text().split()) if len(arguments) > 1 else set()
    offences = [*check_headers(root / "libs"), *check_sources(root), *check_users(root, internal)]
    for offence in offences:
        print(offence)
    return 1 if offences else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
