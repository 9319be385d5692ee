"""A cloud drive from Python: one file over libtnw.dll, with nothing to build.

    import shutil
    from libtnw import Drive

    with Drive("https://cloud.example/dav/", work=r"C:\\drive", token="...") as drive:
        for entry in drive.scandir("/"):
            print(entry.name, entry.size)
        with drive.open("/plans/house.dwg", "rb") as source, open("house.dwg", "wb") as target:
            shutil.copyfileobj(source, target)

Needs 64-bit Windows and Python 3.8 or newer. Names in the cloud are any text; their separator is "/"
or a backslash. Local folders and files are text or os.PathLike; they can have the characters of the
process's code page only.

Errors are OSError with the Windows code in `winerror`, so that FileNotFoundError, FileExistsError and
PermissionError can be caught. The code NO_SERVICE (1467) says that the connection to the cache
service is broken: close the drive then, and make it anew. LOGON_FAILURE (1326) says that the token is
no longer valid: call `Drive.set_token`.

Threads may use one drive at the same time, also one file's `pread` and `pwrite`. All calls let other
threads run while they wait. Only one thread at a time may use one listing, or a file's position.
"""

from __future__ import annotations

import ctypes
import errno
import io
import os
import sys
import uuid
import weakref
from ctypes import (POINTER, Structure, byref, c_bool, c_char, c_char_p, c_int, c_int32, c_int64,
                    c_uint8, c_uint32, c_uint64, c_void_p)
from datetime import datetime, timedelta, timezone
from pathlib import Path
from typing import Any, Iterator, NamedTuple, Optional, Union

__all__ = ["Drive", "Entry", "File", "Listing", "load", "purge_cache", "LOGON_FAILURE", "NO_SERVICE"]

FILE_NOT_FOUND = 2
NO_MORE_FILES = 18
READ_FAULT = 30
HANDLE_EOF = 38
DISK_FULL = 112
LOGON_FAILURE = 1326
NO_SERVICE = 1467

FILE_ATTRIBUTE_DIRECTORY = 0x10
FILE_SHARE_READ = 0x1
FILE_SHARE_WRITE = 0x2

TNW_ACC_ATTRIBUTES = 0x0
TNW_ACC_READ = 0x1
TNW_ACC_WRITE = 0x2
TNW_DISP_OPEN = 1
TNW_DISP_CREATE = 2
TNW_DISP_OPEN_IF = 3
TNW_DISP_OVERWRITE_IF = 5
TNW_OPT_FOLDER = 0x1
TNW_OPT_FILE = 0x40
TNW_LOCK_EXCLUSIVE = 0x2

LARGEST_TRANSFER = 1 << 30  # one call's bytes; the library looks at the low 32 bits of a length

StrPath = Union[str, "os.PathLike[str]"]


# ------------------------------------------------------------------ the library's records and calls


class tnw_tninit(Structure):
    _fields_ = [
        ("tnw_flags", c_int),
        ("tnw_min_threads", c_int),
        ("tnw_max_threads", c_int),
        ("tnw_user_id", c_uint64),
        ("tnw_username", c_char * 64),
        ("tnw_workdir", c_char * 5000),
        ("tnw_uds_workdir", c_char * 96),
        ("tnw_logdir", c_char * 5000),
        ("tnw_sharepath", c_char * 1024),
        ("tnw_binpath", c_char * 5000),
        ("tnw_regpath", c_char * 1024),
        ("tnw_api_addr", c_char * 128),
        ("tnw_config_addr", c_char * 128),
        ("tnw_workgroup_id", c_char * 37),
        ("tnw_da_device_id", c_char * 37),
        ("tnw_da_drive_id", c_char * 37),
        ("tnw_tn_device_id", c_char * 37),
        ("tnw_authtoken", c_char * 512),
        ("tnw_domain", c_char * 51),
        ("tnw_proxy_server", c_char * 256),
        ("tnw_proxy_uname", c_char * 64),
        ("tnw_proxy_password", c_char * 512),
    ]


class tnw_cfs_lock(Structure):
    _fields_ = [("lk_uid", c_uint64), ("lk_uname", c_char * 64)]


