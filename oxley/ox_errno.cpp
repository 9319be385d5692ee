/*
 * The error number that stands for a Windows error.
 */
#include "ox_errno.h"

int ox_winerr2errno(ox_u32 winerr) {
  switch (winerr) {
    case 2: /* ERROR_FILE_NOT_FOUND */
    case 3: /* ERROR_PATH_NOT_FOUND */
      return OX_ENOENT;
    case 183: /* ERROR_ALREADY_EXISTS */
      return OX_EEXIST;
    case 50: /* ERROR_NOT_SUPPORTED */
      return OX_EOPNOTSUPP;
    default:
      return static_cast<int>(winerr);
  }
}
