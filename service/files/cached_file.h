/*
 * One file of the cloud in the cache: its local file, what that holds, and the way back.
 *
 * Kept once for all opens of the file. A client reads and writes the local file through a handle of
 * its own, and asks here first for regions that its copy of the maps does not show; so what this
 * object knows is what it told, and the local file's size is looked up, never remembered.
 *
 * When data goes back to the cloud: with a close that has the mark "modified"; with the last close
 * of a file that was truncated or has regions reported dirty since the last time, marked or not;
 * with the close of a read-only open that reported a region (it writes for a mapped file, and its
 * mark travels with another open's close, or with none); and when the client of an open that may
 * have written dies. The whole content is written, composed as region_store.h says.
 *
 * When the cloud's file changes behind the cache: while nothing is open and nothing waits to be
 * written back, the cache is filled anew at the next open. Otherwise no region is fetched any more
 * (EIO), since it would belong to another content; a write-back still replaces the cloud's file
 * when every byte of it is local, and is refused with EIO when not.
 *
 * Threads: any. `lock_` guards everything but the fields that are fixed after creation, and is held
 * through fetches and write-backs. `path_` changes under it and under the namespace lock of
 * open_files.h, so either is enough to read it.
 */
#ifndef SERVICE_CACHED_FILE_H
#define SERVICE_CACHED_FILE_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "cloud/cloud.h"
#include "counters.h"
#include "files/journal.h"
#include "files/local_file.h"
#include "files/range_locks.h"
#include "files/region_store.h"

namespace tarnd {

/* What all cached files of a service share; outlives them. */
struct CacheEnvironment {
  Cloud& cloud;
  Counters& counters;
  std::wstring folder; /* where the cache files and journals are */
  int region_shift;
};

/* A file's part of one open. Guarded by the file's lock, but for what is fixed. */
struct FileOpen {
  uint64_t number = 0;       /* fixed; the owner in the file's range locks */
  bool attached = false;     /* from Attach to Detach: in between alone may it ask for anything */
  bool writable = false;     /* fixed */
  bool may_write = false;    /* told of a dirty region: may write there again without a word */
  bool without_maps = false; /* told that the file is empty: asks and tells nothing any more */
  uint64_t emptied = 0;      /* the file's count of emptyings that the open's maps have seen */
};

/* What an open is told. */
struct FileView {
  uint64_t size = 0;
  uint64_t modified = 0; /* Windows file time */
  bool newer = false;    /* than the cloud's */
  size_t map_bytes = 0;
  std::vector<uint8_t> maps; /* the cached one, then the dirty one */
  uint64_t handle = 0;       /* of the local file, in the client's process */
  CloudEntry entry;          /* the cloud's file that the cache was filled from */
  uint64_t fillings = 0;
};

/* The answer to a region request. */
struct RegionAnswer {
  uint64_t start = 0;  /* of the first region */
  uint64_t cached = 0; /* bytes from the requested offset on, up to the end of a region */
  uint64_t size = 0;   /* of the file */
  bool clear = false;  /* the file was emptied: the open drops its maps */
};

/* How an open ends. */
enum class Closing { UNMODIFIED, MODIFIED, CLIENT_DIED };

/* Results are 0 or an error number of ox_errno.h. */
class CachedFile {
 public:
  CachedFile(const CacheEnvironment& environment, std::string path);
  /* A file that a killed service left: its journal, already loaded, and its local file. */
  CachedFile(const CacheEnvironment& environment, const std::wstring& local_path,
             const std::wstring& journal_path, const JournalState& state);

  RangeLocks& locks() { return locks_; }
  const std::string& path() const { return path_; }

  /*
   * Adds an open: brings the cache up to date with the cloud where it may, empties the file when
   * `truncate` is set, and hands out the local file.
   */
  int attach(FileOpen* open, bool truncate, uint32_t client_pid, FileView* view);
  /*
   * Ends an open. An error (the write-back failed) leaves the open as it was; not when the client
   * died: then the data stays here, and on disk with its journal, for the next open of the file,
   * the end of this service or the start of the next one.
   */
  int detach(FileOpen* open, Closing how);

