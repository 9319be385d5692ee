#include "tnw_log.h"

#include <cstdio>

namespace {
constexpr int PREFIX_SIZE = 2048;
}

const char* tnw_log_prefix(vfs_handle* vh, const char* file, const char* level, int line, int err,
                           const ox_alert_t* alert) {
  thread_local char prefix[PREFIX_SIZE];
  int capacity = PREFIX_SIZE;
  char* end = prefix;
  end += tn_common_log_prefix(end, &capacity, file, level, line, err, alert);
  if (vh != nullptr) end += tnv_log_prefix(vh, &capacity, end);
  snprintf(end, static_cast<size_t>(capacity), "\"message\":");
  return prefix;
}
