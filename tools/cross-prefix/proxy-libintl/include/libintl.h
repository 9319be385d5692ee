/* Translations that translate nothing: every message is its own translation. */
#ifndef LIBINTL_H
#define LIBINTL_H

#include <locale.h>

/* A category that Windows lacks; its setlocale refuses the number, as it does for the original. */
#ifndef LC_MESSAGES
#define LC_MESSAGES 1729
#endif

static inline char* gettext(const char* msg) { return (char*)msg; }
static inline char* dgettext(const char* domain, const char* msg) {
  (void)domain;
  return (char*)msg;
}
static inline char* dcgettext(const char* domain, const char* msg, int category) {
  (void)domain;
  (void)category;
  return (char*)msg;
}
static inline char* ngettext(const char* one, const char* many, unsigned long n) {
  return (char*)(n == 1 ? one : many);
}
static inline char* dngettext(const char* domain, const char* one, const char* many,
                              unsigned long n) {
  (void)domain;
  return ngettext(one, many, n);
}
static inline char* textdomain(const char* domain) { return (char*)domain; }
static inline char* bindtextdomain(const char* domain, const char* folder) {
  (void)domain;
  return (char*)folder;
}
static inline char* bind_textdomain_codeset(const char* domain, const char* codeset) {
  (void)domain;
  return (char*)codeset;
}

#endif
