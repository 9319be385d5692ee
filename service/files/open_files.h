/*
 * The open files, folders and listings of all clients, and the cached files behind them.
 *
 * Locks, in the order in which they nest:
 *   1. names_: held through every operation that decides by, or changes, which names exist and who
 *      has them open (open, rename, delete), the cloud's part of it included;
 *   2. table_: guards both tables and the sharing state; held for moments only;
 *   3. a CachedFile's lock, which may be held for long: taken under table_ only for a file that
 *      nobody else has a pointer to. Only a rename, under names_, takes those of several files.
 */
#ifndef SERVICE_OPEN_FILES_H
#define SERVICE_OPEN_FILES_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "files/cached_file.h"
#include "uuid_text.h"

namespace tarnd {

/*
 * One open of a file or folder, or a folder's listing. Fixed after creation, but for `cleaned` and
 * `place` (guarded by the table's lock) and `part` (by the file's).
 */
struct OpenFile {
  cfs_id_t id = {}; /* of the request that opened it: the key */
  uint32_t client_pid = 0;
  int32_t client_fd = 0;
  uint32_t access = 0;              /* ACCESS* bits */
  uint32_t share = 0;               /* Windows share mode */
  cfs_id_t item = {};               /* as answered in fso_handle */
  std::string name;                 /* the path that was opened, for messages */
  std::shared_ptr<CachedFile> file; /* null for a folder */
  cfs_id_t place = {};  /* the item's id now: another one after a rename, zero after a deletion */
  bool cleaned = false; /* its user's last handle is closed: blocks nobody any more */
  FileOpen part;
};

/* Access-mode bits. */
enum : uint32_t { ACCESS_READ = 1, ACCESS_WRITE = 6, ACCESS_MASK = 7 };
/* Share-mode bits, those of Windows. */
enum : uint32_t { SHARE_READ = 1, SHARE_WRITE = 2, SHARE_DELETE = 4, SHARE_MASK = 7 };

class OpenFiles {
 public:
  explicit OpenFiles(const CacheEnvironment& environment) : env_(environment) {}

  /* The namespace lock. */
  std::mutex& names() { return names_; }

  /*
   * Adds an open, with names() held: 0; OX_EACCES when share modes conflict; OX_EINVAL when its id
   * is in use. `wants` are the access bits that count for sharing. A file's CachedFile is found or
   * made here.
   */
  int add(const std::shared_ptr<OpenFile>& open, const CloudEntry& entry, uint32_t wants);
  /*
   * Adds a folder's listing, which takes no part in sharing and so needs no names(): a listing
   * never waits for a rename that waits for a file. OX_EINVAL when its id is in use.
   */
  int add_listing(const std::shared_ptr<OpenFile>& open, const CloudEntry& folder);
  /* The open is no more, its range locks neither. */
  void remove(const OpenFile& open);
  std::shared_ptr<OpenFile> find(const cfs_id_t& id);
  /*
   * The open of a file by its client's descriptor; null when none of the processes has it, or it
   * had its CLEANUP.
   */
  std::shared_ptr<OpenFile> find_descriptor(const std::set<uint32_t>& clients, int32_t fd,
                                            const cfs_id_t& item);
  std::vector<std::shared_ptr<OpenFile>> of_client(uint32_t client_pid);
  std::vector<std::shared_ptr<OpenFile>> all();
  /* The open's user is gone: it blocks nobody any more, and its range locks go. */
  void clean_up(OpenFile& open);

  /* Overlays what is known locally (an open file's size and time) on the cloud's entry. */
  void overlay(CloudEntry* entry);

  /*
   * With names() held: 0, or OX_EACCES when an open that does not share deletion keeps the item
   * from being renamed or deleted.
   */
  int may_move(const CloudEntry& entry);
  /*
   * Rename and delete, with names() held and may_move asked: in the cloud and in the cache. What
   * the cache holds of the item, and of all below a folder, goes with it, unsaved or not. OX_EBUSY:
   * files below a folder to be renamed are in use.
   */
  int rename(const CloudEntry& entry, const std::string& from, const std::string& to);
  int remove(const CloudEntry& entry, const std::string& path);

  /* Writes back all that waits; the number of files that could not be. */
  size_t save_all();
  /* Deletes the local files of everything that is saved. */
  void discard_saved();

 private:
  using Guard = std::lock_guard<std::mutex>;
  struct Cached {
    std::shared_ptr<CachedFile> file;
    uint64_t used = 0; /* a tick of next_number_ */
  };

  /* A cached file that a rename moves: by name or with a folder above it. */
  struct Moving {
    cfs_id_t id;
    std::shared_ptr<CachedFile> file;
    CachedFile::Hold hold;
  };

  /* These want table_ held. */
  std::shared_ptr<CachedFile> file_of(const CloudEntry& entry);
  bool sharing_allows(const OpenFile& open, uint32_t wants) const;
  void forget_idle();

  std::shared_ptr<CachedFile> known(const cfs_id_t& item);
  bool is_in_use(const std::shared_ptr<CachedFile>& file);
  bool any_in_use_below(const std::string& folder);
  std::vector<Moving> hold_for_move(const CloudEntry& entry);
  void moved(const cfs_id_t& from, const cfs_id_t& to);
  std::vector<std::shared_ptr<CachedFile>> all_files();

  const CacheEnvironment& env_; /* fixed */
  std::mutex names_;

  std::mutex table_;
  uint64_t next_number_ = 1;
  std::map<cfs_id_t, Cached, IdLess> files_; /* by the cloud's id; without those deleted */
  std::map<cfs_id_t, std::shared_ptr<OpenFile>, IdLess> opens_;
};

}  // namespace tarnd

#endif
