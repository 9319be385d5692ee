/*
 * Text comparison: GLib decodes, ICU lowers, and a list holds back what Java does not lower.
 */
#include "ox_text.h"

#include <glib.h>
#include <unicode/uchar.h>
#include <unicode/uvernum.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

/* Names must compare alike in every build, and newer releases know more letters. */
static_assert(U_ICU_VERSION_MAJOR_NUM >= 72 && U_ICU_VERSION_MAJOR_NUM <= 74,
              "the lower case of ICU 72 to 74 is wanted");

constexpr ox_s32 capital_dotted_i = 0x130;
constexpr ox_s32 packed_dotted_i = 0x690307;

struct range {
  ox_s32 first;
  ox_s32 last;
};

/* Capitals whose lower case Java does not know, in rising order. */
constexpr range unknown_to_java[] = {
    {0x37f, 0x37f},     {0x528, 0x528},     {0x52a, 0x52a},     {0x52c, 0x52c},
    {0x52e, 0x52e},     {0x13a0, 0x13f5},   {0x1c90, 0x1cbf},   {0xa698, 0xa698},
    {0xa69a, 0xa69a},   {0xa796, 0xa796},   {0xa798, 0xa798},   {0xa79a, 0xa79a},
    {0xa79c, 0xa79c},   {0xa79e, 0xa79e},   {0xa7ab, 0xa7ae},   {0xa7b0, 0xa7b4},
    {0xa7b6, 0xa7b6},   {0xa7b8, 0xa7b8},   {0x104b0, 0x104d3}, {0x10c80, 0x10cb2},
    {0x118a0, 0x118bf}, {0x16e40, 0x16e5f}, {0x1e900, 0x1e921},
};

bool is_unknown_to_java(ox_s32 c) {
  const range* found = std::ranges::lower_bound(unknown_to_java, c, {}, &range::last);
  return found != std::end(unknown_to_java) && found->first <= c;
}

/* What stands at a place of a text: a character, or a byte that is no part of one. */
struct element {
  ox_s32 code; /* a Unicode scalar value; for a stray byte its complement, which is negative */
  int length;
};

/* The checking decoder stops at the first byte that does not continue the character, hence at the
 * NUL; the table of lengths, which trusts the lead byte, is asked only about what it accepted. */
element decode(const char* text) {
  const auto lead = static_cast<guchar>(*text);
  const auto code = static_cast<ox_s32>(g_utf8_get_char_validated(text, -1));
  return code >= 0 ? element{code, g_utf8_skip[lead]} : element{~lead, 1};
}

}  // namespace

/* By bytes: a code point has one well-formed encoding, and stray bytes equal themselves alone. */
int ox_utf8_strcmp(const char* a, const char* b) {
  return static_cast<int>(a == nullptr || b == nullptr || strcmp(a, b) != 0);
}

int ox_utf8_strcasecmp(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    return 1;
  }
  while (*a != '\0' && *b != '\0') {
    const ox_s32 ca = decode(a).code;
    const ox_s32 cb = decode(b).code;
    if (ox_java_tolower(ca) != ox_java_tolower(cb)) {
      const bool is_pair = (ca == capital_dotted_i && ox_is_lower_turkish_i(&b) != 0) ||
                           (cb == capital_dotted_i && ox_is_lower_turkish_i(&a) != 0);
      if (!is_pair) {
        return 1;
      }
    }
    a += decode(a).length;
    b += decode(b).length;
  }
  return static_cast<int>(*a != *b);
}

ox_s32 ox_java_tolower(ox_s32 c) {
  if (g_unichar_validate(static_cast<gunichar>(c)) == 0) {
    return c;
  }
  if (c == capital_dotted_i) {
    return packed_dotted_i;
  }
  return is_unknown_to_java(c) ? c : u_tolower(c);
}

int ox_is_lower_turkish_i(const char** p) {
  if (p == nullptr || *p == nullptr || strncmp(*p, "i\u0307", 3) != 0) {
    return 0;
  }
  *p += 1;
  return 1;
}
