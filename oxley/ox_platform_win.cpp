/*
 * Descriptor calls over Windows file handles.
 */
#include "ox_platform.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ox_errno.h"
#include "ox_logging.h"
#include "ox_util.h"
#include "ox_win_handle.h"

#ifdef _UCRT
/* In the runtime, but not in every MinGW's headers. */
extern "C" _CRTIMP _invalid_parameter_handler __cdecl _set_thread_local_invalid_parameter_handler(
    _invalid_parameter_handler handler);
#endif

namespace {

/*
 * While it lives, the runtime answers a bad descriptor with EBADF on this thread. The universal
 * runtime would otherwise end the process. msvcrt.dll needs no such help.
 */
class BadDescriptorsAllowed {
 public:
#ifdef _UCRT
  BadDescriptorsAllowed() : previous_(_set_thread_local_invalid_parameter_handler(ignore)) {}
  ~BadDescriptorsAllowed() { _set_thread_local_invalid_parameter_handler(previous_); }

 private:
  static void ignore(const wchar_t*, const wchar_t*, const wchar_t*, unsigned int, uintptr_t) {}
  _invalid_parameter_handler previous_;
#else
  BadDescriptorsAllowed() {}
  ~BadDescriptorsAllowed() {}
#endif
};

DWORD desired_access(ox_u32 flags) {
  if ((flags & OX_O_RDWR) != 0) {
    return GENERIC_READ | GENERIC_WRITE;
  }
  return (flags & OX_O_WRONLY) != 0 ? GENERIC_WRITE : GENERIC_READ;
}

/* The flags of a descriptor that has its access mode and no other flag. */
int descriptor_access(ox_u32 flags) {
  return (flags & OX_O_RDWR) != 0 ? OX_O_RDWR : static_cast<int>(flags & OX_O_WRONLY);
}

DWORD buffering(ox_u32 flags) {
  if ((flags & OX_O_DIRECT) != 0) {
    return FILE_FLAG_NO_BUFFERING;
  }
  return (flags & OX_O_SYNC) != 0 ? FILE_FLAG_WRITE_THROUGH : 0;
}

/* Opens `path`, shared for everything, and wraps the handle; -1 with errno. */
int open_descriptor(const char* path, ox_u32 access_flags, DWORD disposition, DWORD attributes,
                    int descriptor_flags) {
  constexpr DWORD SHARE = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  HANDLE handle = CreateFileA(path, desired_access(access_flags), SHARE, nullptr, disposition,
                              attributes | buffering(access_flags), nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    ox_set_errno();
    return -1;
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), descriptor_flags);
  if (fd < 0) {
    CloseHandle(handle); /* the runtime has no descriptor left and has set errno */
  }
  return fd;
}

/* Whether the runtime would wrap the handle in a descriptor. */
bool is_open_handle(HANDLE handle) {
  SetLastError(ERROR_SUCCESS);
  return GetFileType(handle) != FILE_TYPE_UNKNOWN || GetLastError() == ERROR_SUCCESS;
}

DWORD at_most_dword(size_t count) {
  return static_cast<DWORD>(std::min<size_t>(count, UINT32_MAX));
}

/* One ReadFile or WriteFile at `offset`; the offset travels in the overlapped record. */
template <typename Call, typename Buffer>
ox_s64 transfer(Call call, int fd, Buffer* buf, size_t count, ox_off offset) {
  HANDLE handle = ox_fd_handle(fd);
  if (handle == INVALID_HANDLE_VALUE) {
    return -1; /* errno stays as it was */
  }
  OVERLAPPED at = {};
  at.Offset = static_cast<DWORD>(offset & 0xffffffff);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD transferred = 0;
  if (!call(handle, buf, at_most_dword(count), &transferred, &at)) {
    ox_set_errno();
    return -1;
  }
  return transferred;
}

/* Does what ox_fd2path does, for a handle. `fd` is for the log line: -1 when there is none. */
int handle_path(HANDLE handle, int fd, char* buf, size_t size, const char* name) {
  const DWORD length = GetFinalPathNameByHandleA(handle, buf, at_most_dword(size), 0);
  if (length == 0 || length >= size) {
    if (length == 0) {
      ox_set_errno();
    } else {
      errno = OX_E2BIG; /* the system sets no error here; a name that does not fit gives the same */
    }
    OX_LOG(OX_ERROR_LEVEL, errno,
           "ox_fd2path: Failed to GetFinalPathNameByHandleA for fd %d fh %p sz %lu", fd, handle,
           static_cast<unsigned long>(size));
    return 0;
  }
  if (name == nullptr) {
    return 1;
  }
  if (length + strlen(name) + 2 > size) {
    errno = OX_E2BIG;
    return 0;
  }
  snprintf(buf + length, size - length, "\\%s", name);
  ox_unix2win_sep(buf);
  return 1;
}

}  // namespace

