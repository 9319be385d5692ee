/*
 * The table of cached files: by their folded paths, by their numbers, and in the order of their
 * last use. Guarded by its owner. No call depends on how many files there are, but for what it
 * hands out.
 */
#ifndef SERVICE_CACHED_FILES_H
#define SERVICE_CACHED_FILES_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "files/cached_file.h"

namespace tarnd {

class CachedFiles {
 public:
  using File = std::shared_ptr<CachedFile>;
  using Keyed = std::pair<std::string, File>;

  size_t size() const { return by_path_.size(); }
  /* Null when there is none. */
  File find(const std::string& key) const;
  File of_id(int64_t id) const;
  std::vector<File> all() const;
  /* What lies in a folder, and what lies anywhere below it. */
  std::vector<Keyed> children(const std::string& folder) const;
  std::vector<Keyed> below(const std::string& folder) const;

  /* Adds a file, or puts it in the place of another one. It is the one used last. */
  void put(const std::string& key, File file);
  /* It was used now. */
  void touch(const std::string& key);
  void erase(const std::string& key);
  /* With an empty `to` the file is not found any more. */
  void move(const std::string& from, const std::string& to);

  /* Takes out files that `goes` names, those used longest ago first, for as long as `wanted`. */
  std::vector<File> take_oldest(const std::function<bool()>& wanted,
                                const std::function<bool(const File& file)>& goes);

 private:
  struct Entry {
    File file;
    uint64_t used = 0; /* a tick */
  };
  using Entries = std::map<std::string, Entry>;

  void forget(Entries::iterator entry);

  uint64_t ticks_ = 0;
  Entries by_path_;
  std::map<uint64_t, std::string> by_use_;
  std::unordered_map<int64_t, std::string> by_id_;
};

}  // namespace tarnd

#endif