class tnw_fileinfo(Structure):
    _fields_ = [
        ("fi_attr", c_uint32),
        ("fi_pad", c_uint32),
        ("fi_ctime", c_uint64),
        ("fi_atime", c_uint64),
        ("fi_mtime", c_uint64),
        ("fi_size", c_uint64),
        ("fi_locked", c_uint8),
        ("fi_id", c_char * 37),
        ("fi_collab", c_char * 512),
        ("fi_name", c_char * 245),
        ("fi_cksum", c_char * 256),
        ("fi_pad2", c_uint8 * 5),
        ("fi_lockowner", tnw_cfs_lock),
    ]


class tnw_purge_opt_t(Structure):
    _fields_ = [
        ("po_flags", c_int32),
        ("po_workdir", c_char * 5000),
        ("po_domain", c_char * 51),
        ("po_username", c_char * 64),
    ]


RECORDS = (tnw_tninit, tnw_cfs_lock, tnw_fileinfo, tnw_purge_opt_t)

# By name: the result's type, and those of the arguments.
CALLS = {
    "tnw_init": (c_void_p, POINTER(tnw_tninit), POINTER(c_int)),
    "tnw_deinit": (c_int, c_void_p, c_bool),
    "tnw_create": (c_void_p, c_void_p, POINTER(c_void_p), c_char_p, c_uint32, c_uint32, c_uint32,
                   c_uint32, c_int, c_char_p, POINTER(c_int)),
    "tnw_cleanup_file": (c_int, c_void_p),
    "tnw_close": (c_int, c_void_p, c_char_p),
    "tnw_read": (c_int, c_void_p, c_void_p, c_uint64, c_int64, POINTER(c_int64), c_char_p),
    "tnw_write": (c_int, c_void_p, c_void_p, c_uint64, c_int64, POINTER(c_int64), c_char_p),
    "tnw_findfirst": (c_void_p, c_void_p, c_char_p, POINTER(tnw_fileinfo), c_char_p,
                      POINTER(c_int)),
    "tnw_findnext": (c_int, c_void_p, POINTER(tnw_fileinfo)),
    "tnw_findclose": (c_int, c_void_p),
    "tnw_getfileinfo": (c_int, c_void_p, c_char_p, POINTER(tnw_fileinfo), c_char_p),
    "tnw_rename": (c_int, c_void_p, c_char_p, c_char_p, c_char_p),
    "tnw_delete": (c_int, c_void_p, c_char_p, c_char_p),
    "tnw_canfilebedeleted": (c_int, c_void_p, c_char_p, POINTER(c_bool)),
    "tnw_setfilesize": (c_int, c_void_p, c_uint32, c_uint32, c_char_p),
    "tnw_lockfile": (c_int, c_void_p, c_uint32, c_uint32, c_uint32, c_uint32, c_uint32, c_int),
    "tnw_unlockfile": (c_int, c_void_p, c_uint32, c_uint32, c_uint32, c_uint32, c_int),
    "tnw_updatetoken": (c_int, c_void_p, c_char_p),
    "tnw_set_http_proxy": (c_int, c_void_p, c_char_p, c_char_p, c_char_p),
    "tnw_set_answer_limit": (c_int, c_void_p, c_uint32),
    "tnw_purge_cache": (c_int, POINTER(tnw_purge_opt_t)),
}

_library: Any = None


def load(path: Optional[StrPath] = None) -> Any:
    """Loads the DLL, once in a process; `path` counts at the first call.

    Without a path it is libtnw.dll beside this file, in ../bin from here (as the package has it), or
    where Windows finds it.
    """
    global _library
    if _library is None:
        here = Path(__file__).resolve().parent
        found = [p for p in (here / "libtnw.dll", here.parent / "bin" / "libtnw.dll") if p.exists()]
        library = ctypes.CDLL(os.fspath(path or (found[0] if found else "libtnw.dll")))
        for name, (result, *arguments) in CALLS.items():
            call = getattr(library, name)
            call.restype, call.argtypes = result, arguments
        _library = library
    return _library


# ------------------------------------------------------------------ errors and texts