HANDLE ox_fd_handle(int fd) {
  const int saved_errno = errno;
  const BadDescriptorsAllowed guard;
  const intptr_t handle = _get_osfhandle(fd);
  errno = saved_errno;
  return reinterpret_cast<HANDLE>(handle);
}

void ox_set_errno(void) { errno = ox_winerr2errno(GetLastError()); }

int ox_creat(const char* path, ox_u32 flags, ox_u32 mode) {
  const bool writable = (mode & 0222) != 0;
  return open_descriptor(path, flags, ox_create_disposition(flags),
                         writable ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY,
                         descriptor_access(flags));
}

int ox_open(const char* path, ox_u32 flags) {
  const int fd =
      open_descriptor(path, flags, OPEN_EXISTING, FILE_ATTRIBUTE_READONLY, static_cast<int>(flags));
  if (fd < 0) {
    OX_LOG(OX_ERROR_LEVEL, errno, "ox_open: Cannot open file %s", path);
  }
  return fd;
}

int ox_open_directory(const char* path, ox_u32 flags) {
  return open_descriptor(path, flags, ox_create_disposition(flags), FILE_FLAG_BACKUP_SEMANTICS,
                         descriptor_access(flags));
}

int ox_close(int fd) {
  const BadDescriptorsAllowed guard;
  return _close(fd);
}

int ox_close_fhdl(ox_handle handle) {
  if (!is_open_handle(handle)) {
    errno = OX_EBADF;
    return -1;
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), 0);
  if (fd >= 0) {
    return ox_close(fd);
  }
  /* Every descriptor is taken. The handle is good all the same and must be closed. */
  if (CloseHandle(handle) == 0) {
    ox_set_errno();
    return -1;
  }
  return 0;
}

ox_off ox_lseek(int fd, ox_off offset, int whence) {
  static const DWORD METHODS[] = {FILE_BEGIN, FILE_CURRENT, FILE_END};
  if (whence < 0 || whence > 2) {
    return OX_EINVAL; /* callers compare the result with this number, and not with -1 */
  }
  LARGE_INTEGER distance;
  distance.QuadPart = offset;
  LARGE_INTEGER position;
  if (SetFilePointerEx(ox_fd_handle(fd), distance, &position, METHODS[whence]) == 0) {
    ox_set_errno();
    return -1;
  }
  return position.QuadPart;
}

int ox_ftruncate(int fd, ox_off length) {
  (void)ox_lseek(fd, length, 0); /* the position stays there; the next call fails if this one did */
  FILE_END_OF_FILE_INFO end;
  end.EndOfFile.QuadPart = length;
  if (SetFileInformationByHandle(ox_fd_handle(fd), FileEndOfFileInfo, &end, sizeof(end)) == 0) {
    ox_set_errno();
    OX_LOG(OX_ERROR_LEVEL, errno, "ox_ftruncate: Cannot truncate fd %d to %lld", fd,
           static_cast<long long>(length));
    return -1;
  }
  return 0;
}

ox_s64 ox_read(int fd, void* buf, size_t count) {
  DWORD transferred = 0;
  if (ReadFile(ox_fd_handle(fd), buf, at_most_dword(count), &transferred, nullptr) == 0) {
    ox_set_errno();
    return -1;
  }
  return transferred;
}

ox_s64 ox_pread(int fd, void* buf, size_t count, ox_off offset) {
  return transfer(ReadFile, fd, buf, count, offset);
}

ox_s64 ox_pwrite(int fd, const void* buf, size_t count, ox_off offset) {
  return transfer(WriteFile, fd, buf, count, offset);
}

int ox_fd2path(int fd, char* buf, size_t size, const char* name) {
  return handle_path(ox_fd_handle(fd), fd, buf, size, name);
}

/*
 * Asks the handle itself. A descriptor around it could only be closed together with the caller's
 * handle, and one descriptor for each call would use up the runtime's table. What the runtime would
 * not wrap in a descriptor is refused without a log line.
 */
int ox_handle2path(ox_handle handle, char* buf, size_t size, const char* name) {
  if (!is_open_handle(handle)) {
    errno = OX_EBADF;
  } else if (handle_path(handle, -1, buf, size, name) != 0) {
    return 1;
  }
  if (size > 0) {
    buf[0] = '\0';
  }
  return 0;
}

int ox_get_max_openfiles(void) { return _getmaxstdio(); }
