#include "files/cached_file.h"

#include <algorithm>

#include "names/folded_path.h"
#include "ox_errno.h"
#include "ox_logging.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

uint64_t now() {
  FILETIME time;
  GetSystemTimeAsFileTime(&time);
  return join(time.dwHighDateTime, time.dwLowDateTime);
}

/* Of a file that the cloud does not have. */
CloudEntry entry_of_new(const std::string& path, uint64_t size) {
  CloudEntry entry;
  entry.name = path.substr(path.rfind('/') + 1);
  entry.path = path;
  entry.size = size;
  entry.attributes = FILE_ATTRIBUTE_NORMAL;
  entry.created = entry.accessed = entry.modified = now();
  entry.id = new_id();
  return entry;
}

}  // namespace

CachedFile::CachedFile(const CacheEnvironment& environment, FileTable& table, std::string path)
    : env_(environment),
      table_(table),
      id_(environment.store.new_id()),
      local_(L""),
      fetches_(environment.transfers, *this, uint64_t{1} << environment.region_shift) {
  record_.id = id_;
  record_.path = std::move(path);
  record_.local = new_local_name();
  record_.store = RegionStore(env_.region_shift);
  local_ = LocalFile(place_of(record_.local));
}

CachedFile::CachedFile(const CacheEnvironment& environment, FileTable& table, FileRecord record)
    : env_(environment),
      table_(table),
      id_(record.id),
      record_(std::move(record)),
      local_(L""),
      entry_(entry_of_new(record_.path, record_.size)),
      filled_(true),
      clean_size_(record_.size),
      fetches_(environment.transfers, *this, uint64_t{1} << record_.store.shift()) {
  local_ = LocalFile(place_of(record_.local));
}

CachedFile::~CachedFile() {
  fetches_.stop();
  if (!is_on_record(record_.state)) {
    local_.remove();
  }
}

std::wstring CachedFile::place_of(const std::string& name) const {
  std::wstring wide;
  wide_from_utf8(name, &wide);
  return env_.folder + L'\\' + wide;
}

std::string CachedFile::path() const {
  const std::lock_guard guard(lock_);
  return record_.path;
}

/* ------------------------------------------------------------------ opening */

int CachedFile::attach(FileOpen* open, const std::string& path, const AttachHow& how,
                       FileView* view) {
  Turn turn(*this);
  if (folded_path(record_.path) != folded_path(path) || record_.state.content == Content::GONE) {
    return OX_EAGAIN;
  }
  int err = how.create ? begin_new(turn) : bring_up_to_date(how);
  err = err != 0 ? err : hand_out(turn, how, &view->handle);
  if (err != 0) {
    abandon(turn);
    return err;
  }
  const std::lock_guard guard(lock_);
  opens_.push_back(open);
  open->attached = true;
  open->emptied = emptied_;
  open->without_maps = needs_no_maps(*open);
  open->writes_anywhere = open->without_maps;
  open->may_write = open->without_maps || (open->writable && !record_.store.dirty().empty());
  fill_view(open, view);
  return 0;
}

/* A writer of an empty file that is on record as changed has nothing to fetch, and nothing to tell
 * before its close: all that it writes is to go up. */
bool CachedFile::needs_no_maps(const FileOpen& open) const {
  uint64_t size = 0;
  return open.writable && record_.state.content == Content::DIRTY && record_.store.limit() == 0 &&
         local_.size(&size) == 0 && size == 0;
}

/* The handle first: an open that is refused has emptied nothing. */
int CachedFile::hand_out(Turn& turn, const AttachHow& how, uint64_t* handle) {
  int err = local_.open_for(how.client, handle);
  uint64_t size = 0;
  if (err == 0 && how.truncate) {
    err = local_.size(&size);
    if (err == 0 && (size != 0 || record_.store.limit() != 0)) {
      err = cut(turn, 0, true);
    }
    if (err != 0) {
      LocalFile::take_back(how.client, *handle);
    }
  }
  return err;
}

/* After an open that failed: nothing may stay that only a close would end. */
void CachedFile::abandon(Turn& turn) {
  if (!opens_.empty()) {
    return;
  }
  Work work;
  const bool made = record_.is_new && record_.state == FileState{Content::DIRTY, Change::NONE};
  if (record_.state.content != Content::CLEAN) {
    carry_out(turn, made ? Event::REMOVE : Event::CLOSE, work);
  }
  local_.close();
}

int CachedFile::bring_up_to_date(const AttachHow& how) {
  const CloudEntry& entry = how.entry;
  if (entry.size > record_.store.max_file_size()) {
    return OX_EFBIG;
  }
  const bool in_use = !opens_.empty() || is_on_record(record_.state);
  const bool same = entry.version == record_.base.version && entry.size == record_.base.size;
  if (!in_use && filled_ && !same) {
    return refill_from_now();
  }
  if (!in_use && !filled_) {
    return refill(entry);
  }
  if (entry_.version.empty() && same && !record_.is_new) {
    entry_ = entry;
  }
  const int err = local_.is_open() ? 0 : local_.open_existing();
  if (!in_use && (err != 0 || resized_while_closed())) {
    return refill(entry);
  }
  return err;
}

