/*
 * Byte-range locks on descriptors.
 */
#include <cerrno>

#include "ox_errno.h"
#include "ox_lock.h"
#include "ox_logging.h"
#include "ox_win_handle.h"

namespace {

/* The descriptor's handle; INVALID_HANDLE_VALUE with errno and an ERROR line naming `caller`. */
HANDLE lockable_handle(const char* caller, int fd) {
  HANDLE handle = ox_fd_handle(fd);
  if (handle == INVALID_HANDLE_VALUE) {
    errno = OX_EBADF;
    OX_LOG(OX_ERROR_LEVEL, errno, "%s: Failed to _get_osfhandle on fd %d", caller, fd);
  }
  return handle;
}

}  // namespace

bool ox_lock_file(int fd, ox_u32 flags, ox_u32 bytes_low, ox_u32 bytes_high, void* overlapped) {
  HANDLE handle = lockable_handle("ox_lock_file", fd);
  if (handle == INVALID_HANDLE_VALUE) {
    return false;
  }
  if (LockFileEx(handle, flags, 0, bytes_low, bytes_high, static_cast<OVERLAPPED*>(overlapped)) ==
      0) {
    ox_set_errno();
    OX_LOG(OX_ERROR_LEVEL, errno,
           "ox_lock_file: Failed to LockFileEx on fd %d fh %p flags %lx bytes_low %lu "
           "bytes_high %lu",
           fd, handle, static_cast<unsigned long>(flags), static_cast<unsigned long>(bytes_low),
           static_cast<unsigned long>(bytes_high));
    return false;
  }
  return true;
}

bool ox_unlock_file(int fd, ox_u32 bytes_low, ox_u32 bytes_high, void* overlapped) {
  HANDLE handle = lockable_handle("ox_unlock_file", fd);
  if (handle == INVALID_HANDLE_VALUE) {
    return false;
  }
  if (UnlockFileEx(handle, 0, bytes_low, bytes_high, static_cast<OVERLAPPED*>(overlapped)) == 0) {
    ox_set_errno();
    OX_LOG(OX_ERROR_LEVEL, errno,
           "ox_unlock_file: Failed to UnlockFileEx on fd %d fh %p bytes_low %lu bytes_high %lu", fd,
           handle, static_cast<unsigned long>(bytes_low), static_cast<unsigned long>(bytes_high));
    return false;
  }
  return true;
}

int ox_flock(int fd, ox_u32 flags) {
  HANDLE handle = lockable_handle("ox_flock", fd);
  if (handle == INVALID_HANDLE_VALUE) {
    return -1;
  }
  constexpr DWORD WHOLE_FILE = 0xffffffff;
  OVERLAPPED start = {};
  if (LockFileEx(handle, flags, 0, WHOLE_FILE, WHOLE_FILE, &start) == 0) {
    ox_set_errno();
    OX_LOG(OX_ERROR_LEVEL, errno,
           "ox_flock: Failed to LockFile on fd %d fh %p flags 0x%x low_bytes_locked %u "
           "high_bytes_locked %u",
           fd, handle, flags, static_cast<unsigned>(WHOLE_FILE), static_cast<unsigned>(WHOLE_FILE));
    return -1;
  }
  return 0;
}
