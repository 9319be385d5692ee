/* Paths of the cloud as texts: parts, and one text for all cases of a path. */
#ifndef SERVICE_FOLDED_PATH_H
#define SERVICE_FOLDED_PATH_H

#include <string>

namespace tarnd {

/* The same for all cases of a path, by the rules of Windows' own file names. */
std::string folded_path(const std::string& path);
/* The folder that a path is in; empty for one of the share's own. */
inline std::string parent_path(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}
inline std::string join_path(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + '/' + name;
}
/* Whether an item is somewhere below a folder; both folded, or both of one case. */
inline bool is_below(const std::string& path, const std::string& folder) {
  return folder.empty() ? !path.empty()
                        : path.size() > folder.size() && path.starts_with(folder) &&
                              path[folder.size()] == '/';
}

}  // namespace tarnd

#endif
