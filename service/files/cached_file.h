/*
 * One file of the cloud in the cache: its local file, what that holds, and the way back.
 *
 * Kept once for all opens of the file. A client reads and writes the local file through a handle of
 * its own, and asks here first for regions that its copy of the maps does not show; so what this
 * object knows is what it told, and the local file's size is looked up, never remembered.
 *
 * What is to be done when something happens, and in which order, file_machine.h decides; this class
 * does it. A change of the content is on record before it happens. A close that has something to
 * seal flushes the local file, records the seal, puts the file into the upload queue, and waits a
 * little for the upload.
 *
 * When the cloud's file changes behind the cache: while nothing is open and nothing waits, the
 * cache is filled anew at the next open. Otherwise no region is fetched any more (EIO), since it
 * would belong to another content, and a change that goes up becomes a file beside the cloud's.
 *
 * Threads: any. Two things guard a file:
 *   - its turn: one thread at a time changes the content, seals it, begins or ends an upload,
 *     opens, closes, renames or deletes it. It may be held over work on the disk, over the cloud's
 *     part of a rename or delete and over a look at the cloud, never over a fetch or an upload.
 *     Others wait for it, by `moved_on_`;
 *   - `lock_`, held for moments, guards the fields. Those that only change under the turn may be
 *     read by its holder without it.
 * Fetches take neither; who cuts the file ends them first.
 */
#ifndef SERVICE_CACHED_FILE_H
#define SERVICE_CACHED_FILE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cloud/cloud.h"
#include "counters.h"
#include "files/file_machine.h"
#include "files/local_file.h"
#include "files/range_locks.h"
#include "files/sealed_content.h"
#include "slim_lock.h"
#include "state/state_store.h"
#include "transfer/file_fetches.h"
#include "transfer/read_ahead.h"
#include "transfer/transfer_engine.h"

namespace tarnd {

class CachedFile;

/* The table of all cached files, as one of them sees it. Called without any lock of the file. */
class FileTable {
 public:
  virtual ~FileTable() = default;

  /* Another path for a content that lost: the next one that no cached file has or had. */
  virtual std::string conflict_path(const std::string& path) = 0;
  /* The file has this path now; its opens go with it. */
  virtual void took_path(CachedFile& file, const std::string& before) = 0;
  /* A file that came of another one's torn content. */
  virtual void adopt(FileRecord record) = 0;
  /* Its change may go up. */
  virtual void enqueue(CachedFile& file) = 0;
  /* Ends its upload soon, and takes it out of the queue. */
  virtual void cancel_upload(CachedFile& file) = 0;
};

/* What all cached files of a service share; outlives them. */
struct CacheEnvironment {
  Cloud& cloud;
  StateStore& store;
  TransferEngine& transfers;
  Counters& counters;
  std::function<CloudContext()> context; /* for one call of the cloud */
  std::wstring folder;                   /* where the local files are */
  int region_shift;
  std::chrono::milliseconds write_back_wait;
  std::function<bool(uint64_t bytes)> may_fetch; /* whether the disk has room for them */
  std::function<void(uint64_t bytes)> grow;      /* the cache takes this much more, at most */
};

/* A file's part of one open. Guarded by the file's turn, but for what is fixed. */
struct FileOpen {
  uint64_t number = 0;          /* fixed; the owner in the file's range locks */
  bool attached = false;        /* from attach() to detach(): in between alone may it ask */
  bool writable = false;        /* fixed */
  bool may_write = false;       /* told of a dirty region: may write there again without a word */
  bool without_maps = false;    /* has seen the file empty: asks and tells nothing any more */
  bool writes_anywhere = false; /* where it may write without a word is not known any more */
  uint64_t emptied = 0;         /* the file's count of emptyings that the open's maps have seen */
  uint64_t map_regions = 0;     /* fixed: regions that its maps have room for */
  ReadAhead reads;              /* guarded by the file's lock */
};

/* How a file is to be opened. */
struct AttachHow {
  HANDLE client = nullptr; /* its process, open for PROCESS_DUP_HANDLE */
  bool truncate = false;
  bool create = false; /* not in the cloud yet */
  CloudEntry entry;    /* the cloud's, just looked up */
};

/* What an open is told. */
struct FileView {
  uint64_t size = 0;
  uint64_t modified = 0; /* Windows file time */
  bool newer = false;    /* than the cloud's */
  int shift = 0;
  size_t map_bytes = 0;
  std::vector<uint8_t> maps; /* the cached one, then the dirty one */
  uint64_t handle = 0;       /* of the local file, in the client's process */
  CloudEntry entry;          /* of the content that the cache was filled from */
  uint64_t fillings = 0;
};

/* The answer to a region request. */
struct RegionAnswer {
  uint64_t start = 0;  /* of the first region */
  uint64_t cached = 0; /* bytes from the requested offset on, up to the end of a region */
  uint64_t size = 0;   /* of the file */
  bool clear = false;  /* the file was emptied: the open drops its maps */
};

/* How an open ends. SERVICE_ENDS: like a close, but nobody waits for the answer. */
enum class Closing { UNMODIFIED, MODIFIED, CLIENT_DIED, SERVICE_ENDS };

/* Results are 0 or an error number of ox_errno.h. */
class CachedFile : public std::enable_shared_from_this<CachedFile>, private FetchTarget {
  class Turn;

