/*
 * What a server keeps of WebDAV: found out by trying it on scratch files of our own at the root of
 * the cloud, never on the user's.
 */
#ifndef SERVICE_WEBDAV_ABILITIES_H
#define SERVICE_WEBDAV_ABILITIES_H

#include <string>

#include "cloud/webdav/webdav_server.h"

namespace tarnd {

struct WebdavAbilities {
  bool strict_new_names = false; /* MOVE with "Overwrite: F" does not replace */
  bool tagged_moves = false;     /* MOVE keeps an If with tags, of source and target */
  bool locks = false;            /* LOCK keeps other clients out */
  bool moves_keep_tag = false;   /* a moved file has the tag that it had before */
  bool ranged_get = false;
  bool ranged_put = false; /* and a COPY to try it on: only changed bytes go up */
  bool case_insensitive = false;
};

/* Tries it all. An error when the server cannot be asked, or refuses to keep even a scratch file.
 */
CloudResult find_abilities(const CloudContext& context, WebdavServer& server,
                           WebdavAbilities* abilities);

/* One line for each, for people. */
std::string table_of(const WebdavAbilities& abilities);

/* The same as one text without blanks, and back: false when it is none. */
std::string flags_of(const WebdavAbilities& abilities);
bool parse_flags(const std::string& flags, WebdavAbilities* abilities);

}  // namespace tarnd

#endif
