"""Read, change and write Windows registry hive files.

    import hivekit
    with hivekit.open("SYSTEM") as hive:                  # read-only by default
        key = hive.key(r"ControlSet001\\Services\\Tcpip")  # KeyError when absent
        for sub in key.subkeys():
            print(sub.name, sub.last_write)               # datetime, UTC
        for v in key.values():
            print(v.name, v.type, v.value)                # str, int, list[str] or bytes

Failures raise hivekit.Error (or a subclass), whose ``code`` names the class
of failure ("dirty", "corrupt", ...). Keys and values are handles into the
open hive: after the hive is closed their calls raise ClosedError.
"""

from __future__ import annotations

import enum as _enum
import errno as _errno
from dataclasses import dataclass as _dataclass
from datetime import datetime as _datetime, timedelta as _timedelta, timezone as _timezone
from typing import Iterator as _Iterator, NamedTuple as _NamedTuple

from . import _hivekit
from ._hivekit import Hive, Key, Value, SubkeyIterator, ValueIterator, open, create

__version__: str = _hivekit.version()

__all__ = [
    "open", "create", "Hive", "Key", "Value", "ValueType", "HiveInfo", "LogInfo", "SecurityDescriptor",
    "Error", "HiveNotFound", "PermissionDenied", "DirtyHiveError", "InUseError", "CorruptHiveError",
    "KeyNotFound", "ValueNotFound", "ReadOnlyError", "ClosedError", "InvalidArgument",
    "filetime_to_datetime", "__version__",
]


# ------------------------------------------------------------------ errors

class Error(Exception):
    """A failed call. ``code`` is the class of failure ("dirty", "corrupt",
    "key_not_found", ...); the message names the cause."""

    def __init__(self, message: str, code: str = "internal") -> None:
        super().__init__(message)
        self.message = message
        self.code = code

    def __str__(self) -> str:
        return self.message


class HiveNotFound(Error, FileNotFoundError):
    """The path names nothing (code "file_not_found")."""


class PermissionDenied(Error, PermissionError):
    """The file may not be opened as asked (code "permission_denied")."""


class DirtyHiveError(Error):
    """The hive's sequence numbers differ and no usable log repairs it: open
    it with dirty=True to read it as stored (code "dirty")."""


class InUseError(Error):
    """Another open of the hive holds a conflicting lock (code "in_use")."""


class CorruptHiveError(Error):
    """The file is no hive, is cut short, or a record needed is damaged
    (codes "not_a_hive", "truncated", "bad_checksum", "corrupt")."""


class KeyNotFound(Error, KeyError):
    """No key at that path (code "key_not_found")."""


class ValueNotFound(Error, KeyError):
    """No value of that name (code "value_not_found")."""


class ReadOnlyError(Error):
    """A change on a hive opened read-only (code "read_only")."""


class ClosedError(Error, ValueError):
    """The hive was closed (code "closed")."""


class InvalidArgument(Error, ValueError):
    """A malformed name or path, or one too long (codes "invalid_argument",
    "too_large")."""


_ERROR_CLASSES = {
    "file_not_found": HiveNotFound,
    "permission_denied": PermissionDenied,
    "dirty": DirtyHiveError,
    "in_use": InUseError,
    "not_a_hive": CorruptHiveError,
    "truncated": CorruptHiveError,
    "bad_checksum": CorruptHiveError,
    "corrupt": CorruptHiveError,
    "key_not_found": KeyNotFound,
    "value_not_found": ValueNotFound,
    "read_only": ReadOnlyError,
    "closed": ClosedError,
    "invalid_argument": InvalidArgument,
    "too_large": InvalidArgument,
}
_ERRNO = {"file_not_found": _errno.ENOENT, "permission_denied": _errno.EACCES}


def _make_error(code: str, message: str) -> Error:
    error = _ERROR_CLASSES.get(code, Error)(message, code)
    if code in _ERRNO:
        error.errno = _ERRNO[code]
    return error


