#include "files/open_files.h"

#include <algorithm>
#include <utility>

#include "names/conflict_name.h"
#include "names/folded_path.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

/* Files that stay cached; beyond it those that were opened longest ago go. */
constexpr size_t MAX_CACHED = 8192;

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

std::string today() {
  SYSTEMTIME time;
  GetLocalTime(&time);
  char text[16];
  snprintf(text, sizeof text, "%04u-%02u-%02u", unsigned{time.wYear}, unsigned{time.wMonth},
           unsigned{time.wDay});
  return text;
}

}  // namespace

OpenFiles::OpenFiles(const CacheEnvironment& environment, CacheLimits& limits, std::string user,
                     unsigned transfers)
    : env_(environment),
      limits_(limits),
      user_(std::move(user)),
      uploads_([this](uint64_t id, const CloudContext& context) { return upload(id, context); },
               [this] { return env_.context().credentials; }, transfers) {}

OpenFiles::~OpenFiles() { uploads_.stop(); }

/* ------------------------------------------------------------------ the tables */

int OpenFiles::add(const std::shared_ptr<OpenFile>& open, const CloudEntry& entry, uint32_t wants) {
  Guard guard(table_);
  if (opens_.contains(open->id)) {
    return OX_EINVAL;
  }
  open->item = entry.id;
  open->place = folded_path(entry.path);
  if (!sharing_allows(*open, wants)) {
    return OX_EACCES;
  }
  open->part.number = next_number_++;
  open->part.writable = (open->access & ACCESS_WRITE) != 0;
  if (!entry.folder) {
    open->file = file_of(open->place, entry.path);
  }
  opens_.emplace(open->id, open);
  return 0;
}

int OpenFiles::add_listing(const std::shared_ptr<OpenFile>& open, const CloudEntry& folder) {
  Guard guard(table_);
  open->item = folder.id;
  open->place = folded_path(folder.path);
  return opens_.emplace(open->id, open).second ? 0 : OX_EINVAL;
}

/* Opens for attributes alone take no part in sharing, on either side. */
bool OpenFiles::sharing_allows(const OpenFile& open, uint32_t wants) const {
  const uint32_t needs = needed_share(wants);
  return std::all_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& other = *item.second;
    return other.cleaned || other.access == 0 || wants == 0 || other.place != open.place ||
           (covers(other.share, needs) && covers(open.share, needed_share(other.access)));
  });
}

std::shared_ptr<CachedFile> OpenFiles::file_of(const std::string& key, const std::string& path) {
  std::shared_ptr<CachedFile> file = files_.find(key);
  if (file != nullptr) {
    files_.touch(key);
  } else {
    file = std::make_shared<CachedFile>(env_, *this, path);
    files_.put(key, file);
  }
  return file;
}

/* How many bytes have to go. All files are counted only when there may be something to find. */
uint64_t OpenFiles::excess() {
  if (!limits_.may_be_over()) {
    return 0;
  }
  const uint64_t grown = limits_.grown();
  uint64_t bytes = 0;
  for (const auto& file : files_.all()) {
    bytes += file->cached_bytes();
  }
  return limits_.over(bytes, grown);
}

/*
 * A file to which only the table points is open nowhere. Its local file goes with the pointer, and
 * outside of the lock.
 */
void OpenFiles::trim() {
  std::vector<std::shared_ptr<CachedFile>> dropped;
  Guard guard(table_);
  uint64_t over = excess();
  dropped = files_.take_oldest([&] { return over != 0 || files_.size() > MAX_CACHED; },
                               [&](const std::shared_ptr<CachedFile>& file) {
                                 const bool idle = file.use_count() == 1 && !file->has_unsaved();
                                 over -= idle ? std::min(over, file->cached_bytes()) : 0;
                                 return idle;
                               });
}

/*
 * A lock request may be under way: it looks for its open again when it has the lock, so the open
 * goes first.
 */
void OpenFiles::remove(const OpenFile& open) {
  {
    Guard guard(table_);
    opens_.erase(open.id);
    if (open.file != nullptr && files_.find(open.place) == open.file && open.file->is_gone()) {
      files_.erase(open.place);
    }
  }
  release_locks(open);
}