def _error(code: int, path: Optional[str] = None) -> OSError:
    """The error that Python would raise for a Windows code: on Windows, of the class of its errno."""
    if sys.platform == "win32":
        return OSError(None, ctypes.FormatError(code).strip(), path, code)
    error = OSError(code, f"Windows error {code}", path)
    error.winerror = code  # type: ignore[attr-defined]
    return error


def _check(code: int, path: Optional[str] = None) -> None:
    if code != 0:
        raise _error(code, path)


def _cloud_text(text: str) -> bytes:
    if "\0" in text:
        raise ValueError("a name has a NUL character")
    return text.encode("utf-8")


def _local_text(path: StrPath) -> bytes:
    """An absolute path in the process's code page; a UnicodeEncodeError if it does not have it all."""
    return os.path.abspath(os.fspath(path)).encode("mbcs" if sys.platform == "win32" else "utf-8")


def _set(record: Structure, **fields: Union[bytes, str, int]) -> None:
    """Sets fields of a record. A text that does not fit with its NUL is an error."""
    for name, value in fields.items():
        if isinstance(value, str):
            value = _cloud_text(value)
        if isinstance(value, bytes) and len(value) >= getattr(type(record), name).size:
            raise ValueError(f"{name} is too long: {len(value)} bytes")
        setattr(record, name, value)


