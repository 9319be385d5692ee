/* What was found out of a server (webdav_abilities.h), over the service's starts. */
#ifndef SERVICE_KEPT_ABILITIES_H
#define SERVICE_KEPT_ABILITIES_H

#include <string>

#include "cloud/webdav/webdav_abilities.h"

namespace tarnd {

/*
 * In a file beside the cache: for a day, since servers are updated. Without a path nothing is kept.
 * A file that cannot be read or written only costs another trial.
 */
class KeptAbilities {
 public:
  explicit KeptAbilities(std::wstring path) : path_(std::move(path)) {}

  /* False: nothing is known of the server at this address. */
  bool load(const std::string& address, WebdavAbilities* abilities) const;
  void save(const std::string& address, const WebdavAbilities& abilities) const;

 private:
  const std::wstring path_;
};

}  // namespace tarnd

#endif
