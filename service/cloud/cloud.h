/*
 * The cloud behind the cache service: one interface, also for clouds that are far away. The plain
 * directory of directory/ is one; fault/ stands before another one and fails on purpose.
 *
 * Paths are UTF-8, relative to the share, with '/' between names and no leading or trailing one;
 * the empty path is the share itself. They arrive normalised (see share_path.h): no empty, "." or
 * ".." name, no backslash.
 *
 * A version is a text that only the cloud understands: two contents never have the same one, and
 * the same text means the same bytes. Every call that reads or replaces a content names the version
 * that it means, so that no two contents are mixed and nothing is replaced that nobody looked at.
 *
 * Threads: any call may run on any thread at the same time, and callers hold no lock over one.
 */
#ifndef SERVICE_CLOUD_H
#define SERVICE_CLOUD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cloud_result.h"
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
  cfs_id_t id = {};         /* stable for at least as long as the item keeps its path */
  std::string version = {}; /* of a file's content; a folder's is empty */
  /* Of the folder above it; 0 unless the caller wanted it and the cloud knows it. */
  cfs_id_t folder_id = {};
  uint64_t folder_modified = 0;
};

/* `length` bytes of a content from `offset` on. */
struct ByteRange {
  uint64_t offset = 0;
  uint64_t length = 0;

  uint64_t end() const { return offset + length; }
  bool empty() const { return length == 0; }
  bool operator==(const ByteRange&) const = default;
};

/*
 * A content that is to go up, as it was at one moment: it does not change any more. The owner keeps
 * it for as long as calls use it. The lists of ranges are sorted and neither touch nor overlap.
 */
class Snapshot {
 public:
  virtual ~Snapshot() = default;

  virtual uint64_t size() const = 0;
  /*
   * All `size` bytes at `offset`, which lie in held(): 0 or an error number. Any thread, but one
   * at a time.
   */
  virtual int read(uint64_t offset, void* buffer, size_t size) = 0;
  /* The bytes that can be read here. The others are those of the version that is replaced. */
  virtual std::vector<ByteRange> held() const = 0;
  /*
   * The bytes that may differ from the version that is replaced, those past its end included. They
   * are held.
   */
  virtual std::vector<ByteRange> changed() const = 0;
};

/* What must be at a path before a content goes there. */
struct PutCondition {
  std::string version; /* the version that is replaced; empty: nothing may be there */
  /*
   * An earlier try may have arrived (it ended in UNKNOWN_OUTCOME, or the service died in the middle
   * of it): a content at the path that is byte by byte the same counts as ours. Only the wrapper of
   * cloud_retry.h looks at this.
   */
  bool may_have_arrived = false;
};

struct RenameConditions {
  std::string source_version = {}; /* of the file that is renamed; empty: any, or a folder */
  std::string target_version = {}; /* of the file that is replaced; empty: nothing may be there */
  /*
   * The item's time, which a rename keeps: by it the wrapper of cloud_retry.h knows a rename whose
   * answer got lost. 0: unknown, and never recognised.
   */
  uint64_t source_modified = 0;
};

/*
 * What a cloud can do, and what its callers should know. Once it can do something it always can; it
 * may come to know more of its server.
 */
struct CloudCapabilities {
  bool patch = false;            /* patch() works */
  bool case_insensitive = false; /* names that differ in case only are the same name */
};

/* Takes the next entry, and may keep its texts; false ends the listing, which is then OK. */
using EntrySink = std::function<bool(CloudEntry&& entry)>;
/* Takes the next bytes: 0 or an error number, which ends the call as REFUSED with this number. */
using DataSink = std::function<int(const char* data, size_t size)>;

class Cloud {
 public:
  virtual ~Cloud() = default;

  virtual CloudCapabilities capabilities() const = 0;

  virtual CloudResult status(const CloudContext& context, const std::string& path,
                             CloudEntry* entry) = 0;
  /* Hands out the entries as they come, in no order. An error may follow some of them. */
  virtual CloudResult list(const CloudContext& context, const std::string& path,
                           const EntrySink& sink) = 0;
  /*
   * Hands out the bytes of a range in their order, which must lie in the content of the version
   * named. OK means all of them; any error may follow some, and these belong to the version, too.
   * CHANGED when the file has another content by now: bytes of it are never handed out.
   */
  virtual CloudResult read(const CloudContext& context, const std::string& path,
                           const std::string& version, ByteRange range, const DataSink& sink) = 0;

  /*
   * Replaces a content, or makes a file, and tells what is there now. A reader of the cloud sees
   * the old content or the new one, never a mixture, also when this process dies half-way. Every
   * byte of the snapshot must be held. EXISTS or CHANGED when the condition does not hold;
   * NOT_FOUND when the file that it names, or the folder above, is gone.
   */
  virtual CloudResult put(const CloudContext& context, const std::string& path,
                          const PutCondition& condition, Snapshot& content, CloudEntry* made) = 0;
  /*
   * The same, made from a copy in the cloud of the version that the condition names: only the
   * changed bytes of the snapshot go up. REFUSED with OX_ENOSYS where the cloud cannot, also of one
   * content alone: then put() can.
   */
  virtual CloudResult patch(const CloudContext& context, const std::string& path,
                            const PutCondition& condition, Snapshot& content, CloudEntry* made) = 0;
  /*
   * Gives an item another path and tells what is there now; a folder moves with all that is in it.
   * Into itself: REFUSED with OX_EINVAL. A new case of the same name is another path.
   */
  virtual CloudResult rename(const CloudContext& context, const std::string& from,
                             const std::string& to, const RenameConditions& conditions,
                             CloudEntry* made) = 0;
  /*
   * Deletes a file, of the version named unless that is empty, or an empty folder (REFUSED with
   * OX_ENOTEMPTY otherwise).
   */
  virtual CloudResult remove(const CloudContext& context, const std::string& path,
                             const std::string& version) = 0;
  virtual CloudResult make_folder(const CloudContext& context, const std::string& path,
                                  CloudEntry* made) = 0;
};

}  // namespace tarnd

#endif
