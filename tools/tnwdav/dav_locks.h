/*
 * The locks that clients hold, by their tokens. They go with the program. A file's lock is held
 * with the service, too, through an open that belongs to the lock.
 *
 * Threads: any. The object's lock is held for short looks only; files are closed without it.
 */
#ifndef TNWDAV_DAV_LOCKS_H
#define TNWDAV_DAV_LOCKS_H

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "share.h"

namespace tnwdav {

struct DavLock {
  std::string token; /* "opaquelocktoken:..." */
  std::string path;
  std::string key;   /* path_key(path) */
  bool deep = false; /* on a folder: holds for all below it, too */
  bool exclusive = true;
  std::string owner; /* an element of XML, as the client sent it */
  std::chrono::seconds timeout{0};
};

class DavLocks {
 public:
  /* Gives the lock a token, and takes it unless another one is in its way. */
  bool add(DavLock* lock);
  /* The lock's open with the service. Nothing is kept when the lock has gone meanwhile. */
  void attach(const std::string& token, std::shared_ptr<OpenFile> file);
  std::optional<DavLock> refresh(const std::string& token, std::chrono::seconds timeout);
  bool remove(const std::string& token);

  /* The locks that hold for a path: its own, and the deep ones above it. */
  std::vector<DavLock> covering(const std::string& key) const;
  /* Those and all below the path. */
  std::vector<DavLock> touching(const std::string& key) const;

  /* Closes what the locks on the path and below it have open, so that it can be moved or deleted.
   */
  void let_files_go(const std::string& key);
  /* What was there has gone, and its locks with it. */
  void forget(const std::string& key);
  /* Removes the locks whose time is over. */
  void forget_expired();

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    DavLock lock;
    Clock::time_point end;
    std::shared_ptr<OpenFile> file;
  };

  std::vector<DavLock> select(const std::function<bool(const DavLock&)>& wanted) const;
  void remove_if(const std::function<bool(const Entry&)>& gone);

  mutable std::mutex lock_; /* guards the next one */
  std::vector<Entry> entries_;
};

}  // namespace tnwdav

#endif
