#include "open_files.h"

#include <algorithm>

#include "ox_errno.h"

namespace tarnd {
namespace {

// Files that stay cached; beyond it those that were opened longest ago go.
constexpr size_t kMaxCached = 4096;

bool IsBelow(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

// What an open with these access bits needs its neighbours to share.
uint32_t NeededShare(uint32_t access) {
  return ((access & kAccessRead) != 0 ? uint32_t{kShareRead} : 0) |
         ((access & kAccessWrite) != 0 ? uint32_t{kShareWrite} : 0);
}

bool Covers(uint32_t share, uint32_t needed) { return (needed & ~share) == 0; }

}  // namespace

// ------------------------------------------------------------------ the tables

int OpenFiles::Add(const std::shared_ptr<OpenFile>& open, const CloudEntry& entry,
                   const std::string& path, uint32_t wants) {
  Guard guard(table_);
  if (opens_.contains(open->id)) {
    return OX_EINVAL;
  }
  open->item = entry.id;
  open->name = path;
  open->place = entry.id;
  if (!SharingAllows(*open, wants)) {
    return OX_EACCES;
  }
  open->part.number = next_number_++;
  open->part.writable = (open->access & kAccessWrite) != 0;
  if (!entry.folder) {
    open->file = FileOf(entry, path);
  }
  opens_.emplace(open->id, open);
  return 0;
}

// Opens for attributes alone take no part in sharing, on either side.
bool OpenFiles::SharingAllows(const OpenFile& open, uint32_t wants) const {
  const uint32_t needs = NeededShare(wants);
  return std::all_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& other = *item.second;
    return other.cleaned || other.access == 0 || wants == 0 || !SameId(other.place, open.place) ||
           (Covers(other.share, needs) && Covers(open.share, NeededShare(other.access)));
  });
}

std::shared_ptr<CachedFile> OpenFiles::FileOf(const CloudEntry& entry, const std::string& path) {
  Cached& cached = files_[entry.id];
  if (cached.file == nullptr) {
    cached.file = std::make_shared<CachedFile>(env_, path);
  }
  cached.used = next_number_++;
  const std::shared_ptr<CachedFile> file = cached.file;
  if (files_.size() > kMaxCached) {
    ForgetIdle();
  }
  return file;
}

// A file to which only the table points is open nowhere, and its lock is free.
void OpenFiles::ForgetIdle() {
  auto oldest = files_.end();
  for (auto it = files_.begin(); it != files_.end(); ++it) {
    const bool idle = it->second.file.use_count() == 1 && !it->second.file->HasUnsaved();
    if (idle && (oldest == files_.end() || it->second.used < oldest->second.used)) {
      oldest = it;
    }
  }
  if (oldest != files_.end()) {
    oldest->second.file->Discard();
    files_.erase(oldest);
  }
}

void OpenFiles::Remove(const OpenFile& open) {
  if (open.file != nullptr) {
    open.file->locks().Release(open.part.number);
  }
  Guard guard(table_);
  opens_.erase(open.id);
}

std::shared_ptr<OpenFile> OpenFiles::Find(const cfs_id_t& id) {
  Guard guard(table_);
  const auto it = opens_.find(id);
  return it == opens_.end() ? nullptr : it->second;
}

std::shared_ptr<OpenFile> OpenFiles::FindDescriptor(const std::set<uint32_t>& clients, int32_t fd,
                                                    const cfs_id_t& item) {
  Guard guard(table_);
  for (const auto& [id, open] : opens_) {
    if (open->file != nullptr && open->client_fd == fd && clients.contains(open->client_pid) &&
        SameId(open->item, item)) {
      return open;
    }
  }
  return nullptr;
}

std::vector<std::shared_ptr<OpenFile>> OpenFiles::OfClient(uint32_t client_pid) {
  std::vector<std::shared_ptr<OpenFile>> found = All();
  std::erase_if(found, [&](const auto& open) { return open->client_pid != client_pid; });
  return found;
}

std::vector<std::shared_ptr<OpenFile>> OpenFiles::All() {
  Guard guard(table_);
  std::vector<std::shared_ptr<OpenFile>> all;
  for (const auto& [id, open] : opens_) {
    all.push_back(open);
  }
  return all;
}

void OpenFiles::MarkCleaned(OpenFile& open) {
  Guard guard(table_);
  open.cleaned = true;
}

