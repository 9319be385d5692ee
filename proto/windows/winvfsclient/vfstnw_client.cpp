#include "vfstnw_client.h"

#include <cerrno>

#include "ox_errno.h"
#include "ox_time.h"
#include "tnw_connect.h"
#include "tnw_log.h"

namespace {

/* Exchanges a request that is all header. */
int exchange_empty(vfs_handle* vh, vfs_op opcode, tnv_resp* resp) {
  tnv_msg msg = {};
  ox_clock_gettime(0, &vh->vfs_curmsg_ts);
  msg.hdr.hdr_opcode = opcode;
  msg.hdr.hdr_len = TNV_MSG_FIXED;
  return tnw_sync_send_msg(vh, &msg, resp);
}

}  // namespace

int vfstnw_get_version(vfs_handle* vh, ox_get_version_t* vinfo) {
  tnv_resp resp;
  int err = exchange_empty(vh, TNV_OP_GET_VERSION, &resp);
  if (err != 0) {
    return err;
  }
  err = static_cast<int>(resp.rhdr.rhdr_errno);
  if (err != 0) {
    return TNW_REFUSE(err, vh, err, "get_version failed");
  }
  *vinfo = resp.u.get_version.ver_fields;
  return 0;
}

int vfstnw_shutdown(vfs_handle* vh) {
  tnv_resp resp;
  if (exchange_empty(vh, TNV_OP_SHUTDOWN, &resp) != 0) {
    errno = OX_EIO;
    return -1;
  }
  const int err = static_cast<int>(resp.rhdr.rhdr_errno);
  if (err != 0) {
    return TNW_REFUSE(err, vh, err, "shutdown failed");
  }
  return 0;
}
