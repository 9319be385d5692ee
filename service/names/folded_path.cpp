#include "names/folded_path.h"

#include <windows.h>

#include <algorithm>

#include "wide_text.h"

namespace tarnd {
namespace {

bool is_ascii(char c) { return static_cast<signed char>(c) >= 0; }

char upper_ascii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c; }

}  // namespace

std::string folded_path(const std::string& path) {
  std::string folded = path;
  if (std::ranges::all_of(path, is_ascii)) {
    std::ranges::transform(path, folded.begin(), upper_ascii);
    return folded;
  }
  std::wstring wide;
  wide_from_utf8(path, &wide);
  CharUpperBuffW(wide.data(), static_cast<DWORD>(wide.size()));
  return utf8_from_wide(wide, &folded) ? folded : path;
}

}  // namespace tarnd
