/*
 * The open files, folders and listings of all clients, and the cached files behind them.
 *
 * Who needs a name to stay as it is (open, rename, delete) reserves its path first, for as long as
 * that lasts (names/reservations.h); operations of other paths never wait for it.
 *
 * Locks, in the order in which they nest:
 *   1. a reservation of paths;
 *   2. the turn of a cached file (cached_file.h). Only a rename takes those of several files, which
 *      lie under the path that it has reserved;
 *   3. `table_`: guards both tables and the sharing state; held for moments only;
 *   4. a cached file's own lock, for moments;
 *   5. the locks of single parts, under which no other one is taken: those of the transfer engine
 *      (and with it of all fetches), the upload queue, the database, a file's range locks, and the
 *      remembered names.
 * No lock but a reservation and a turn is held over a call of the cloud, and none over a transfer.
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

#include "cache_limits.h"
#include "files/cached_files.h"
#include "names/reservations.h"
#include "transfer/upload_queue.h"
#include "uuid_text.h"

namespace tarnd {

/*
 * One open of a file or folder, or a folder's listing. Fixed after creation, but for `cleaned` and
 * `place` (guarded by the table's lock) and `part` (by the file's turn).
 */
struct OpenFile {
  cfs_id_t id = {};        /* of the request that opened it: the key */
  uint32_t client_pid = 0; /* the session that it belongs to */
  int32_t client_fd = 0;
  uint32_t access = 0;              /* ACCESS_* bits */
  uint32_t share = 0;               /* Windows share mode */
  cfs_id_t item = {};               /* as answered in fso_handle */
  std::string name;                 /* the path that was opened, for messages */
  std::shared_ptr<CachedFile> file; /* null for a folder */
  std::string place;                /* the item's key now; empty once it is deleted */
  bool cleaned = false;             /* its user's last handle is closed: blocks nobody any more */
  FileOpen part;
};

/* Access-mode bits. */
enum : uint32_t { ACCESS_READ = 1, ACCESS_WRITE = 6, ACCESS_MASK = 7 };
/* Share-mode bits, those of Windows. */
enum : uint32_t { SHARE_READ = 1, SHARE_WRITE = 2, SHARE_DELETE = 4, SHARE_MASK = 7 };

class OpenFiles : public FileTable {
 public:
  /* `user`: in the names of conflicts. All outlive the object. */
  OpenFiles(const CacheEnvironment& environment, CacheLimits& limits, std::string user,
            unsigned transfers);
  ~OpenFiles() override;

  Reservations& reservations() { return reservations_; }
  UploadQueue& uploads() { return uploads_; }

  /*
   * What is at a path: a file that is not in the cloud yet, or the cloud's, with what the cloud
   * tells of the folder above. 0 or OX_ENOENT ...
   */
  int look_up(const std::string& path, CloudEntry* entry);
  /* The same, or as it was a moment ago: for those who only show it. */
  int look_up_remembered(const std::string& path, CloudEntry* entry);
  /* Adds the names of a folder that are not in the cloud yet, and what is known locally. */
  void complete(const std::string& folder, std::vector<CloudEntry>* entries);

  /*
   * Adds an open, its path reserved: 0; OX_EACCES when share modes conflict; OX_EINVAL when its id
   * is in use. `wants` are the access bits that count for sharing. A file's CachedFile is found or
   * made here.
   */
  int add(const std::shared_ptr<OpenFile>& open, const CloudEntry& entry, uint32_t wants);
  /* Adds a folder's listing, which takes no part in sharing. OX_EINVAL when its id is in use. */
  int add_listing(const std::shared_ptr<OpenFile>& open, const CloudEntry& folder);
  /* The open is no more, its range locks neither. A file that was not made after all goes, too. */
  void remove(const OpenFile& open);
  /* Null also for an open of another client; 0 as a client is anyone. */
  std::shared_ptr<OpenFile> find(const cfs_id_t& id, uint32_t client_pid);
  /* The open of a file by its client's descriptor; null when it had its CLEANUP, too. */
  std::shared_ptr<OpenFile> find_descriptor(uint32_t client_pid, int32_t fd, const cfs_id_t& item);
  std::vector<std::shared_ptr<OpenFile>> of_client(uint32_t client_pid);
  std::vector<std::shared_ptr<OpenFile>> all();
  /* The open's user is gone: it blocks nobody any more, and its range locks go. */
  void clean_up(OpenFile& open);

  /* Overlays what is known locally (size and time) on the cloud's entry. */
  void overlay(CloudEntry* entry);

  /* OX_EACCES when an open that does not share deletion keeps the item from going. */
  int may_move(const CloudEntry& entry);
  bool has_new_files_below(const std::string& folder);
  /*
   * Rename and delete, with the paths reserved and may_move() asked: in the cloud and in the cache.
   * What the cache holds of the item, and of all below a folder, goes with it. OX_EBUSY: files
   * below a folder to be renamed are in use.
   */
  int rename(const CloudEntry& entry, const std::string& from, const std::string& to);
  int remove_item(const CloudEntry& entry, const std::string& path);

  /* Takes on what a service that ended left, and goes on with it. */
  void recover(std::vector<FileRecord> records);
  /* Files with changes that are not in the cloud. */
  size_t unsaved();
  /* Drops files that nobody needs, those opened longest ago first, until the cache fits. */
  void trim();

  std::string conflict_path(const std::string& path) override;
  void took_path(CachedFile& file, const std::string& before) override;
  void adopt(FileRecord record) override;
  void enqueue(CachedFile& file) override;
  void cancel_upload(CachedFile& file) override;

 private:
  using Guard = std::lock_guard<std::mutex>;
  /* A cached file that a rename moves: by name or with a folder above it. */
  struct Moving {
    CachedFile::Hold hold;
    std::string to;
  };

  /* These want table_ held. */
  std::shared_ptr<CachedFile> file_of(const std::string& key, const std::string& path);
  bool sharing_allows(const OpenFile& open, uint32_t wants) const;
  void move_key(const std::string& from, const std::string& to);

  int look_up_in(const CloudContext& context, const std::string& path, CloudEntry* entry);
  std::shared_ptr<CachedFile> known(const std::string& key);
  std::shared_ptr<CachedFile> of_id(int64_t id);
  bool is_in_use(const std::shared_ptr<CachedFile>& file);
  bool any_in_use_below(const std::string& folder);
  uint64_t excess();
  std::vector<Moving> hold_for_move(const CloudEntry& entry, const std::string& to);
  int check_new_place(const CloudEntry& entry, const std::string& to, CloudEntry* made);
  int record_move(std::vector<Moving>* moving, bool starts);
  int save(const std::vector<FileRecord>& records);
  void finish_move(std::vector<Moving> moving, const CloudEntry& before, const CloudEntry* now,
                   const std::string& to);
  void enqueue_unsaved(const std::vector<Moving>& moving);
  CloudResult upload(uint64_t id, const CloudContext& context);

  const CacheEnvironment& env_; /* fixed */
  CacheLimits& limits_;         /* has atomic fields */
  const std::string user_;      /* fixed */
  Reservations reservations_;   /* has its own lock */

  std::mutex table_;
  uint64_t next_number_ = 1;
  CachedFiles files_; /* without those deleted */
  std::map<cfs_id_t, std::shared_ptr<OpenFile>, IdLess> opens_;
  std::set<std::string> conflicts_; /* names given by conflict_path(), folded */
  UploadQueue uploads_;             /* has its own lock; ends before the tables do */
};

}  // namespace tarnd

#endif
