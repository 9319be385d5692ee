#include "names/utf8.h"

#include <glib.h>

#include <algorithm>

namespace tarnd {

size_t utf8_character_size(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  const gunichar code = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
  const bool broken = code == static_cast<gunichar>(-1) || code == static_cast<gunichar>(-2);
  return broken ? 0 : static_cast<size_t>(g_utf8_skip[static_cast<guchar>(text[0])]);
}

bool is_utf8(std::string_view text) {
  size_t size = 1;
  for (; !text.empty() && size != 0; text.remove_prefix(size)) {
    size = utf8_character_size(text);
  }
  return size != 0;
}

std::string cut_utf8(const std::string& text, size_t bytes) {
  size_t end = std::min(bytes, text.size());
  while (end > 0 && end < text.size() && (text[end] & 0xC0) == 0x80) {
    end--;
  }
  return text.substr(0, end);
}

}  // namespace tarnd
