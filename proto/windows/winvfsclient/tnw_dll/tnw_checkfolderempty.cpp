/*
 * tnw_checkfolderempty: what the listing of an open folder says.
 */
#include "tn_cffl.h"
#include "tnw_call.h"

namespace {

bool is_listing_empty(const tnvdir& dir) {
  if (dir.dir_cffl == nullptr) {
    return dir.dir_fi_len == 0;
  }
  const cfs_cffl_header_v3& head = dir.dir_cffl->cfh_head;
  return head.cf_dcount == 0 && head.cf_fcount == 0;
}

}  // namespace

int tnw_checkfolderempty(void* dehdl, bool* is_empty) {
  const tnvfd* fde = static_cast<const tnvfd*>(dehdl);
  tnw_call call;
  int code = tnw_enter_entry_call(fde, false, TNW_REFUSE_NO_PATH, &call);
  if (is_empty != nullptr && code == ERROR_BAD_ARGUMENTS) {
    *is_empty = false;
  }
  if (code == 0) {
    code = tnw_check_authorized(&call);
  }
  if (code != 0) {
    return code;
  }
  const bool empty = is_listing_empty(fde->fdt_dir);
  if (is_empty != nullptr) {
    *is_empty = empty;
  }
  if (!empty) {
    tnw_log_folderempty_client_resp(call.vh, fde, empty, 0, &call.start);
  }
  return 0;
}
