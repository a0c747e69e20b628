import enum
import os
from dataclasses import dataclass
from datetime import datetime
from typing import Iterator, NamedTuple, Sequence, Union

__version__: str

StrPath = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]
Data = Union[str, int, Sequence[str], bytes, bytearray, memoryview]

class ValueType(enum.IntEnum):
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

REG_NONE: ValueType
REG_SZ: ValueType
REG_EXPAND_SZ: ValueType
REG_BINARY: ValueType
REG_DWORD: ValueType
REG_DWORD_BIG_ENDIAN: ValueType
REG_LINK: ValueType
REG_MULTI_SZ: ValueType
REG_RESOURCE_LIST: ValueType
REG_FULL_RESOURCE_DESCRIPTOR: ValueType
REG_RESOURCE_REQUIREMENTS_LIST: ValueType
REG_QWORD: ValueType

class Error(Exception):
    """A failed call; ``code`` names the class of failure, e.g. "dirty"."""

    code: str
    message: str
    def __init__(self, message: str, code: str = ...) -> None: ...

class HiveNotFound(Error, FileNotFoundError): ...
class PermissionDenied(Error, PermissionError): ...
class DirtyHiveError(Error): ...
class InUseError(Error): ...
class CorruptHiveError(Error): ...
class KeyNotFound(Error, KeyError): ...
class ValueNotFound(Error, KeyError): ...
class ReadOnlyError(Error): ...
class ClosedError(Error, ValueError): ...
class InvalidArgument(Error, ValueError): ...

def filetime_to_datetime(filetime: int) -> datetime:
    """A FILETIME as an aware datetime in UTC; OverflowError beyond year 9999."""

def open(
    path: StrPath,
    *,
    write: bool = False,
    dirty: bool = False,
    logs: bool = True,
    log_files: Sequence[StrPath] | None = None,
    codepage: str = "latin1",
    in_memory: bool = False,
    wait: bool = False,
) -> Hive:
    """Opens a hive file, read-only unless ``write``.

    dirty: read a dirty hive whose logs cannot be applied as it is stored
    (read-only). logs: use the logs beside the hive (HIVE.LOG, .LOG1, .LOG2);
    False ignores them. log_files: exactly these logs instead. codepage:
    "latin1", "ascii", "windows1250" or "windows1252", for 8-bit names.
    in_memory: read the whole file into memory, for damaged hives the normal
    reader refuses (read-only). A writer holds the hive and its logs alone,
    readers share them: a conflicting open raises InUseError, or with
    ``wait`` waits for the other to close.
    """

def create(path: StrPath, *, minor_version: int = 5, codepage: str = "latin1", overwrite: bool = False) -> Hive:
    """Writes a new hive holding only its root key and opens it writable."""

@dataclass(frozen=True)
class LogInfo:
    path: str
    usable: bool
    new_format: bool
    primary_sequence: int
    secondary_sequence: int
    entries: int
    first_sequence: int
    last_sequence: int
    applied: int
    state: str

@dataclass(frozen=True)
class HiveInfo:
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
    log_mode: str
    applied_log: int
    applied_sequence: int
    logs: tuple[LogInfo, LogInfo, LogInfo]
    @property
    def timestamp(self) -> datetime: ...

class SecurityDescriptor(NamedTuple):
    offset: int
    reference_count: int
    data: bytes

