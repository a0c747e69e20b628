"""Changes made through Python: they read back typed as written, the C++
tool's dump of the file agrees with the Python listing, and .reg export
and import carry a tree across."""

import pytest

import hivekit
from hivekit import ValueType as T
from listing import first_difference, listing

BLOB = bytes(range(256)) * 100  # beyond one cell: a big-data record in a 1.5 hive

# name -> (data, type given or None, type stored, value read back)
VALUES = {
    "Count": (42, None, T.REG_DWORD, 42),
    "Big": (2**40, None, T.REG_QWORD, 2**40),
    "Top": (2**32 - 1, None, T.REG_DWORD, 2**32 - 1),
    "Text": ("h\u00e9llo \u2603 \U0001F600", None, T.REG_SZ, "h\u00e9llo \u2603 \U0001F600"),
    "List": (["a", "", "b \u00fc"], None, T.REG_MULTI_SZ, ["a", "", "b \u00fc"]),
    "Blob": (BLOB, None, T.REG_BINARY, BLOB),
    "": ("default", None, T.REG_SZ, "default"),
    "Path": ("%SystemRoot%\\x", T.REG_EXPAND_SZ, T.REG_EXPAND_SZ, "%SystemRoot%\\x"),
    "BE": (0x12345678, T.REG_DWORD_BIG_ENDIAN, T.REG_DWORD_BIG_ENDIAN, 0x12345678),
    "Q": (5, T.REG_QWORD, T.REG_QWORD, 5),
    "Link": ("\\Registry\\Machine\\X", T.REG_LINK, T.REG_LINK, "\\Registry\\Machine\\X"),
    "Short dword": (b"\x01\x02\x03", T.REG_DWORD, T.REG_DWORD, b"\x01\x02\x03"),
    "Custom": (bytearray(b"xyz"), 0x20000, 0x20000, b"xyz"),
    "None": (b"", T.REG_NONE, T.REG_NONE, b""),
    "lone \ud800 surrogate": ("v", None, T.REG_SZ, "v"),
    "back\\slash/and%": (memoryview(b"\x00\xff"), None, T.REG_BINARY, b"\x00\xff"),
}


def write_everything(hive: hivekit.Hive) -> None:
    key = hive.create_key(r"Software\Example")
    for name, (data, given, _, _) in VALUES.items():
        made = key.set_value(name, data, given)
        assert made.name == name
    key.set_value("Count", 41)  # replaced below
    key["Count"].set(42)
    key.set_value("gone", 1)
    key.delete_value("gone")
    key.set_value("to move", "m").move_to(hive.root, "moved")
    key.set_value("to rename", 3).rename("renamed")
    key.set_value("to remove", 3).remove()

    many = hive.create_key("Many")
    names = [("\u00c4" if i % 2 else "k") + str(i * 7919 % 1000) for i in range(600)]  # an index of lists
    for name in names:
        many.create_key(name)
    for name in names[::3]:
        many.delete_key(name)
    hive.create_key("Tree/A/B/C").set_value("deep", "x")
    hive.root.delete_key("Tree/A", recursive=True)
    hive.create_key("Old name\\child").set_value("x", 1)
    hive.key("Old name").rename("New \u00f1ame")
    hive.key("New \u00f1ame").move_to(hive.key("Many"), "Moved \u0416")
    hive.create_key("\u65e5\u672c\\\udc01 lone").security_descriptor = hive.root.security_descriptor


def test_written_values_read_back(tmp_path):
    path = tmp_path / "h"
    with hivekit.create(path) as hive:
        write_everything(hive)
    with hivekit.open(path) as hive:
        key = hive.key("Software/Example")
        assert {v.name: (v.type, v.value) for v in key.values()} == {
            **{name: (stored, back) for name, (_, _, stored, back) in VALUES.items()}, "renamed": (T.REG_DWORD, 3)}
        assert [type(v.type) for v in key.values()].count(int) == 1  # 0x20000 has no ValueType
        assert "to remove" not in key and "to move" not in key and hive.root["moved"].value == "m"
        assert hive.key("Many").subkey_count == 401
        assert hive.key("Many/Moved \u0436/child")["x"].value == 1
        assert hive.key("\u65e5\u672c\\\udc01 lone").name == "\udc01 lone"
        assert "Tree" in {k.name for k in hive.root} and len(hive.key("Tree")) == 0


def test_the_tool_lists_what_python_wrote(tmp_path, dump):
    for minor in (3, 5):
        path = tmp_path / f"h{minor}"
        with hivekit.create(path, minor_version=minor) as hive:
            write_everything(hive)
        with hivekit.open(path) as hive:
            assert first_difference(dump(path), listing(hive)) == ""


def test_types_are_inferred_or_refused(tmp_path):
    with hivekit.create(tmp_path / "h") as hive:
        key = hive.root
        for data, given, error in [
            (1.5, None, TypeError), (None, None, TypeError), (-1, None, ValueError), (2**64, None, ValueError),
            ("s", T.REG_DWORD, TypeError), (1, T.REG_SZ, TypeError), (2**32, T.REG_DWORD, ValueError),
            (["a", 1], None, TypeError), (["a"], T.REG_SZ, TypeError), (b"", 2**32, ValueError), (b"", "sz", TypeError),
        ]:
            with pytest.raises(error):
                key.set_value("x", data, given)
        assert "x" not in key
        assert key.set_value("x", 2**64 - 1).value == 2**64 - 1


def test_export_then_import_rebuilds_the_tree(tmp_path):
    with hivekit.create(tmp_path / "a") as hive:
        write_everything(hive)
        hive.export(tmp_path / "all.reg")
        hive.export(tmp_path / "part.reg", "Software", root_path="HKEY_LOCAL_MACHINE\\SOFTWARE")
        want = listing(hive, times=False)
    with hivekit.create(tmp_path / "b") as copy:
        copy.import_reg(tmp_path / "all.reg")
        assert first_difference(want, listing(copy, times=False)) == ""
    with hivekit.create(tmp_path / "c") as part:
        part.import_reg(tmp_path / "part.reg", prefix="HKEY_LOCAL_MACHINE\\SOFTWARE")
        assert part.key("Example")["Blob"].value == BLOB
        part.import_reg_text('Windows Registry Editor Version 5.00\n\n[ROOT\\T\\x]\n"v"=dword:00000010\n\n[-ROOT\\Example]\n')
        assert [k.name for k in part.root] == ["T"] and part.key("T/x")["v"].value == 16


def test_changes_reach_the_file_at_flush(tmp_path):
    with hivekit.create(tmp_path / "h") as hive:
        hive.create_key("a").set_value("v", "before")
        hive.flush()
        hive.key("a")["v"].set("after")
        # The writer holds the file for itself: look at a copy of its bytes.
        with pytest.raises(hivekit.InUseError):
            hivekit.open(tmp_path / "h")
        (tmp_path / "copy").write_bytes((tmp_path / "h").read_bytes())
        with hivekit.open(tmp_path / "copy", dirty=True) as seen:
            assert seen.key("a")["v"].value == "before"
    with hivekit.open(tmp_path / "h") as hive:
        assert hive.key("a")["v"].value == "after"
        assert not hive.info.dirty and hive.info.minor_version == 5
