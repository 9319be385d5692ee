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

std::string parent_path(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string join_path(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + '/' + name;
}

bool is_below(const std::string& path, const std::string& folder) {
  return folder.empty() ? !path.empty()
                        : path.size() > folder.size() && path.starts_with(folder) &&
                              path[folder.size()] == '/';
}

} /* namespace tarnd */
