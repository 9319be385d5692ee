#include "tnw_connect.h"

#include <windows.h>

#include <cerrno>
#include <cstring>

#include "ox_errno.h"
#include "ox_time.h"
#include "ox_util.h"
#include "ox_uuid.h"
#include "tn_text.h"
#include "tnv_connio_win.h"
#include "tnw_log.h"

namespace {

constexpr int HOSTNAME_SIZE = 16;
static_assert(HOSTNAME_SIZE == MAX_COMPUTERNAME_LENGTH + 1);

/* Every failed exchange gives 133, also in errno. Logging may change errno: this comes behind it.
 */
int broken() {
  errno = OX_EOWNERDEAD;
  return OX_EOWNERDEAD;
}

/*
 * How much of an answer may be received together with its header, which saves a call. Where maps or
 * a listing may follow the payload, nothing: they go elsewhere.
 */
size_t payload_room(const tnv_msg* msg) {
  const ox_u32 operation = msg->hdr.hdr_opcode;
  const bool more_follows = operation == TNV_OP_WIN_OPEN || operation == TNV_OP_WIN_DENUM;
  return more_follows ? 0 : TNV_RESP_MAX_PAYLOAD;
}

/*
 * Receives what is missing of the payload, of which `had` bytes came with the header. `errp` is the
 * error for the log.
 */
bool recv_payload(vfs_handle* vh, tnv_resp* resp, size_t had, int* errp) {
  const size_t size = resp->rhdr.rhdr_len;
  if (size > TNV_RESP_MAX_PAYLOAD || had > size) {
    *errp = OX_EFBIG;
    tnv_conn_break(vh);
    return false;
  }
  if (had > 0) {
    tnv_debug_dump_msg(reinterpret_cast<char*>(resp->u.bytes), static_cast<int>(had));
  }
  *errp = tnv_conn_recv(vh, resp->u.bytes + had, size - had);
  return *errp == 0;
}

/* ------------------------------------------------------------------- CONNECT */

/* What a connection is bound to. All of it is known before the connect. */
struct Binding {
  const char* domain;
  const char* user;
  const char* cachedir;
  const char* sharepath;
  const char* devid;
  const char* drive_id;
};

vfs_handle fresh_record(const Binding& to, const char* hostname, void* watch) {
  vfs_handle fresh = {};
  fresh.vfs_fd = -1;
  fresh.vfs_private = watch;
  ox_copy_field(fresh.vfs_rhost, sizeof(fresh.vfs_rhost), hostname);
  ox_copy_field(fresh.vfs_cache_dir, sizeof(fresh.vfs_cache_dir), to.cachedir);
  ox_copy_field(fresh.vfs_user, sizeof(fresh.vfs_user), to.user);
  ox_copy_field(fresh.vfs_domain, sizeof(fresh.vfs_domain), to.domain);
  ox_copy_field(fresh.vfs_da_devid, sizeof(fresh.vfs_da_devid), to.devid);
  return fresh;
}

/*
 * Makes `vh` a fresh record with its own copy of the share path: 0 or 12. What the record of an
 * earlier connection holds is given back.
 */
int renew_record(vfs_handle* vh, const Binding& to, const char* hostname) {
  tnv_conn_break(vh);
  ox_free_safe(vh->vfs_share_path);
  *vh = fresh_record(to, hostname, vh->vfs_private);
  ox_clock_gettime(0, &vh->vfs_curmsg_ts);

  const size_t size = strlen(to.sharepath) + 1;
  vh->vfs_share_path = static_cast<char*>(ox_zalloc(size));
  if (vh->vfs_share_path == nullptr) {
    return OX_ENOMEM;
  }
  memcpy(vh->vfs_share_path, to.sharepath, size);
  return 0;
}

void fill_connect(tnv_msg* msg, const vfs_handle* vh, const Binding& to) {
  const size_t share_len = strlen(to.sharepath) + 1;
  tnv_wconn_msg& conn = msg->u.wconn;
  conn.wconmsg_share_path_len = static_cast<ox_s32>(share_len);
  conn.wconmsg_pid = GetCurrentThreadId(); /* the service wants the thread, in spite of the name */
  ox_uuid_parse(to.drive_id, msg->hdr.hdr_drvid.id);
  ox_copy_field(conn.wconmsg_devid, sizeof(conn.wconmsg_devid), to.devid);
  ox_copy_field(conn.wconmsg_rhost, sizeof(conn.wconmsg_rhost), vh->vfs_rhost);
  ox_copy_field(conn.wconmsg_cache_dir, sizeof(conn.wconmsg_cache_dir), to.cachedir);
  ox_copy_field(conn.wconmsg_user, sizeof(conn.wconmsg_user), to.user);
  msg->hdr.hdr_opcode = TNV_OP_WIN_CONNECT;
  msg->hdr.hdr_len = static_cast<ox_u32>(TNV_MSG_FIXED + share_len);
  memcpy(tnv_msg_payload(msg), to.sharepath, share_len);
}

/* Exchanges CONNECT and keeps what the answer says: 0, 133 or the service's error number. */
int handshake(vfs_handle* vh, tnv_msg* msg) {
  tnv_resp resp;
  int err = tnw_sync_send_msg(vh, msg, &resp);
  if (err == 0) {
    err = static_cast<int>(resp.rhdr.rhdr_errno);
  }
  if (err != 0) {
    return TNW_REFUSE(err, vh, err, "Could not Connect to Tarn.");
  }

  const tnv_conn_resp& conn = resp.u.conn;
  vh->vfs_peer_handle = reinterpret_cast<void*>(conn.conresp_shandle);
  vh->vfs_peer_tid = conn.conresp_stid;
  vh->vfs_share_fid = conn.connresp_sfid;
  TNW_DEBUG(vh, 2, "Connected to tarn server");
  return 0;
}

int connect_with(vfs_handle* vh, tnv_msg* msg, const Binding& to, const char* hostname,
                 const char* sock) {
  int err = renew_record(vh, to, hostname);
  if (err == 0) {
    err = tnw_setup_socket(vh, sock);
  }
  if (err != 0) {
    return err;
  }
  TNW_DEBUG(vh, 2, "Socket Connected...");
  fill_connect(msg, vh, to);
  return handshake(vh, msg);
}

}  // namespace

