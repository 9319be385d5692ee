/*
 * What the calls that ask one thing about a path have in common.
 */
#ifndef TNW_PATH_CALL_H
#define TNW_PATH_CALL_H

#include "tnw_call.h"
#include "tnw_msg.h"

/*
 * How tnw_rename, tnw_delete and tnw_canfilebedeleted refuse a null argument: with 13
 * ERROR_INVALID_DATA, where the other calls return 160 ERROR_BAD_ARGUMENTS.
 */
extern const tnw_refusal TNW_REFUSE_CHANGE;

/*
 * Does what tnw_exchange_msg does with a request that tnw_build_msg made, and frees the request.
 */
int tnw_exchange_path_msg(const tnw_call& call, tnv_msg* msg, tnv_resp* resp);

#endif
