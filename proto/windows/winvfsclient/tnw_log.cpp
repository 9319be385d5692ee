#include "tnw_log.h"

#include <atomic>
#include <cerrno>
#include <iterator>

#include "ox_log_object.h"
#include "ox_time.h"
#include "ox_util.h"
#include "tn_text.h"

namespace {

constexpr int PREFIX_SIZE = 2048;
thread_local char prefix[PREFIX_SIZE]; /* used by log lines and by the events below */

std::atomic<bool> saw_utxid = false;

/* Atomic: a worker may be at work on the connection. */
bool is_due(const vfs_handle* vh) {
  return std::atomic_ref(const_cast<bool&>(vh->vfs_had_utxid)).load(std::memory_order_relaxed);
}

ox_u64 response_time(const struct timespec* s_ts) {
  return s_ts->tv_sec != 0 ? ox_usecs_since(s_ts) : 0;
}

/* The ids that the argument object of every event shows. */
struct OpenIds {
  tn_id_text id;
  tn_id_text eid;
  explicit OpenIds(const tnvfd* fde) : id(fde->fdt_fso.fso_handle), eid(fde->fdt_fso.fso_version) {}
};

/* The event of a read or a write. */
void log_transfer(vfs_handle* vh, const char* vfs_event, const tnvfd* fde, ox_off off, size_t size,
                  ox_s64 retval, const struct timespec* s_ts) {
  if (!is_due(vh)) {
    return;
  }
  const OpenIds ids(fde);
  const char* args = tnv_event_args(
      "\"vfs_args\":{\"fd\":%d, \"id\":\"%s\", \"eid\":\"%s\", \"offset\":%lli, \"size\":%zu}",
      fde->fdt_fd, ids.id.text, ids.eid.text, static_cast<long long>(off), size);
  tnw_log_client_response(vh, vfs_event, args, retval, &fde->fdt_fso, s_ts);
}

}  // namespace

const char* tnw_log_prefix(vfs_handle* vh, const char* file, const char* level, int line, int err,
                           const ox_alert_t* alert) {
  int left = PREFIX_SIZE;
  char* end = prefix;
  end += tn_common_log_prefix(end, &left, file, level, line, err, alert);
  if (vh != nullptr) {
    end += tnv_log_prefix(vh, &left, end);
  }
  ox_append(end, &left, "\"message\":");
  return prefix;
}

void tnw_note_utxid(vfs_handle* vh, ox_u64 utxid) {
  vh->vfs_utxid = utxid;
  std::atomic_ref(vh->vfs_had_utxid).store(utxid != 0, std::memory_order_relaxed);
  if (utxid != 0) {
    saw_utxid.store(true, std::memory_order_relaxed);
  }
}

bool tnw_saw_utxid(void) { return saw_utxid.load(std::memory_order_relaxed); }

void tnw_log_response(vfs_handle* vh, const char* vfs_event, const char* args, ox_s64 retval,
                      const tnvfso* fso, const struct timespec* s_ts, const char* file, int line) {
  const int err = retval < 0 ? errno : 0;
  if (!is_due(vh)) {
    return;
  }
  int left = PREFIX_SIZE;
  char* end = prefix;
  end += tn_common_log_prefix(end, &left, file, ox_msg_type[OX_DEBUG_LEVEL], line, 0, nullptr);
  end += tnv_log_prefix(vh, &left, end);
  end += ox_append(end, &left,
                   "\"vfs_response_time\":%llu, \"vfs_event_name\":\"%s\", \"retval\":%llu, "
                   "\"vfs_errno\":%d",
                   tn_llu(response_time(s_ts)), vfs_event, tn_llu(retval), err);
  if (fso != nullptr) {
    ox_append(end, &left, ", %s", tnv_fso2json(fso));
  }
  const char* const texts[] = {prefix, args};
  ox_log_object(texts, std::size(texts));
}

void tnw_log_read_client_resp(vfs_handle* vh, const tnvfd* fde, ox_off off, size_t size,
                              ox_s64 retval, const struct timespec* s_ts) {
  log_transfer(vh, "TNV_OP_WIN_READ", fde, off, size, retval, s_ts);
}

void tnw_log_write_client_resp(vfs_handle* vh, const tnvfd* fde, ox_off off, size_t size,
                               ox_s64 retval, const struct timespec* s_ts) {
  log_transfer(vh, "TNV_OP_WIN_WRITE", fde, off, size, retval, s_ts);
}

void tnw_log_folderempty_client_resp(vfs_handle* vh, const tnvfd* fde, bool isempty, ox_s64 retval,
                                     const struct timespec* s_ts) {
  if (!is_due(vh)) {
    return;
  }
  const OpenIds ids(fde);
  const char* args =
      tnv_event_args("\"vfs_args\":{\"fd\":%d, \"id\":\"%s\", \"eid\":\"%s\",\"isempty\":%d}",
                     fde->fdt_fd, ids.id.text, ids.eid.text, static_cast<int>(isempty));
  tnw_log_client_response(vh, "TNV_OP_WIN_FOLDEREMPTY", args, retval, &fde->fdt_fso, s_ts);
}

void tnw_log_findnext_client_resp(vfs_handle* vh, const tnvfd* fde, ox_s64 retval,
                                  const struct timespec* s_ts) {
  if (!is_due(vh)) {
    return;
  }
  const OpenIds ids(fde);
  const char* args = tnv_event_args("\"vfs_args\":{\"fd\":%d, \"id\":\"%s\", \"eid\":\"%s\"}",
                                    fde->fdt_fd, ids.id.text, ids.eid.text);
  tnw_log_client_response(vh, "TNV_OP_WIN_FINDNEXT", args, retval, &fde->fdt_fso, s_ts);
}

void tnw_log_setfsize_client_resp(vfs_handle* vh, const tnvfd* fde, ox_u64 size, ox_s64 retval,
                                  const struct timespec* s_ts) {
  if (!is_due(vh)) {
    return;
  }
  const OpenIds ids(fde);
  const char* args =
      tnv_event_args("\"vfs_args\":{\"fd\":%d, \"id\":\"%s\", \"eid\":\"%s\",\"size\":%llu}",
                     fde->fdt_fd, ids.id.text, ids.eid.text, tn_llu(size));
  tnw_log_client_response(vh, "TNV_OP_WIN_SETFSIZE", args, retval, &fde->fdt_fso, s_ts);
}
