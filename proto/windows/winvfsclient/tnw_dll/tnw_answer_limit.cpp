/* tnw_set_answer_limit: how long a drive's service may be silent. */

#include <atomic>

#include "ox_errno.h"
#include "tnw_call.h"
#include "tnw_start.h"

ox_u32 tnw_start_limit_ms = 60000;

int tnw_set_answer_limit(void* drvhdl, ox_u32 milliseconds) {
  if (drvhdl == nullptr) {
    return TNW_REFUSE(ERROR_BAD_ARGUMENTS, nullptr, OX_EINVAL, "Invalid drive handle passed");
  }
  tnw_call call;
  const int code = tnw_enter_drive(drvhdl, &call);
  if (code != 0) {
    return code;
  }
  TNW_INFO(call.vh, "Answer limit set to %u ms", milliseconds);
  std::atomic_ref(call.tni->tni_watch.tw_limit_ms).store(milliseconds);
  return 0;
}