def _file_time(ticks: int) -> Optional[datetime]:
    """A Windows file time in UTC; None for 0 and for what no calendar has."""
    try:
        return datetime(1601, 1, 1, tzinfo=timezone.utc) + timedelta(microseconds=ticks // 10) \
            if ticks else None
    except OverflowError:
        return None


class Entry(NamedTuple):
    """A file or folder of the cloud. Times are in UTC, or None where the cloud does not tell one."""

    name: str
    is_folder: bool
    size: int  #: bytes
    created: Optional[datetime]
    accessed: Optional[datetime]
    modified: Optional[datetime]
    attributes: int  #: Windows file attributes
    id: str  #: a UUID
    checksum: str
    locked_by: Optional[str]  #: who locked the file in the cloud; None: nobody did

    @classmethod
    def _of(cls, info: tnw_fileinfo) -> Entry:
        def text(value: bytes) -> str:
            return value.decode("utf-8", "replace")

        return cls(text(info.fi_name), bool(info.fi_attr & FILE_ATTRIBUTE_DIRECTORY), info.fi_size,
                   _file_time(info.fi_ctime), _file_time(info.fi_atime), _file_time(info.fi_mtime),
                   info.fi_attr, text(info.fi_id), text(info.fi_cksum),
                   text(info.fi_lockowner.lk_uname) if info.fi_locked else None)


# ------------------------------------------------------------------ drives


class Drive:
    """A drive: a user's cloud, through the cache service, which this starts and stops.

    cloud      the address of a WebDAV server, or "file:///C:/folder" for a folder
    work       the local folder of cache, socket and logs; it is made when it is not there
    service    the service program; without it, tarnd.exe beside the DLL
    drive_id   a UUID; one drive id stands for one drive of the process. Without it, one that follows
               from cloud and share.

    The start takes a second or so, and up to minutes where an old service of the user still writes
    back. `close`, or the end of the `with` block, closes what is still open and stops the service.
    """

    def __init__(self, cloud: str, work: StrPath, *, token: str = "none", user: str = "me",
                 domain: str = "example.test", share: str = "", service: Optional[StrPath] = None,
                 drive_id: Optional[uuid.UUID] = None, device_id: Optional[uuid.UUID] = None,
                 threads: int = 4, library: Any = None) -> None:
        self._handle: Optional[int] = None
        self._open: "weakref.WeakSet[Any]" = weakref.WeakSet()  # buffers, files, listings
        self._library = library or load()
        if service is None:
            service = Path(self._library._name).with_name("tarnd.exe")
        if not os.path.isfile(service):
            raise FileNotFoundError(errno.ENOENT, "there is no cache service", os.fspath(service))
        init = tnw_tninit()
        _set(init, tnw_min_threads=1, tnw_max_threads=threads, tnw_username=user, tnw_domain=domain,
             tnw_authtoken=token, tnw_api_addr=cloud, tnw_config_addr="none", tnw_sharepath=share,
             tnw_workdir=_local_text(work), tnw_binpath=_local_text(service),
             tnw_logdir=_local_text(os.path.join(work, "logs")),
             tnw_da_drive_id=str(drive_id or uuid.uuid5(uuid.NAMESPACE_URL, cloud + "\n" + share)),
             tnw_da_device_id=str(device_id or uuid.UUID(int=uuid.getnode())))
        os.makedirs(work, exist_ok=True)
        err = c_int()
        self._handle = self._library.tnw_init(byref(init), byref(err))
        if self._handle is None:
            raise _error(err.value, cloud)

    def __enter__(self) -> Drive:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    @property
    def closed(self) -> bool:
        return self._handle is None

    def close(self) -> None:
        """Closes open files and listings, gives the drive back, and stops the service.

        Other threads must be out of all calls on the drive. What a file's close answers is raised
        when the drive is given back; the service keeps the file's changes, as the log says.
        """
        if self._handle is None:
            return
        failures = []
        for open_file in list(self._open):
            try:
                open_file.close()
            except OSError as error:
                failures.append(error)
        handle, self._handle = self._handle, None
        code = self._library.tnw_deinit(handle, False)
        if failures:
            raise failures[0]
        _check(NO_SERVICE if code < 0 else code)

    def open(self, path: str, mode: str = "rb", buffering: int = -1) -> io.BufferedIOBase:
        """Opens a file like the built-in open, in binary: "rb", "wb", "ab", "xb", each with or
        without "+". With `buffering` 0 the result is a File; else a buffer over one, which is its
        `raw`. For text, put an io.TextIOWrapper around it, and close that before the drive.
        """
        opened: Any = File(self, path, mode)
        if buffering != 0:
            kind = io.BufferedReader if not opened.writable() else \
                io.BufferedRandom if opened.readable() else io.BufferedWriter
            opened = kind(opened, buffering if buffering > 1 else 1 << 20)
        self._open.add(opened)  # the buffer, whose close writes out what it holds
        return opened

    def scandir(self, path: str = "/") -> Listing:
        """The entries of a folder, in the order of the service."""
        return Listing(self, path)

    def stat(self, path: str) -> Entry:
        return Entry._of(self._info(path))

    def exists(self, path: str) -> bool:
        try:
            self._info(path)
        except FileNotFoundError:
            return False
        except OSError as error:
            if error.winerror != FILE_NOT_FOUND:  # type: ignore[attr-defined]
                raise
            return False
        return True

    def mkdir(self, path: str) -> None:
        handle, code = self._create(path, TNW_ACC_ATTRIBUTES, 0, TNW_DISP_CREATE, TNW_OPT_FOLDER)
        if handle is not None:
            self._library.tnw_cleanup_file(handle)
            code = self._library.tnw_close(handle, None)
        self._check_answer(code, path)

    def rename(self, source: str, target: str) -> None:
        """Renames or moves a file or folder. What has the new name is not replaced."""
        self._check_answer(self._library.tnw_rename(self._drive(), _cloud_text(source),
                                                    _cloud_text(target), b"python"), source)

    def remove(self, path: str) -> None:
        """Deletes a file or an empty folder."""
        self._check_answer(
            self._library.tnw_delete(self._drive(), _cloud_text(path), b"python"), path)

    def can_remove(self, path: str) -> bool:
        """Whether `remove` would succeed now."""
        can = c_bool()
        self._check_answer(self._library.tnw_canfilebedeleted(self._drive(), _cloud_text(path),
                                                              byref(can)), path)
        return can.value

    def set_token(self, token: str) -> None:
        """Hands the service a renewed token."""
        self._check_answer(self._library.tnw_updatetoken(self._drive(), _cloud_text(token)))

    def set_proxy(self, proxy: str, user: str = "", password: str = "") -> None:
        """Tells the service which HTTP proxy to use."""
        self._check_answer(self._library.tnw_set_http_proxy(
            self._drive(), _cloud_text(proxy), _cloud_text(user), _cloud_text(password)))

    def set_answer_limit(self, milliseconds: int) -> None:
        """Sets how long the service may be silent until it counts as gone; 0: for ever."""
        self._check_answer(self._library.tnw_set_answer_limit(self._drive(), milliseconds))

    def _drive(self) -> int:
        if self._handle is None:
            raise ValueError("the drive is closed")
        return self._handle

    def _info(self, path: str) -> tnw_fileinfo:
        info = tnw_fileinfo()
        code = self._library.tnw_getfileinfo(self._drive(), _cloud_text(path), byref(info),
                                             b"python")
        if code == 0 and not info.fi_id:  # so a broken connection looks
            code = NO_SERVICE
        _check(code, path)
        return info

    def _check_answer(self, code: int, path: Optional[str] = None) -> None:
        """For calls that a broken connection makes look like a success."""
        _check(code, path)
        self._info("/")

    def _create(self, path: str, access: int, share: int, disposition: int,
                options: int) -> "tuple[Optional[int], int]":
        err = c_int()
        handle = self._library.tnw_create(self._drive(), None, _cloud_text(path), access, share,
                                          disposition, options, os.getpid(), b"python", byref(err))
        return handle, err.value


def purge_cache(work: StrPath, *, user: str = "me", domain: str = "example.test",
                library: Any = None) -> None:
    """Deletes a user's cache for good, with the changes in it that were not yet written back.

    No service may use the cache: tnw.h says which of them this call does not see.
    """
    purge = tnw_purge_opt_t()
    _set(purge, po_workdir=_local_text(work), po_domain=domain, po_username=user)
    _check((library or load()).tnw_purge_cache(byref(purge)), os.fspath(work))


# ------------------------------------------------------------------ folders


class Listing(Iterator[Entry]):
    """The entries of a folder, fetched by one request. Its end, or `close`, frees it."""

    def __init__(self, drive: Drive, path: str) -> None:
        self._drive, self._path = drive, path
        self._info, err = tnw_fileinfo(), c_int()
        self._handle = drive._library.tnw_findfirst(drive._drive(), _cloud_text(path),
                                                    byref(self._info), b"python", byref(err))
        self._code = err.value  # of the entry that comes next
        if self._handle is None:
            raise _error(self._code, path)
        drive._open.add(self)

    def __enter__(self) -> Listing:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None) is not None and not self._drive.closed:
            self._drive._library.tnw_findclose(self._handle)

    def __next__(self) -> Entry:
        if self._handle is None:
            raise StopIteration
        if self._code == NO_MORE_FILES:
            self.close()
            raise StopIteration
        _check(self._code, self._path)
        entry = Entry._of(self._info)
        self._code = self._drive._library.tnw_findnext(self._handle, byref(self._info))
        return entry

    def close(self) -> None:
        handle, self._handle = self._handle, None
        if handle is not None and not self._drive.closed:
            _check(self._drive._library.tnw_findclose(handle), self._path)


