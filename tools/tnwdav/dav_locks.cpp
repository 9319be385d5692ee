#include "dav_locks.h"

#include <algorithm>
#include <utility>

#include "dav_path.h"
#include "ox_uuid.h"
#include "tools/common/uuid_text.h"

namespace tnwdav {
namespace {

bool covers(const DavLock& lock, const std::string& key) {
  return lock.key == key || (lock.deep && lies_below(key, lock.key));
}

std::string new_token() {
  ox_u8 id[16];
  ox_uuid_generate(id);
  return "opaquelocktoken:" + tools::uuid_text(id);
}

}  // namespace

bool DavLocks::add(DavLock* lock) {
  lock->token = new_token();
  const std::lock_guard guard(lock_);
  for (const Entry& entry : entries_) {
    const bool meets = covers(entry.lock, lock->key) || covers(*lock, entry.lock.key);
    if (meets && (entry.lock.exclusive || lock->exclusive) && entry.end > Clock::now()) {
      return false;
    }
  }
  entries_.push_back({*lock, Clock::now() + lock->timeout, nullptr});
  return true;
}

void DavLocks::attach(const std::string& token, std::shared_ptr<OpenFile> file) {
  const std::lock_guard guard(lock_);
  for (Entry& entry : entries_) {
    if (entry.lock.token == token) {
      entry.file.swap(file); /* the caller's, which is closed without our lock, is none then */
      return;
    }
  }
}

std::optional<DavLock> DavLocks::refresh(const std::string& token, std::chrono::seconds timeout) {
  const std::lock_guard guard(lock_);
  for (Entry& entry : entries_) {
    if (entry.lock.token == token && entry.end > Clock::now()) {
      entry.lock.timeout = timeout;
      entry.end = Clock::now() + timeout;
      return entry.lock;
    }
  }
  return std::nullopt;
}

void DavLocks::remove_if(const std::function<bool(const Entry&)>& gone) {
  std::vector<Entry> removed; /* destroyed, with their open files, after the lock is given back */
  const std::lock_guard guard(lock_);
  const auto rest = std::stable_partition(entries_.begin(), entries_.end(),
                                          [&](const Entry& entry) { return !gone(entry); });
  std::move(rest, entries_.end(), std::back_inserter(removed));
  entries_.erase(rest, entries_.end());
}

bool DavLocks::remove(const std::string& token) {
  bool found = false;
  remove_if([&](const Entry& entry) {
    found = found || entry.lock.token == token;
    return entry.lock.token == token;
  });
  return found;
}

std::vector<DavLock> DavLocks::select(const std::function<bool(const DavLock&)>& wanted) const {
  std::vector<DavLock> locks;
  const std::lock_guard guard(lock_);
  for (const Entry& entry : entries_) {
    if (entry.end > Clock::now() && wanted(entry.lock)) {
      locks.push_back(entry.lock);
    }
  }
  return locks;
}

std::vector<DavLock> DavLocks::covering(const std::string& key) const {
  return select([&](const DavLock& lock) { return covers(lock, key); });
}

std::vector<DavLock> DavLocks::touching(const std::string& key) const {
  return select(
      [&](const DavLock& lock) { return covers(lock, key) || lies_below(lock.key, key); });
}

void DavLocks::let_files_go(const std::string& key) {
  std::vector<std::shared_ptr<OpenFile>> files; /* closed after the lock is given back */
  const std::lock_guard guard(lock_);
  for (Entry& entry : entries_) {
    if (entry.lock.key == key || lies_below(entry.lock.key, key)) {
      files.push_back(std::exchange(entry.file, nullptr));
    }
  }
}

void DavLocks::forget(const std::string& key) {
  remove_if(
      [&](const Entry& entry) { return entry.lock.key == key || lies_below(entry.lock.key, key); });
}

void DavLocks::forget_expired() {
  remove_if([now = Clock::now()](const Entry& entry) { return entry.end <= now; });
}

}  // namespace tnwdav