 public:
  /* A clean file, of which nothing is cached yet. */
  CachedFile(const CacheEnvironment& environment, FileTable& table, std::string path);
  /* One on record. */
  CachedFile(const CacheEnvironment& environment, FileTable& table, FileRecord record);
  /* A file that nothing needs any more takes its local file along. */
  ~CachedFile();

  RangeLocks& locks() { return locks_; }
  int64_t id() const { return id_; }
  std::string path() const;

  /*
   * Adds an open: brings the cache up to date with the cloud where it may, empties the file when
   * asked to, and hands out the local file. OX_EAGAIN: the file has another path than the one
   * given by now.
   */
  int attach(FileOpen* open, const std::string& path, const AttachHow& how, FileView* view);
  /*
   * Ends an open. An error leaves the open as it was: the seal was not recorded, or the cloud
   * refuses this content for good. Not when the client died.
   */
  int detach(FileOpen* open, Closing how);

  /*
   * Fetches the regions of a range: 0; OX_E2BIG for a range that no file can have; OX_ENOTTY for
   * an open without maps, which may read anything and for which nothing is recorded; or the
   * failure of the fetch. `truncating`: asked for ahead of a truncation.
   */
  int cache_regions(FileOpen* open, uint64_t offset, uint64_t length, bool truncating,
                    RegionAnswer* answer);
  /* Marks the regions of a range dirty, fetching what is not there: none is ever half local. */
  int dirty_regions(FileOpen* open, uint64_t offset, uint64_t length, RegionAnswer* answer);
  /* Sets the file's size; the client does so, too, after the answer. */
  int truncate(FileOpen* open, uint64_t size);

  /* Size and time as they are locally; false when the cloud's are the truth. */
  bool local_status(uint64_t* size, uint64_t* modified);
  /* The entry of a file that is not in the cloud yet; false for all others. */
  bool new_entry(CloudEntry* entry);

  /* A rename in the cloud, of the file or of a folder above it; ends an upload and keeps others
   * from beginning. */
  class Hold {
   public:
    explicit Hold(std::shared_ptr<CachedFile> file);
    Hold(Hold&&) noexcept;
    Hold& operator=(Hold&&) = delete;
    ~Hold();

    CachedFile& file() const { return *file_; }

   private:
    std::shared_ptr<CachedFile> file_;
    std::unique_ptr<Turn> turn_;
  };
  /*
   * Under the hold: where it is to go (empty: nowhere, after all), and that it is there. `before`
   * and `now` are the cloud's entries of what was renamed; `now` is null for a file that is not in
   * the cloud. The record is to be saved, unless nothing of the file is on record.
   */
  FileRecord moving(const std::string& to);
  FileRecord moved(const std::string& path, const CloudEntry& before, const CloudEntry* now);

  /*
   * Deletes the cloud's file, of this version; what opens hold lives on until they close, and goes
   * nowhere. With `in_use` (somebody may still read) it is fetched whole before.
   */
  int remove(const std::string& version, bool in_use);

  /* Sends the change up, on a thread of the upload queue. */
  CloudResult upload(const CloudContext& context);
  /* What a service that was killed left: torn content goes, the change into the queue. */
  void recover();

  /* Whether something waits here for the cloud, or may come without a word. */
  bool has_unsaved() const;
  /* Deleted, or never made after all. */
  bool is_gone() const;
  uint64_t cached_bytes() const;

 private:
  /* One event on its way through the machine. */
  struct Work {
    const FileOpen* leaving = nullptr;                      /* the open that ends with it */
    std::function<void(FileRecord& record)> edit = nullptr; /* of CHANGE and UPLOADED */
    bool regions_only = false; /* the edit marks `regions` dirty, no more */
    Run regions = {};
    std::function<int()> apply = nullptr; /* 0 or an error, after which nothing has changed */
    uint64_t size = 0;                    /* of the local file, when the plan began */
    std::string version = {};             /* of the file to be removed */
    bool enqueued = false;                /* the change may go up from now on */
    std::string aside = {};               /* the copy that was made */
    std::string old_aside = {};           /* the one that it replaces */
  };
  /* Holds the file's turn for its lifetime. */
  class Turn {
   public:
    explicit Turn(CachedFile& file);
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn();
    /* Gives it away until no upload runs, which ends soon. */
    void end_upload();

   private:
    CachedFile& file_;
  };
  using Lock = std::unique_lock<SlimLock>;

  /* cached_file_machine.cpp: a plan and its actions; with the turn. */
  int carry_out(Turn& turn, Event event, Work& work);
  Facts facts_of(const FileOpen* leaving) const;
  int perform(const Step& step, Event event, Work& work);
  int commit(FileState after, Durability durability, Event event, Work& work);
  void edit(FileRecord* record, FileState after, Event event, const Work& work) const;
  void seal(FileRecord* record, FileState after, const Work& work) const;
  int write_record(const FileRecord& record, Durability durability);
  void set_state(FileState after);
  int flush();
  int copy_aside(Event event, Work& work);
  int apply(const Work& work);
  int remove_in_cloud(const Work& work);