# ------------------------------------------------------------------ files


class File(io.RawIOBase):
    """An open file without a buffer; `Drive.open` puts one around it."""

    def __init__(self, drive: Drive, path: str, mode: str = "rb") -> None:
        self._handle: Optional[int] = None
        kind, plus = mode.replace("b", "", 1).replace("+", "", 1), "+" in mode
        if kind not in ("r", "w", "a", "x") or "b" not in mode:
            raise ValueError(f"{mode!r} is no binary mode")
        self._drive, self.name, self.mode = drive, path, mode
        self._reads, self._writes = kind == "r" or plus, kind != "r" or plus
        self._appends, self._position, self._written = kind == "a", 0, 0
        access = TNW_ACC_READ * self._reads | TNW_ACC_WRITE * self._writes
        disposition = {"r": TNW_DISP_OPEN, "w": TNW_DISP_OVERWRITE_IF, "x": TNW_DISP_CREATE,
                       "a": TNW_DISP_OPEN_IF}[kind]
        self._handle, code = drive._create(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                           disposition, TNW_OPT_FILE)
        if self._handle is None:
            raise _error(code, path)
        if self._appends:
            self.seek(0, os.SEEK_END)

    def readable(self) -> bool:
        return self._reads

    def writable(self) -> bool:
        return self._writes

    def seekable(self) -> bool:
        return True

    def tell(self) -> int:
        self._file()
        return self._position

    def seek(self, offset: int, whence: int = os.SEEK_SET) -> int:
        self._file()
        start = {os.SEEK_SET: lambda: 0, os.SEEK_CUR: lambda: self._position,
                 os.SEEK_END: self._size}.get(whence)
        if start is None:
            raise ValueError(f"invalid whence {whence}")
        position = start() + offset
        if position < 0:
            raise ValueError(f"negative seek position {position}")
        self._position = position
        return position

    def readinto(self, buffer: Any) -> int:
        count = self.pread_into(buffer, self._position)
        self._position += count
        return count

    def write(self, data: Any) -> int:
        if self._appends:
            self.seek(0, os.SEEK_END)
        count = self.pwrite(data, self._position)
        self._position += count
        return count

    def pread(self, size: int, offset: int) -> bytes:
        """Up to `size` bytes at an offset; the position stays. b"" at the end of the file."""
        buffer = bytearray(size)
        return bytes(memoryview(buffer)[:self.pread_into(buffer, offset)])

    def pread_into(self, buffer: Any, offset: int) -> int:
        handle = self._file()
        if not self._reads:
            raise io.UnsupportedOperation("not open for reading")
        view = memoryview(buffer).cast("B")
        if len(view) == 0:
            return 0
        target = (c_char * len(view)).from_buffer(view)
        count = c_int64()
        code = self._drive._library.tnw_read(handle, ctypes.addressof(target),
                                             min(len(view), LARGEST_TRANSFER), offset,
                                             byref(count), None)
        if code == HANDLE_EOF:
            return 0
        if code == 0 and count.value == 0:  # the service could not fetch the region
            code = READ_FAULT
        _check(code, self.name)
        return count.value

    def pwrite(self, data: Any, offset: int) -> int:
        """Writes at an offset; the position stays. Returns the bytes written: at most 1 GiB."""
        handle = self._file()
        if not self._writes:
            raise io.UnsupportedOperation("not open for writing")
        source = bytes(memoryview(data).cast("B")[:LARGEST_TRANSFER])
        if not source:
            return 0
        count = c_int64()
        _check(self._drive._library.tnw_write(handle, source, len(source), offset, byref(count),
                                              None), self.name)
        if count.value <= 0:
            raise _error(DISK_FULL, self.name)
        self._written = max(self._written, offset + count.value)
        return count.value

    def truncate(self, size: Optional[int] = None) -> int:
        handle = self._file()
        if not self._writes:
            raise io.UnsupportedOperation("not open for writing")
        size = self._position if size is None else size
        if size < 0:
            raise ValueError(f"negative size {size}")
        self._drive._check_answer(self._drive._library.tnw_setfilesize(
            handle, size & 0xFFFFFFFF, size >> 32, None), self.name)
        self._written = size
        return size

    def lock(self, offset: int, length: int, *, exclusive: bool = True) -> None:
        """Locks a range for this process, or raises at once. Offsets have 32 bits."""
        self._lock("tnw_lockfile", offset, length, TNW_LOCK_EXCLUSIVE * exclusive)

    def unlock(self, offset: int, length: int) -> None:
        self._lock("tnw_unlockfile", offset, length)

    def close(self) -> None:
        """Closes the file. When the service refuses that, it stays open: close it again."""
        if self.closed or self._handle is None or self._drive.closed:
            super().close()
            return
        library = self._drive._library
        cleaned = library.tnw_cleanup_file(self._handle)
        code = library.tnw_close(self._handle, None)
        if code in (0, NO_SERVICE):
            self._handle = None
            super().close()
        _check(code or cleaned, self.name)

    def _lock(self, call: str, offset: int, length: int, *flags: int) -> None:
        if not (0 <= offset < 1 << 32 and 0 <= length < 1 << 32):
            raise ValueError("offsets and lengths of locks have 32 bits")
        code = getattr(self._drive._library, call)(self._file(), *flags, offset, 0, length, 0,
                                                   os.getpid())
        self._drive._check_answer(code, self.name)

    def _file(self) -> int:
        self._drive._drive()
        if self.closed or self._handle is None:
            raise ValueError("I/O operation on closed file")
        return self._handle

    def _size(self) -> int:
        return max(self._drive._info(self.name).fi_size, self._written)
