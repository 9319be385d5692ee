/*
 * Protocol traces: what every request and response leaves in the log, and the prefix builders.
 *
 * Three kinds of line:
 *  - a request, before it is sent, at debug level 2;
 *  - a response's header, at debug level 3;
 *  - an event for each response that carries a transaction id, at any debug level: one JSON-like
 *    object without a line prefix.
 *
 * All text is built in buffers of the calling thread, and a text that does not fit is cut. A
 * returned text is valid until the same thread builds the next of its kind. No lock is held. Texts
 * inside messages are read within their fields and within hdr_len, whatever their length fields
 * say. There is no Windows call here.
 */
#ifndef TNV_LOG_H
#define TNV_LOG_H

#include "ox_logging.h"
#include "vfs_handle.h"

OX_BEGIN_DECLS

/*
 * The pieces of a prefix. Each writes at `lbuf`, lowers *capacity by the number of characters
 * written and returns it. Capacity counts the NUL.
 */
/* Time, level, source position, error (when not 0), alert (when given). */
int tn_common_log_prefix(char* lbuf, int* capacity, const char* file, const char* level, int line,
                         int err, const ox_alert_t* alert);
/* The connection. */
int tnv_log_prefix(vfs_handle* vh, int* capacity, char* lbuf);
/* The request: its id, and drive and process, which SETPROXY lacks. */
int tnv_log_msg_hdr(const tnv_msghdr* hdr, int* capacity, char* lbuf);

/* Trace a request before it is sent, and a response (before the service sends it, or received). */
void tnv_log_msg(vfs_handle* vh, const tnv_msg* msg);
void tnv_log_resp(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp);

/*
 * Writes the event line of an answered request, or nothing when vfs_utxid is 0. `resp`, `fso` and
 * `finfo` may be null, and `st` must be null. `args` is the argument object; `file` and `line` are
 * the position that the event shows.
 */
void tnv_log_vfs_event(vfs_handle* vh, const tnv_msg* msgp, const tnv_resp* resp, const tnvfso* fso,
                       const ox_statx_t* st, const tnw_fileinfo* finfo, const char* event_name,
                       const char* args, const char* file, int line);

/* A record as a JSON member. Each kind of record has a buffer of its own in each thread. */
const char* tnv_fso2json(const tnvfso* fso);
const char* tnv_finfo2json(const tnw_fileinfo* finfo);
/* There is no such text on this platform: the call fails an assertion. */
const char* tnv_st2json(const ox_statx_t* st);
/* An argument object, formatted into the thread's buffer for it. */
const char* tnv_event_args(const char* fmt, ...) OX_PRINTF_LIKE(1, 2);

/* How an operation is traced (tnv_log_win.cpp). A null function: it leaves no such line. */
typedef struct tnv_op_trace {
  void (*request)(const vfs_handle* vh, const tnv_msg* msg);
  void (*response)(vfs_handle* vh, const tnv_msg* msg, const tnv_resp* resp);
} tnv_op_trace;
extern const tnv_op_trace tnv_op_traces[TNV_OP_MAX]; /* by operation code */

OX_END_DECLS

#endif
