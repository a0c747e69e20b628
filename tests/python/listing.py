"""The canonical listing of a hive, as `hivekit dump` and the shared
expected listings write it (see ../shared/testdata/README.md)."""

from __future__ import annotations

import hashlib

import hivekit


def escape(name: str) -> str:
    """Control characters, DEL, backslash, percent and lone surrogates as %XXXX."""
    return "".join(
        f"%{ord(c):04X}" if ord(c) < 0x20 or ord(c) == 0x7F or c in "\\%" or 0xD800 <= ord(c) <= 0xDFFF else c
        for c in name
    )


def data_field(data: bytes) -> str:
    return data.hex() if len(data) <= 32 else "sha256:" + hashlib.sha256(data).hexdigest()


def listing(hive: hivekit.Hive, times: bool = True) -> str:
    """Keys depth first in pre-order, each with its values. Without `times`
    every last write time is 0 (for trees rebuilt by an import)."""
    lines = []
    pending = [(hive.root, "\\")]
    while pending:
        key, path = pending.pop()
        subkeys = list(key.subkeys())
        values = list(key.values())
        stamp = key.last_write_filetime if times else 0
        lines.append(f"K\t{path}\t{stamp:016x}\t{len(subkeys)}\t{len(values)}")
        for v in values:
            data = v.data
            lines.append(f"V\t{path}\t{escape(v.name)}\t{int(v.type)}\t{len(data)}\t{data_field(data)}")
        prefix = "" if path == "\\" else path
        pending.extend((sub, prefix + "\\" + escape(sub.name)) for sub in reversed(subkeys))
    return "".join(line + "\n" for line in lines)


def first_difference(expected: str, actual: str) -> str:
    """"" when equal, else the first line that differs (for short messages
    about long listings)."""
    if expected == actual:
        return ""
    want, got = expected.splitlines(), actual.splitlines()
    for number, (w, g) in enumerate(zip(want, got), 1):
        if w != g:
            return f"line {number}:\n  expected: {w}\n  actual:   {g}"
    return f"{len(want)} lines expected, {len(got)} listed"
