#!/usr/bin/env python3
"""Full walk of a hive from Python: hivekit against python3-hivex.

Each round opens the hive, visits every key, reads every value's data and
closes the hive, with hivekit and with hivex (Debian's python3-hivex), the
order reversed every other round; a third walk opens with hivekit's
in_memory=True (the whole file read at open, as hivex does). Times are CPU time
(time.process_time) of the whole round, open included. Reports the median
and the best round of each and the ratio hivekit / hivex.

    PYTHONPATH=build/py/python /usr/bin/python3 bench/python_walk.py [HIVE] [--rounds N]

HIVE defaults to ../shared/testdata/hives/SYSTEM beside the source tree.
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
import time

import hivekit


def walk_hivekit(path: str, **options) -> tuple[int, int, int]:
    keys = values = size = 0
    with hivekit.open(path, **options) as hive:
        pending = [hive.root]
        while pending:
            key = pending.pop()
            keys += 1
            for value in key.values():
                size += len(value.data)
                values += 1
            pending.extend(key.subkeys())
    return keys, values, size


def walk_hivex(path: str) -> tuple[int, int, int]:
    import hivex

    keys = values = size = 0
    hive = hivex.Hivex(path)
    pending = [hive.root()]
    while pending:
        node = pending.pop()
        keys += 1
        for value in hive.node_values(node):
            size += len(hive.value_value(value)[1])
            values += 1
        pending.extend(hive.node_children(node))
    del hive
    return keys, values, size


def timed(walk, path: str) -> tuple[float, tuple[int, int, int]]:
    start = time.process_time()
    counts = walk(path)
    return time.process_time() - start, counts


def main() -> int:
    here = os.path.dirname(os.path.abspath(__file__))
    default = os.path.join(here, "..", "..", "shared", "testdata", "hives", "SYSTEM")
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("hive", nargs="?", default=default)
    parser.add_argument("--rounds", type=int, default=15)
    args = parser.parse_args()
    try:
        import hivex  # noqa: F401
    except ImportError:
        print("python3-hivex is not installed (apt-get install python3-hivex)", file=sys.stderr)
        return 2
    if not os.path.exists(args.hive):
        print(f"no hive at {args.hive}", file=sys.stderr)
        return 2

    # The third walk reads the file into memory at open, as hivex does,
    # instead of reading hive bins as they are reached.
    walks = {"hivekit": walk_hivekit, "hivex": walk_hivex,
             "hivekit in_memory": lambda path: walk_hivekit(path, in_memory=True)}
    times: dict[str, list[float]] = {name: [] for name in walks}
    counts = {}
    for name, walk in walks.items():  # warm-up: page cache, imports
        counts[name] = walk(args.hive)
    if len(set(counts.values())) != 1:
        print(f"the walks disagree: {counts}", file=sys.stderr)
        return 1
    for round_ in range(args.rounds):
        order = list(walks) if round_ % 2 == 0 else list(reversed(walks))  # alternate who goes first
        for name in order:
            seconds, _ = timed(walks[name], args.hive)
            times[name].append(seconds)

    keys, values, size = counts["hivekit"]
    print(f"{args.hive}: {keys} keys, {values} values, {size} bytes of data; {args.rounds} rounds, CPU time")
    for name in walks:
        print(f"  {name:17} median {statistics.median(times[name]) * 1000:7.1f} ms   best {min(times[name]) * 1000:7.1f} ms")
    ratio_median = statistics.median(times["hivekit"]) / statistics.median(times["hivex"])
    ratio_best = min(times["hivekit"]) / min(times["hivex"])
    print(f"  hivekit / hivex: {ratio_median:.2f} (median), {ratio_best:.2f} (best)")
    in_memory = statistics.median(times["hivekit in_memory"]) / statistics.median(times["hivex"])
    print(f"  hivekit in_memory / hivex: {in_memory:.2f} (median)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