/* A handle that outlived its open changed the size: nobody's content, and so not to be used. */
bool CachedFile::resized_while_closed() const {
  uint64_t size = 0;
  return local_.size(&size) != 0 || size != clean_size_;
}

/* The entry was looked up before the turn: an upload of ours may have ended since. */
int CachedFile::refill_from_now() {
  CloudEntry entry;
  const CloudResult result = env_.cloud.status(env_.context(), record_.path, &entry);
  const bool same = entry.version == record_.base.version && entry.size == record_.base.size;
  if (!result.ok() || entry.folder) {
    return result.code == CloudCode::NOT_FOUND || result.ok() ? OX_EAGAIN : result.error;
  }
  const bool usable = same && (local_.is_open() || local_.open_existing() == 0);
  return usable && !resized_while_closed() ? 0 : refill(entry);
}

/* Forgets the local content: the file is as long as the cloud's, and nothing of it is fetched. */
int CachedFile::refill(const CloudEntry& entry) {
  const NoFetches none(*this);
  filled_ = false;
  int err = local_.open_empty();
  err = err != 0 || entry.size == 0 ? err : local_.set_size(entry.size);
  if (err != 0) {
    return err;
  }
  const std::lock_guard guard(lock_);
  record_.store.fill(entry.size);
  record_.base = {entry.path, entry.version, entry.size, entry.modified};
  record_.is_new = false;
  record_.size = clean_size_ = entry.size;
  entry_ = entry;
  filled_ = true;
  fillings_++;
  return 0;
}

/* On record at once: a file that was made goes up with its close, though nothing was written. */
int CachedFile::begin_new(Turn& turn) {
  if (const int err = local_.open_empty()) {
    return err;
  }
  {
    const std::lock_guard guard(lock_);
    record_.store.fill(0);
    record_.is_new = true;
    entry_ = entry_of_new(record_.path, 0);
    entry_.version = text_of_id(new_id()); /* until the cloud gives it one */
    filled_ = true;
    fillings_++;
  }
  Work work;
  work.edit = [](FileRecord&) {};
  return carry_out(turn, Event::CHANGE, work);
}

void CachedFile::fill_view(FileOpen* open, FileView* view) const {
  const RegionStore& store = record_.store;
  local_.size(&view->size);
  const bool is_made = record_.is_new && view->size == 0; /* nothing is newer than it */
  const bool newer = is_on_record(record_.state) && !is_made;
  view->modified = newer ? local_.modified() : entry_.modified;
  view->newer = newer;
  view->shift = store.shift();
  view->map_bytes = open->without_maps ? 0 : store.map_bytes(view->size);
  /* A read-only open is deliberately shown no dirty region: whatever it writes (for a mapped file)
   * it reports, so that its close is known to need an upload. */
  view->maps = store.maps(view->map_bytes, open->writable);
  view->entry = entry_;
  view->fillings = fillings_;
  open->map_regions = uint64_t{view->map_bytes} * 8;
}

/* ------------------------------------------------------------------ closing */

int CachedFile::detach(FileOpen* open, Closing how) {
  bool waits = false;
  uint64_t attempts = 0;
  int err = close(open, how, &waits, &attempts);
  if (err == 0 && waits) {
    err = wait_for_upload(attempts);
    if (err != 0) {
      stay_open(open);
    }
  }
  return err;
}

int CachedFile::close(FileOpen* open, Closing how, bool* waits, uint64_t* attempts) {
  Turn turn(*this);
  if (!open->attached) {
    return OX_EBADF;
  }
  const bool modified =
      how == Closing::MODIFIED || (how == Closing::SERVICE_ENDS && open->may_write);
  *attempts = attempts_;
  Work work;
  work.leaving = open;
  int err = note_size(turn);
  err = err != 0 ? err
                 : carry_out(turn,
                             how == Closing::CLIENT_DIED ? Event::CLIENT_DIED
                             : modified                  ? Event::CLOSE_MODIFIED
                                                         : Event::CLOSE,
                             work);
  if (err != 0 && how != Closing::CLIENT_DIED) {
    return err;
  }
  *waits = work.enqueued && (how == Closing::MODIFIED || how == Closing::UNMODIFIED);
  if (open->without_maps) {
    env_.grow(work.size);
  }
  leave(open, how);
  return 0;
}

/* A size that the client never told of is a change like any other. */
int CachedFile::note_size(Turn& turn) {
  uint64_t size = 0;
  const int err = local_.size(&size);
  const bool clean = record_.state.content == Content::CLEAN;
  const bool untold = size < record_.store.limit() || (clean && size != clean_size_);
  return err != 0 || !untold ? err : cut(turn, size, false);
}

