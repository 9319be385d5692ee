/* tnw_updatetoken and tnw_set_http_proxy: what the running service needs to reach the cloud. */

#include "ox_errno.h"
#include "ox_util.h"
#include "tnw_call.h"
#include "tnw_exchange.h"
#include "tnw_msg.h"

namespace {

/*
 * Refuses a call that lacks an argument, or finds its drive. Both calls also work while the service
 * has no authorisation.
 */
int enter(const void* drvhdl, bool complete, const char* refusal, tnw_call* call) {
  if (drvhdl == nullptr || !complete) {
    return TNW_REFUSE(ERROR_BAD_ARGUMENTS, nullptr, OX_EINVAL, "%s", refusal);
  }
  return tnw_enter_drive(drvhdl, call);
}

/* Sends the request and frees it: 0, or a Windows code after the line `failure`. */
int exchange(const tnw_call& call, tnv_msg* msg, tnv_resp* resp, const char* failure) {
  tnw_exchange(call.tni, tnw_async_send_msg, msg, resp, nullptr);
  ox_free_safe(msg);
  const ox_u32 err = resp->rhdr.rhdr_errno;
  if (err == 0) {
    return 0;
  }
  return TNW_REFUSE_ANSWER(call.vh, err, "%s", failure);
}

}  // namespace

/*
 * An exchange that fails leaves the answer clear, so it lifts the unauthorised mark like an answer
 * does: callers may then be told 1326 or 1467 by their next call, not before.
 */
int tnw_updatetoken(void* drvhdl, char* enctoken) {
  tnw_call call;
  const int code =
      enter(drvhdl, enctoken != nullptr, "Invalid drive handle or no token specified.", &call);
  if (code != 0) {
    return code;
  }
  TNW_INFO(call.vh, "Updating auth token");
  tnv_msg* msg = tnw_build_msg(TNV_OP_UPDATETOKEN, nullptr, nullptr, {enctoken});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.updatetoken.ut_len = tnw_text_len(enctoken);
  tnv_resp resp;
  const int result = exchange(call, msg, &resp, "Failed to update token");
  if ((resp.rhdr.rhdr_tn_unauthd & 1) == 0) {
    tnw_set_unauthorized(call.tni, false);
  }
  return result;
}

int tnw_set_http_proxy(void* drvhdl, const char* http_proxy, const char* username,
                       const char* password) {
  const bool complete =
      http_proxy != nullptr && http_proxy[0] != 0 && username != nullptr && password != nullptr;
  tnw_call call;
  const int code = enter(drvhdl, complete, "Invalid drive handle or no proxy specified.", &call);
  if (code != 0) {
    return code;
  }
  TNW_INFO(call.vh, "Setting http proxy");
  tnv_msg* msg =
      tnw_build_msg(TNV_OP_WIN_SETPROXY, nullptr, nullptr, {http_proxy, username, password});
  if (msg == nullptr) {
    return tnw_refuse_no_memory(call);
  }
  msg->u.wsetproxy.wproxy_server_len = tnw_text_len(http_proxy);
  msg->u.wsetproxy.wproxy_uname_len = tnw_text_len(username);
  msg->u.wsetproxy.wproxy_passwd_len = tnw_text_len(password);
  tnv_resp resp;
  return exchange(call, msg, &resp, "Failed to update proxy");
}
