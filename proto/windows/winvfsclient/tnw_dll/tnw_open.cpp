/* tnw_create: opens or creates a file or folder. */

#include "tnw_open.h"

#include <fcntl.h>
#include <io.h>
#include <cerrno>
#include <cstring>

#include <iterator>

#include "ox_errno.h"
#include "ox_platform.h"
#include "ox_util.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_fdtable.h"
#include "tnw_msg.h"
#include "vfstnw_bmap.h"

ox_lock_t tnw_fc_lock;

namespace {

/* Native create disposition to the one of CreateFile. */
constexpr ox_u32 tnw_ntdisp_map[] = {
    CREATE_ALWAYS,     /* 0 supersede */
    OPEN_EXISTING,     /* 1 open */
    CREATE_NEW,        /* 2 create */
    OPEN_ALWAYS,       /* 3 open if */
    TRUNCATE_EXISTING, /* 4 overwrite */
    CREATE_ALWAYS,     /* 5 overwrite if */
};

/* The arguments of one open. */
struct open_args {
  void* drvhdl;
  const char* path;
  ox_u32 accmode;
  ox_u32 shmode;
  ox_u32 win_disp;
  ox_u32 flags;
  int origpid;
  const char* procname;
};

bool has_opens(const tnw_file_context* fc) {
  return fc->fc_rdcnt != 0 || fc->fc_wrcnt != 0 || fc->fc_prcnt != 0 || fc->fc_opening != 0;
}

/* The slot's context, made when the slot is empty, kept alive while this open is under way. */
tnw_file_context* hold_context(void** slot) {
  ox_lock(&tnw_fc_lock);
  if (*slot == nullptr) {
    *slot = ox_zalloc(sizeof(tnw_file_context));
  }
  tnw_file_context* fc = static_cast<tnw_file_context*>(*slot);
  if (fc != nullptr) {
    fc->fc_opening++;
  }
  ox_unlock(&tnw_fc_lock);
  return fc;
}

/*
 * A failed open lets go of the context: with no other open of the file, the slot is emptied again.
 */
void drop_context(void** slot, tnw_file_context* fc) {
  ox_lock(&tnw_fc_lock);
  fc->fc_opening--;
  if (!has_opens(fc) && !fc->fc_kept) {
    ox_free_safe(fc);
    *slot = nullptr;
  }
  ox_unlock(&tnw_fc_lock);
}

/* An open that was answered "unauthorised" leaves the context in the caller's slot. */
void keep_context(tnw_file_context* fc) {
  ox_lock(&tnw_fc_lock);
  fc->fc_opening--;
  fc->fc_kept = true;
  ox_unlock(&tnw_fc_lock);
}

ox_u32* counter(tnw_file_context* fc, ox_u32 accmode) {
  if ((accmode & TNW_ACC_ANY_WRITE) != 0) {
    return &fc->fc_wrcnt;
  }
  return (accmode & TNW_ACC_READ) != 0 ? &fc->fc_rdcnt : &fc->fc_prcnt;
}

tnv_msg* build_open_msg(const open_args& args, const tnvfd* fde) {
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_OPEN, args.drvhdl, args.procname, {args.path});
  if (msg == nullptr) {
    return nullptr;
  }
  tnv_wopen_msg* open = &msg->u.wopen;
  open->wopen_newfd = fde->fdt_fd;
  open->wopen_pathlen = static_cast<ox_s32>(strlen(args.path) + 1);
  open->wopen_origpid = args.origpid;
  open->wopen_shmode = args.shmode;
  open->wopen_accmode = args.accmode;
  open->wopen_cdisp = args.win_disp;
  open->wopen_flags = args.flags;
  open->wopen_clientid = GetCurrentProcessId();
  return msg;
}

bool open_succeeded(const tnv_resp* resp) {
  return resp->rhdr.rhdr_errno == 0 || resp->rhdr.rhdr_errno == TNV_OPEN_EXISTED;
}

ox_handle answered_handle(const tnv_resp* resp) {
  return reinterpret_cast<ox_handle>(static_cast<uintptr_t>(resp->u.wopen.wopen_resp_handle));
}

/*
 * Takes over nothing of an answer that is marked unauthorised: what it carried is released, the
 * entry itself deliberately stays reserved.
 */
void release_answer(tnvfd* fde, const tnv_resp* resp) {
  vfstnw_remove_bmaps(fde);
  const ox_handle handle = answered_handle(resp);
  if (open_succeeded(resp) && resp->u.wopen.wopen_resp_fso.fso_isdir == 0 && handle != nullptr &&
      handle != INVALID_HANDLE_VALUE) {
    CloseHandle(handle);
  }
}

/* Empties the local file through a runtime descriptor, which from then on owns the handle. */
void truncate_local_file(vfs_handle* vh, tnvfd* fde) {
  fde->fdt_osfd = _open_osfhandle(reinterpret_cast<intptr_t>(fde->fdt_ofd), _O_RDWR);
  if (fde->fdt_osfd >= 0) {
    ox_ftruncate(fde->fdt_osfd, 0);
    return;
  }
  TNW_ERROR(vh, errno, "No runtime descriptor left; truncating fd %d by its handle", fde->fdt_fd);
  FILE_END_OF_FILE_INFO eof = {};
  SetFileInformationByHandle(fde->fdt_ofd, FileEndOfFileInfo, &eof, sizeof eof);
}

