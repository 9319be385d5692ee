/*
 * Small helpers of the portability layer: memory, fixed text fields, texts, thread names. Not
 * exported from the DLL. Any thread may call.
 */
#ifndef OX_UTIL_H
#define OX_UTIL_H

#include "ox_types.h"

OX_BEGIN_DECLS

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

OX_END_DECLS

#endif
