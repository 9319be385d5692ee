#include "tnw_path_call.h"

#include "ox_errno.h"
#include "ox_util.h"
#include "tnw_exchange.h"

const tnw_refusal TNW_REFUSE_CHANGE = {"Invalid drive handle or no path specified.", OX_EINVAL,
                                       ERROR_INVALID_DATA};

int tnw_exchange_path_msg(const tnw_call& call, tnv_msg* msg, tnv_resp* resp) {
  tnw_exchange(call.tni, tnw_async_send_msg, msg, resp, nullptr);
  ox_free_safe(msg);
  return tnw_answered_unauthorized(&call, resp) ? ERROR_LOGON_FAILURE : 0;
}
