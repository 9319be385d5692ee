/* Files and folders of our own on a server: hidden in listings, and gone when they are done with.
 */
#ifndef SERVICE_PART_NAME_H
#define SERVICE_PART_NAME_H

#include <string>

namespace tarnd {

/* A new name, with the folder's path before it. */
std::string new_part_path(const std::string& folder);
bool is_part_name(const std::string& name);

}  // namespace tarnd

#endif
