"""Failures raise the exception classes their codes map to; handles stay
safe (raising ClosedError) once their hive is closed, from any thread."""

import errno
import gc
import os
import struct
import threading
import time

import pytest

import hivekit


def make_dirty(path) -> None:
    """Makes the primary sequence number differ, checksum kept right."""
    with open(path, "r+b") as f:
        block = bytearray(f.read(512))
        struct.pack_into("<I", block, 4, struct.unpack_from("<I", block, 4)[0] + 1)
        checksum = 0
        for (word,) in struct.iter_unpack("<I", block[:508]):
            checksum ^= word
        struct.pack_into("<I", block, 508, checksum)
        f.seek(0)
        f.write(block)


def test_failures_raise_their_classes(tmp_path):
    with pytest.raises(hivekit.HiveNotFound) as missing:
        hivekit.open(tmp_path / "missing")
    assert isinstance(missing.value, FileNotFoundError) and missing.value.errno == errno.ENOENT
    assert missing.value.code == "file_not_found" and "missing" in str(missing.value)
    with pytest.raises(hivekit.Error) as directory:
        hivekit.open(tmp_path)
    assert directory.value.code == "is_directory"
    (tmp_path / "text").write_bytes(b"not a hive" * 1000)
    with pytest.raises(hivekit.CorruptHiveError) as garbage:
        hivekit.open(tmp_path / "text")
    assert garbage.value.code == "not_a_hive"
    with pytest.raises(ValueError):
        hivekit.open(tmp_path / "text", codepage="klingon")

    path = tmp_path / "h"
    hivekit.create(path).close()
    with pytest.raises(hivekit.Error) as exists:
        hivekit.create(path)
    assert exists.value.code == "already_exists"
    with hivekit.open(path, write=True) as hive:
        hive.create_key("a/b").set_value("v", 1)
        with pytest.raises(hivekit.KeyNotFound) as absent:
            hive.key("a/nope")
        assert isinstance(absent.value, KeyError) and absent.value.code == "key_not_found"
        with pytest.raises(KeyError):
            hive.key("a")["nope"]
        with pytest.raises(hivekit.ValueNotFound):
            hive.key("a/b").delete_value("nope")
        with pytest.raises(hivekit.Error) as not_empty:
            hive.root.delete_key("a")
        assert not_empty.value.code == "not_empty"
        with pytest.raises(hivekit.InvalidArgument):
            hive.key("a\\\\b")
        with pytest.raises(hivekit.InvalidArgument) as too_long:
            hive.create_key("x" * 256)
        assert too_long.value.code == "too_large" and isinstance(too_long.value, ValueError)
        with pytest.raises(hivekit.InvalidArgument):
            hive.root.rename("root")
    with hivekit.open(path) as hive:
        for change in (lambda: hive.create_key("c"), lambda: hive.key("a/b").set_value("v", 2),
                       lambda: hive.key("a/b")["v"].remove(), lambda: hive.import_reg_text("")):
            with pytest.raises(hivekit.ReadOnlyError):
                change()

    # Written hives keep a log beside them, which would repair the damage.
    for log in tmp_path.glob("h.LOG*"):
        log.unlink()
    make_dirty(path)
    with pytest.raises(hivekit.DirtyHiveError) as dirty:
        hivekit.open(path)
    assert dirty.value.code == "dirty"
    with hivekit.open(path, dirty=True) as hive:
        assert hive.info.dirty and hive.key("a/b")["v"].value == 1
    with pytest.raises(hivekit.InvalidArgument):
        hivekit.open(path, write=True, dirty=True)


@pytest.mark.skipif(os.geteuid() == 0, reason="root may open any file")
def test_permission_denied(tmp_path):
    hivekit.create(tmp_path / "h").close()
    os.chmod(tmp_path / "h", 0o200)
    with pytest.raises(hivekit.PermissionDenied) as denied:
        hivekit.open(tmp_path / "h")
    assert isinstance(denied.value, PermissionError)


def test_handles_after_close_raise_closed(tmp_path):
    hive = hivekit.create(tmp_path / "h")
    key = hive.create_key("k")
    for name in "abc":
        key.create_key(name)
        key.set_value(name, name)
    value = key["a"]
    subkeys, values = key.subkeys(), key.values()
    next(subkeys), next(values)
    hive.close()
    hive.close()  # again: nothing to do
    assert hive.closed and not hive.writable and "closed" in repr(hive) and "closed" in repr(key) + repr(value)
    for use in [
        lambda: key.name, lambda: key.path, lambda: key.last_write, lambda: len(key), lambda: key.offset,
        lambda: key.subkeys(), lambda: key.values(), lambda: key["a"], lambda: "a" in key, lambda: key.parent,
        lambda: key.create_key("x"), lambda: key.set_value("x", 1), lambda: key.security_descriptor,
        lambda: value.name, lambda: value.type, lambda: value.data, lambda: value.value, lambda: value.remove(),
        lambda: next(subkeys), lambda: next(values), lambda: hive.root, lambda: hive.key("k"),
        lambda: hive.info, lambda: hive.flush(), lambda: list(hive.security_descriptors()),
        lambda: hive.export(tmp_path / "x.reg"), lambda: hive.recover(tmp_path / "copy"),
    ]:
        with pytest.raises(hivekit.ClosedError):
            use()


def test_handles_keep_an_unclosed_hive_open(tmp_path):
    with hivekit.create(tmp_path / "h") as hive:
        hive.create_key("k").set_value("v", "x")
    key = hivekit.open(tmp_path / "h").key("k")  # the Hive object itself is gone
    gc.collect()
    assert key["v"].value == "x" and key.parent.name == ""


def test_threads_share_a_hive(tmp_path):
    path = tmp_path / "h"
    with hivekit.create(path) as hive:
        for i in range(200):
            hive.create_key(f"k{i}/sub").set_value("v", i)
    hive = hivekit.open(path)
    errors = []
    started = threading.Barrier(4)

    def walk():
        started.wait()
        try:
            for _ in range(50):
                total = sum(sub.subkey_count for sub in hive.root.subkeys())
                assert total == 200
                hive.export(tmp_path / f"{threading.get_ident()}.reg")
        except hivekit.ClosedError:
            pass  # closed under our feet: fine, as long as nothing worse happens
        except Exception as e:  # noqa: BLE001 - reported below
            errors.append(e)

    threads = [threading.Thread(target=walk) for _ in range(3)]
    for t in threads:
        t.start()
    started.wait()
    time.sleep(0.02)
    hive.close()
    for t in threads:
        t.join()
    assert errors == []
