/*
 * Small portable helpers: memory, fixed text fields, texts, thread names.
 */
#include "ox_util.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ox_errno.h"

#ifdef _WIN32
#include <malloc.h>
#endif

void* ox_zalloc(size_t size) {
  void* p = calloc(1, size);
  if (p == nullptr) {
    errno = OX_ENOMEM;
  }
  return p;
}

void ox_free_safe(void* p) { free(p); }

void* ox_aligned_malloc(size_t size, size_t align) {
  if (align < sizeof(void*)) {
    align = alignof(max_align_t);
  }
#ifdef _WIN32
  void* p = _aligned_malloc(size, align);
#else
  void* p = nullptr;
  if (posix_memalign(&p, align, size) != 0) {
    p = nullptr;
  }
#endif
  if (p == nullptr) {
    errno = OX_ENOMEM;
  }
  return p;
}

void* ox_aligned_zmalloc(size_t size, size_t align) {
  void* p = ox_aligned_malloc(size, align);
  if (p != nullptr) {
    memset(p, 0, size);
  }
  return p;
}

void ox_aligned_free_safe(void* p) {
#ifdef _WIN32
  _aligned_free(p);
#else
  free(p);
#endif
}

void ox_copy_field(char* field, size_t size, const char* text) {
  const size_t length = text != nullptr ? strnlen(text, size) : 0;
  if (length > 0) {
    memcpy(field, text, length);
  }
  memset(field + length, 0, size - length);
}

size_t ox_field_len(const char* field, size_t size) { return strnlen(field, size); }

int ox_append(char* buf, int* capacity, const char* fmt, ...) {
  if (*capacity <= 0) {
    return 0;
  }
  va_list args;
  va_start(args, fmt);
  int length = vsnprintf(buf, static_cast<size_t>(*capacity), fmt, args);
  va_end(args);
  if (length < 0) {
    length = 0;
    buf[0] = '\0';
  }
  const int written = length < *capacity ? length : *capacity - 1;
  *capacity -= written;
  return written;
}

void ox_event_name_fold(char* text) {
  for (; *text != '\0'; ++text) {
    if (*text >= 'A' && *text <= 'Z') {
      *text = static_cast<char>(*text - 'A' + 'a');
    } else if (*text == '\\') {
      *text = '/';
    }
  }
}

void ox_unix2win_sep(char* text) {
  for (; *text != '\0'; ++text) {
    if (*text == '/') {
      *text = '\\';
    }
  }
}

int ox_pthread_setname_np(const char* name) {
  char cut[16]; /* the longest name that every system takes */
  snprintf(cut, sizeof(cut), "%s", name);
  return pthread_setname_np(pthread_self(), cut);
}
