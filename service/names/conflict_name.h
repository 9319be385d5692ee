/* The names of contents that must not replace the cloud's. */
#ifndef SERVICE_CONFLICT_NAME_H
#define SERVICE_CONFLICT_NAME_H

#include <string>

namespace tarnd {

/*
 * "folder/NAME (conflict of USER DATE).EXT" for "folder/NAME.EXT", with " 2" and so on behind the
 * date from the second number on. Of a path that is such a name already, another number of it.
 */
std::string conflict_name(const std::string& path, const std::string& user, const std::string& date,
                          int number);

}  // namespace tarnd

#endif
