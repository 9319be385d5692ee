/* Paths of a drive: UTF-8, with '/' or '\\'. */
#ifndef TOOLS_DRIVE_PATH_H
#define TOOLS_DRIVE_PATH_H

#include <string>

namespace tools {

/* The last name of a path, of this machine or of the drive, whose root has an empty name. */
std::string name_of(const std::string& path);
std::string join_path(const std::string& folder, const std::string& name);
/* The same text for all spellings of a path: slashes, case. */
std::string path_key(const std::string& path);

}  // namespace tools

#endif
