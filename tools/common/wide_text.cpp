#include "tools/common/wide_text.h"

#include <windows.h>

namespace tools {

std::wstring wide_from_utf8(std::string_view text) {
  const int bytes = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0'); /* never more units than bytes */
  wide.resize(static_cast<size_t>(
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), bytes, wide.data(), bytes)));
  return wide;
}

std::string utf8_from_wide(std::wstring_view text) {
  const int units = static_cast<int>(text.size());
  std::string narrow(text.size() * 3, '\0'); /* a unit takes up to three bytes, a pair four */
  narrow.resize(
      static_cast<size_t>(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), units,
                                              narrow.data(), units * 3, nullptr, nullptr)));
  return narrow;
}

}  // namespace tools