class Hive:
    """An open hive; a context manager that closes it (flushing changes)."""

    @property
    def root(self) -> Key: ...
    @property
    def info(self) -> HiveInfo: ...
    @property
    def closed(self) -> bool: ...
    @property
    def writable(self) -> bool: ...
    @property
    def path(self) -> str: ...
    def key(self, path: str) -> Key:
        """The key at ``path`` below the root ("a\\b" or "a/b"); KeyNotFound when absent."""
    def create_key(self, path: str) -> Key:
        """Opens ``path`` below the root, creating every missing key on the way."""
    def security_descriptors(self) -> Iterator[SecurityDescriptor]:
        """Every security record, in list order; raises after the last readable
        one when the list is damaged."""
    def export(
        self,
        path: StrPath,
        key: Key | str | None = None,
        *,
        root_path: str = "",
        append: bool = False,
        binary_only: bool = False,
    ) -> list[str]:
        """Writes ``key`` (default the root) and all below it as a .reg file;
        returns the diagnostics (values written in another form, ...)."""
    def import_reg(self, path: StrPath, *, prefix: str = "ROOT") -> list[str]:
        """Applies a .reg file (UTF-16LE with BOM, or UTF-8); returns the diagnostics."""
    def import_reg_text(self, text: str | bytes, *, prefix: str = "ROOT") -> list[str]:
        """Applies .reg text given in memory."""
    def recover(self, path: StrPath) -> None:
        """Writes the hive as it reads now as a clean file that needs no logs."""
    def flush(self) -> None:
        """Writes every change since the last flush to disk."""
    def close(self) -> None:
        """Flushes a writable hive and closes it; handles raise ClosedError afterwards."""
    def __enter__(self) -> Hive: ...
    def __exit__(self, *args: object) -> None: ...

class Key:
    """A key of an open hive. len(key) counts subkeys, iterating yields them;
    key[name] and ``name in key`` look up values."""

    @property
    def name(self) -> str: ...
    @property
    def path(self) -> str: ...
    @property
    def last_write(self) -> datetime:
        """UTC, to the microsecond; OverflowError for a FILETIME beyond year 9999."""
    @property
    def last_write_filetime(self) -> int: ...
    @property
    def class_name(self) -> str: ...
    @property
    def subkey_count(self) -> int: ...
    @property
    def value_count(self) -> int: ...
    @property
    def offset(self) -> int: ...
    @property
    def parent(self) -> Key | None: ...
    @property
    def security_descriptor(self) -> bytes: ...
    @security_descriptor.setter
    def security_descriptor(self, data: bytes) -> None: ...
    def subkeys(self) -> SubkeyIterator: ...
    def values(self) -> ValueIterator: ...
    def subkey(self, name: str) -> Key: ...
    def key(self, path: str) -> Key: ...
    def value(self, name: str) -> Value:
        """The value ``name`` ("" is the default value); ValueNotFound when absent."""
    def create_key(self, path: str) -> Key: ...
    def delete_key(self, path: str, recursive: bool = False) -> None: ...
    def rename(self, name: str) -> None: ...
    def move_to(self, parent: Key, name: str | None = None) -> None: ...
    def set_value(self, name: str, data: Data, type: ValueType | int | None = None) -> Value:
        """Creates or replaces a value. Without ``type``: str is REG_SZ, int
        REG_DWORD (REG_QWORD from 2**32), a list of str REG_MULTI_SZ, bytes
        REG_BINARY. Any type takes bytes as its raw data."""
    def delete_value(self, name: str) -> None: ...
    def __getitem__(self, name: str) -> Value: ...
    def __contains__(self, name: object) -> bool: ...
    def __len__(self) -> int: ...
    def __iter__(self) -> SubkeyIterator: ...
    def __bool__(self) -> bool: ...
    def __hash__(self) -> int: ...

class Value:
    @property
    def name(self) -> str: ...
    @property
    def type(self) -> ValueType | int: ...
    @property
    def size(self) -> int: ...
    @property
    def data(self) -> bytes: ...
    @property
    def value(self) -> str | int | list[str] | bytes:
        """The data decoded by type; bytes when it does not fit the type."""
    @property
    def key(self) -> Key: ...
    def set(self, data: Data, type: ValueType | int | None = None) -> None: ...
    def rename(self, name: str) -> None: ...
    def move_to(self, key: Key, name: str | None = None) -> None: ...
    def remove(self) -> None: ...

class SubkeyIterator(Iterator[Key]):
    @property
    def skipped(self) -> int: ...
    def __next__(self) -> Key: ...

class ValueIterator(Iterator[Value]):
    @property
    def skipped(self) -> int: ...
    def __next__(self) -> Value: ...
