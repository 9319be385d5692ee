#include "ox_errno.h"
#include "ox_logging.h"
#include "tn_util.h"

namespace {

/*
 * Windows error codes. They are declared here because the module is also built where there is no
 * Windows header.
 */
enum : ox_u32 {
  WIN_SUCCESS = 0,
  WIN_FILE_NOT_FOUND = 2,
  WIN_ACCESS_DENIED = 5,
  WIN_NOT_ENOUGH_MEMORY = 8,
  WIN_INVALID_DATA = 13,
  WIN_SHARING_VIOLATION = 32,
  WIN_FILE_EXISTS = 80,
  WIN_BROKEN_PIPE = 109,
  WIN_DISK_FULL = 112,
  WIN_DIR_NOT_EMPTY = 145,
  WIN_BUSY = 170,
  WIN_DIRECTORY = 267,
  WIN_IO_DEVICE = 1117
};

struct Translation {
  ox_u32 from;
  ox_u32 to;
};

/* This is not the inverse of the table below: 5 comes in as EACCES, and EACCES goes out as 32. */
constexpr Translation UNIX_TO_WINDOWS[] = {
    {0, WIN_SUCCESS},
    {OX_EPERM, WIN_ACCESS_DENIED},
    {OX_ENOENT, WIN_FILE_NOT_FOUND},
    {OX_EIO, WIN_IO_DEVICE},
    {OX_ENOMEM, WIN_NOT_ENOUGH_MEMORY},
    {OX_EACCES, WIN_SHARING_VIOLATION}, /* the service means that the file is in use */
    {OX_EBUSY, WIN_BUSY},
    {OX_EEXIST, WIN_FILE_EXISTS},
    {OX_ENOTDIR, WIN_DIRECTORY},
    {OX_EINVAL, WIN_INVALID_DATA},
    {OX_ENOSPC, WIN_DISK_FULL},
    {OX_EPIPE, WIN_BROKEN_PIPE},
    {OX_ENOTEMPTY, WIN_DIR_NOT_EMPTY},
    {OX_EOWNERDEAD, TNW_ERROR_NO_SERVICE},
};

constexpr Translation WINDOWS_TO_UNIX[] = {
    {WIN_SUCCESS, 0},
    {WIN_FILE_NOT_FOUND, OX_ENOENT},
    {WIN_ACCESS_DENIED, OX_EACCES},
    {WIN_NOT_ENOUGH_MEMORY, OX_ENOMEM},
    {WIN_INVALID_DATA, OX_EINVAL},
    {WIN_FILE_EXISTS, OX_EEXIST},
    {WIN_DISK_FULL, OX_ENOSPC},
    {WIN_IO_DEVICE, OX_EIO},
};

}  // namespace

ox_u32 unixerr2winerr(ox_u32 err) {
  for (const Translation& t : UNIX_TO_WINDOWS) {
    if (t.from == err) {
      return t.to;
    }
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Unidentified unix error %d", static_cast<int>(err));
  return err;
}

ox_u32 winerr2unixerr(ox_u32 code) {
  for (const Translation& t : WINDOWS_TO_UNIX) {
    if (t.from == code) {
      return t.to;
    }
  }
  OX_LOG(OX_INFO_LEVEL, 0, "Unidentified windows error %d", static_cast<int>(code));
  return OX_EINVAL;
}
