/*
 * What the descriptor calls decide without asking the system.
 */
#include "ox_platform.h"

ox_u32 ox_create_disposition(ox_u32 flags) {
  enum : ox_u32 {
    create_new = 1,
    create_always = 2,
    open_existing = 3,
    open_always = 4,
    truncate_existing = 5
  };
  const bool create = (flags & OX_O_CREAT) != 0;
  const bool truncate = (flags & OX_O_TRUNC) != 0;
  const bool writes = (flags & (OX_O_WRONLY | OX_O_RDWR)) != 0;
  if (create && truncate) {
    return create_always;
  }
  if (!writes) {
    /* Deliberately CREATE_NEW: a read-only open that would create fails when the file exists. */
    return create ? create_new : open_existing;
  }
  if (create) {
    return open_always;
  }
  return truncate ? truncate_existing : open_existing;
}
