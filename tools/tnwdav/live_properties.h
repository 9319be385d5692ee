/* The properties that the drive itself tells of a file or folder. */
#ifndef TNWDAV_LIVE_PROPERTIES_H
#define TNWDAV_LIVE_PROPERTIES_H

#include <string>
#include <string_view>
#include <vector>

#include "dav_locks.h"
#include "share.h"

namespace tnwdav {

struct LiveProperty {
  std::string_view name; /* in the namespace of WebDAV */
  /* The content of the element; false when the item has no such property. */
  bool (*value)(const Item& item, const std::vector<DavLock>& locks, std::string* out);
};

extern const std::vector<LiveProperty> LIVE_PROPERTIES;

/* Null when there is none. */
const LiveProperty* find_live_property(std::string_view name);

/* The content's entity tag: another one after each change. Folders have one, too. */
std::string tag_of(const Item& item);
/* "Sun, 06 Nov 1994 08:49:37 GMT" of a Windows file time. */
std::string http_date(uint64_t file_time);
/* The activelock elements of locks. */
std::string lock_discovery(const std::vector<DavLock>& locks);

}  // namespace tnwdav

#endif
