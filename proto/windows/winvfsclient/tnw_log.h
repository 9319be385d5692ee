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
#include "vfs_handle.h"

OX_BEGIN_DECLS

/*
 * The prefix, built in a buffer of the calling thread: time, level, source position, error (when
 * not 0), alert (when given), connection (when given), "message":. Valid until the same thread
 * builds the next one.
 */
const char* tnw_log_prefix(vfs_handle* vh, const char* file, const char* level, int line, int err,
                           const ox_alert_t* alert);

OX_END_DECLS

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