  /* cached_file_conflict.cpp: contents that must not replace the cloud's; with the turn. */
  int spin_off(FileState after);
  int drop_torn(FileState after);
  int keep_torn(FileState after);
  int keep_change();
  int become_conflict(FileState after);
  FileRecord rest_of(FileState after) const;
  void part_from_local(FileRecord rest);

  /* cached_file_upload.cpp */
  CloudResult begin_upload(const CloudContext& context, std::shared_ptr<SealedContent>* content);
  CloudResult send(SealedContent& content, const CloudContext& context, CloudEntry* made);
  Event event_of(const CloudResult& result, const SealedContent& content);
  using SentContents = std::vector<SentContent>;
  static void note_sent(SealedContent& content, SentContents* sent);
  bool find_sent(const CloudContext& context, const SentContents& sent, CloudEntry* found);
  int keep_sent(SentContents sent, const CloudEntry& found);
  CloudResult end_of_upload(Turn& turn, Event event, CloudResult result, const CloudEntry& made);
  CloudResult find_base(const CloudContext& context, FileRecord* record);
  CloudResult find_folder(const CloudContext& context, FileRecord* record);
  CloudResult settle_move(const CloudContext& context);
  int wait_for_upload(uint64_t attempts);

  /* cached_file_regions.cpp; the first four for the fetches, on any thread. */
  FetchTarget::Source source() override;
  std::vector<ByteRange> missing(ByteRange range) override;
  int write(uint64_t offset, const char* data, size_t size) override;
  void arrived(ByteRange range) override;
  int fetch_all(Run regions, ByteRange ahead = {});
  int fetch_ranges(const std::vector<ByteRange>& ranges, ByteRange ahead);
  bool moved_from(const FetchTarget::Source& before);
  /* Ends all fetches, and keeps others from beginning for its lifetime. */
  class NoFetches {
   public:
    explicit NoFetches(CachedFile& file);
    NoFetches(const NoFetches&) = delete;
    NoFetches& operator=(const NoFetches&) = delete;
    ~NoFetches();

   private:
    CachedFile& file_;
  };
  ByteRange read_ahead(FileOpen* open, uint64_t offset, uint64_t length);
  std::vector<ByteRange> missing_of(Run regions) const;
  int look_up_size(const FileOpen& open, uint64_t* size);
  int change(Turn& turn, Work& work);
  int cut(Turn& turn, uint64_t size, bool told);
  bool has_stale_maps(const FileOpen& open) const;
  bool tell_emptied(FileOpen* open, uint64_t size);
  int report(Turn& turn, FileOpen* open, Run regions, uint64_t size);
  uint64_t cached_up_to(const FileOpen& open, Run regions) const;

  /* cached_file.cpp; with the turn, but for the last. */
  int bring_up_to_date(const AttachHow& how);
  int refill_from_now();
  int refill(const CloudEntry& entry);
  int begin_new(Turn& turn);
  int hand_out(Turn& turn, const AttachHow& how, uint64_t* handle);
  void abandon(Turn& turn);
  bool resized_while_closed() const;
  bool needs_no_maps(const FileOpen& open) const;
  void fill_view(FileOpen* open, FileView* view) const;
  int close(FileOpen* open, Closing how, bool* waits, uint64_t* attempts);
  int note_size(Turn& turn);
  void leave(FileOpen* open, Closing how);
  void stay_open(FileOpen* open);
  std::wstring place_of(const std::string& name) const;

  const CacheEnvironment& env_; /* fixed */
  FileTable& table_;            /* fixed */
  const int64_t id_;
  RangeLocks locks_; /* has its own lock */

  mutable SlimLock lock_;
  SlimCondition moved_on_; /* a turn, a fetch or an upload ended */
  bool turn_taken_ = false;
  /* Change under the turn (but store's present regions, which fetches add). */
  FileRecord record_;
  LocalFile local_;         /* open while there are opens */
  CloudEntry entry_;        /* of the content in `record_.base` */
  bool filled_ = false;     /* record_, entry_ and the local file belong together */
  uint64_t clean_size_ = 0; /* of the local file while it is clean */
  uint64_t modified_ = 0;   /* when the local file was last written, once it is closed */
  uint64_t emptied_ = 0;    /* how often the file was cut to nothing */
  uint64_t fillings_ = 0;   /* how often the cache was filled from, or written to, the cloud */
  std::vector<FileOpen*> opens_;
  /* Guarded by lock_ alone. */
  unsigned fetching_ = 0;     /* threads that fetch */
  bool fetches_stop_ = false; /* none may begin: the file is being cut */
  std::shared_ptr<SealedContent> sending_;
  uint64_t attempts_ = 0; /* uploads that ended */
  CloudResult last_attempt_;
  FileFetches fetches_; /* has its own lock; goes first, since it writes to the others */
};

}  // namespace tarnd

#endif
