/* Names of our own files and folders on a server. Listings hide the files. */
#ifndef SERVICE_PART_NAME_H
#define SERVICE_PART_NAME_H

#include <string>

namespace tarnd {

/* A new name, with the folder's path before it. */
std::string new_part_path(const std::string& folder);
bool is_part_name(const std::string& name);

}  // namespace tarnd

#endif
