#include "tools/drive/drive_path.h"

#include <windows.h>

#include "tools/common/wide_text.h"

namespace tools {

std::string name_of(const std::string& path) {
  const std::string trimmed = path.substr(0, path.find_last_not_of("/\\") + 1);
  return trimmed.substr(trimmed.find_last_of("/\\") + 1);
}

std::string join_path(const std::string& folder, const std::string& name) {
  const bool has_slash = !folder.empty() && (folder.back() == '/' || folder.back() == '\\');
  return folder + (has_slash ? "" : "/") + name;
}

std::string path_key(const std::string& path) {
  std::wstring key;
  for (const wchar_t c : wide_from_utf8(path)) {
    const wchar_t unit = c == L'\\' ? L'/' : c;
    if (unit != L'/' || (!key.empty() && key.back() != L'/')) {
      key += unit;
    }
  }
  CharUpperBuffW(key.data(), static_cast<DWORD>(key.size()));
  return utf8_from_wide(key);
}

}  // namespace tools