/* ------------------------------------------------------------------- the exchange */

tnv_msg* tnw_alloc_msg(int size) {
  return size < 0 ? nullptr : static_cast<tnv_msg*>(ox_zalloc(static_cast<size_t>(size)));
}

int tnw_send_msg(vfs_handle* vh, tnv_msg* msgp) {
  vh->vfs_utxid = 0;
  ox_uuid_generate(msgp->hdr.hdr_id.id);
  tnv_log_msg(vh, msgp);
  const int err = tnv_conn_send(vh, msgp, msgp->hdr.hdr_len);
  if (err == 0) {
    return 0;
  }
  TNW_ERROR(vh, err,
            "Could not send messages id %s, opcode %d, len %d. Requesting client to reinitialize.",
            tn_id_text(msgp->hdr.hdr_id).text, msgp->hdr.hdr_opcode, msgp->hdr.hdr_len);
  return broken();
}

int tnw_recv_response(vfs_handle* vh, const tnv_msg* msgp, tnv_resp* resp) {
  /* When a payload is shorter than its record, the rest of the record is zero. */
  *resp = {};
  resp->rhdr.rhdr_fd2xfer = -1;
  size_t had = payload_room(msgp);
  int err = tnv_conn_recv_next(vh, resp, sizeof resp->rhdr, &had);
  if (err != 0) {
    TNW_ERROR(vh, err,
              "Could not receive response header for message id %s, opcode %d, len %d. Requesting "
              "client to reinitialize.",
              tn_id_text(msgp->hdr.hdr_id).text, msgp->hdr.hdr_opcode, msgp->hdr.hdr_len);
  } else if (!recv_payload(vh, resp, had, &err)) {
    TNW_ERROR(vh, err, "Could not receive response payload. Requesting client to reinitialize.");
  }
  if (err != 0) {
    *resp = {}; /* the caller never sees half an answer */
    return broken();
  }

  tnw_note_utxid(vh, resp->rhdr.rhdr_utxid);
  resp->rhdr.rhdr_fd2xfer = -1;
  tnv_log_resp(vh, msgp, resp);
  return 0;
}

int tnw_sync_send_msg(vfs_handle* vh, tnv_msg* msg, tnv_resp* resp) {
  *resp = {};
  const int err = tnw_send_msg(vh, msg);
  return err != 0 ? err : tnw_recv_response(vh, msg, resp);
}

int tnw_vfs_connect(vfs_handle* vh, const char* domain, const char* user, const char* cachedir,
                    const char* sock, const char* sharepath, const char* devid,
                    const char* drive_id) {
  char hostname[HOSTNAME_SIZE];
  DWORD hostname_size = HOSTNAME_SIZE;
  if (GetComputerNameA(hostname, &hostname_size) == 0) {
    const int err = static_cast<int>(GetLastError());
    return TNW_REFUSE(err, vh, err, "Error getting hostname");
  }
  TNW_DEBUG(vh, 2, "Processing connect request for user %s.", user);

  tnv_msg* msg = tnw_alloc_msg(TNV_MSG_FIXED + static_cast<int>(strlen(sharepath)) + 1);
  if (msg == nullptr) {
    return TNW_REFUSE(OX_ENOMEM, vh, OX_ENOMEM, "Failed to allocate memory to message structure.");
  }
  const Binding to = {domain, user, cachedir, sharepath, devid, drive_id};
  const int err = connect_with(vh, msg, to, hostname, sock);
  ox_free_safe(msg);
  return err;
}
