#include "files/windows_file.h"

#include "ox_errno.h"

namespace tarnd {

OVERLAPPED overlapped_at(uint64_t offset) {
  OVERLAPPED position = {};
  position.Offset = static_cast<DWORD>(offset);
  position.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return position;
}

int errno_of_windows(DWORD code) {
  switch (code) {
    case ERROR_SUCCESS:
      return 0;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
      return OX_ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
    case ERROR_PRIVILEGE_NOT_HELD:
    case ERROR_NOT_SAME_DEVICE:
      return OX_EPERM;
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_USER_MAPPED_FILE:
      return OX_EACCES;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return OX_EEXIST;
    case ERROR_DIRECTORY:
      return OX_ENOTDIR;
    case ERROR_DIR_NOT_EMPTY:
      return OX_ENOTEMPTY;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
      return OX_ENOSPC;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
      return OX_ENOMEM;
    case ERROR_INVALID_NAME:
    case ERROR_INVALID_PARAMETER:
    case ERROR_BAD_PATHNAME:
    case ERROR_FILENAME_EXCED_RANGE:
    case ERROR_BUFFER_OVERFLOW:
      return OX_EINVAL;
    case ERROR_FILE_TOO_LARGE:
      return OX_EFBIG;
    case ERROR_TOO_MANY_OPEN_FILES:
      return OX_EMFILE;
    default:
      return OX_EIO;
  }
}

int last_error() { return errno_of_windows(GetLastError()); }

}  // namespace tarnd
