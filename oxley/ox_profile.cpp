/*
 * The profiling level: from 3 on the locks measure how long they are waited for and held.
 */
#include <atomic>

#include "ox_logging.h"

ox_s32 ox_prof_level = 0;

void ox_set_profile_level(ox_s32 level) {
  std::atomic_ref<ox_s32>(ox_prof_level).store(level, std::memory_order_relaxed);
  OX_LOG_AT("ox_profile", 10, OX_INFO_LEVEL, 0, "oxley profile level set to %d", level);
}
