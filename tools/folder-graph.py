#!/usr/bin/python3
"""Prints which of the library's folders include which, and fails on a cycle.

    tools/folder-graph.py [--dot] [ROOT]

Reads every #include "..." of the C++ sources under ROOT (default: the tree
this script lives in), maps both ends to their folders (hive/key, platform,
api, cli, ...) and prints one line per folder with the folders it uses and
how many includes go there. With --dot it prints a Graphviz digraph instead.

Exit status: 0 when the folders form no cycle, 1 when they do (each cycle
found is printed with one include that closes it), 2 on a usage error. CI
runs it, so a new include that makes two folders depend on each other fails
the build's checks, not a review.
"""

import os
import re
import sys

# Folders whose includes are checked; tests, benchmarks, fuzz targets and
# tools sit on top of everything and may include what they test.
LIBRARY_FOLDERS = ("platform", "hive", "api", "include", "cli", "python", "examples")
SOURCE_SUFFIXES = (".h", ".hh", ".cc", ".cpp", ".c")
INCLUDE = re.compile(r'^\s*#\s*include\s+[<"]([^">]+)[">]')


def folder_of(path):
    """The folder a source path belongs to, or None outside the library."""
    parts = path.split("/")
    if parts[0] not in LIBRARY_FOLDERS:
        return None
    if parts[0] == "include":
        return "include/hivekit"
    if parts[0] == "python":
        return "python"
    return "/".join(parts[:-1]) or parts[0]


def include_target(root, including, name):
    """The repository path an include names, or None for system headers."""
    if name.startswith("hivekit/"):
        return "include/" + name
    local = os.path.normpath(os.path.join(os.path.dirname(including), name))
    if os.path.exists(os.path.join(root, local)):
        return local
    if os.path.exists(os.path.join(root, name)):
        return name
    return None


def read_edges(root):
    """{(from_folder, to_folder): (count, an example 'file: include')}"""
    edges = {}
    for top in LIBRARY_FOLDERS:
        for directory, _, files in os.walk(os.path.join(root, top)):
            for file in sorted(files):
                if not file.endswith(SOURCE_SUFFIXES):
                    continue
                path = os.path.relpath(os.path.join(directory, file), root)
                src = folder_of(path)
                if src is None:
                    continue
                with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
                    for line in f:
                        m = INCLUDE.match(line)
                        if not m:
                            continue
                        target = include_target(root, path, m.group(1))
                        dst = folder_of(target) if target else None
                        if dst is None or dst == src:
                            continue
                        count, example = edges.get((src, dst), (0, None))
                        edges[(src, dst)] = (count + 1, example or f"{path}: {m.group(1)}")
    return edges


def find_cycles(nodes, edges):
    """Strongly connected components with more than one folder (Tarjan)."""
    graph = {n: sorted(d for (s, d) in edges if s == n) for n in nodes}
    index, low, on_stack, stack, result = {}, {}, set(), [], []
    counter = [0]

    def visit(start):
        # Iterative, so a deep graph cannot exhaust Python's stack.
        work = [(start, iter(graph[start]))]
        index[start] = low[start] = counter[0]
        counter[0] += 1
        stack.append(start)
        on_stack.add(start)
        while work:
            node, children = work[-1]
            advanced = False
            for child in children:
                if child not in index:
                    index[child] = low[child] = counter[0]
                    counter[0] += 1
                    stack.append(child)
                    on_stack.add(child)
                    work.append((child, iter(graph[child])))
                    advanced = True
                    break
                if child in on_stack:
                    low[node] = min(low[node], index[child])
            if advanced:
                continue
            work.pop()
            if work:
                low[work[-1][0]] = min(low[work[-1][0]], low[node])
            if low[node] == index[node]:
                component = []
                while True:
                    member = stack.pop()
                    on_stack.discard(member)
                    component.append(member)
                    if member == node:
                        break
                if len(component) > 1:
                    result.append(sorted(component))

    for n in sorted(nodes):
        if n not in index:
            visit(n)
    return result


def main(argv):
    dot = "--dot" in argv
    rest = [a for a in argv if a != "--dot"]
    if len(rest) > 1 or any(a.startswith("-") for a in rest):
        print("usage: folder-graph.py [--dot] [ROOT]", file=sys.stderr)
        return 2
    root = rest[0] if rest else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    edges = read_edges(root)
    nodes = sorted({s for s, _ in edges} | {d for _, d in edges})
    if dot:
        print("digraph folders {")
        for (s, d), (count, _) in sorted(edges.items()):
            print(f'  "{s}" -> "{d}" [label={count}];')
        print("}")
    else:
        for n in nodes:
            uses = [f"{d} ({edges[(s, d)][0]})" for (s, d) in sorted(edges) if s == n]
            print(f"{n}: {', '.join(uses) if uses else '-'}")
    cycles = find_cycles(nodes, edges)
    for component in cycles:
        print(f"cycle among: {' '.join(component)}", file=sys.stderr)
        for (s, d), (_, example) in sorted(edges.items()):
            if s in component and d in component:
                print(f"  {s} -> {d}  e.g. {example}", file=sys.stderr)
    return 1 if cycles else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
