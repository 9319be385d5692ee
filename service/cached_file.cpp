#include "cached_file.h"

#include "ox_errno.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

std::wstring NewLocalPath(const CacheEnvironment& env) {
  std::wstring name;
  WideFromUtf8(TextOfId(NewId()), &name);
  return env.folder + L'\\' + name;
}

}  // namespace

bool CachedFile::SameContent(const CloudEntry& a, const CloudEntry& b) {
  return SameId(a.version, b.version) && a.size == b.size;
}

CachedFile::CachedFile(const CacheEnvironment& environment, std::string path)
    : env_(environment),
      path_(std::move(path)),
      local_(NewLocalPath(environment)),
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

int CachedFile::Attach(FileOpen* open, bool truncate, uint32_t client_pid, FileView* view) {
  Guard guard(lock_);
  int err = BringUpToDate();
  if (err == 0) {
    err = local_.OpenFor(client_pid, &view->handle);
  }
  if (err == 0 && truncate) {
    err = Empty();
    if (err != 0) {
      LocalFile::TakeBack(client_pid, view->handle);
    }
  }
  if (err != 0) {
    CloseUnused();
    return err;
  }
  attached_++;
  open->attached = true;
  shown_ = true;
  open->emptied = emptied_;
  if (open->writable && !store_.dirty().empty()) {
    BecomeWriter(open);
  }
  FillView(*open, view);
  return 0;
}

int CachedFile::BringUpToDate() {
  CloudEntry entry;
  if (const int err = env_.cloud.Status(path_, &entry)) {
    return err;
  }
  if (entry.size > store_.MaxFileSize()) {
    return OX_EFBIG;
  }
  const bool in_use = attached_ > 0 || unsaved_;
  if (!in_use && !(filled_ && SameContent(entry, base_))) {
    return Refill(entry);
  }
  const int err = local_.IsOpen() ? 0 : local_.Open();
  if (err == 0 && !in_use && ResizedWhileClosed()) {
    return Refill(entry);
  }
  return err != 0 ? err : LookUpSize();
}

/* A handle that outlived its open changed the size: nobody's content, and so not to be used. */
bool CachedFile::ResizedWhileClosed() const {
  uint64_t size = 0;
  return local_.Size(&size) != 0 || size != size_;
}

int CachedFile::OpenLocal() {
  const int err = local_.Open();
  return err != 0 ? err : LookUpSize();
}

/* Forgets the local content: the file is as long as the cloud's, and nothing of it is fetched. */
int CachedFile::Refill(const CloudEntry& entry) {
  filled_ = false;
  int err = local_.IsOpen() ? 0 : local_.Open();
  if (err == 0) {
    err = local_.SetSize(0);
  }
  if (err == 0) {
    err = local_.SetSize(entry.size);
  }
  if (err == 0) {
    store_.Fill(entry.size);
    base_ = entry;
    filled_ = true;
    fillings_++;
    err = LookUpSize();
  }
  return err;
}

void CachedFile::CloseUnused() {
  if (attached_ == 0) {
    local_.Close();
  }
}

int CachedFile::Empty() {
  if (size_ == 0 && store_.limit() == 0) {
    return 0;
  }
  if (const int err = local_.SetSize(0)) {
    return err;
  }
  store_.Truncate(0);
  emptied_++;
  const int err = LookUpSize();
  const int noted = NoteUnsaved({});
  return err != 0 ? err : noted;
}

void CachedFile::FillView(const FileOpen& open, FileView* view) const {
  view->size = size_;
  view->modified = unsaved_ ? local_.Modified() : base_.modified;
  view->newer = unsaved_ || writers_ > 0;
  view->map_bytes = store_.MapBytes(size_);
  /*
   * A read-only open is deliberately shown no dirty region: whatever it writes (for a mapped file)
   * it reports, so that its close is known to need a write-back.
   */
  view->maps = store_.Maps(view->map_bytes, open.writable);
  view->entry = base_;
  view->fillings = fillings_;
}