# ------------------------------------------------------------------ values

class ValueType(_enum.IntEnum):
    """The value types Windows defines. Values may hold any other 32-bit
    number as their type: Value.type is then a plain int."""

    REG_NONE = 0
    REG_SZ = 1
    REG_EXPAND_SZ = 2
    REG_BINARY = 3
    REG_DWORD = 4
    REG_DWORD_BIG_ENDIAN = 5
    REG_LINK = 6
    REG_MULTI_SZ = 7
    REG_RESOURCE_LIST = 8
    REG_FULL_RESOURCE_DESCRIPTOR = 9
    REG_RESOURCE_REQUIREMENTS_LIST = 10
    REG_QWORD = 11


globals().update(ValueType.__members__)
__all__ += list(ValueType.__members__)

_hivekit._setup(_make_error, tuple(ValueType))


# ------------------------------------------------------------------ times

_FILETIME_EPOCH = _datetime(1601, 1, 1, tzinfo=_timezone.utc)


def filetime_to_datetime(filetime: int) -> _datetime:
    """A FILETIME (100 ns units since 1601) as an aware datetime in UTC, to
    the microsecond. OverflowError beyond the year 9999."""
    return _FILETIME_EPOCH + _timedelta(microseconds=filetime // 10)


Key.last_write = property(  # type: ignore[attr-defined]
    lambda self: filetime_to_datetime(self.last_write_filetime),
    doc="The key's last write time as a datetime in UTC (last_write_filetime has the exact FILETIME).")


# ------------------------------------------------------------------ hive

@_dataclass(frozen=True)
class LogInfo:
    """One transaction log of the hive as the open found it."""

    path: str  # the file used; "" when there was none
    usable: bool
    new_format: bool  # "HvLE" entries, else an old "DIRT" log
    primary_sequence: int
    secondary_sequence: int
    entries: int
    first_sequence: int
    last_sequence: int
    applied: int  # entries or pages replayed at the open
    state: str  # why it is not usable ("" when it is)


@_dataclass(frozen=True)
class HiveInfo:
    """What the base block and the logs say, after any log was applied."""

    path: str
    major_version: int
    minor_version: int
    primary_sequence: int
    secondary_sequence: int
    dirty: bool
    timestamp_filetime: int
    file_type: int
    file_format: int
    root_offset: int
    hive_bins_size: int
    hbin_count: int
    clustering_factor: int
    stored_checksum: int
    computed_checksum: int
    file_name: str
    writable: bool
    log_mode: str  # "none", "single" (.LOG) or "dual" (.LOG1/.LOG2)
    applied_log: int  # 0 .LOG, 1 .LOG1, 2 .LOG2; -1 none
    applied_sequence: int
    logs: tuple[LogInfo, LogInfo, LogInfo]  # .LOG, .LOG1, .LOG2

    @property
    def timestamp(self) -> _datetime:
        return filetime_to_datetime(self.timestamp_filetime)


def _info(self: Hive) -> HiveInfo:
    d = self._info()
    d["timestamp_filetime"] = d.pop("timestamp")
    d["logs"] = tuple(LogInfo(**log) for log in d["logs"])
    return HiveInfo(**d)


class SecurityDescriptor(_NamedTuple):
    """One security record: where it lies, how many keys use it, and the
    self-relative descriptor it holds."""

    offset: int
    reference_count: int
    data: bytes


def _security_descriptors(self: Hive) -> _Iterator[SecurityDescriptor]:
    items, error = self._security_descriptors()
    for item in items:
        yield SecurityDescriptor(*item)
    if error is not None:
        raise _make_error(*error)


Hive.info = property(_info, doc="Versions, sequence numbers, timestamps and the logs' state.")  # type: ignore
Hive.security_descriptors = _security_descriptors  # type: ignore[method-assign]
