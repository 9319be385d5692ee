/* Ids of items for clouds that have none of their own. */
#ifndef SERVICE_PATH_ID_H
#define SERVICE_PATH_ID_H

#include <string>

#include "tnv_proto.h"

namespace tarnd {

/* A UUID named by a path (version 8: an own scheme): the head of the path's SHA-256. */
cfs_id_t id_of_path(const std::string& path);

}  // namespace tarnd

#endif
