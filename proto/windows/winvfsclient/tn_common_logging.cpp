#include "ox_time.h"
#include "ox_util.h"
#include "tnv_log.h"

namespace {

int append_alert(char* lbuf, int* capacity, const ox_alert_t* alert) {
  return ox_append(lbuf, capacity,
                   "\"alert_level\":%d, \"alert_reason\":\"%s\", \"alert_ticket\":%s, ",
                   alert->al_level, alert->al_reason, alert->al_ticket ? "true" : "false");
}

}  // namespace

int tn_common_log_prefix(char* lbuf, int* capacity, const char* file, const char* level, int line,
                         int err, const ox_alert_t* alert) {
  struct tm local = {};
  const long msecs = ox_local_time(&local);
  char now[OX_TIME_TEXT_SIZE];
  ox_time_text(&local, now);

  int written = ox_append(lbuf, capacity,
                          "\"asctime\":\"%s.%3.03ld\", \"level\":\"%s\", \"filename\":\"%s\", "
                          "\"line\":%d, ",
                          now, msecs, level, file, line);
  if (err != 0) {
    written += ox_append(lbuf + written, capacity, "\"errno\":%d, ", err);
  }
  if (alert != nullptr) {
    written += append_alert(lbuf + written, capacity, alert);
  }
  return written;
}