int CachedFile::Detach(FileOpen* open, Closing how) {
  Guard guard(lock_);
  if (!open->attached) {
    return OX_EBADF;
  }
  const uint32_t writers = writers_;
  writers_ -= open->may_write ? 1 : 0;
  int err = LookUpSize();
  if (err == 0 && MustWriteBack(*open, how)) {
    err = WriteBack();
  }
  if (err != 0 && how != Closing::kClientDied) {
    writers_ = writers;
    return err;
  }
  attached_--;
  open->attached = false;
  ForgetDirty();
  if (attached_ == 0) {
    LeaveLocal(how);
  }
  return 0;
}

/*
 * The last open is gone. The handle of a client that "died" by closing its connections could still
 * write: its local file is not used again.
 */
void CachedFile::LeaveLocal(Closing how) {
  local_.Close();
  shown_ = unsaved_;
  if (!unsaved_ && (deleted_ || how == Closing::kClientDied)) {
    DiscardLocked();
  }
}

bool CachedFile::MustWriteBack(const FileOpen& open, Closing how) const {
  const bool silent = open.may_write && (how == Closing::kClientDied || !open.writable);
  return how == Closing::kModified || silent || (unsaved_ && attached_ == 1);
}

/* Dirty regions stay so, and the journal with them, while an open may write to them silently. */
void CachedFile::ForgetDirty() {
  if (!unsaved_ && writers_ == 0) {
    store_.ClearDirty();
    if (journal_.Exists()) {
      journal_.Remove();
    }
  }
}

void CachedFile::BecomeWriter(FileOpen* open) {
  if (!open->may_write) {
    open->may_write = true;
    writers_++;
  }
}

/* ------------------------------------------------------------------ names */

bool CachedFile::LocalStatus(uint64_t* size, uint64_t* modified) {
  if (!shown_) {
    return false;
  }
  std::unique_lock attempt(lock_, std::try_to_lock);
  if (!attempt.owns_lock()) {
    *size = shown_size_;
    return true;
  }
  if (local_.IsOpen() && LookUpSize() == 0 && (unsaved_ || writers_ > 0)) {
    *modified = local_.Modified();
  }
  *size = size_;
  return true;
}

CachedFile::Hold CachedFile::HoldForMove() {
  Hold hold{std::unique_lock(lock_), false};
  CloudEntry before;
  hold.current = filled_ && env_.cloud.Status(path_, &before) == 0 && SameContent(before, base_);
  return hold;
}

cfs_id_t CachedFile::Moved(const Hold& hold, const std::string& path) {
  path_ = path;
  CloudEntry now;
  if (env_.cloud.Status(path_, &now) == 0) {
    path_ = now.path;
    base_ = hold.current ? now : base_;
  }
  RenewJournal();
  return now.id;
}

int CachedFile::Delete(const std::string& path, bool in_use) {
  Guard guard(lock_);
  if (in_use) {
    int err = LookUpSize();
    err = err != 0 ? err : FetchAll(store_.Regions(0, size_));
    if (err != 0) {
      return err;
    }
  }
  if (const int err = env_.cloud.Delete(path)) {
    return err;
  }
  CloudEntry behind_link;
  if (env_.cloud.Status(path_, &behind_link) == 0) {
    return 0;
  }
  deleted_ = true;
  unsaved_ = false;
  shown_ = false;
  journal_.Remove();
  if (attached_ == 0) {
    DiscardLocked();
  }
  return 0;
}

/* ------------------------------------------------------------------ without an open */

bool CachedFile::HasUnsaved() {
  Guard guard(lock_);
  return unsaved_ || writers_ > 0;
}

void CachedFile::Discard() {
  Guard guard(lock_);
  DiscardLocked();
}

void CachedFile::DiscardLocked() {
  local_.Remove();
  journal_.Remove();
  /* A deleted file's name is not free before its last handle is closed. */
  local_ = LocalFile(NewLocalPath(env_));
  journal_ = Journal(local_.path() + L".journal");
  filled_ = false;
}

}  // namespace tarnd