std::shared_ptr<CachedFile> OpenFiles::Known(const cfs_id_t& item) {
  Guard guard(table_);
  const auto it = files_.find(item);
  return it == files_.end() ? nullptr : it->second.file;
}

std::vector<std::shared_ptr<CachedFile>> OpenFiles::AllFiles() {
  Guard guard(table_);
  std::vector<std::shared_ptr<CachedFile>> all;
  for (const auto& [id, cached] : files_) {
    all.push_back(cached.file);
  }
  return all;
}

void OpenFiles::Overlay(CloudEntry* entry) {
  const std::shared_ptr<CachedFile> file = entry->folder ? nullptr : Known(entry->id);
  if (file != nullptr) {
    file->LocalStatus(&entry->size, &entry->modified);
  }
}

// ------------------------------------------------------------------ names

int OpenFiles::MayMove(const CloudEntry& entry) {
  const Guard guard(table_);
  const bool blocked = std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& open = *item.second;
    return !open.cleaned && open.access != 0 && (open.share & kShareDelete) == 0 &&
           SameId(open.place, entry.id);
  });
  return blocked ? OX_EACCES : 0;
}

bool OpenFiles::AnyBusyBelow(const std::string& folder) {
  {
    Guard guard(table_);
    for (const auto& [id, open] : opens_) {
      if (open->file != nullptr && !open->cleaned && IsBelow(open->file->path(), folder)) {
        return true;
      }
    }
  }
  const std::vector<std::shared_ptr<CachedFile>> files = AllFiles();
  return std::any_of(files.begin(), files.end(), [&](const auto& file) {
    return IsBelow(file->path(), folder) && file->HasUnsaved();
  });
}

int OpenFiles::Rename(const CloudEntry& entry, const std::string& from, const std::string& to) {
  if (entry.folder && AnyBusyBelow(from)) {
    return OX_EBUSY;
  }
  const std::shared_ptr<CachedFile> file = entry.folder ? nullptr : Known(entry.id);
  const int err = file != nullptr ? file->Rename(to) : env_.cloud.Rename(from, to, false);
  CloudEntry moved;
  if (err != 0 || env_.cloud.Status(to, &moved) != 0) {
    return err;
  }
  if (entry.folder) {
    ForgetBelow(from);
  }
  Moved(entry.id, moved.id);
  return 0;
}

int OpenFiles::Delete(const CloudEntry& entry, const std::string& path) {
  const std::shared_ptr<CachedFile> file = entry.folder ? nullptr : Known(entry.id);
  int err = 0;
  if (file == nullptr) {
    err = env_.cloud.Delete(path);
  } else {
    err = file->Delete(IsInUse(file));
  }
  if (err == 0) {
    Moved(entry.id, {});
  }
  return err;
}

bool OpenFiles::IsInUse(const std::shared_ptr<CachedFile>& file) {
  Guard guard(table_);
  return std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    return item.second->file == file && !item.second->cleaned;
  });
}

// The opens and the cached file of an item follow it; a deleted one is not found any more.
void OpenFiles::Moved(const cfs_id_t& from, const cfs_id_t& to) {
  Guard guard(table_);
  for (const auto& [id, open] : opens_) {
    if (SameId(open->place, from)) {
      open->place = to;
    }
  }
  const auto it = files_.find(from);
  if (it == files_.end()) {
    return;
  }
  const Cached cached = it->second;
  files_.erase(it);
  if (!SameId(to, cfs_id_t{})) {
    files_[to] = cached;
  }
}

// The files below a moved folder are cached under ids that are no longer theirs.
void OpenFiles::ForgetBelow(const std::string& folder) {
  Guard guard(table_);
  for (auto it = files_.begin(); it != files_.end();) {
    const bool below = IsBelow(it->second.file->path(), folder);
    if (below && it->second.file.use_count() == 1) {
      it->second.file->Discard();
    }
    it = below ? files_.erase(it) : std::next(it);
  }
}

// ------------------------------------------------------------------ the end

size_t OpenFiles::SaveAll() {
  const std::vector<std::shared_ptr<CachedFile>> files = AllFiles();
  return static_cast<size_t>(std::count_if(files.begin(), files.end(),
                                           [](const auto& file) { return file->Save() != 0; }));
}

void OpenFiles::DiscardSaved() {
  for (const auto& file : AllFiles()) {
    if (!file->HasUnsaved()) {
      file->Discard();
    }
  }
}

}  // namespace tarnd
