/*
 * Small helpers of the portability layer. Not exported from the DLL.
 *
 * Those above the line are portable; those below it need Windows (ox_platform_win.cpp).
 */
#ifndef OX_UTIL_H
#define OX_UTIL_H

#include <time.h>

#include "ox_types.h"

OX_BEGIN_DECLS

enum { OX_UUID_SIZE = 16, OX_UUID_TEXT_SIZE = 37 };

/*
 * Identifiers are binary UUIDs in the Windows layout (32-bit, 16-bit, 16-bit little-endian, then 8
 * bytes). Unparse writes 36 lower-case characters and a NUL. Parse accepts exactly the 36-character
 * form in either case: 0, or 22 with `id` untouched; a null text is 22.
 */
void ox_uuid_unparse(const ox_u8* id, char* text);
int ox_uuid_parse(const char* text, ox_u8* id);

/* Clock 0 is real time. 0 or an error number. */
int ox_clock_gettime(int clock, struct timespec* ts);
/* Microseconds of real time since `start`; a clock set back counts as 0. */
ox_u64 ox_usecs_since(const struct timespec* start);

/* The local time now; gives the milliseconds of its second. */
long ox_local_time(struct tm* local);
/* A time as every log line shows it: "2026-11-16 00:48:16". */
enum { OX_TIME_TEXT_SIZE = 64 };
void ox_time_text(const struct tm* local, char* text);

/* Zero-filled memory, or null with errno 12; freed with ox_free_safe, which accepts null. */
void* ox_zalloc(size_t size);
void ox_free_safe(void* p);
/* Memory on a boundary of `align` bytes (a power of two; 0: the default), freed by the pair. */
void* ox_aligned_malloc(size_t size, size_t align);
void* ox_aligned_zmalloc(size_t size, size_t align);
void ox_aligned_free_safe(void* p);

/* Copies at most `size` bytes and zero-fills the rest; a text that fills the field is unterminated.
 * A null source clears the field. */
void ox_copy_field(char* field, size_t size, const char* text);
/* The length of a fixed field's text: up to its NUL, at most `size`. */
size_t ox_field_len(const char* field, size_t size);

/*
 * Appends formatted text at `buf`, lowers *capacity by the characters written and returns their
 * number. Capacity counts the NUL: at 1 nothing fits any more, and what is appended is cut to the
 * empty text; at 0 nothing is touched.
 */
int ox_append(char* buf, int* capacity, const char* fmt, ...) OX_PRINTF_LIKE(3, 4);

/* ASCII lower case and slashes, in place: the form of the names of events. */
void ox_event_name_fold(char* text);
/* Every '/' becomes '\\', in place. */
void ox_unix2win_sep(char* text);

/* Names the calling thread (cut to 15 characters). 0 or an error number. */
int ox_pthread_setname_np(const char* name);

/* The portability layer's rule from a Windows error to an errno (see ox_platform.h). */
int ox_winerr2errno(ox_u32 winerr);

/* ------------------------------------------------------------------- Windows only */

/* A new random UUID. */
void ox_uuid_generate(ox_u8* id);
/* Removes a file. 0, or -1 with errno. */
int ox_unlink(const char* path);

typedef struct ox_stat {
  ox_u64 st_size; /* bytes */
  bool st_isdir;
} ox_stat_t;
/* Size and kind of what `path` names. 0, or -1 with errno. */
int ox_stat(const char* path, ox_stat_t* st);

OX_END_DECLS

#endif
