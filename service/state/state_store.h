/*
 * What the service knows of its files and must not forget: those with changes that are not in the
 * cloud. A clean file is not on record; the cache begins empty at each start but for these.
 *
 * Threads: any; the object's own lock guards the database, for one short transaction at a time.
 */
#ifndef SERVICE_STATE_STORE_H
#define SERVICE_STATE_STORE_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "common/database.h"
#include "files/file_machine.h"
#include "files/region_store.h"
#include "files/sent_content.h"

namespace tarnd {

using common::Database;
using common::Durability;
using common::Statement;

/* Where the bytes are that are not in the local files. */
struct CloudBase {
  std::string path;
  std::string version; /* empty: there is none, and no byte comes from the cloud */
  uint64_t size = 0;
  uint64_t modified = 0; /* as the cloud tells it: stays the same in a rename */
};

/* A content as it was when it was sealed. */
struct SealedChange {
  std::string file; /* the name of the local file that holds it */
  uint64_t size = 0;
  RegionStore store{0}; /* what the file holds; its dirty regions may differ from the base's */
  std::vector<SentContent> sent = {}; /* this one or earlier ones, of which one may have arrived */
};

/* One file on record. Paths are UTF-8. */
struct FileRecord {
  int64_t id = 0; /* of StateStore::new_id() */
  std::string path;
  std::string moving_to; /* while a rename is under way; empty otherwise */
  std::string local;     /* the name of the local file */
  FileState state;
  bool is_new = false;  /* nothing may be at the path when the change goes up */
  bool has_cut = false; /* the local file is still to be cut to `cut` */
  uint64_t cut = 0;
  uint64_t size = 0; /* of the local file; it has at least as many bytes when it is whole */
  CloudBase base;
  RegionStore store{0};
  SealedChange sealed; /* with a change only */
};

/* Results are 0 or an error number of ox_errno.h. */
class StateStore {
 public:
  /* Opens the database and reads it. OX_EINVAL: it is damaged, and nothing of it is used. */
  int open(const std::string& path, std::vector<FileRecord>* records);

  int64_t new_id() { return next_id_++; }
  /* One transaction: these records are as here, and these ids are no more. */
  int save(const std::vector<const FileRecord*>& records, const std::vector<int64_t>& gone,
           Durability durability);
  /* A region of a file on record is dirty, and its local file has this size. */
  int add_dirty(int64_t id, Run regions, uint64_t size);

 private:
  int write(const FileRecord& record);
  int erase(int64_t id);
  int load(std::vector<FileRecord>* records);

  std::mutex lock_;
  Database database_; /* guarded by lock_ */
  std::atomic<int64_t> next_id_ = 1;
};

}  // namespace tarnd

#endif
