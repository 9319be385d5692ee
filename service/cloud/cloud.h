/*
 * The cloud behind the cache service: one small interface, so that others can follow the plain
 * directory of cloud_directory.h.
 *
 * Paths are UTF-8, relative to the share, with '/' between names and no leading or trailing one;
 * the empty path is the share itself. They arrive normalised (see share_path.h): no empty, "." or
 * ".." name, no backslash. Results are 0 or an error number of ox_errno.h.
 *
 * Threads: any call may run on any thread at the same time.
 */
#ifndef SERVICE_CLOUD_H
#define SERVICE_CLOUD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tnv_proto.h"

namespace tarnd {

struct CloudEntry {
  std::string name; /* the last name of the path; empty for the share */
  std::string path; /* the item's own: with the cloud's case, and behind links */
  bool folder = false;
  uint64_t size = 0;       /* bytes */
  uint32_t attributes = 0; /* Windows file attributes */
  uint64_t created = 0;    /* Windows file times, 100 ns since 1601-01-01 UTC */
  uint64_t accessed = 0;
  uint64_t modified = 0;
  cfs_id_t id = {};      /* stable for as long as the item keeps its path */
  cfs_id_t version = {}; /* another one for every content */
};

/*
 * Gives the next bytes of a new content: up to `size` bytes at `offset` into `buffer`, the count in
 * `*got`; 0 bytes before the announced size is an error of the caller.
 */
using ContentReader = std::function<int(uint64_t offset, void* buffer, size_t size, size_t* got)>;

class Cloud {
 public:
  virtual ~Cloud() = default;

  virtual int list(const std::string& path, std::vector<CloudEntry>* entries) = 0;
  virtual int status(const std::string& path, CloudEntry* entry) = 0;
  /* Reads up to `size` bytes at `offset`; fewer only at the end of the file. */
  virtual int read(const std::string& path, uint64_t offset, void* buffer, size_t size,
                   size_t* got) = 0;
  /*
   * Replaces the whole content, or creates the file: a reader of the cloud sees the old content or
   * the new one, never a mixture, also when this process dies half-way.
   */
  virtual int write(const std::string& path, uint64_t size, const ContentReader& content) = 0;
  /*
   * OX_EEXIST when the target exists, unless `replace` is set and both are files; a folder moves
   * with all that is in it.
   */
  virtual int rename(const std::string& from, const std::string& to, bool replace) = 0;
  /* A file, or an empty folder (OX_ENOTEMPTY otherwise). */
  virtual int remove(const std::string& path) = 0;
  virtual int make_folder(const std::string& path) = 0;
};

/*
 * The cloud at an address ("file:///Z:/a%20folder", percent-encoded), or null with a text in
 * `*error` that says what is wrong with it.
 */
std::unique_ptr<Cloud> open_cloud(const std::string& address, std::string* error);

}  // namespace tarnd

#endif
