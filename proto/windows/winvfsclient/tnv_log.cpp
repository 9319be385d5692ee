#include "tnv_log.h"

#include <cstdarg>
#include <cstdio>
#include <iterator>

#include "ox_assert.h"
#include "ox_log_object.h"
#include "ox_time.h"
#include "ox_util.h"
#include "tn_text.h"

namespace {

constexpr int EVENT_SIZE = 1024;
constexpr size_t ARGS_SIZE = 5512;
constexpr size_t JSON_SIZE = 512;

const tnv_op_trace* trace_of(ox_u32 opcode) {
  return opcode < TNV_OP_MAX ? &tnv_op_traces[opcode] : nullptr;
}

void log_resp_hdr(const tnv_resphdr& hdr) {
  if (ox_debug < 3) {
    return;
  }
  OX_LOG(OX_DEBUG_LEVEL, 0, "id %s, opcode %d, len %d, errno %d", tn_id_text(hdr.rhdr_id).text,
         static_cast<int>(hdr.rhdr_opcode), static_cast<int>(hdr.rhdr_len),
         static_cast<int>(hdr.rhdr_errno));
}

/* An event line without its objects. */
const char* event_text(vfs_handle* vh, const tnv_msg* msgp, const tnv_resp* resp,
                       const char* event_name, const char* file, int line) {
  thread_local char event[EVENT_SIZE];
  int left = EVENT_SIZE;
  char* end = event;
  end += tn_common_log_prefix(end, &left, file, ox_msg_type[OX_DEBUG_LEVEL], line, 0, nullptr);
  end += tnv_log_prefix(vh, &left, end);
  end += tnv_log_msg_hdr(&msgp->hdr, &left, end);
  end += ox_append(end, &left, "\"vfs_response_time\":%llu, \"utxid\":%llu, ",
                   tn_llu(ox_usecs_since(&vh->vfs_curmsg_ts)), tn_llu(vh->vfs_utxid));
  end += ox_append(end, &left, "\"vfs_event_name\":\"%s\", ", event_name);
  if (resp != nullptr) {
    ox_append(end, &left, "\"vfs_errno\":%d", static_cast<int>(resp->rhdr.rhdr_errno));
  }
  return event;
}

}  // namespace

int tnv_log_prefix(vfs_handle* vh, int* capacity, char* lbuf) {
  int written = ox_append(lbuf, capacity,
                          "\"vfs_server_handle\":\"%p\", \"vfs_socket_fd\":%llu, "
                          "\"remote_host\":\"%.*s\", \"vfs_user\":\"%.*s\", ",
                          static_cast<void*>(vh), tn_llu(vh->vfs_fd), TN_FIELD(vh->vfs_rhost),
                          TN_FIELD(vh->vfs_user));
  written += ox_append(lbuf + written, capacity, "\"vfs_share_path\":\"%s\", ",
                       vh->vfs_share_path != nullptr ? vh->vfs_share_path : "(null)");
  /* The number behind the 0x is decimal. Programs that read the log expect it so. */
  written += ox_append(lbuf + written, capacity,
                       "\"vfs_peer_handle\":\"%p\", \"vfs_peer_thread\":\"0x%llu\", "
                       "\"vfs_da_device_id\":\"%.*s\", ",
                       vh->vfs_peer_handle, tn_llu(vh->vfs_peer_tid), TN_FIELD(vh->vfs_da_devid));
  return written;
}

int tnv_log_msg_hdr(const tnv_msghdr* hdr, int* capacity, char* lbuf) {
  int written = ox_append(lbuf, capacity, "\"vfs_msg_id\":\"%s\", ", tn_id_text(hdr->hdr_id).text);
  if (hdr->hdr_opcode != TNV_OP_WIN_SETPROXY) {
    written +=
        ox_append(lbuf + written, capacity, "\"vfs_drive_id\":\"%s\", \"vfs_proc_name\":\"%.*s\", ",
                  tn_id_text(hdr->hdr_drvid).text, TN_FIELD(hdr->hdr_procname));
  }
  return written;
}

void tnv_log_msg(vfs_handle* vh, const tnv_msg* msg) {
  if (ox_debug < 2) {
    return;
  }
  const tnv_op_trace* trace = trace_of(msg->hdr.hdr_opcode);
  if (trace != nullptr && trace->request != nullptr) {
    trace->request(vh, msg);
  }
}

void tnv_log_resp(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp) {
  log_resp_hdr(resp->rhdr);
  if (vh->vfs_utxid == 0) {
    return; /* no event is due, so nothing is formatted */
  }
  const tnv_op_trace* trace = trace_of(resp->rhdr.rhdr_opcode);
  if (trace != nullptr && trace->response != nullptr) {
    trace->response(vh, msg, resp);
  }
}

void tnv_log_vfs_event(vfs_handle* vh, const tnv_msg* msgp, const tnv_resp* resp, const tnvfso* fso,
                       const ox_statx_t* st, const tnw_fileinfo* finfo, const char* event_name,
                       const char* args, const char* file, int line) {
  if (vh->vfs_utxid == 0) {
    return;
  }
  if (st != nullptr) {
    tnv_st2json(st);
  }
  const char* const texts[] = {event_text(vh, msgp, resp, event_name, file, line), args,
                               fso != nullptr ? tnv_fso2json(fso) : nullptr,
                               finfo != nullptr ? tnv_finfo2json(finfo) : nullptr};
  ox_log_object(texts, std::size(texts));
}

const char* tnv_fso2json(const tnvfso* fso) {
  thread_local char json[JSON_SIZE];
  snprintf(json, sizeof(json),
           "\"fso\":{\"id\":\"%s\", \"pfid\":\"%s\", \"eid\":\"%s\", \"peid\": \"%s\", "
           "\"fsostate\":%d, \"pfsostate\":%d, \"isdir\":%d, \"fsoseqno\":%llu}",
           tn_id_text(fso->fso_handle).text, tn_id_text(fso->fso_phandle).text,
           tn_id_text(fso->fso_version).text, tn_id_text(fso->fso_pversion).text,
           static_cast<int>(fso->fso_state), static_cast<int>(fso->fso_pstate),
           static_cast<int>(fso->fso_isdir), tn_llu(fso->fso_seqno));
  return json;
}

const char* tnv_finfo2json(const tnw_fileinfo* finfo) {
  thread_local char json[JSON_SIZE];
  snprintf(json, sizeof(json),
           "\"finfo\":{\"fi_attr\":\"0x%x\", \"fi_ctime\":%llu, \"fi_mtime\":%llu, "
           "\"fi_atime\":%llu, \"fi_size\":%llu, \"fi_locked\":%d, \"fi_ownid\":%llu, "
           "\"fi_owner\":\"%.*s\", \"fi_name\":\"%.*s\"}",
           finfo->fi_attr, tn_llu(finfo->fi_ctime), tn_llu(finfo->fi_mtime),
           tn_llu(finfo->fi_atime), tn_llu(finfo->fi_size), finfo->fi_locked & 1,
           tn_llu(finfo->fi_lockowner.lk_uid), TN_FIELD(finfo->fi_lockowner.lk_uname),
           TN_FIELD(finfo->fi_name));
  return json;
}

const char* tnv_st2json(const ox_statx_t* /*st*/) {
  ox_assert_failed("((0))", __FILE_NAME__, __LINE__);
}

const char* tnv_event_args(const char* fmt, ...) {
  thread_local char args[ARGS_SIZE];
  va_list list;
  va_start(list, fmt);
  if (vsnprintf(args, sizeof(args), fmt, list) < 0) {
    args[0] = '\0';
  }
  va_end(list);
  return args;
}
