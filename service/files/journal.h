/*
 * The journal of one cache file: what a killed service leaves behind of data that was not yet
 * written back. It stands beside the cache file, exists exactly while the file may hold such data,
 * and is written before the client is told that it may write.
 *
 * A text file, one record a line, each whole or ignored:
 *   tarnd-journal 1 <region shift>
 *   base <version of the cloud's content, UUID> <its size>
 *   path <the file's path in the cloud; bytes below 0x20 and '%' as %xx>
 *   limit <offset>            from here on the cloud's content does not count (see region_store.h)
 *   dirty <first> <end>       regions
 * limit and dirty lines come in the order in which it happened: a limit drops the dirty regions
 * past it, whose content is local either way. A new base or path starts a new journal.
 *
 * It is safe against the end of the process, not against the end of the machine: lines are not
 * flushed to the disk. Not thread-safe: guarded by its CachedFile.
 */
#ifndef SERVICE_JOURNAL_H
#define SERVICE_JOURNAL_H

#include <cstdint>
#include <string>

#include "files/region_store.h"
#include "files/windows_file.h"
#include "tnv_proto.h"

namespace tarnd {

struct JournalState {
  std::string path;
  cfs_id_t base_version = {};
  uint64_t base_size = 0;
  RegionStore store{0};
};

/* Results are 0 or an error number of ox_errno.h. */
class Journal {
 public:
  explicit Journal(std::wstring path) : path_(std::move(path)) {}

  const std::wstring& path() const { return path_; }
  bool exists() const { return file_.valid(); }

  /* Writes a new journal, in the place of an old one. */
  int start(const JournalState& state);
  /* Adds what is new: a limit other than the last one, and regions (none when empty). */
  int add(uint64_t limit, Run dirty);
  void remove();

  /* Reads a journal file: false when it is no journal, or one without a base or path. */
  static bool load(const std::wstring& path, JournalState* state);

 private:
  int append(const std::string& lines);

  std::wstring path_;
  FileHandle file_;
  uint64_t limit_ = 0; /* the last one written */
};

}  // namespace tarnd

#endif
