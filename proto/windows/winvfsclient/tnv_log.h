/*
 * Protocol traces: what every request and response leaves in the log, and the prefix builders.
 *
 * All text is built in buffers of the calling thread, bounded by what is left of them: a text that
 * does not fit is cut. No lock is held. Holds no Windows call.
 */
#ifndef TNV_LOG_H
#define TNV_LOG_H

#include "ox_logging.h"
#include "vfs_handle.h"

OX_BEGIN_DECLS

/* Each writes at `lbuf`, lowers *capacity by what it wrote and returns it. */
int tn_common_log_prefix(char* lbuf, int* capacity, const char* file, const char* level, int line,
                         int err, const ox_alert_t* alert);
int tnv_log_prefix(vfs_handle* vh, int* capacity, char* lbuf);
int tnv_log_msg_hdr(const tnv_msghdr* hdr, int* capacity, char* lbuf);

/* Trace a request before it is sent, and a response (before the service sends it, or received). */
void tnv_log_msg(vfs_handle* vh, const tnv_msg* msg);
void tnv_log_resp(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp);

OX_END_DECLS

#endif
