#include "wide_text.h"

#include <windows.h>

namespace tarnd {

bool wide_from_utf8(std::string_view text, std::wstring* out) {
  out->clear();
  if (text.empty()) {
    return true;
  }
  const int bytes = static_cast<int>(text.size());
  out->resize(text.size()); /* never more units than bytes */
  const int units =
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), bytes, out->data(), bytes);
  out->resize(static_cast<size_t>(units));
  return units > 0;
}

bool utf8_from_wide(std::wstring_view text, std::string* out) {
  out->clear();
  if (text.empty()) {
    return true;
  }
  const int units = static_cast<int>(text.size());
  out->resize(text.size() * 3); /* a unit takes up to three bytes, a pair of them four */
  const int bytes = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), units,
                                        out->data(), units * 3, nullptr, nullptr);
  out->resize(static_cast<size_t>(bytes));
  return bytes > 0;
}

}  // namespace tarnd
