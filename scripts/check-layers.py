#!/usr/bin/env python3
"""Keeps the agent's folders a stack of layers: a file may include headers of its own folder and of
the folders below it, never of a folder above. Prints the include arrows between folders, and fails
naming every arrow that points up, every folder of src/ that has no place in the stack, every
include cycle, and every include of tools/common/ that reaches into one tool's own folder.

An include that must point up anyway carries the word "layer-exception:" and its reason in a
comment on the same line; it is counted apart and does not fail the check.
"""
import os
import re
import sys
from collections import Counter

# Bottom first. Each layer uses only those before it; the README of the code, doc/architecture.md,
# says what each holds.
LAYERS = ["base", "diag", "config", "real", "message", "transport", "registry", "socks", "startup",
          "hooks", "interpose"]

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"(.*)$')


def main(root):
    src = os.path.join(root, "src")
    rank = {name: position for position, name in enumerate(LAYERS)}
    arrows = Counter()
    upward = []
    excepted = []
    unplaced = sorted(d for d in os.listdir(src) if os.path.isdir(os.path.join(src, d)) and d not in rank)
    for folder in sorted(os.listdir(src)):
        directory = os.path.join(src, folder)
        if not os.path.isdir(directory):
            continue
        for name in sorted(os.listdir(directory)):
            path = os.path.join(directory, name)
            with open(path, encoding="utf-8") as source:
                for number, line in enumerate(source, 1):
                    match = INCLUDE.match(line)
                    if not match or "/" not in match.group(1):
                        continue
                    target = match.group(1).split("/")[0]
                    if target == folder or target not in rank or folder not in rank:
                        continue
                    arrows[(folder, target)] += 1
                    if rank[target] > rank[folder]:
                        where = f"src/{folder}/{name}:{number}: {folder} -> {target}"
                        (excepted if "layer-exception:" in match.group(2) else upward).append(where)
    print("layers, bottom first: " + " < ".join(LAYERS))
    print(f"include arrows between folders: {sum(arrows.values())} "
          f"({len(arrows)} folder pairs), pointing up: {len(upward)}, excepted: {len(excepted)}")
    for (source, target), count in sorted(arrows.items(), key=lambda item: (rank[item[0][0]], rank[item[0][1]])):
        print(f"  {source:>9} -> {target:<9} {count}")
    for line in excepted:
        print("excepted: " + line)
    for line in upward:
        print("points up: " + line)
    for folder in unplaced:
        print(f"no layer: src/{folder} (add it to LAYERS in {os.path.relpath(__file__, root)})")
    folder_cycles = strongly_connected({a: {b for (x, b) in arrows if x == a} for (a, _) in arrows})
    file_cycles = strongly_connected(file_graph(src))
    print(f"folders in an include cycle: {sum(len(c) for c in folder_cycles)}, "
          f"units (a header with its source) in an include cycle: {sum(len(c) for c in file_cycles)}")
    for cycle in file_cycles:
        print("unit cycle: " + " ".join(sorted(cycle)))
    strays = tools_common_strays(root)
    for line in strays:
        print("tools/common reaches up: " + line)
    return 1 if upward or unplaced or folder_cycles or file_cycles or strays else 0


def tools_common_strays(root):
    """tools/common/ is what both tools share: it includes its own headers and the agent's, never a
    header of one tool (tools/record/, tools/recorder/)."""
    common = os.path.join(root, "tools", "common")
    if not os.path.isdir(common):
        return []
    strays = []
    for name in sorted(os.listdir(common)):
        with open(os.path.join(common, name), encoding="utf-8") as source:
            for number, line in enumerate(source, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                target = match.group(1)
                if not (os.path.isfile(os.path.join(common, target)) or os.path.isfile(os.path.join(root, "src", target))):
                    strays.append(f"tools/common/{name}:{number}: {target}")
    return strays


def file_graph(src):
    """Each unit of src/ (a header and its source file are one) and the units it includes."""
    graph = {}
    for folder in sorted(os.listdir(src)):
        directory = os.path.join(src, folder)
        if not os.path.isdir(directory):
            continue
        for name in sorted(os.listdir(directory)):
            unit = f"{folder}/{os.path.splitext(name)[0]}"
            targets = graph.setdefault(unit, set())
            with open(os.path.join(directory, name), encoding="utf-8") as source:
                for line in source:
                    match = INCLUDE.match(line)
                    if match and os.path.isfile(os.path.join(src, match.group(1))):
                        target = os.path.splitext(match.group(1))[0]
                        if target != unit:
                            targets.add(target)
    return graph


def strongly_connected(graph):
    """The groups of nodes that reach each other (Tarjan), only those of more than one node."""
    index, low, stack, on_stack, groups = {}, {}, [], set(), []

    def visit(node):
        index[node] = low[node] = len(index)
        stack.append(node)
        on_stack.add(node)
        for target in graph.get(node, ()):
            if target not in index:
                visit(target)
                low[node] = min(low[node], low[target])
            elif target in on_stack:
                low[node] = min(low[node], index[target])
        if low[node] == index[node]:
            group = set()
            while True:
                member = stack.pop()
                on_stack.discard(member)
                group.add(member)
                if member == node:
                    break
            if len(group) > 1:
                groups.append(group)

    sys.setrecursionlimit(10000)
    for node in sorted(graph):
        if node not in index:
            visit(node)
    return groups


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")))
