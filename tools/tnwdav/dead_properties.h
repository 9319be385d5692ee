/*
 * The properties that clients give to files and folders, and that the drive itself cannot hold: in
 * a SQLite database beside the cache. Paths are told by path_key().
 *
 * Threads: any; the object's own lock guards the database, for one short transaction at a time.
 */
#ifndef TNWDAV_DEAD_PROPERTIES_H
#define TNWDAV_DEAD_PROPERTIES_H

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/database.h"
#include "dav_xml.h"

namespace tnwdav {

class DeadProperties {
 public:
  using List = std::vector<DeadProperty>;

  /* `path`: of the database, UTF-8. Throws a tools::Failure when it cannot be opened. */
  explicit DeadProperties(const std::string& path);

  /* All of these throw an HttpError when the database fails. */
  List of(const std::string& key);
  /* Of what a folder holds, by key. */
  std::map<std::string, List> of_members(const std::string& folder);

  /* All of the changes or, when it throws, none. */
  void change(const std::string& key, const std::vector<PropertyChange>& changes);

  /* These are told of what happened to a path with all below it. */
  void removed(const std::string& key);
  void moved(const std::string& from, const std::string& to);
  /* Of a path alone. */
  void copied(const std::string& from, const std::string& to);

 private:
  void transact(const std::function<int()>& work);
  int run(const char* sql, const std::vector<std::string>& values);

  std::mutex lock_; /* guards the next one */
  common::Database database_;
};

}  // namespace tnwdav

#endif
