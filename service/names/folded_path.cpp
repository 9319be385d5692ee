#include "names/folded_path.h"

#include <windows.h>

#include "wide_text.h"

namespace tarnd {

std::string folded_path(const std::string& path) {
  std::wstring wide;
  std::string folded;
  wide_from_utf8(path, &wide);
  CharUpperBuffW(wide.data(), static_cast<DWORD>(wide.size()));
  return utf8_from_wide(wide, &folded) ? folded : path;
}

}  // namespace tarnd
