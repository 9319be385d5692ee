#include "files/open_files.h"

#include <algorithm>
#include <utility>

#include "ox_errno.h"

namespace tarnd {
namespace {

/* Files that stay cached; beyond it those that were opened longest ago go. */
constexpr size_t MAX_CACHED = 4096;

bool is_below(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

/* What an open with these access bits needs its neighbours to share. */
uint32_t needed_share(uint32_t access) {
  return ((access & ACCESS_READ) != 0 ? uint32_t{SHARE_READ} : 0) |
         ((access & ACCESS_WRITE) != 0 ? uint32_t{SHARE_WRITE} : 0);
}

bool covers(uint32_t share, uint32_t needed) { return (needed & ~share) == 0; }

void release_locks(const OpenFile& open) {
  if (open.file != nullptr) {
    open.file->locks().release(open.part.number);
  }
}

}  // namespace

/* ------------------------------------------------------------------ the tables */

int OpenFiles::add(const std::shared_ptr<OpenFile>& open, const CloudEntry& entry, uint32_t wants) {
  Guard guard(table_);
  if (opens_.contains(open->id)) {
    return OX_EINVAL;
  }
  open->item = entry.id;
  open->place = entry.id;
  if (!sharing_allows(*open, wants)) {
    return OX_EACCES;
  }
  open->part.number = next_number_++;
  open->part.writable = (open->access & ACCESS_WRITE) != 0;
  if (!entry.folder) {
    open->file = file_of(entry);
  }
  opens_.emplace(open->id, open);
  return 0;
}

int OpenFiles::add_listing(const std::shared_ptr<OpenFile>& open, const CloudEntry& folder) {
  Guard guard(table_);
  open->item = folder.id;
  open->place = folder.id;
  return opens_.emplace(open->id, open).second ? 0 : OX_EINVAL;
}

/* Opens for attributes alone take no part in sharing, on either side. */
bool OpenFiles::sharing_allows(const OpenFile& open, uint32_t wants) const {
  const uint32_t needs = needed_share(wants);
  return std::all_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& other = *item.second;
    return other.cleaned || other.access == 0 || wants == 0 || !same_id(other.place, open.place) ||
           (covers(other.share, needs) && covers(open.share, needed_share(other.access)));
  });
}

std::shared_ptr<CachedFile> OpenFiles::file_of(const CloudEntry& entry) {
  Cached& cached = files_[entry.id];
  if (cached.file == nullptr) {
    cached.file = std::make_shared<CachedFile>(env_, entry.path);
  }
  cached.used = next_number_++;
  std::shared_ptr<CachedFile> file = cached.file; /* stays, also if it is forgotten */
  if (files_.size() > MAX_CACHED) {
    forget_idle();
  }
  return file;
}

/* A file to which only the table points is open nowhere, and its lock is free. */
void OpenFiles::forget_idle() {
  auto oldest = files_.end();
  for (auto it = files_.begin(); it != files_.end(); ++it) {
    const bool idle = it->second.file.use_count() == 1 && !it->second.file->has_unsaved();
    if (idle && (oldest == files_.end() || it->second.used < oldest->second.used)) {
      oldest = it;
    }
  }
  if (oldest != files_.end()) {
    oldest->second.file->discard();
    files_.erase(oldest);
  }
}

/*
 * A lock request may be under way: it looks for its open again when it has the lock, so the open
 * goes first.
 */
void OpenFiles::remove(const OpenFile& open) {
  {
    Guard guard(table_);
    opens_.erase(open.id);
  }
  release_locks(open);
}

std::shared_ptr<OpenFile> OpenFiles::find(const cfs_id_t& id) {
  Guard guard(table_);
  const auto it = opens_.find(id);
  return it == opens_.end() ? nullptr : it->second;
}

std::shared_ptr<OpenFile> OpenFiles::find_descriptor(const std::set<uint32_t>& clients, int32_t fd,
                                                     const cfs_id_t& item) {
  Guard guard(table_);
  for (const auto& [id, open] : opens_) {
    if (open->file != nullptr && !open->cleaned && open->client_fd == fd &&
        clients.contains(open->client_pid) && same_id(open->item, item)) {
      return open;
    }
  }
  return nullptr;
}

std::vector<std::shared_ptr<OpenFile>> OpenFiles::of_client(uint32_t client_pid) {
  std::vector<std::shared_ptr<OpenFile>> found = all();
  std::erase_if(found, [&](const auto& open) { return open->client_pid != client_pid; });
  return found;
}

std::vector<std::shared_ptr<OpenFile>> OpenFiles::all() {
  Guard guard(table_);
  std::vector<std::shared_ptr<OpenFile>> all;
  for (const auto& [id, open] : opens_) {
    all.push_back(open);
  }
  return all;
}