void fill_entry(vfs_handle* vh, tnvfd* fde, const open_args& args, const tnv_msg* msg,
                const tnv_resp* resp) {
  const tnv_wopen_resp* open = &resp->u.wopen;
  fde->fdt_fso = open->wopen_resp_fso;
  fde->fdt_oaccmode = args.accmode;
  fde->fdt_oshmode = args.shmode;
  fde->fdt_oflags = args.flags;
  fde->fdt_opid = args.origpid;
  ox_copy_field(fde->fdt_procname, sizeof fde->fdt_procname, args.procname);
  fde->fdt_msgid = msg->hdr.hdr_id; /* the id that the send made */
  if (fde->fdt_fso.fso_isdir == 0) {
    fde->fdt_ofd = answered_handle(resp);
    if (args.win_disp == CREATE_ALWAYS && ((args.accmode & TNW_ACC_ANY_WRITE) != 0)) {
      truncate_local_file(vh, fde);
    }
  }
  fde->fdt_stat = open->wopen_resp_stat;
  fde->fdt_tnflags |=
      static_cast<ox_u16>(open->wopen_resp_tnflags & (TNV_FL_NEWER | TNV_FL_MAPPED));
  tnw_count_open(fde->fdt_fc, args.accmode);
}

/*
 * How an open ended: a Windows code, what the thread's last error is to be after a success, and
 * whether the answer was marked unauthorised (code 1326).
 */
struct open_outcome {
  int code;
  DWORD last_error;
  bool unauthorized;
};

/* Sends the open and makes the entry what the answer says. */
open_outcome exchange_open(const tnw_call& call, tnvfd* fde, const open_args& args, tnv_msg* msg) {
  tnv_resp resp;
  tnw_exchange(call.tni, tnw_sync_send_open_msg, msg, &resp, fde);
  if (tnw_answered_unauthorized(&call, &resp)) {
    release_answer(fde, &resp);
    return {ERROR_LOGON_FAILURE, 0, true};
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (!open_succeeded(&resp)) {
    TNW_ERROR(call.vh, static_cast<int>(err), "Server returned error for open msg.");
    return {static_cast<int>(unixerr2winerr(err)), 0, false};
  }
  fill_entry(call.vh, fde, args, msg, &resp);
  tnw_use_fd(&call.tni->tni_files, fde, args.drvhdl);
  return {0, err, false};
}

/* One open on a reserved entry whose context is held. */
open_outcome open_entry(const tnw_call& call, tnvfd* fde, const open_args& args) {
  tnv_msg* msg = fde->fdt_fc != nullptr ? build_open_msg(args, fde) : nullptr;
  if (msg == nullptr) {
    return {tnw_refuse_no_memory(call), 0, false};
  }
  const open_outcome outcome = exchange_open(call, fde, args, msg);
  ox_free_safe(msg);
  return outcome;
}

tnvfd* open_on_drive(const tnw_call& call, void** slot, const open_args& args,
                     open_outcome* outcome) {
  int err = 0;
  tnvfd* fde = tnw_getfd(call.vh, &call.tni->tni_files, &err);
  if (fde == nullptr) {
    outcome->code = static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err)));
    return nullptr;
  }
  tnw_file_context* fc = hold_context(slot);
  fde->fdt_fc = fc;
  *outcome = open_entry(call, fde, args);
  if (outcome->code == 0) {
    return fde;
  }
  if (outcome->unauthorized) {
    keep_context(fc);
    return nullptr; /* the entry deliberately stays reserved */
  }
  if (fc != nullptr) {
    drop_context(slot, fc);
  }
  tnw_putfd(call.vh, &call.tni->tni_files, fde);
  return nullptr;
}

}  // namespace

void tnw_count_open(tnw_file_context* fc, ox_u32 accmode) {
  ox_lock(&tnw_fc_lock);
  ++*counter(fc, accmode);
  fc->fc_opening--;
  ox_unlock(&tnw_fc_lock);
}

void tnw_uncount_open(tnw_file_context* fc, ox_u32 accmode) {
  ox_lock(&tnw_fc_lock);
  --*counter(fc, accmode);
  if (!has_opens(fc)) {
    ox_free_safe(fc);
  }
  ox_unlock(&tnw_fc_lock);
}

void* tnw_create(void* drvhdl, void** fc, const char* path, ox_u32 accmode, ox_u32 shmode,
                 ox_u32 cdisp, ox_u32 flags, int origpid, const char* in_procname, int* err) {
  void* own_slot = nullptr; /* a caller without a slot gets a context of its own */
  tnw_call call;
  tnvfd* fde = nullptr;
  open_outcome outcome = {tnw_enter_path_call(drvhdl, path, TNW_REFUSE_NO_PATH, &call), 0, false};
  if (outcome.code == 0 && cdisp >= std::size(tnw_ntdisp_map)) {
    outcome.code = TNW_REFUSE(ERROR_INVALID_PARAMETER, call.vh, OX_EINVAL,
                              "Invalid create disposition %u", cdisp);
  }
  if (outcome.code == 0) {
    const open_args args = {drvhdl, path,    accmode,    shmode, tnw_ntdisp_map[cdisp],
                            flags,  origpid, in_procname};
    fde = open_on_drive(call, fc != nullptr ? fc : &own_slot, args, &outcome);
  }
  if (err != nullptr) {
    *err = outcome.code;
  }
  if (fde != nullptr) {
    SetLastError(outcome.last_error); /* last: everything above may change it */
  }
  return fde;
}
