/*
 * The client's log lines: {<prefix>"text"} with the prefix of tnw_log_prefix.
 *
 * The files of tnw_dll, tnw_connect, vfstnw_bmap and vfstnw_client log with these, whether or not a
 * prefix callback is installed. The rest of the library logs with OX_LOG.
 */
#ifndef TNW_LOG_H
#define TNW_LOG_H

#include "ox_logging.h"
#include "tnv_log.h"
#include "tnw_fd.h"
#include "vfs_handle.h"

OX_BEGIN_DECLS

/*
 * The prefix, built in a buffer of the calling thread: time, level, source position, error (when
 * not 0), alert (when given), connection (when given), "message":. Valid until the same thread
 * builds the next one.
 */
const char* tnw_log_prefix(vfs_handle* vh, const char* file, const char* level, int line, int err,
                           const ox_alert_t* alert);

/* Keeps the transaction id of a response, or 0, with its connection. */
void tnw_note_utxid(vfs_handle* vh, ox_u64 utxid);
/*
 * Whether any response of this process has carried a transaction id. As long as none has, no event
 * line is due, and a call need not look at the clock when it begins.
 */
bool tnw_saw_utxid(void);
/*
 * Writes the event line of a call that the client answered by itself, if the last response on the
 * connection carried a transaction id. (That the next request is under way makes no difference.)
 * `s_ts`: when the call began. It is zero, and the time is shown as 0, for a call that began before
 * the first id was seen and did not wait for the service. `args` (an argument object) and `fso` may
 * be null. errno is shown when `retval` is negative. `file` and `line` are the position that the
 * event shows.
 */
void tnw_log_response(vfs_handle* vh, const char* vfs_event, const char* args, ox_s64 retval,
                      const tnvfso* fso, const struct timespec* s_ts, const char* file, int line);
/* The same for each such call, on an open file or folder. */
void tnw_log_read_client_resp(vfs_handle* vh, const tnvfd* fde, ox_off off, size_t size,
                              ox_s64 retval, const struct timespec* s_ts);
void tnw_log_write_client_resp(vfs_handle* vh, const tnvfd* fde, ox_off off, size_t size,
                               ox_s64 retval, const struct timespec* s_ts);
void tnw_log_folderempty_client_resp(vfs_handle* vh, const tnvfd* fde, bool isempty, ox_s64 retval,
                                     const struct timespec* s_ts);
void tnw_log_findnext_client_resp(vfs_handle* vh, const tnvfd* fde, ox_s64 retval,
                                  const struct timespec* s_ts);
void tnw_log_setfsize_client_resp(vfs_handle* vh, const tnvfd* fde, ox_u64 size, ox_s64 retval,
                                  const struct timespec* s_ts);

OX_END_DECLS

/* tnw_log_response with the caller's own position. */
#define tnw_log_client_response(vh, vfs_event, args, retval, fso, s_ts) \
  tnw_log_response((vh), (vfs_event), (args), (retval), (fso), (s_ts), __FILE_NAME__, __LINE__)

#define TNW_LOG(vh, level, err, fmt, ...)                                                  \
  ox_log("{%s\"" fmt "\"}\n",                                                              \
         tnw_log_prefix((vh), __FILE_NAME__, ox_msg_type[(level)], __LINE__, (err), NULL), \
         ##__VA_ARGS__)
#define TNW_INFO(vh, fmt, ...) TNW_LOG((vh), OX_INFO_LEVEL, 0, fmt, ##__VA_ARGS__)
#define TNW_WARN(vh, err, fmt, ...) TNW_LOG((vh), OX_WARN_LEVEL, (err), fmt, ##__VA_ARGS__)
#define TNW_ERROR(vh, err, fmt, ...) TNW_LOG((vh), OX_ERROR_LEVEL, (err), fmt, ##__VA_ARGS__)
#define TNW_DEBUG(vh, verbosity, fmt, ...) \
  (ox_debug >= (verbosity) ? TNW_LOG((vh), OX_DEBUG_LEVEL, 0, fmt, ##__VA_ARGS__) : (void)0)

/* Logs an error and gives `code`: a refusal in one statement. `err` is what the prefix shows. */
#define TNW_REFUSE(code, vh, err, fmt, ...) (TNW_ERROR((vh), (err), fmt, ##__VA_ARGS__), (code))

#endif
