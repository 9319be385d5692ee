/*
 * tnw_findfirst, tnw_findnext and tnw_findclose. The whole listing arrives with tnw_findfirst, and
 * the later calls give out the entries of that copy.
 */
#include <cstring>

#include "ox_errno.h"
#include "ox_util.h"
#include "tnw_call.h"
#include "tnw_close.h"
#include "tnw_exchange.h"
#include "tnw_fdtable.h"
#include "tnw_msg.h"

namespace {

/* The arguments of tnw_findfirst that go into the request and the entry. */
struct FindArgs {
  void* drvhdl;
  const char* path;
  const char* procname;
};

/* How the request ended: a Windows code, and whether the answer said "unauthorised" (1326). */
struct FindOutcome {
  int code;
  bool unauthorized;
};

tnv_msg* build_denum_msg(const FindArgs& args) {
  tnv_msg* msg = tnw_build_msg(TNV_OP_WIN_DENUM, args.drvhdl, args.procname, {args.path});
  if (msg != nullptr) {
    msg->u.wdenum.wde_pathlen = tnw_text_len(args.path) + 1; /* DENUM counts the NUL */
  }
  return msg;
}

/* Gives out the next entry. There must be one. The calls have refused a null `out` before. */
void hand_out(tnvdir* dir, tnw_fileinfo* out) {
  *out = dir->dir_fi[dir->dir_fi_idx++]; /* NOLINT(clang-analyzer-core.CallAndMessage) */
}

/*
 * Sends the request and does what the answer says. A listing that the service grants and that fails
 * here is closed at the service.
 */
FindOutcome exchange_denum(const tnw_call& call, tnvfd* fde, const FindArgs& args, tnv_msg* msg) {
  tnv_resp resp;
  const bool granted = tnw_exchange(call.tni, tnw_sync_send_denum_msg, msg, &resp, fde);
  if (tnw_answered_unauthorized(&call, &resp)) {
    ox_free_safe(fde->fdt_dir.dir_fi);
    fde->fdt_dir.dir_fi = nullptr;
    return {ERROR_LOGON_FAILURE, true};
  }
  fde->fdt_msgid = msg->hdr.hdr_id;
  ox_copy_field(fde->fdt_procname, sizeof fde->fdt_procname, args.procname);
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (err == 0) {
    fde->fdt_dir.dir_fi_len = resp.u.wdenum.wde_fi_len;
    return {0, false};
  }
  TNW_ERROR(call.vh, static_cast<int>(err),
            "Failed to send directory enumeration message for path %s.", args.path);
  if (granted) {
    tnw_take_back(call, fde, args.drvhdl);
  }
  return {static_cast<int>(unixerr2winerr(err)), false};
}

FindOutcome enumerate(const tnw_call& call, tnvfd* fde, const FindArgs& args) {
  tnv_msg* msg = build_denum_msg(args);
  if (msg == nullptr) {
    TNW_ERROR(call.vh, OX_ENOMEM,
              "Failed to allocate memory to directory enumeration message structure for path %s",
              args.path);
    return {static_cast<int>(unixerr2winerr(OX_ENOMEM)), false};
  }
  const FindOutcome outcome = exchange_denum(call, fde, args, msg);
  ox_free_safe(msg);
  return outcome;
}

/*
 * Reserves an entry and lists the folder into it: the entry, or null with *code. After an
 * unauthorised answer the entry stays reserved, so that its descriptor is not used again.
 */
tnvfd* list_folder(const tnw_call& call, const FindArgs& args, int* code) {
  int err = 0;
  tnvfd* fde = tnw_getfd(call.vh, &call.tni->tni_files, &err);
  if (fde == nullptr) {
    *code = static_cast<int>(unixerr2winerr(static_cast<ox_u32>(err)));
    return nullptr;
  }
  const FindOutcome outcome = enumerate(call, fde, args);
  *code = outcome.code;
  if (outcome.code == 0) {
    return fde;
  }
  if (!outcome.unauthorized) {
    tnw_putfd(call.vh, &call.tni->tni_files, fde);
  }
  return nullptr;
}

/* Makes the entry an enumeration handle: 0, or 18 for an empty folder. */
int open_enumeration(const tnw_call& call, tnvfd* fde, void* drvhdl, tnw_fileinfo* out) {
  tnw_use_fd(&call.tni->tni_files, fde, drvhdl);
  if (fde->fdt_dir.dir_fi_len == 0) {
    return ERROR_NO_MORE_FILES;
  }
  hand_out(&fde->fdt_dir, out);
  return 0;
}

}  // namespace

void* tnw_findfirst(void* drvhdl, const char* path, tnw_fileinfo* out, const char* in_procname,
                    int* err) {
  tnw_call call;
  tnvfd* fde = nullptr;
  int code =
      tnw_enter_path_call(drvhdl, out != nullptr ? path : nullptr, TNW_REFUSE_NO_PATH, &call);
  if (code == 0) {
    fde = list_folder(call, {drvhdl, path, in_procname}, &code);
  }
  if (fde != nullptr) {
    code = open_enumeration(call, fde, drvhdl, out);
  }
  if (err != nullptr) {
    *err = code;
  }
  return fde;
}

int tnw_findnext(void* dehdl, tnw_fileinfo* out) {
  tnvfd* fde = static_cast<tnvfd*>(out != nullptr ? dehdl : nullptr);
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (code != 0) {
    return code;
  }
  code = tnw_check_authorized(&call);
  /* NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a null one was refused above */
  if (code == 0 && fde->fdt_dir.dir_fi_idx == fde->fdt_dir.dir_fi_len) {
    code = ERROR_NO_MORE_FILES;
  }
  if (code != 0) {
    memset(out, 0, sizeof *out); /* NOLINT(clang-analyzer-unix.cstring.NullArg): refused above */
    return code;
  }
  hand_out(&fde->fdt_dir, out);
  tnw_log_findnext_client_resp(call.vh, fde, 0, &call.start);
  return 0;
}

/*
 * This call checks the authorisation before the drive, and the other calls after it: an
 * unauthorised caller gets 1326 here also when the drive is gone. A close that the service refuses
 * gives the entry back, too.
 */
int tnw_findclose(void* dehdl) {
  tnvfd* fde = static_cast<tnvfd*>(dehdl);
  tnw_call call;
  int code = tnw_enter_entry(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (code == 0) {
    code = tnw_check_authorized(&call);
  }
  if (code == 0) {
    code = tnw_check_drive(fde, &call);
  }
  if (code != 0) {
    return code;
  }
  tnv_msg msg;
  tnv_resp resp;
  tnw_fill_close(&msg, TNV_OP_WIN_CLOSE, fde);
  code = tnw_exchange_msg(call, &msg, &resp);
  if (code != 0) {
    return code;
  }
  const ox_u32 err = resp.rhdr.rhdr_errno;
  if (err != 0) {
    TNW_ERROR(call.vh, static_cast<int>(err), "Failed to close diretory enumeration context.");
  }
  tnw_release_entry(call, fde);
  return static_cast<int>(unixerr2winerr(err));
}