std::shared_ptr<OpenFile> OpenFiles::find(const cfs_id_t& id, uint32_t client_pid) {
  Guard guard(table_);
  const auto it = opens_.find(id);
  const bool theirs = it != opens_.end() && client_pid != 0 && it->second->client_pid != client_pid;
  return it == opens_.end() || theirs ? nullptr : it->second;
}

std::shared_ptr<OpenFile> OpenFiles::find_descriptor(uint32_t client_pid, int32_t fd,
                                                     const cfs_id_t& item) {
  Guard guard(table_);
  for (const auto& [id, open] : opens_) {
    if (open->file != nullptr && !open->cleaned && open->client_fd == fd &&
        open->client_pid == client_pid && same_id(open->item, item)) {
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
  all.reserve(opens_.size());
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

std::shared_ptr<CachedFile> OpenFiles::known(const std::string& key) {
  Guard guard(table_);
  return files_.find(key);
}

std::shared_ptr<CachedFile> OpenFiles::of_id(int64_t id) {
  Guard guard(table_);
  return files_.of_id(id);
}

bool OpenFiles::is_in_use(const std::shared_ptr<CachedFile>& file) {
  Guard guard(table_);
  return std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    return item.second->file == file && !item.second->cleaned;
  });
}

/* ------------------------------------------------------------------ names */

int OpenFiles::look_up(const std::string& path, CloudEntry* entry) {
  CloudContext context = env_.context();
  context.with_folder = true;
  return look_up_in(context, path, entry);
}

int OpenFiles::look_up_remembered(const std::string& path, CloudEntry* entry) {
  CloudContext context = env_.context();
  context.may_be_old = true;
  return look_up_in(context, path, entry);
}

int OpenFiles::look_up_in(const CloudContext& context, const std::string& path, CloudEntry* entry) {
  const std::shared_ptr<CachedFile> file = known(folded_path(path));
  if (file != nullptr && file->new_entry(entry)) {
    return 0;
  }
  return env_.cloud.status(context, path, entry).error;
}

void OpenFiles::overlay(CloudEntry* entry) {
  const auto file = entry->folder ? nullptr : known(folded_path(entry->path));
  if (file != nullptr) {
    file->local_status(&entry->size, &entry->modified);
  }
}

void OpenFiles::complete(const std::string& folder, std::vector<CloudEntry>* entries) {
  std::vector<CachedFiles::Keyed> cached;
  {
    Guard guard(table_);
    cached = files_.children(folded_path(folder));
  }
  std::map<std::string, std::shared_ptr<CachedFile>> missing(cached.begin(), cached.end());
  if (missing.empty()) {
    return;
  }
  for (CloudEntry& entry : *entries) {
    const auto it = missing.find(folded_path(entry.path));
    if (it != missing.end()) {
      if (!entry.folder) {
        it->second->local_status(&entry.size, &entry.modified);
      }
      missing.erase(it);
    }
  }
  for (const auto& [key, file] : missing) {
    CloudEntry entry;
    if (file->new_entry(&entry)) {
      file->local_status(&entry.size, &entry.modified);
      entries->push_back(std::move(entry));
    }
  }
}

bool OpenFiles::has_new_files_below(const std::string& folder) {
  std::vector<CachedFiles::Keyed> files;
  {
    Guard guard(table_);
    files = files_.below(folded_path(folder));
  }
  return std::any_of(files.begin(), files.end(), [&](const auto& file) {
    CloudEntry entry;
    return file.second->new_entry(&entry);
  });
}

int OpenFiles::may_move(const CloudEntry& entry) {
  const std::string key = folded_path(entry.path);
  const Guard guard(table_);
  const bool blocked = std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& open = *item.second;
    return !open.cleaned && open.access != 0 && (open.share & SHARE_DELETE) == 0 &&
           open.place == key;
  });
  return blocked ? OX_EACCES : 0;
}

bool OpenFiles::any_in_use_below(const std::string& folder) {
  const std::string key = folded_path(folder);
  Guard guard(table_);
  return std::any_of(opens_.begin(), opens_.end(), [&](const auto& item) {
    const OpenFile& open = *item.second;
    return open.file != nullptr && !open.cleaned && is_below(open.place, key);
  });
}

