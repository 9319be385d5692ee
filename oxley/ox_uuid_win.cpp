/*
 * New UUIDs.
 */
#include <windows.h>

#include <rpc.h>

#include <cstring>

#include "ox_uuid.h"

void ox_uuid_generate(ox_u8* id) {
  UUID made = {};
  /* Random UUIDs always succeed. The call's one failure is a machine without a network address, on
   * which UUIDs of another version depend. */
  (void)UuidCreate(&made);
  static_assert(sizeof(made) == OX_UUID_SIZE);
  memcpy(id, &made, sizeof(made));
}