  /*
   * Fetches the regions of a range: 0; OX_E2BIG for a range that no file can have; OX_ENOTTY for
   * an open without maps, which may read anything and for which nothing is recorded; or the
   * failure of the fetch. `truncating`: asked for ahead of a truncation.
   */
  int cache_regions(FileOpen* open, uint64_t offset, uint64_t length, bool truncating,
                    RegionAnswer* answer);
  /*
   * Marks the regions of a range dirty, fetching what is not there: a region is never half local.
   */
  int dirty_regions(FileOpen* open, uint64_t offset, uint64_t length, RegionAnswer* answer);
  /* Sets the file's size; the client does so, too, after the answer. */
  int truncate(FileOpen* open, uint64_t size);

  /* Size and time as they are locally; false when the cloud's are the truth. Never waits. */
  bool local_status(uint64_t* size, uint64_t* modified);

  /*
   * A rename of the file, or of a folder above it, in the cloud: as long as the hold lives, every
   * request of the file waits.
   */
  struct Hold {
    std::unique_lock<std::mutex> lock;
    bool current = false; /* the cloud's file is still the one that the cache was filled from */
  };
  Hold hold_for_move();
  /*
   * Under the hold: takes the new path on, for all that is still to be written back, and returns
   * the file's id there; a zero one when it is gone.
   */
  cfs_id_t moved(const Hold& hold, const std::string& path);
  /*
   * Deletes the cloud's file; what the opens hold lives on until they close, and goes nowhere. With
   * `in_use` (somebody may still read) it is fetched whole before. `path` as it was asked: a link
   * to the file may go without it.
   */
  int remove(const std::string& path, bool in_use);

  /* Whether data waits here to be written back, or may come without a word. */
  bool has_unsaved();
  /* Writes back what waits. 0 also when there is nothing. */
  int save();
  /* Deletes the local file and its journal. For a file without opens and without unsaved data. */
  void discard();
  /* Whether the cloud holds this content already: a service was killed after the write-back. */
  bool same_as_cloud();

 private:
  using Guard = std::lock_guard<std::mutex>;
  static constexpr size_t TRANSFER = size_t{1} << 20; /* bytes that are moved at once */

  static bool same_content(const CloudEntry& a, const CloudEntry& b);
  /* All of these want lock_ held. */
  int bring_up_to_date();
  bool resized_while_closed() const;
  int open_local();
  void close_unused();
  int refill(const CloudEntry& entry);
  int empty();
  int check(const FileOpen& open);
  int look_up_size();
  void become_writer(FileOpen* open);
  bool tell_emptied(FileOpen* open);
  int fetch_all(Run regions);
  int fetch_run(Run regions);
  int fetch_bytes(Extent bytes);
  int check_base();
  int note_unsaved(Run dirty);
  JournalState state_for_journal() const;
  bool must_write_back(const FileOpen& open, Closing how) const;
  void leave_local(Closing how);
  int write_back();
  void renew_journal();
  int write_to_cloud();
  int check_conflict();
  int read_content(uint64_t size, uint64_t offset, void* buffer, size_t want, size_t* got);
  int compare_with_cloud(bool* same);
  void forget_dirty();
  void discard_locked();
  void fill_view(const FileOpen& open, FileView* view) const;

  const CacheEnvironment& env_;          /* fixed */
  RangeLocks locks_;                     /* has its own lock */
  std::atomic<uint64_t> shown_size_ = 0; /* size_, for who does not wait */
  std::atomic<bool> shown_ = false;      /* whether the local size is the truth */

  std::mutex lock_;
  std::string path_;
  LocalFile local_; /* open while there are opens */
  Journal journal_;
  RegionStore store_;
  CloudEntry base_;       /* the cloud's file that the content is composed from */
  bool filled_ = false;   /* base_, store_ and the local file belong together */
  bool unsaved_ = false;  /* told of changes since the last write-back */
  bool deleted_ = false;  /* in the cloud */
  uint32_t attached_ = 0; /* opens */
  uint32_t writers_ = 0;  /* opens with may_write */
  uint64_t emptied_ = 0;  /* how often the file was cut to nothing */
  uint64_t fillings_ = 0; /* how often the cache was filled from, or written to, the cloud */
  uint64_t size_ = 0;     /* of the local file, when it was last looked up */
};

}  // namespace tarnd

#endif
