/*
 * tnw_create: opens or creates a file or folder.
 */
#include <iterator>

#include "ox_errno.h"
#include "ox_util.h"
#include "tnw_call.h"
#include "tnw_close.h"
#include "tnw_exchange.h"
#include "tnw_fdtable.h"
#include "tnw_file_context.h"
#include "tnw_local_file.h"
#include "tnw_msg.h"
#include "vfstnw_bmap.h"

namespace {

/* What the service gets for each disposition of the drive application: one of CreateFile. */
constexpr ox_u32 tnw_ntdisp_map[] = {
    CREATE_ALWAYS,     /* TNW_DISP_SUPERSEDE */
    OPEN_EXISTING,     /* TNW_DISP_OPEN */
    CREATE_NEW,        /* TNW_DISP_CREATE */
    OPEN_ALWAYS,       /* TNW_DISP_OPEN_IF */
    TRUNCATE_EXISTING, /* TNW_DISP_OVERWRITE */
    CREATE_ALWAYS,     /* TNW_DISP_OVERWRITE_IF */
};

/* The arguments of one open. */
struct OpenArgs {
  void* drvhdl;
  const char* path;
  ox_u32 accmode;
  ox_u32 shmode;
  ox_u32 win_disp; /* of CreateFile */
  ox_u32 flags;
  int origpid;
  const char* procname;
};

/* How an open ended. */
struct OpenOutcome {
  int code;          /* Windows code; 1326 for an answer that says "unauthorised" */
  DWORD last_error;  /* what the thread's last error becomes after a success */
  bool unauthorized; /* the answer said so, and the entry stays reserved */
};

OpenOutcome failed(int code) { return {code, 0, false}; }

tnv_msg* build_open_msg(const OpenArgs& args, const tnvfd* fde) {
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_OPEN, args.drvhdl, args.procname, {args.path});
  if (msg == nullptr) {
    return nullptr;
  }
  tnv_wopen_msg* open = &msg->u.wopen;
  open->wopen_newfd = fde->fdt_fd;
  open->wopen_pathlen = tnw_text_len(args.path) + 1; /* OPEN counts the NUL */
  open->wopen_origpid = args.origpid;
  open->wopen_shmode = args.shmode;
  open->wopen_accmode = args.accmode;
  open->wopen_cdisp = args.win_disp;
  open->wopen_flags = args.flags;
  open->wopen_clientid = GetCurrentProcessId();
  return msg;
}

bool is_granted(const tnv_resp* resp) {
  return resp->rhdr.rhdr_errno == 0 || resp->rhdr.rhdr_errno == TNV_OPEN_EXISTED;
}

/* The handle that a granted answer carries, or INVALID_HANDLE_VALUE. A folder has none. */
ox_handle carried_handle(const tnv_resp* resp) {
  const tnv_wopen_resp& open = resp->u.wopen;
  const bool none = open.wopen_resp_handle == 0 || open.wopen_resp_fso.fso_isdir != 0;
  return none ? INVALID_HANDLE_VALUE
              : reinterpret_cast<ox_handle>(static_cast<uintptr_t>(open.wopen_resp_handle));
}

/* Frees what an answer carried that says "unauthorised". */
void release_answer(tnvfd* fde, const tnv_resp* resp) {
  vfstnw_remove_bmaps(fde);
  if (is_granted(resp) && carried_handle(resp) != INVALID_HANDLE_VALUE) {
    CloseHandle(carried_handle(resp));
  }
}

void fill_entry(tnvfd* fde, const OpenArgs& args, const tnv_msg* msg, const tnv_resp* resp) {
  const tnv_wopen_resp& open = resp->u.wopen;
  fde->fdt_fso = open.wopen_resp_fso;
  fde->fdt_oaccmode = args.accmode;
  fde->fdt_oshmode = args.shmode;
  fde->fdt_oflags = args.flags;
  fde->fdt_opid = args.origpid;
  ox_copy_field(fde->fdt_procname, sizeof fde->fdt_procname, args.procname);
  fde->fdt_msgid = msg->hdr.hdr_id; /* the send has made this id */
  fde->fdt_stat = open.wopen_resp_stat;
  fde->fdt_tnflags |= static_cast<ox_u16>(open.wopen_resp_tnflags & (TNV_FL_NEWER | TNV_FL_MAPPED));
  tnw_take_local_file(fde, carried_handle(resp));
}

/*
 * Empties the local file of an entry that replaces or overwrites its file: 0, or the Windows error
 * after its line. Otherwise the file would keep its old end behind what is written now.
 */