/* What a rename of the item moves in the cache. */
std::vector<OpenFiles::Moving> OpenFiles::hold_for_move(const CloudEntry& entry,
                                                        const std::string& to) {
  const std::string key = folded_path(entry.path);
  std::vector<std::shared_ptr<CachedFile>> files;
  {
    Guard guard(table_);
    if (const auto file = files_.find(key)) {
      files.push_back(file);
    }
    for (const auto& [place, file] : files_.below(key)) {
      files.push_back(file);
    }
  }
  std::vector<Moving> moving;
  moving.reserve(files.size());
  for (const auto& file : files) {
    moving.push_back({CachedFile::Hold(file), to + file->path().substr(entry.path.size())});
  }
  return moving;
}

int OpenFiles::rename(const CloudEntry& entry, const std::string& from, const std::string& to) {
  if (entry.folder && any_in_use_below(entry.path)) {
    return OX_EBUSY;
  }
  CloudEntry other;
  const auto there = known(folded_path(to));
  if (there != nullptr && folded_path(to) != folded_path(entry.path) &&
      (there->new_entry(&other) || there->has_unsaved())) {
    return OX_EEXIST; /* the cloud does not know of it yet, or of its last change */
  }
  std::vector<Moving> moving = hold_for_move(entry, to);
  CloudEntry local;
  const bool is_new = !entry.folder && !moving.empty() && moving[0].hold.file().new_entry(&local);
  CloudEntry current = entry;
  int err = 0;
  if (!entry.folder && !is_new && !moving.empty()) {
    /* Again: an upload of ours may have ended after the name was looked up. */
    err = env_.cloud.status(env_.context(), from, &current).error;
  }
  err = err != 0 ? err : record_move(&moving, true);
  CloudEntry made;
  bool unknown = false;
  if (err == 0 && is_new) {
    err = check_new_place(entry, to, &made);
  } else if (err == 0) {
    const CloudResult result = env_.cloud.rename(
        env_.context(), from, to,
        {.source_version = current.version, .source_modified = current.modified}, &made);
    err = result.error;
    unknown = result.code == CloudCode::UNKNOWN_OUTCOME;
  }
  if (err != 0) {
    if (!unknown) { /* else the next upload looks in both places */
      record_move(&moving, false);
    }
    enqueue_unsaved(moving);
    return err;
  }
  finish_move(std::move(moving), current, is_new ? nullptr : &made, made.path);
  return 0;
}

/* Where a file that is not in the cloud yet may go: the cloud must have the folder, not the name.
 */
int OpenFiles::check_new_place(const CloudEntry& entry, const std::string& to, CloudEntry* made) {
  CloudEntry other;
  const int err = look_up(to, &other);
  if (err == 0 && folded_path(other.path) != folded_path(entry.path)) {
    return OX_EEXIST;
  }
  CloudEntry folder;
  const int missing = err != 0 && err != OX_ENOENT ? err : look_up(parent_path(to), &folder);
  if (missing != 0 || !folder.folder) {
    return missing != 0 ? missing : OX_ENOTDIR;
  }
  made->path = join_path(folder.path, to.substr(to.rfind('/') + 1));
  return 0;
}

/* On record before the cloud is asked: a killed service looks for the files in both places. */
int OpenFiles::record_move(std::vector<Moving>* moving, bool starts) {
  std::vector<FileRecord> records;
  for (Moving& item : *moving) {
    FileRecord record = item.hold.file().moving(starts ? item.to : "");
    if (is_on_record(record.state)) {
      records.push_back(std::move(record));
    }
  }
  return save(records);
}

int OpenFiles::save(const std::vector<FileRecord>& records) {
  std::vector<const FileRecord*> pointers;
  pointers.reserve(records.size());
  for (const FileRecord& record : records) {
    pointers.push_back(&record);
  }
  return records.empty() ? 0 : env_.store.save(pointers, {}, Durability::PROCESS);
}

/* `now`: the cloud's entry of a file that was renamed in the cloud, if it is the one we know.
 * `moving` by value: its holds end with this call. */
