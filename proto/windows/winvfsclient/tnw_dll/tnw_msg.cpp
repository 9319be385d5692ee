#include "tnw_msg.h"

#include <atomic>
#include <climits>

#include "ox_util.h"
#include "ox_uuid.h"
#include "tnw_connect.h"
#include "tnw_instance.h"

void tnw_fill_header(tnv_msg* msg, vfs_op op, size_t len, const void* drvhdl,
                     const char* procname) {
  msg->hdr.hdr_opcode = op;
  msg->hdr.hdr_len = static_cast<ox_u32>(len);
  ox_copy_field(msg->hdr.hdr_procname, sizeof msg->hdr.hdr_procname, procname);
  if (drvhdl == nullptr) {
    return;
  }
  const tnw_drive_handle* dh = static_cast<const tnw_drive_handle*>(drvhdl);
  char drive_id[sizeof dh->tnw_drive_uuid + 1] = {};
  memcpy(drive_id, dh->tnw_drive_uuid, sizeof dh->tnw_drive_uuid);
  ox_uuid_parse(drive_id, msg->hdr.hdr_drvid.id);
}

tnv_msg* tnw_build_msg(vfs_op op, const void* drvhdl, const char* procname,
                       std::initializer_list<const char*> texts) {
  size_t len = TNV_MSG_FIXED;
  for (const char* text : texts) {
    len += strlen(text) + 1;
  }
  tnv_msg* msg = len <= INT_MAX ? tnw_alloc_msg(static_cast<int>(len)) : nullptr;
  if (msg == nullptr) {
    return nullptr;
  }
  tnw_fill_header(msg, op, len, drvhdl, procname);
  char* at = tnv_msg_payload(msg);
  for (const char* text : texts) {
    const size_t size = strlen(text) + 1;
    memcpy(at, text, size);
    at += size;
  }
  return msg;
}

void tnw_fill_close(tnv_msg* msg, vfs_op op, const tnvfd* fde) {
  char procname[sizeof fde->fdt_procname + 1] = {};
  memcpy(procname, fde->fdt_procname, sizeof fde->fdt_procname);
  memset(msg, 0, sizeof *msg);
  tnw_fill_header(msg, op, TNV_MSG_FIXED, fde->fdt_drv, procname);
  tnv_wclose_msg* close = &msg->u.wclose;
  if (op == TNV_OP_WIN_CLOSE) {
    close->wclose_id = fde->fdt_fso.fso_handle;
  }
  close->wclose_fd = fde->fdt_fd;
  close->wclose_origpid = fde->fdt_opid;
  close->wclose_fso = fde->fdt_fso;
  close->wclose_oamode = fde->fdt_oaccmode;
  close->wclose_oshmode = fde->fdt_oshmode;
  close->wclose_oflags = fde->fdt_oflags;
  close->wclose_tnflags = std::atomic_ref(const_cast<ox_u16&>(fde->fdt_tnflags)).load();
  close->wclose_omsgid = fde->fdt_msgid;
}