int empty_where_due(const tnw_call& call, tnvfd* fde, const OpenArgs& args) {
  const bool due = args.win_disp == CREATE_ALWAYS && (args.accmode & TNW_ACC_ANY_WRITE) != 0;
  if (!due || fde->fdt_fso.fso_isdir != 0) {
    return 0;
  }
  const int code = static_cast<int>(tnw_empty_local_file(fde));
  if (code == 0) {
    return 0;
  }
  return TNW_REFUSE(code, call.vh, code, "Failed to empty the local file of fd %d", fde->fdt_fd);
}

/*
 * Sends the open and does what the answer says. An open that the service grants and that fails here
 * is closed at the service: it would stay in the way of others.
 */
OpenOutcome exchange_open(const tnw_call& call, tnvfd* fde, const OpenArgs& args, tnv_msg* msg) {
  tnv_resp resp;
  const bool granted = tnw_exchange(call.tni, tnw_sync_send_open_msg, msg, &resp, fde);
  if (tnw_answered_unauthorized(&call, &resp)) {
    release_answer(fde, &resp);
    return {ERROR_LOGON_FAILURE, 0, true};
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (!is_granted(&resp)) {
    TNW_ERROR(call.vh, static_cast<int>(err), "Server returned error for open msg.");
    if (granted) {
      fill_entry(fde, args, msg, &resp);
      tnw_take_back(call, fde, args.drvhdl);
    }
    return failed(static_cast<int>(unixerr2winerr(err)));
  }
  fill_entry(fde, args, msg, &resp);
  const int code = empty_where_due(call, fde, args);
  if (code != 0) {
    tnw_take_back(call, fde, args.drvhdl);
    return failed(code);
  }
  tnw_count_open(fde->fdt_fc, args.accmode);
  tnw_use_fd(&call.tni->tni_files, fde, args.drvhdl);
  return {0, err, false};
}

/* One open with a reserved entry whose context has been begun. */
OpenOutcome open_entry(const tnw_call& call, tnvfd* fde, const OpenArgs& args) {
  tnv_msg* msg = fde->fdt_fc != nullptr ? build_open_msg(args, fde) : nullptr;
  if (msg == nullptr) {
    return failed(tnw_refuse_no_memory(call));
  }
  const OpenOutcome outcome = exchange_open(call, fde, args, msg);
  ox_free_safe(msg);
  return outcome;
}

/* After an unauthorised answer the entry stays reserved, so that its descriptor is not used again.
 */
tnvfd* open_on_drive(const tnw_call& call, void** slot, const OpenArgs& args,
                     OpenOutcome* outcome) {
  int err = 0;
  tnvfd* fde = tnw_getfd(call.vh, &call.tni->tni_files, &err);
  if (fde == nullptr) {
    *outcome = failed(static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err))));
    return nullptr;
  }
  tnw_file_context* fc = tnw_begin_open(slot);
  fde->fdt_fc = fc;
  *outcome = open_entry(call, fde, args);
  if (outcome->code == 0) {
    return fde;
  }
  if (outcome->unauthorized) {
    tnw_keep_context(fc);
    return nullptr;
  }
  if (fc != nullptr) {
    tnw_drop_open(slot, fc);
  }
  tnw_putfd(call.vh, &call.tni->tni_files, fde);
  return nullptr;
}

}  // namespace

void* tnw_create(void* drvhdl, void** fc, const char* path, ox_u32 accmode, ox_u32 shmode,
                 ox_u32 cdisp, ox_u32 flags, int origpid, const char* in_procname, int* err) {
  void* own_slot = nullptr; /* for a caller without a slot */
  tnw_call call;
  tnvfd* fde = nullptr;
  OpenOutcome outcome = failed(tnw_enter_path_call(drvhdl, path, TNW_REFUSE_NO_PATH, &call));
  if (outcome.code == 0 && cdisp >= std::size(tnw_ntdisp_map)) {
    outcome.code = TNW_REFUSE(ERROR_INVALID_PARAMETER, call.vh, OX_EINVAL,
                              "Invalid create disposition %u", cdisp);
  }
  if (outcome.code == 0) {
    const OpenArgs args = {drvhdl, path,    accmode,    shmode, tnw_ntdisp_map[cdisp],
                           flags,  origpid, in_procname};
    fde = open_on_drive(call, fc != nullptr ? fc : &own_slot, args, &outcome);
  }
  if (err != nullptr) {
    *err = outcome.code;
  }
  if (fde == nullptr) {
    ox_free_safe(own_slot); /* what an unauthorised open keeps for a caller with a slot */
  } else {
    SetLastError(outcome.last_error); /* at the very end, for any call may change it */
  }
  return fde;
}
