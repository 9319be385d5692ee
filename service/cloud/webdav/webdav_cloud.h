/*
 * The cloud that is a folder of a WebDAV server: "http(s)://host:port/root/".
 *
 *   - Servers differ in what they keep of WebDAV. Before the first change it is tried out
 *     (webdav_abilities.h), unless that was done within a day, and again when an answer does not
 *     fit what was found. What is said here with "where" depends on it.
 *   - A version is the entity tag. A content is read by one ranged GET, whose answer must have that
 *     tag: of a server that writes in place, a reader may see bytes that are newer than the tag.
 *   - A new content is put to a hidden file beside its target and moved over it. The move names the
 *     tag that it replaces where the server keeps such conditions; elsewhere the target is locked
 *     and looked at before; where there are no locks either, only looked at: then a change by
 *     another client in the moment between may be replaced.
 *   - A folder is deleted under a hidden name, after another look at it there: a server would
 *     delete what somebody put there just before. What a kill leaves under such a name is shown.
 *   - Hidden files that a killed upload left go a day later, when their folder is listed.
 *   - Names that Windows cannot hold have another spelling (name_spelling.h). Those that are too
 *     long for it are left out of listings.
 *   - A file's id is the digest of its path.
 *
 * No lock is held during a request but a gate for the one path that is replaced.
 */
#ifndef SERVICE_WEBDAV_CLOUD_H
#define SERVICE_WEBDAV_CLOUD_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "cloud/cloud.h"
#include "cloud/directory/file_gates.h"
#include "cloud/webdav/kept_abilities.h"
#include "cloud/webdav/webdav_server.h"

namespace tarnd {

/* What the service is told of an item at a path, which is in Windows' spelling. */
CloudEntry entry_of(const DavItem& item, const std::string& path);
std::string version_of(const DavItem& item);

/* Threads: any number. */
class WebdavCloud : public Cloud {
 public:
  /* Asks the server nothing yet. Null with a text in `*error`. */
  static std::unique_ptr<WebdavCloud> open(const std::string& address, const HttpSettings& settings,
                                           const KeptAbilities& kept, std::string* error);

  /* Until the server was tried out, no more than every server can. */
  CloudCapabilities capabilities() const override;
  CloudResult status(const CloudContext& context, const std::string& path,
                     CloudEntry* entry) override;
  CloudResult list(const CloudContext& context, const std::string& path,
                   const EntrySink& sink) override;
  CloudResult read(const CloudContext& context, const std::string& path, const std::string& version,
                   ByteRange range, const DataSink& sink) override;
  CloudResult put(const CloudContext& context, const std::string& path,
                  const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult patch(const CloudContext& context, const std::string& path,
                    const PutCondition& condition, Snapshot& content, CloudEntry* made) override;
  CloudResult rename(const CloudContext& context, const std::string& from, const std::string& to,
                     const RenameConditions& conditions, CloudEntry* made) override;
  CloudResult remove(const CloudContext& context, const std::string& path,
                     const std::string& version) override;
  CloudResult make_folder(const CloudContext& context, const std::string& path,
                          CloudEntry* made) override;

  /* Tries the server out, unless that is done already. */
  CloudResult abilities(const CloudContext& context, WebdavAbilities* found);

 private:
  /* Paths in the cloud's spelling; empty versions are not looked at, of a target: nothing is there.
   */
  struct Move {
    std::string from;
    std::string from_version;
    std::string to;
    std::string to_version;
  };
  class Part;
  using Step = std::function<CloudResult(const std::string& condition)>;

  WebdavCloud(std::unique_ptr<WebdavServer> server, const KeptAbilities& kept);

  CloudResult try_out(const CloudContext& context, WebdavAbilities* found);
  void use(const WebdavAbilities& abilities);
  void doubt_abilities();
  CloudResult look_first(const CloudContext& context, const std::string& path,
                         const PutCondition& condition, uint64_t size);
  CloudResult fill(const CloudContext& context, Part& part, const PutCondition& condition,
                   Snapshot& content);
  CloudResult fill_copy(const CloudContext& context, Part& part, const std::string& target,
                        const PutCondition& condition, Snapshot& content);
  CloudResult write_changes(const CloudContext& context, Part& part, Snapshot& content);
  CloudResult publish(const CloudContext& context, Part& part, const std::string& path,
                      const PutCondition& condition, CloudEntry* made);
  CloudResult move(const CloudContext& context, const Move& what);
  CloudResult move_as_it_can(const CloudContext& context, const Move& what);
  CloudResult move_after_look(const CloudContext& context, const Move& what,
                              const std::string& condition);
  CloudResult under_lock(const CloudContext& context, const std::string& path, const Step& step);
  CloudResult try_again_in_doubt();
  CloudResult explain(const CloudContext& context, const Move& what, const CloudResult& result);
  CloudResult expect(const CloudContext& context, const std::string& path,
                     const std::string& version);
  CloudResult remove_file(const CloudContext& context, const std::string& path,
                          const std::string& version);
  CloudResult remove_folder(const CloudContext& context, const std::string& path);
  CloudResult expect_empty(const CloudContext& context, const std::string& path);
  CloudResult tell_moved(const CloudContext& context, const DavItem& item, const std::string& path,
                         CloudEntry* made);

  const std::unique_ptr<WebdavServer> server_;
  const KeptAbilities kept_;
  FileGates gates_; /* has its own lock */
  std::mutex lock_; /* guards the next two */
  bool trying_ = false;
  std::unique_ptr<const WebdavAbilities> found_; /* null: not tried yet */
  std::condition_variable tried_;
  std::atomic<bool> can_patch_ = false;
  std::atomic<bool> case_insensitive_ = false;
};

}  // namespace tarnd

#endif
