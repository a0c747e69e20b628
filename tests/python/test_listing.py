"""Walks through Python list every shared test hive as the expected
listings say; damaged hives fail with hivekit.Error, never worse."""

import pathlib

import pytest

import hivekit
from conftest import TESTDATA
from listing import first_difference, listing

# expected/D/X.lst lists hives/D/X as stored (logs ignored, so opened with
# dirty=True); expected/D/X.recovered.lst lists it read through its logs.
LISTINGS = sorted(TESTDATA.glob("expected/**/*.lst")) if (TESTDATA / "expected").is_dir() else []


def hive_of(listing_file: pathlib.Path) -> pathlib.Path:
    name = listing_file.name
    name = name[: name.index(".recovered.")] if ".recovered." in name else name[: -len(".lst")]
    return TESTDATA / "hives" / listing_file.parent.relative_to(TESTDATA / "expected") / name


@pytest.mark.parametrize("expected", LISTINGS, ids=[str(p.relative_to(TESTDATA / "expected")) for p in LISTINGS])
def test_walk_matches_the_expected_listing(testdata, expected, tmp_path):
    want = expected.read_text(encoding="utf-8")
    if ".recovered." not in expected.name:
        with hivekit.open(hive_of(expected), dirty=True, logs=False) as hive:
            assert first_difference(want, listing(hive)) == ""
        return
    copy = tmp_path / "recovered"
    path = hive_of(expected)
    with hivekit.open(path) as hive:
        assert hive.info.log_mode != "none"
        assert first_difference(want, listing(hive)) == ""
        hive.recover(copy)
    logs = sorted(path.parent.glob(path.name + ".LOG*"))
    with hivekit.open(path, log_files=logs) as named:
        assert [log.path for log in named.info.logs if log.path] == [str(log) for log in logs]
        assert first_difference(want, listing(named)) == ""
    with hivekit.open(copy, logs=False) as clean:
        assert not clean.info.dirty
        assert first_difference(want, listing(clean)) == ""


def touch_everything(hive: hivekit.Hive) -> None:
    """Reads every attribute of every key and value reachable, each key once."""
    seen = set()
    pending = [hive.root]
    while pending:
        key = pending.pop()
        if key.offset in seen:
            continue
        seen.add(key.offset)
        for read in (lambda: (key.name, key.path, key.class_name, key.last_write_filetime, len(key)),
                     lambda: key.security_descriptor, lambda: key.parent):
            try:
                read()
            except hivekit.Error:
                pass
        try:
            for value in key.values():
                value.name, value.type, value.size
                for read in (lambda: value.data, lambda: value.value):
                    try:
                        read()
                    except hivekit.Error:
                        pass
            pending.extend(key.subkeys())
        except hivekit.Error:
            pass
    try:
        hive.info, list(hive.security_descriptors())
    except hivekit.Error:
        pass


def test_every_hive_opens_or_fails_with_an_error(testdata):
    hives = [p for p in sorted((testdata / "hives").rglob("*"))
             if p.is_file() and not p.suffix.upper().startswith(".LOG")]
    assert len(hives) > 50
    opened = 0
    for path in hives:
        for options in ({}, {"dirty": True}, {"dirty": True, "logs": False}, {"in_memory": True, "logs": False}):
            try:
                hive = hivekit.open(path, **options)
            except hivekit.Error as e:
                assert e.code in {"dirty", "not_a_hive", "truncated", "bad_checksum", "corrupt", "unsupported"}, (
                    path, options, e.code, e)
                continue
            with hive:
                touch_everything(hive)
            opened += 1
    assert opened > 150


def test_listing_of_a_hive_written_here(tmp_path):
    """Without the shared hives too: the listing's form and escapes, on a
    hive made through the API."""
    with hivekit.create(tmp_path / "h") as hive:
        odd = hive.create_key("per%cent\\tab\t")
        odd.set_value("back\\slash", "x")
        odd.set_value("lone \udc00", 7)
        hive.root.set_value("", b"\x01" * 33)
        hive.create_key("\u0416\U0001F600")
    with hivekit.open(tmp_path / "h") as hive:
        root, cent, tab, cyrillic = (f"{hive.key(path).last_write_filetime:016x}"
                                     for path in ("", "per%cent", "per%cent\\tab\t", "\u0416\U0001F600"))
        assert listing(hive) == (
            f"K\t\\\t{root}\t2\t1\n"
            "V\t\\\t\t3\t33\tsha256:ce041765675ad4d93378e20bd3a7d0d97ddcf3385fb6341581b21d4bc9e3e69e\n"
            f"K\t\\per%0025cent\t{cent}\t1\t0\n"
            f"K\t\\per%0025cent\\tab%0009\t{tab}\t0\t2\n"
            "V\t\\per%0025cent\\tab%0009\tback%005Cslash\t1\t4\t78000000\n"
            "V\t\\per%0025cent\\tab%0009\tlone %DC00\t4\t4\t07000000\n"
            f"K\t\\\u0416\U0001F600\t{cyrillic}\t0\t0\n"
        )