void OpenFiles::clean_up(OpenFile& open) {
  {
    Guard guard(table_);
    open.cleaned = true;
  }
  release_locks(open);
}

std::shared_ptr<CachedFile> OpenFiles::known(const cfs_id_t& item) {
  Guard guard(table_);
  const auto it = files_.find(item);
  return it == files_.end() ? nullptr : it->second.file;
}

std::vector<std::shared_ptr<CachedFile>> OpenFiles::all_files() {
  Guard guard(table_);
  std::vector<std::shared_ptr<CachedFile>> all;
  for (const auto& [id, cached] : files_) {
    all.push_back(cached.file);
  }
  return all;
}

void OpenFiles::overlay(CloudEntry* entry) {
  const std::shared_ptr<CachedFile> file = entry->folder ? nullptr : known(entry->id);
  if (file != nullptr) {
    file->local_status(&entry->size, &entry->modified);
  }
}

/* ------------------------------------------------------------------ names */

int OpenFiles::may_move(const CloudEntry& entry) {
  const Guard guard(table_);
  const bool blocked = std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& open = *item.second;
    return !open.cleaned && open.access != 0 && (open.share & SHARE_DELETE) == 0 &&
           same_id(open.place, entry.id);
  });
  return blocked ? OX_EACCES : 0;
}

bool OpenFiles::any_in_use_below(const std::string& folder) {
  Guard guard(table_);
  return std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& open = *item.second;
    return open.file != nullptr && !open.cleaned && is_below(open.file->path(), folder);
  });
}

/*
 * What a rename of the item moves in the cache. No request of these files goes on before the holds
 * are gone.
 */
std::vector<OpenFiles::Moving> OpenFiles::hold_for_move(const CloudEntry& entry) {
  std::vector<Moving> moving;
  {
    Guard guard(table_);
    for (const auto& [id, cached] : files_) {
      if (same_id(id, entry.id) || is_below(cached.file->path(), entry.path)) {
        moving.push_back({id, cached.file, {}});
      }
    }
  }
  for (Moving& item : moving) {
    item.hold = item.file->hold_for_move();
  }
  return moving;
}

int OpenFiles::rename(const CloudEntry& entry, const std::string& from, const std::string& to) {
  if (entry.folder && any_in_use_below(entry.path)) {
    return OX_EBUSY;
  }
  std::vector<Moving> moving = hold_for_move(entry);
  if (const int err = env_.cloud.rename(from, to, false)) {
    return err;
  }
  CloudEntry now;
  if (env_.cloud.status(to, &now) != 0) {
    now.path = to; /* gone again already */
  }
  std::vector<std::pair<cfs_id_t, cfs_id_t>> moves = {{entry.id, now.id}};
  for (Moving& item : moving) {
    const std::string tail = item.file->path().substr(entry.path.size());
    moves.emplace_back(item.id, item.file->moved(item.hold, now.path + tail));
  }
  moving.clear();
  for (const auto& [before, after] : moves) {
    moved(before, after);
  }
  return 0;
}

int OpenFiles::remove(const CloudEntry& entry, const std::string& path) {
  const std::shared_ptr<CachedFile> file = entry.folder ? nullptr : known(entry.id);
  int err = 0;
  if (file == nullptr) {
    err = env_.cloud.remove(path);
  } else {
    err = file->remove(path, is_in_use(file));
  }
  CloudEntry behind_link;
  if (err == 0 && env_.cloud.status(entry.path, &behind_link) != 0) {
    moved(entry.id, {});
  }
  return err;
}

bool OpenFiles::is_in_use(const std::shared_ptr<CachedFile>& file) {
  Guard guard(table_);
  return std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    return item.second->file == file && !item.second->cleaned;
  });
}

/* The opens and the cached file of an item follow it; a deleted one is not found any more. */
void OpenFiles::moved(const cfs_id_t& from, const cfs_id_t& to) {
  Guard guard(table_);
  for (const auto& [id, open] : opens_) {
    if (same_id(open->place, from)) {
      open->place = to;
    }
  }
  const auto it = files_.find(from);
  if (it == files_.end()) {
    return;
  }
  const Cached cached = it->second;
  files_.erase(it);
  if (!same_id(to, cfs_id_t{})) {
    files_[to] = cached;
  }
}

/* ------------------------------------------------------------------ the end */

size_t OpenFiles::save_all() {
  const std::vector<std::shared_ptr<CachedFile>> files = all_files();
  return static_cast<size_t>(std::count_if(files.begin(), files.end(),
                                           [](const auto& file) { return file->save() != 0; }));
}

void OpenFiles::discard_saved() {
  for (const auto& file : all_files()) {
    if (!file->has_unsaved()) {
      file->discard();
    }
  }
}

}  // namespace tarnd
