#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks every #include "nuvra/..." of the library and the tool against the layer table in
# nuvra/layers.txt: no include points to a higher layer but where the table allows it, no include cycle joins two topics,
# nuvra::tiny includes nothing outside itself, nuvra::utils and nuvra::crypto meet only where
# the table says, and every topic of the library has a layer. Tests and nuvra/testing/ are
# not checked. Prints each violation and exits 1 when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files 'nuvra/*.h' 'nuvra/*.cpp' 'tool/*.h' 'tool/*.cpp' |
    grep -v -E '_test\.cpp$|_test_util\.(h|cpp)$|^nuvra/testing/' |
    python3 -c '
import re, sys

layers, meets, ups = {}, set(), set()
for line in open("nuvra/layers.txt"):
    line = line.split("#", 1)[0].strip()
    if line.startswith("layer "):
        name, topics = line[len("layer "):].split(":", 1)
        rank = layers.setdefault("__order__", [])
        if name not in rank:
            rank.append(name)
        for topic in topics.split():
            layers[topic] = rank.index(name)
    elif line.startswith(("meet ", "up ")):
        kind, rest = line.split(" ", 1)
        edge = tuple(part.strip() for part in rest.split(":", 1)[0].split("->"))
        (meets if kind == "meet" else ups).add(edge)
top = len(layers.pop("__order__"))

paths = sys.stdin.read().split()

def plain(path):
    return re.sub(r"\.(h|cpp)$", "", path[len("nuvra/"):] if path.startswith("nuvra/") else path)

# An internal header named <topic>_<what> belongs to <topic> of its folder.
named = {plain(p) for p in paths if "/internal/" not in p}
def topic(path):
    name = plain(path)
    folder, _, rest = name.partition("/internal/")
    if rest:
        owners = [t for t in named if t.startswith(folder + "/") and
                  rest.startswith(t[len(folder) + 1:] + "_")]
        if owners:
            return max(owners, key=len)
    return name

edges, problems = {}, []
for path in paths:
    source = topic(path)
    rank = top if path.startswith("tool/") else layers.get(source)
    if rank is None:
        problems.append(f"{path}: topic {source} has no layer in nuvra/layers.txt")
        continue
    for number, text in enumerate(open(path), 1):
        match = re.match(r"\s*#\s*include\s+\"(nuvra/[^\"]+)\"", text)
        if not match or match.group(1) == "nuvra/version.h":
            continue
        target = topic(match.group(1))
        if target == source:
            continue
        where = f"{path}:{number}: includes {target}"
        if target not in layers:
            problems.append(f"{where}, which has no layer")
            continue
        if layers[target] > rank and (source, target) not in ups:
            problems.append(f"{where}, a higher layer")
        folders = (source.split("/")[0], target.split("/")[0])
        if folders[0] == "tiny" and folders[1] != "tiny":
            problems.append(f"{where}: nuvra::tiny includes only itself")
        if set(folders) == {"utils", "crypto"} and (source, target) not in meets:
            problems.append(f"{where}: utils and crypto meet only where nuvra/layers.txt says")
        edges.setdefault(source, set()).add(target)

# Cycles: a depth-first walk that meets a topic still on its path.
state = {}
def walk(node, path):
    state[node] = "open"
    for nxt in sorted(edges.get(node, ())):
        if state.get(nxt) == "open":
            problems.append("include cycle: " + " -> ".join(path[path.index(nxt):] + [nxt]))
        elif nxt not in state:
            walk(nxt, path + [nxt])
    state[node] = "done"
for node in sorted(edges):
    if node not in state:
        walk(node, [node])

for problem in problems:
    print(problem)
if problems:
    sys.exit(1)
print(f"layers: {len(edges)} topics include others; every include follows nuvra/layers.txt")
'
