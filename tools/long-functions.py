#!/usr/bin/python3
"""Lists the functions longer than a limit, and fails when there are any.

    tools/long-functions.py [--limit N] [--all] [PATH ...]

Reads the C++ sources under each PATH (default: hive/ and platform/ of the
tree this script lives in) and finds function bodies by matching braces:
a '{' that follows a ')' (with qualifiers such as const, override or
noexcept, or a constructor's member initializers in between) opens a body
at namespace or class level. A body's length counts the lines from the
first line of its signature to its closing brace. Comments, strings and
character literals are blanked first, so braces in them do not count;
lambdas and blocks inside a body belong to the body.

Prints "LINES file:line name" for each function over the limit (default 80),
longest first; with --all, every function. Exit status: 0 when none is over
the limit, 1 when some are, 2 on a usage error.
"""

import os
import re
import sys

SOURCE_SUFFIXES = (".h", ".cc", ".cpp", ".inc")
QUALIFIERS = re.compile(r"(?:\b(?:const|override|final|noexcept|mutable|volatile)|&&?)\s*$")
CONTROL = {"if", "for", "while", "switch", "catch", "return", "sizeof", "decltype", "alignof", "static_assert"}


def blank(text):
    """The text with comments, strings and char literals replaced by spaces
    (newlines kept, so line numbers stay)."""
    out = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            out.append(" " * (j - i))
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif c == "R" and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            m = re.match(r'R"([^(\s]*)\(', text[i:])
            if not m:
                out.append(c)
                i += 1
                continue
            end = text.find(")" + m.group(1) + '"', i)
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif c in "\"'":
            if c == "'" and i > 0 and text[i - 1].isalnum() and i + 1 < n and text[i + 1].isalnum():
                out.append(" ")  # a digit separator: 1'000
                i += 1
                continue
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            out.append(" " * (j - i))
            i = j
        else:
            out.append(c)
            i += 1
    return "".join(out)


def matching_open(code, close):
    """Index of the '(' or '{' that matches the ')' or '}' at `close`, or -1."""
    pair = {")": "(", "}": "{"}[code[close]]
    depth = 0
    for k in range(close, -1, -1):
        if code[k] == code[close]:
            depth += 1
        elif code[k] == pair:
            depth -= 1
            if depth == 0:
                return k
    return -1


def function_at(code, brace):
    """(name, start index of the signature) when the '{' at `brace` opens a
    function body, else None. Walks back over qualifiers and a
    constructor's member initializers to the parameter list."""
    j = brace
    head = code[:j].rstrip()
    while True:
        m = QUALIFIERS.search(head)
        if not m or m.start() == m.end():
            break
        head = head[: m.start()].rstrip()
    while True:
        if not head or head[-1] not in ")}":
            return None
        open_ = matching_open(head, len(head) - 1)
        if open_ <= 0:
            return None
        before = head[:open_].rstrip()
        nm = re.search(r"([~\w:]+)$", before)
        if not nm:
            return None
        rest = before[: nm.start()].rstrip()
        if head[-1] == ")" and not (rest.endswith(",") or (rest.endswith(":") and not rest.endswith("::"))):
            break
        if not (rest.endswith(",") or rest.endswith(":")) or rest.endswith("::"):
            return None
        head = rest[:-1].rstrip()  # an initializer: on to the one before it
    name = nm.group(1)
    if name.split("::")[-1] in CONTROL:
        return None
    # The signature starts after the previous declaration, statement or block.
    start = max(rest.rfind(";"), rest.rfind("}"), rest.rfind("{"), rest.rfind("#")) + 1
    if rest.rfind("#") + 1 == start and start > 0:
        start = code.find("\n", start)
    while start < nm.start() and code[start] in " \t\n":
        start += 1
    return name, start


def functions(path):
    """[(name, first line, last line)] of the function bodies in a file."""
    with open(path, encoding="utf-8", errors="replace") as f:
        code = blank(f.read())
    result = []
    stack = []  # ('f', name, start) for a function body, ('o',) for other blocks
    for i, c in enumerate(code):
        if c == "{":
            if any(s[0] == "f" for s in stack):
                stack.append(("o",))
                continue
            found = function_at(code, i)
            stack.append(("f", found[0], found[1]) if found else ("o",))
        elif c == "}" and stack:
            top = stack.pop()
            if top[0] == "f":
                first = code.count("\n", 0, top[2]) + 1
                last = code.count("\n", 0, i) + 1
                result.append((top[1], first, last))
    return result


def main(argv):
    limit, show_all, paths = 80, False, []
    args = iter(argv)
    for a in args:
        if a == "--limit":
            try:
                limit = int(next(args))
            except (StopIteration, ValueError):
                print("usage: long-functions.py [--limit N] [--all] [PATH ...]", file=sys.stderr)
                return 2
        elif a == "--all":
            show_all = True
        elif a.startswith("-"):
            print("usage: long-functions.py [--limit N] [--all] [PATH ...]", file=sys.stderr)
            return 2
        else:
            paths.append(a)
    root = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    if not paths:
        paths = [os.path.join(root, "hive"), os.path.join(root, "platform")]
    found = []
    for top in paths:
        files = [top] if os.path.isfile(top) else [
            os.path.join(d, f) for d, _, fs in os.walk(top) for f in sorted(fs) if f.endswith(SOURCE_SUFFIXES)]
        for path in sorted(files):
            for name, first, last in functions(path):
                found.append((last - first + 1, os.path.relpath(path, root), first, name))
    found.sort(key=lambda f: (-f[0], f[1], f[2]))
    over = [f for f in found if f[0] > limit]
    for lines, path, first, name in found if show_all else over:
        print(f"{lines:4d} {path}:{first} {name}")
    return 1 if over else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