/*
 * The handle of a client that "died" by closing its connections could still write: its local file
 * is not used again.
 */
void CachedFile::leave(FileOpen* open, Closing how) {
  {
    const std::lock_guard guard(lock_);
    open->attached = false;
    std::erase(opens_, open);
  }
  if (!opens_.empty()) {
    return;
  }
  const NoFetches none(*this);
  const std::lock_guard guard(lock_);
  if (local_.is_open()) {
    modified_ = local_.modified();
    local_.close();
  }
  if (how == Closing::CLIENT_DIED && record_.state == FileState{}) {
    local_.remove();
    record_.local = new_local_name();
    local_ = LocalFile(place_of(record_.local));
    filled_ = false;
  }
  if (record_.state.content == Content::GONE) {
    local_.remove();
  }
}

/* Its close was refused: it may write on without a word, so the sealed bytes are put aside. */
void CachedFile::stay_open(FileOpen* open) {
  Turn turn(*this);
  const RegionStore sealed = record_.sealed.store;
  Work work;
  work.edit = [&](FileRecord& record) {
    for (const auto& [first, end] : sealed.dirty().runs()) {
      record.store.mark_dirty({first, end});
    }
  };
  if (!local_.is_open()) {
    local_.open_existing();
  }
  carry_out(turn, Event::CHANGE, work);
  const std::lock_guard guard(lock_);
  opens_.push_back(open);
  open->attached = true;
  open->may_write = true;
}

/* ------------------------------------------------------------------ names */

bool CachedFile::local_status(uint64_t* size, uint64_t* modified) {
  const std::lock_guard guard(lock_);
  const bool newer = is_on_record(record_.state);
  if (record_.state.content == Content::GONE || (opens_.empty() && !newer)) {
    return false;
  }
  *size = record_.size;
  if (local_.is_open()) {
    local_.size(size);
    modified_ = local_.modified();
  }
  if (newer && modified_ != 0) {
    *modified = modified_;
  }
  return true;
}

bool CachedFile::new_entry(CloudEntry* entry) {
  const std::lock_guard guard(lock_);
  if (!record_.is_new || !is_on_record(record_.state)) {
    return false;
  }
  *entry = entry_;
  entry->path = record_.path;
  entry->name = record_.path.substr(record_.path.rfind('/') + 1);
  return true;
}

CachedFile::Hold::Hold(std::shared_ptr<CachedFile> file)
    : file_(std::move(file)), turn_(std::make_unique<Turn>(*file_)) {
  if (is_uploading(file_->record_.state.change)) {
    turn_->end_upload();
  }
}
CachedFile::Hold::Hold(Hold&&) noexcept = default;
CachedFile::Hold::~Hold() = default;

FileRecord CachedFile::moving(const std::string& to) {
  const std::lock_guard guard(lock_);
  record_.moving_to = to;
  return record_;
}

FileRecord CachedFile::moved(const std::string& path, const CloudEntry& before,
                             const CloudEntry* now) {
  const std::lock_guard guard(lock_);
  if (record_.base.path == record_.path) {
    record_.base.path = path;
  }
  record_.path = path;
  record_.moving_to.clear();
  entry_.path = path;
  entry_.name = path.substr(path.rfind('/') + 1);
  if (now != nullptr && !now->folder && before.version == record_.base.version) {
    record_.base.version = now->version;
    record_.base.modified = now->modified;
    entry_ = *now;
  }
  return record_;
}

int CachedFile::remove(const std::string& version, bool in_use) {
  if (in_use) {
    if (const int err = fetch_all(record_.store.regions(0, record_.size))) {
      return err;
    }
  }
  Turn turn(*this);
  Work work;
  work.version = version;
  return carry_out(turn, Event::REMOVE, work);
}

/* ------------------------------------------------------------------ without an open */

/* A cut that was on record and did not come about is done first. */
void CachedFile::recover() {
  Turn turn(*this);
  uint64_t size = 0;
  LocalFile file(place_of(record_.local));
  if (record_.has_cut && file.open_existing() == 0 && file.size(&size) == 0 && size > record_.cut) {
    file.set_size(record_.cut);
  }
  file.close();
  Work work;
  carry_out(turn, Event::RESTART, work);
}

bool CachedFile::has_unsaved() const {
  const std::lock_guard guard(lock_);
  return is_on_record(record_.state);
}

bool CachedFile::is_gone() const {
  const std::lock_guard guard(lock_);
  return record_.state.content == Content::GONE;
}

uint64_t CachedFile::cached_bytes() const {
  const std::lock_guard guard(lock_);
  uint64_t bytes = 0;
  for (const auto& [first, end] : record_.store.present().runs()) {
    bytes += record_.store.bytes({first, end});
  }
  return bytes;
}

}  // namespace tarnd
