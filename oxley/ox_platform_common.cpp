/*
 * What the descriptor calls decide without asking the system.
 */
#include "ox_platform.h"

ox_u32 ox_create_disposition(ox_u32 flags) {
  enum : ox_u32 {
    CREATE_NEW = 1,
    CREATE_ALWAYS = 2,
    OPEN_EXISTING = 3,
    OPEN_ALWAYS = 4,
    TRUNCATE_EXISTING = 5
  };
  const bool create = (flags & OX_O_CREAT) != 0;
  const bool truncate = (flags & OX_O_TRUNC) != 0;
  const bool writes = (flags & (OX_O_WRONLY | OX_O_RDWR)) != 0;
  if (create && truncate) {
    return CREATE_ALWAYS;
  }
  if (!writes) {
    /* A read-only open with the create flag makes a new file or fails, as ox_platform.h says. */
    return create ? CREATE_NEW : OPEN_EXISTING;
  }
  if (create) {
    return OPEN_ALWAYS;
  }
  return truncate ? TRUNCATE_EXISTING : OPEN_EXISTING;
}
