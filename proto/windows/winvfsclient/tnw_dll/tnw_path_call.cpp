#include "tnw_path_call.h"

#include "ox_errno.h"
#include "ox_util.h"
#include "tnw_exchange.h"

const tnw_refusal TNW_REFUSE_CHANGE = {"Invalid drive handle or no path specified.", OX_EINVAL,
                                       ERROR_INVALID_DATA};

int tnw_exchange_path_msg(const tnw_call& call, tnv_msg* msg, tnv_resp* resp) {
  const int code = tnw_exchange_msg(call, msg, resp);
  ox_free_safe(msg);
  return code;
}
