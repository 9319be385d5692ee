/*
 * UUIDs as text. A new one is made in ox_uuid_win.cpp.
 */
#include "ox_uuid.h"

#include <cstring>

#include "ox_errno.h"

namespace {

/* The byte of the binary form that each two digits of the text stand for: the first three fields
 * are little-endian numbers. */
constexpr int TEXT_ORDER[OX_UUID_SIZE] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

bool hyphen_before(int byte) { return byte == 4 || byte == 6 || byte == 8 || byte == 10; }

int hex_value(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

void ox_uuid_unparse(const ox_u8* id, char* text) {
  static const char DIGITS[] = "0123456789abcdef";
  for (int i = 0; i < OX_UUID_SIZE; ++i) {
    if (hyphen_before(i)) {
      *text++ = '-';
    }
    const ox_u8 byte = id[TEXT_ORDER[i]];
    *text++ = DIGITS[byte >> 4];
    *text++ = DIGITS[byte & 0xf];
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
    parsed[TEXT_ORDER[i]] = static_cast<ox_u8>(high << 4 | low);
    text += 2;
  }
  if (*text != '\0') {
    return OX_EINVAL;
  }
  memcpy(id, parsed, sizeof(parsed));
  return 0;
}
