#include "files/cached_file.h"

#include "ox_errno.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

std::wstring new_local_path(const CacheEnvironment& env) {
  std::wstring name;
  wide_from_utf8(text_of_id(new_id()), &name);
  return env.folder + L'\\' + name;
}

}  // namespace

bool CachedFile::same_content(const CloudEntry& a, const CloudEntry& b) {
  return same_id(a.version, b.version) && a.size == b.size;
}

CachedFile::CachedFile(const CacheEnvironment& environment, std::string path)
    : env_(environment),
      path_(std::move(path)),
      local_(new_local_path(environment)),
      journal_(local_.path() + L".journal"),
      store_(environment.region_shift) {}

CachedFile::CachedFile(const CacheEnvironment& environment, const std::wstring& local_path,
                       const std::wstring& journal_path, const JournalState& state)
    : env_(environment),
      path_(state.path),
      local_(local_path),
      journal_(journal_path),
      store_(state.store),
      filled_(true),
      unsaved_(true) {
  base_.version = state.base_version;
  base_.size = state.base_size;
}

/* ------------------------------------------------------------------ opens */

int CachedFile::attach(FileOpen* open, bool truncate, uint32_t client_pid, FileView* view) {
  Guard guard(lock_);
  int err = bring_up_to_date();
  if (err == 0) {
    err = local_.open_for(client_pid, &view->handle);
  }
  if (err == 0 && truncate) {
    err = empty();
    if (err != 0) {
      LocalFile::take_back(client_pid, view->handle);
    }
  }
  if (err != 0) {
    close_unused();
    return err;
  }
  attached_++;
  open->attached = true;
  shown_ = true;
  open->emptied = emptied_;
  if (open->writable && !store_.dirty().empty()) {
    become_writer(open);
  }
  fill_view(*open, view);
  return 0;
}

int CachedFile::bring_up_to_date() {
  CloudEntry entry;
  if (const int err = env_.cloud.status(path_, &entry)) {
    return err;
  }
  if (entry.size > store_.max_file_size()) {
    return OX_EFBIG;
  }
  const bool in_use = attached_ > 0 || unsaved_;
  if (!in_use && !(filled_ && same_content(entry, base_))) {
    return refill(entry);
  }
  const int err = local_.is_open() ? 0 : local_.open();
  if (err == 0 && !in_use && resized_while_closed()) {
    return refill(entry);
  }
  return err != 0 ? err : look_up_size();
}

/* A handle that outlived its open changed the size: nobody's content, and so not to be used. */
bool CachedFile::resized_while_closed() const {
  uint64_t size = 0;
  return local_.size(&size) != 0 || size != size_;
}

int CachedFile::open_local() {
  const int err = local_.open();
  return err != 0 ? err : look_up_size();
}

/* Forgets the local content: the file is as long as the cloud's, and nothing of it is fetched. */
int CachedFile::refill(const CloudEntry& entry) {
  filled_ = false;
  int err = local_.is_open() ? 0 : local_.open();
  if (err == 0) {
    err = local_.set_size(0);
  }
  if (err == 0) {
    err = local_.set_size(entry.size);
  }
  if (err == 0) {
    store_.fill(entry.size);
    base_ = entry;
    filled_ = true;
    fillings_++;
    err = look_up_size();
  }
  return err;
}

void CachedFile::close_unused() {
  if (attached_ == 0) {
    local_.close();
  }
}

int CachedFile::empty() {
  if (size_ == 0 && store_.limit() == 0) {
    return 0;
  }
  if (const int err = local_.set_size(0)) {
    return err;
  }
  store_.truncate(0);
  emptied_++;
  const int err = look_up_size();
  const int noted = note_unsaved({});
  return err != 0 ? err : noted;
}

void CachedFile::fill_view(const FileOpen& open, FileView* view) const {
  view->size = size_;
  view->modified = unsaved_ ? local_.modified() : base_.modified;
  view->newer = unsaved_ || writers_ > 0;
  view->map_bytes = store_.map_bytes(size_);
  /*
   * A read-only open is deliberately shown no dirty region: whatever it writes (for a mapped file)
   * it reports, so that its close is known to need a write-back.
   */
  view->maps = store_.maps(view->map_bytes, open.writable);
  view->entry = base_;
  view->fillings = fillings_;
}

