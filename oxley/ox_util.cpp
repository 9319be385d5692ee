/*
 * Small portable helpers: identifiers, time, memory, fixed text fields, thread names.
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

namespace {

/* The byte of the binary form that each two digits of the text stand for: the first three fields
 * are little-endian numbers. */
constexpr int uuid_byte_order[OX_UUID_SIZE] = {3, 2, 1,  0,  5,  4,  7,  6,
                                               8, 9, 10, 11, 12, 13, 14, 15};

bool hyphen_before(int byte) { return byte == 4 || byte == 6 || byte == 8 || byte == 10; }

int hex_value(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

ox_s64 usecs(const struct timespec& ts) {
  return static_cast<ox_s64>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace

void ox_uuid_unparse(const ox_u8* id, char* text) {
  static const char digits[] = "0123456789abcdef";
  for (int i = 0; i < OX_UUID_SIZE; ++i) {
    if (hyphen_before(i)) {
      *text++ = '-';
    }
    const ox_u8 byte = id[uuid_byte_order[i]];
    *text++ = digits[byte >> 4];
    *text++ = digits[byte & 0xf];
  }
  *text = '\0';
}

int ox_uuid_parse(const char* text, ox_u8* id) {
  if (text == nullptr) {
    return OX_EINVAL;
  }
  ox_u8 parsed[OX_UUID_SIZE];
  for (int i = 0; i < OX_UUID_SIZE; ++i) {
    if (hyphen_before(i) && *text++ != '-') {
      return OX_EINVAL;
    }
    const int high = hex_value(text[0]);
    const int low = high < 0 ? -1 : hex_value(text[1]);
    if (low < 0) {
      return OX_EINVAL;
    }
    parsed[uuid_byte_order[i]] = static_cast<ox_u8>(high << 4 | low);
    text += 2;
  }
  if (*text != '\0') {
    return OX_EINVAL;
  }
  memcpy(id, parsed, sizeof(parsed));
  return 0;
}

int ox_clock_gettime(int clock, struct timespec* ts) {
  return clock_gettime(static_cast<clockid_t>(clock), ts) == 0 ? 0 : errno;
}

ox_u64 ox_usecs_since(const struct timespec* start) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  const ox_s64 elapsed = usecs(now) - usecs(*start);
  return elapsed > 0 ? static_cast<ox_u64>(elapsed) : 0;
}

long ox_local_time(struct tm* local) {
  struct timespec now = {};
  (void)ox_clock_gettime(0, &now);
  const time_t seconds = now.tv_sec;
#ifdef _WIN32
  (void)localtime_s(local, &seconds);
#else
  (void)localtime_r(&seconds, local);
#endif
  return static_cast<long>(now.tv_nsec / 1000000);
}

void ox_time_text(const struct tm* local, char* text) {
  if (strftime(text, OX_TIME_TEXT_SIZE, "%Y-%m-%d %H:%M:%S", local) == 0) {
    text[0] = '\0';
  }
}

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
