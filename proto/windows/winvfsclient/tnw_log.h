/*
 * The client's log lines: {<prefix>"text"} with the prefix of tnw_log_prefix.
 *
 * tnw_dll's files, tnw_connect, vfstnw_bmap and vfstnw_client log with these, whether or not a
 * prefix callback is installed; the rest of the library logs with OX_LOG.
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

/*
 * Whether the calls that the client answers by itself leave event lines: a response on the
 * connection has carried a transaction id. Tells a call whether it needs to know when it began.
 */
bool tnw_logs_client_resp(const vfs_handle* vh);
/*
 * The event line of a call that the client answered by itself; nothing while tnw_logs_client_resp
 * is false, nor when `s_ts`, when the call began, was not noted (0 seconds). `args` (an argument
 * object) and `fso` may be null; errno is shown when `retval` is negative; `file` and `line` are
 * the position that the event shows.
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