int CachedFile::detach(FileOpen* open, Closing how) {
  Guard guard(lock_);
  if (!open->attached) {
    return OX_EBADF;
  }
  const uint32_t writers = writers_;
  writers_ -= open->may_write ? 1 : 0;
  int err = look_up_size();
  if (err == 0 && must_write_back(*open, how)) {
    err = write_back();
  }
  if (err != 0 && how != Closing::CLIENT_DIED) {
    writers_ = writers;
    return err;
  }
  attached_--;
  open->attached = false;
  forget_dirty();
  if (attached_ == 0) {
    leave_local(how);
  }
  return 0;
}

/*
 * The last open is gone. The handle of a client that "died" by closing its connections could still
 * write: its local file is not used again.
 */
void CachedFile::leave_local(Closing how) {
  local_.close();
  shown_ = unsaved_;
  if (!unsaved_ && (deleted_ || how == Closing::CLIENT_DIED)) {
    discard_locked();
  }
}

bool CachedFile::must_write_back(const FileOpen& open, Closing how) const {
  const bool silent = open.may_write && (how == Closing::CLIENT_DIED || !open.writable);
  return how == Closing::MODIFIED || silent || (unsaved_ && attached_ == 1);
}

/* Dirty regions stay so, and the journal with them, while an open may write to them silently. */
void CachedFile::forget_dirty() {
  if (!unsaved_ && writers_ == 0) {
    store_.clear_dirty();
    if (journal_.exists()) {
      journal_.remove();
    }
  }
}

void CachedFile::become_writer(FileOpen* open) {
  if (!open->may_write) {
    open->may_write = true;
    writers_++;
  }
}

/* ------------------------------------------------------------------ names */

bool CachedFile::local_status(uint64_t* size, uint64_t* modified) {
  if (!shown_) {
    return false;
  }
  std::unique_lock attempt(lock_, std::try_to_lock);
  if (!attempt.owns_lock()) {
    *size = shown_size_;
    return true;
  }
  if (local_.is_open() && look_up_size() == 0 && (unsaved_ || writers_ > 0)) {
    *modified = local_.modified();
  }
  *size = size_;
  return true;
}

CachedFile::Hold CachedFile::hold_for_move() {
  Hold hold{std::unique_lock(lock_), false};
  CloudEntry before;
  hold.current = filled_ && env_.cloud.status(path_, &before) == 0 && same_content(before, base_);
  return hold;
}

cfs_id_t CachedFile::moved(const Hold& hold, const std::string& path) {
  path_ = path;
  CloudEntry now;
  if (env_.cloud.status(path_, &now) == 0) {
    path_ = now.path;
    base_ = hold.current ? now : base_;
  }
  renew_journal();
  return now.id;
}

int CachedFile::remove(const std::string& path, bool in_use) {
  Guard guard(lock_);
  if (in_use) {
    int err = look_up_size();
    err = err != 0 ? err : fetch_all(store_.regions(0, size_));
    if (err != 0) {
      return err;
    }
  }
  if (const int err = env_.cloud.remove(path)) {
    return err;
  }
  CloudEntry behind_link;
  if (env_.cloud.status(path_, &behind_link) == 0) {
    return 0;
  }
  deleted_ = true;
  unsaved_ = false;
  shown_ = false;
  journal_.remove();
  if (attached_ == 0) {
    discard_locked();
  }
  return 0;
}

/* ------------------------------------------------------------------ without an open */

bool CachedFile::has_unsaved() {
  Guard guard(lock_);
  return unsaved_ || writers_ > 0;
}

void CachedFile::discard() {
  Guard guard(lock_);
  discard_locked();
}

void CachedFile::discard_locked() {
  local_.remove();
  journal_.remove();
  /* A deleted file's name is not free before its last handle is closed. */
  local_ = LocalFile(new_local_path(env_));
  journal_ = Journal(local_.path() + L".journal");
  filled_ = false;
}

}  // namespace tarnd
