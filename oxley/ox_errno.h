/**
 * @file
 * @ingroup portability
 * Error numbers that travel on the socket, are compared or are returned by this library.
 *
 * They are the numbers of the Windows C runtime. Hosts differ (a Unix host gives ENOTEMPTY as 39
 * and has no 133 of this meaning), so code that reads or writes a travelling number uses these
 * names and never the host's <errno.h>.
 */
#ifndef OX_ERRNO_H
#define OX_ERRNO_H

#include "ox_types.h"

enum {
  OX_EPERM = 1,
  OX_ENOENT = 2,
  OX_EIO = 5,
  OX_E2BIG = 7,
  OX_EBADF = 9,
  OX_EAGAIN = 11,
  OX_ENOMEM = 12,
  OX_EACCES = 13,
  OX_EBUSY = 16,
  OX_EEXIST = 17,
  OX_EXDEV = 18,
  OX_ENOTDIR = 20,
  OX_EISDIR = 21,
  OX_EINVAL = 22,
  OX_EMFILE = 24,
  OX_ENOTTY = 25,
  OX_EFBIG = 27,
  OX_ENOSPC = 28,
  OX_EPIPE = 32,
  OX_ENAMETOOLONG = 38,
  OX_ENOSYS = 40,
  OX_ENOTEMPTY = 41,
  OX_ECONNRESET = 108,
  OX_EOPNOTSUPP = 130,
  OX_EOWNERDEAD = 133 /**< the connection to the cache service is broken */
};

OX_BEGIN_DECLS

/**
 * The error number for a Windows error: 2 for 2 and 3, 17 for 183, 130 for 50; every other code is
 * its own number. Not exported from the DLL.
 */
int ox_winerr2errno(ox_u32 winerr);

OX_END_DECLS

#endif
