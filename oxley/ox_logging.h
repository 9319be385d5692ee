/**
 * @file
 * @ingroup portability
 * Log facility: levels, line prefixes, the prefix callback and the rotating log file.
 *
 * Every message is one line, written in one of two ways, chosen by OX_LOG at each call site:
 *  - a prefix callback is installed (ox_logfunc): `{prefix"message"}`;
 *  - none is installed: ox_log_msg builds "[time year] WORD file:line <message>" itself.
 *
 * Threads: any thread may log at any time; lines are never torn or mixed. Call ox_init_logging and
 * ox_init_spdlogger from one thread, before others log. The global variables are read without a
 * lock.
 *
 * Failures: none reaches the caller, and errno stays as it was. A log file that cannot be opened,
 * written or rotated is reported once on the default (console) logger. A file that cannot be
 * renamed at a rotation takes further lines, beyond its maximum size, until it can. Where there is
 * no file to write to, the lines go to the console logger; a file that was open once is tried
 * again, one that could not be opened at the start is not.
 */
#ifndef OX_LOGGING_H
#define OX_LOGGING_H

#include "ox_types.h"

OX_BEGIN_DECLS

/** Message levels; any other value is treated as OX_ALERT_LEVEL. */
typedef ox_u32 ox_msglvl;
enum {
  OX_INFO_LEVEL = 0,
  OX_WARN_LEVEL = 1,
  OX_ERROR_LEVEL = 2,
  OX_FATAL_LEVEL = 3, /**< ox_log_msg flushes the log and ends the process. With a callback the call
                         site does this itself, by an assertion after its OX_LOG. */
  OX_DEBUG_LEVEL = 4,
  OX_USER_LEVEL = 5,   /**< a timestamp and nothing else before the text */
  OX_PRINTF_LEVEL = 6, /**< nothing before the text */
  OX_PROF_LEVEL = 7,
  OX_TODO_LEVEL = 8,
  OX_ALERT_LEVEL = 9,
  OX_MSG_TYPES = 10
};

/** What an alert says beside its message. The prefix callback gets it. */
typedef struct ox_alert {
  const char* al_reason; /**< what has happened */
  ox_s32 al_level;       /**< how urgent it is */
  bool al_ticket;        /**< asks for a support ticket */
} ox_alert_t;

/**
 * Prefix callback: returns the text that stands between "{" and the quoted message. The text must
 * stay valid until the call site's ox_log has returned; a buffer per thread does. Any thread may
 * call it with locks of this library held, so it must not call back into the library.
 */
typedef const char* (*ox_logfunc_t)(const char* file, const char* level, ox_s32 line, ox_s32 err,
                                    const ox_alert_t* alert);

/** Level words, indexed by level. */
OX_DATA const char* ox_msg_type[OX_MSG_TYPES];
/** The prefix callback, or null. ox_init_logging sets it once. */
OX_DATA ox_logfunc_t ox_logfunc;
/** Debug verbosity, initially 1: a debug message of verbosity N is written when ox_debug >= N. */
OX_DATA ox_s32 ox_debug;
/** Profiling level, initially 0: from 3 on the locks measure waits and holds. */
OX_DATA ox_s32 ox_prof_level;

/** A log line holds at most this many bytes, its terminating NUL included; the rest is cut. */
enum { OX_LOG_LINE_SIZE = 4096 };

/**
 * Opens the rotating log file `logfile` (52428800 bytes a file, 10 files) under `logger_name` and
 * installs `logfunc` when it is not null. It works once in a process: later calls change nothing.
 * An empty or null `logfile` leaves messages on the console. `mode` is accepted and ignored.
 */
void ox_init_logging(const char* logger_name, const char* logfile, ox_logfunc_t logfunc,
                     const char* mode);

/** Writes one formatted line without a prefix. */
void ox_log(const char* fmt, ...) OX_PRINTF_LIKE(1, 2);

/**
 * Writes one line with the built-in prefix. `file` is a source file's base name, `errnum` an errno
 * or Windows error (0 when none; printed at the ERROR, FATAL and TODO levels only).
 */
void ox_log_msg(ox_s32 lineno, const char* file, ox_msglvl type, ox_s32 errnum, const char* fmt,
                ...) OX_PRINTF_LIKE(5, 6);

/**
 * Write the built-in prefix, or its timestamp alone, into `buf`. Each writes at most *capacity
 * bytes with the NUL, lowers *capacity by the number of characters written and returns that number.
 */
int ox_log_prefix(char* buf, ox_msglvl type, ox_s32 lineno, const char* file, ox_s32 errnum,
                  int* capacity);
/** Writes the timestamp alone, see ox_log_prefix. */
int ox_log_timestamp(char* buf, int* capacity);

/** Writes out what is buffered. */
void ox_log_flush(void);

/**
 * Opens the rotating file that ox_log writes to: of at most `max_size` bytes, beside which
 * `max_files` older ones are kept. ox_init_logging calls it.
 */
void ox_init_spdlogger(const char* logger_name, const char* logfile, size_t max_size,
                       size_t max_files);
/** Has each line written as it is, and at once. It happens by itself, once in a process. */
void ox_spdlog_set_pattern(void);
/** Writes `msg`, which loses one newline at its end in place. */
void ox_spdlog(char* msg);
/** Writes out what is buffered. */
void ox_flush_spdlogger(void);
/** Takes one newline from the end of `text`, in place. */
void trim_newline(char* text);

/** Sets ox_prof_level and logs it (as source "ox_profile", line 10). */
void ox_set_profile_level(ox_s32 level);

OX_END_DECLS

/** The rest is for GCC and Clang, which have what these macros need. */
#ifdef __GNUC__

/**
 * Logs one message of the portability layer, the thread pool or the locks, through the callback if
 * there is one. `fmt` is a string literal without a newline at its end.
 */
#define OX_LOG_AT(file, line, level, err, fmt, ...)                                           \
  (ox_logfunc                                                                                 \
       ? ox_log("{%s\"" fmt "\"}\n",                                                          \
                ox_logfunc((file), ox_msg_type[(level)], (line), (err), NULL), ##__VA_ARGS__) \
       : ox_log_msg((line), (file), (level), (err), fmt "\n", ##__VA_ARGS__))
/** Logs one message of the source file and line in which it stands, see OX_LOG_AT. */
#define OX_LOG(level, err, fmt, ...) \
  OX_LOG_AT(__FILE_NAME__, __LINE__, (level), (err), fmt, ##__VA_ARGS__)
/** Logs a debug message. Below its verbosity nothing is formatted or evaluated. */
#define OX_LOG_DEBUG(verbosity, fmt, ...) \
  (ox_debug >= (verbosity) ? OX_LOG(OX_DEBUG_LEVEL, 0, fmt, ##__VA_ARGS__) : (void)0)

#endif

#endif