/* NOLINTNEXTLINE(performance-unnecessary-value-param) */
void OpenFiles::finish_move(std::vector<Moving> moving, const CloudEntry& before,
                            const CloudEntry* now, const std::string& to) {
  std::vector<FileRecord> records;
  std::vector<std::pair<std::string, std::string>> keys = {
      {folded_path(before.path), folded_path(to)}};
  for (Moving& item : moving) {
    CachedFile& file = item.hold.file();
    const std::string path = to + file.path().substr(before.path.size());
    keys.emplace_back(folded_path(file.path()), folded_path(path));
    FileRecord record = file.moved(path, before, now);
    if (is_on_record(record.state)) {
      records.push_back(std::move(record));
    }
  }
  if (const int err = save(records)) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot record the new path %s", to.c_str());
  }
  {
    Guard guard(table_);
    for (const auto& [from_key, to_key] : keys) {
      move_key(from_key, to_key);
    }
  }
  enqueue_unsaved(moving);
}

/* The hold took them out of the queue. */
void OpenFiles::enqueue_unsaved(const std::vector<Moving>& moving) {
  for (const Moving& item : moving) {
    if (item.hold.file().has_unsaved()) {
      enqueue(item.hold.file());
    }
  }
}

int OpenFiles::remove_item(const CloudEntry& entry, const std::string& path) {
  const std::string key = folded_path(entry.path);
  const bool is_link = folded_path(path) != key; /* it goes, what is behind it stays */
  const auto file = entry.folder || is_link ? nullptr : known(key);
  if (entry.folder && has_new_files_below(entry.path)) {
    return OX_ENOTEMPTY;
  }
  const int err = file != nullptr
                      ? file->remove(entry.version, is_in_use(file))
                      : env_.cloud.remove(env_.context(), path, is_link ? "" : entry.version).error;
  if (err == 0 && !is_link) {
    Guard guard(table_);
    move_key(key, "");
  }
  return err;
}

/* The opens and the cached file of an item follow it; a deleted one is not found any more. */
void OpenFiles::move_key(const std::string& from, const std::string& to) {
  if (from == to) {
    return;
  }
  for (const auto& [id, open] : opens_) {
    if (open->place == from) {
      open->place = to;
    }
  }
  files_.move(from, to);
}

/* ------------------------------------------------------------------ as the files see it */

std::string OpenFiles::conflict_path(const std::string& path) {
  Guard guard(table_);
  for (int number = 1;; number++) {
    std::string name = conflict_name(path, user_, today(), number);
    const std::string key = folded_path(name);
    if (files_.find(key) == nullptr && conflicts_.insert(key).second) {
      return name;
    }
  }
}

void OpenFiles::took_path(CachedFile& file, const std::string& before) {
  const std::string now = folded_path(file.path());
  Guard guard(table_);
  move_key(folded_path(before), now);
}

void OpenFiles::adopt(FileRecord record) {
  const std::string key = folded_path(record.path);
  auto file = std::make_shared<CachedFile>(env_, *this, std::move(record));
  {
    Guard guard(table_);
    files_.put(key, file);
  }
  enqueue(*file);
}

void OpenFiles::enqueue(CachedFile& file) { uploads_.add(static_cast<uint64_t>(file.id())); }

void OpenFiles::cancel_upload(CachedFile& file) {
  uploads_.cancel(static_cast<uint64_t>(file.id()));
}

CloudResult OpenFiles::upload(uint64_t id, const CloudContext& context) {
  const std::shared_ptr<CachedFile> file = of_id(static_cast<int64_t>(id));
  return file != nullptr ? file->upload(context) : CloudResult{};
}

/* ------------------------------------------------------------------ start and end */

/* Two records of one path cannot be: the second one becomes a conflict. */
void OpenFiles::recover(std::vector<FileRecord> records) {
  std::vector<std::shared_ptr<CachedFile>> files;
  for (FileRecord& record : records) {
    if (known(folded_path(record.path)) != nullptr) {
      record.path = conflict_path(record.path);
      record.is_new = true;
    }
    files.push_back(std::make_shared<CachedFile>(env_, *this, record));
    Guard guard(table_);
    files_.put(folded_path(record.path), files.back());
  }
  for (const auto& file : files) {
    file->recover();
  }
}

size_t OpenFiles::unsaved() {
  std::vector<std::shared_ptr<CachedFile>> files;
  {
    Guard guard(table_);
    files = files_.all();
  }
  return static_cast<size_t>(std::count_if(files.begin(), files.end(),
                                           [](const auto& file) { return file->has_unsaved(); }));
}

}  // namespace tarnd
