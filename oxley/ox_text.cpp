/*
 * Text comparison: GLib decodes, ICU (72 or newer) lowers, and a list holds back what Java does not
 * lower.
 */
#include "ox_text.h"

#include <glib.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

/* The newest letters that are lowered are those of Unicode 15.1. Names must compare alike in every
 * build, and newer releases of ICU know more letters. */
constexpr UVersionInfo NEWEST = {15, 1, 0, 0};

constexpr ox_s32 CAPITAL_DOTTED_I = 0x130;
constexpr ox_s32 PACKED_DOTTED_I = 0x690307;

struct Range {
  ox_s32 first;
  ox_s32 last;
};

/* Capitals whose lower case Java does not know, in rising order. */
constexpr Range UNKNOWN_TO_JAVA[] = {
    {0x37f, 0x37f},     {0x528, 0x528},     {0x52a, 0x52a},     {0x52c, 0x52c},
    {0x52e, 0x52e},     {0x13a0, 0x13f5},   {0x1c90, 0x1cbf},   {0xa698, 0xa698},
    {0xa69a, 0xa69a},   {0xa796, 0xa796},   {0xa798, 0xa798},   {0xa79a, 0xa79a},
    {0xa79c, 0xa79c},   {0xa79e, 0xa79e},   {0xa7ab, 0xa7ae},   {0xa7b0, 0xa7b4},
    {0xa7b6, 0xa7b6},   {0xa7b8, 0xa7b8},   {0x104b0, 0x104d3}, {0x10c80, 0x10cb2},
    {0x118a0, 0x118bf}, {0x16e40, 0x16e5f}, {0x1e900, 0x1e921},
};

bool is_unknown_to_java(ox_s32 c) {
  const Range* found = std::ranges::lower_bound(UNKNOWN_TO_JAVA, c, {}, &Range::last);
  return found != std::end(UNKNOWN_TO_JAVA) && found->first <= c;
}

/* Whether the letter came with a later Unicode than NEWEST. */
bool is_newer(ox_s32 c) {
  UVersionInfo age;
  u_charAge(c, age);
  return memcmp(age, NEWEST, sizeof(age)) > 0;
}

/* What stands at a place of a text: a character, or a byte that is no part of one. */
struct Element {
  ox_s32 code; /* a Unicode scalar value; for a stray byte its complement, which is negative */
  int length;
};

/* The checking decoder stops at the first byte that does not continue the character, so it never
 * passes the NUL. The table of lengths trusts the lead byte, so only what the decoder has accepted
 * is looked up in it. */
Element decode(const char* text) {
  const auto lead = static_cast<guchar>(*text);
  const auto code = static_cast<ox_s32>(g_utf8_get_char_validated(text, -1));
  return code >= 0 ? Element{code, g_utf8_skip[lead]} : Element{~lead, 1};
}

bool is_ascii(char c) { return static_cast<signed char>(c) >= 0; }

char lower_ascii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

/* This and same_element compare what stands at both places, and step over it when it is equal. */
bool same_ascii(const char** a, const char** b) {
  const bool same = **a == **b || lower_ascii(**a) == lower_ascii(**b);
  ++*a;
  ++*b;
  return same;
}

/* Whether `capital` is the dotted capital I and `pair` holds the two characters that it equals. */
bool same_dotted_i(const Element& at_capital, const char** capital, const char** pair) {
  if (at_capital.code != CAPITAL_DOTTED_I || ox_is_lower_turkish_i(pair) == 0) {
    return false;
  }
  *capital += at_capital.length;
  *pair += decode(*pair).length;
  return true;
}

bool same_element(const char** a, const char** b) {
  const Element ea = decode(*a);
  const Element eb = decode(*b);
  if (ea.code != eb.code && ox_java_tolower(ea.code) != ox_java_tolower(eb.code)) {
    return same_dotted_i(ea, a, b) || same_dotted_i(eb, b, a);
  }
  *a += ea.length;
  *b += eb.length;
  return true;
}

}  // namespace

/* Bytes are compared: a code point has one well-formed encoding, and a stray byte equals itself
 * alone. */
int ox_utf8_strcmp(const char* a, const char* b) {
  return static_cast<int>(a == nullptr || b == nullptr || strcmp(a, b) != 0);
}

int ox_utf8_strcasecmp(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    return 1;
  }
  while (*a != '\0' && *b != '\0') {
    const bool same = is_ascii(*a) && is_ascii(*b) ? same_ascii(&a, &b) : same_element(&a, &b);
    if (!same) {
      return 1;
    }
  }
  return static_cast<int>(*a != *b);
}

ox_s32 ox_java_tolower(ox_s32 c) {
  if (g_unichar_validate(static_cast<gunichar>(c)) == 0) {
    return c;
  }
  if (c == CAPITAL_DOTTED_I) {
    return PACKED_DOTTED_I;
  }
  if (is_unknown_to_java(c)) {
    return c;
  }
  const ox_s32 lower = u_tolower(c);
  return lower != c && (is_newer(c) || is_newer(lower)) ? c : lower;
}

int ox_is_lower_turkish_i(const char** p) {
  if (p == nullptr || *p == nullptr || strncmp(*p, "i\u0307", 3) != 0) {
    return 0;
  }
  *p += 1;
  return 1;
}
