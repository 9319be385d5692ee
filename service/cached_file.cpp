#include "cached_file.h"

#include <algorithm>
#include <cstring>

#include "ox_errno.h"
#include "ox_logging.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr size_t kTransfer = size_t{1} << 20;

bool SameContent(const CloudEntry& a, const CloudEntry& b) {
  return SameId(a.version, b.version) && a.size == b.size;
}

std::wstring NewLocalPath(const CacheEnvironment& env) {
  std::wstring name;
  WideFromUtf8(TextOfId(NewId()), &name);
  return env.folder + L'\\' + name;
}

}  // namespace

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

// ------------------------------------------------------------------ opens

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
  if (local_.IsOpen()) {
    return LookUpSize();
  }
  const uint64_t left_with = size_;
  const int err = OpenLocal();
  return err == 0 && !in_use && size_ != left_with ? Refill(entry) : err;
}

int CachedFile::OpenLocal() {
  const int err = local_.Open();
  return err != 0 ? err : LookUpSize();
}

// Forgets the local content: the file is as long as the cloud's, and nothing of it is fetched.
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
  // A read-only open is deliberately shown no dirty region: whatever it writes (for a mapped file)
  // it reports, so that its close is known to need a write-back.
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

// The last open is gone. The handle of a client that "died" by closing its connections could still
// write: its local file is not used again.
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

// Dirty regions stay so, and the journal with them, while an open may write to them silently.
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

// ------------------------------------------------------------------ regions

// The start of every request of an open: it may be closed already, the file may have a new size.
int CachedFile::Check(const FileOpen& open) { return open.attached ? LookUpSize() : OX_EBADF; }

// The client may have changed the size: what is past its end is gone, also when it is the cloud's.
int CachedFile::LookUpSize() {
  if (const int err = local_.Size(&size_)) {
    return err;
  }
  shown_size_ = size_;
  if (size_ >= store_.limit()) {
    return 0;
  }
  store_.Truncate(size_);
  return NoteUnsaved({});
}

// An open whose maps speak of a content that is gone altogether drops them.
bool CachedFile::TellEmptied(FileOpen* open) {
  if (open->emptied == emptied_ || size_ != 0 || store_.limit() != 0) {
    return false;
  }
  open->emptied = emptied_;
  open->without_maps = true;
  BecomeWriter(open);
  return true;
}

int CachedFile::CacheRegions(FileOpen* open, uint64_t offset, uint64_t length, bool truncating,
                             RegionAnswer* answer) {
  Guard guard(lock_);
  if (const int err = Check(*open)) {
    return err;
  }
  answer->size = size_;
  if (open->without_maps && !truncating) {
    return OX_ENOTTY;
  }
  if (!truncating && TellEmptied(open)) {
    answer->clear = true;
    return 0;
  }
  const Run regions = store_.Regions(offset, length);
  if (regions.empty()) {
    return length == 0 ? 0 : OX_E2BIG;
  }
  const int err = FetchAll(regions);
  answer->start = store_.Start(regions.first);
  answer->cached = err == 0 ? store_.Start(regions.end) - offset : 0;
  return err;
}

int CachedFile::DirtyRegions(FileOpen* open, uint64_t offset, uint64_t length,
                             RegionAnswer* answer) {
  Guard guard(lock_);
  if (const int err = Check(*open)) {
    return err;
  }
  const uint64_t max = store_.MaxFileSize();
  if (offset > max || length > max - offset) {
    return OX_ENOSPC;
  }
  if (open->without_maps || length == 0) {
    return 0;
  }
  if (TellEmptied(open)) {
    answer->clear = true;
    return NoteUnsaved({});
  }
  const Run regions = store_.Regions(offset, length);
  if (const int err = FetchAll(regions)) {
    return err;
  }
  const Run fresh = store_.dirty().Contains(regions) ? Run{} : regions;
  store_.MarkDirty(regions);
  BecomeWriter(open);
  return NoteUnsaved(fresh);
}

int CachedFile::Truncate(FileOpen* open, uint64_t size) {
  Guard guard(lock_);
  int err = Check(*open);
  if (err != 0 || size > store_.MaxFileSize()) {
    return err != 0 ? err : OX_ENOSPC;
  }
  const Run grown{store_.Regions(0, size_).end, store_.Regions(0, size).end};
  if (size == 0) {
    err = Empty();
    open->emptied = emptied_;
    open->without_maps = true;
  } else {
    err = local_.SetSize(size);
  }
  if (err != 0) {
    return err;
  }
  store_.Truncate(size);
  store_.MarkDirty(grown);
  BecomeWriter(open);
  err = LookUpSize();
  const int noted = NoteUnsaved(grown);
  return err != 0 ? err : noted;
}

int CachedFile::FetchAll(Run regions) {
  Run missing = store_.NextToFetch(regions);
  if (missing.empty()) {
    return 0;
  }
  if (const int err = CheckBase()) {
    return err;
  }
  // Pieces of about a transfer: what was fetched counts, also when a later piece fails.
  const uint64_t piece = std::max<uint64_t>(1, kTransfer >> std::min(store_.shift(), 62));
  for (; !missing.empty(); missing = store_.NextToFetch(regions)) {
    missing.end = std::min(missing.end, missing.first + piece);
    if (const int err = FetchRun(missing)) {
      OX_LOG(OX_ERROR_LEVEL, err, "Cannot fetch %s", path_.c_str());
      return err;
    }
  }
  return 0;
}

int CachedFile::FetchRun(Run regions) {
  const Extent bytes = store_.CloudBytes(regions);
  if (const int err = FetchBytes(bytes)) {
    return err;
  }
  store_.MarkPresent(regions);
  env_.counters.regions_fetched += regions.end - regions.first;
  env_.counters.bytes_fetched += bytes.end - bytes.offset;
  return 0;
}

int CachedFile::FetchBytes(Extent bytes) {
  std::vector<char> buffer(std::min<uint64_t>(kTransfer, bytes.end - bytes.offset));
  while (bytes.offset < bytes.end) {
    const size_t want = std::min<uint64_t>(buffer.size(), bytes.end - bytes.offset);
    size_t got = 0;
    int err = env_.cloud.Read(path_, bytes.offset, buffer.data(), want, &got);
    if (err == 0) {
      err = got == want ? local_.Write(bytes.offset, buffer.data(), want) : OX_EIO;
    }
    if (err != 0) {
      return err;
    }
    bytes.offset += want;
  }
  return 0;
}

// A region of another content must not come between the fetched ones.
int CachedFile::CheckBase() {
  CloudEntry entry;
  if (const int err = env_.cloud.Status(path_, &entry)) {
    return err;
  }
  if (!SameContent(entry, base_)) {
    OX_LOG(OX_ERROR_LEVEL, OX_EIO, "%s was changed in the cloud while it is open", path_.c_str());
    return OX_EIO;
  }
  return 0;
}

// ------------------------------------------------------------------ the way back

// Something is to be written back: on record before the client is answered.
int CachedFile::NoteUnsaved(Run dirty) {
  unsaved_ = true;
  shown_ = true;
  if (deleted_) {
    return 0;
  }
  if (!journal_.Exists()) {
    return journal_.Start(StateForJournal());
  }
  return journal_.Add(store_.limit(), dirty);
}

JournalState CachedFile::StateForJournal() const {
  return {path_, base_.version, base_.size, store_};
}

int CachedFile::WriteBack() {
  int err = 0;
  if (!deleted_) {
    err = CheckConflict();
    err = err != 0 ? err : WriteToCloud();
  }
  if (err != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot write %s back to the cloud", path_.c_str());
    return err;
  }
  unsaved_ = false;
  ForgetDirty();
  RenewJournal();
  return 0;
}

// The journal of a file that stays open to silent writes follows its new base. Without it, a kill
// of the service could only cost what is written from now on.
void CachedFile::RenewJournal() {
  if (!journal_.Exists()) {
    return;
  }
  if (const int err = journal_.Start(StateForJournal())) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot write the journal of %s", path_.c_str());
  }
}

// The cloud's file is not the one that the cache was filled from: the last writer wins, if it has
// a whole content to win with.
int CachedFile::CheckConflict() {
  CloudEntry entry;
  const int err = env_.cloud.Status(path_, &entry);
  if (err == 0 && SameContent(entry, base_)) {
    return 0;
  }
  if (err != 0 && err != OX_ENOENT) {
    return err;
  }
  if (!store_.IsLocal(size_)) {
    OX_LOG(OX_ERROR_LEVEL, OX_EIO, "%s was %s in the cloud, and is not wholly cached",
           path_.c_str(), err == 0 ? "changed" : "deleted");
    return OX_EIO;
  }
  OX_LOG(OX_WARN_LEVEL, 0, "%s was %s in the cloud; the local content replaces it", path_.c_str(),
         err == 0 ? "changed" : "deleted");
  return 0;
}

int CachedFile::WriteToCloud() {
  const uint64_t size = size_;
  int err =
      env_.cloud.Write(path_, size, [&](uint64_t offset, void* buffer, size_t want, size_t* got) {
        return ReadContent(size, offset, buffer, want, got);
      });
  CloudEntry entry;
  if (err == 0) {
    err = env_.cloud.Status(path_, &entry);
  }
  if (err != 0) {
    return err;
  }
  base_ = entry;
  fillings_++;
  env_.counters.files_written_back++;
  env_.counters.bytes_written_back += size;
  return 0;
}

// One piece of the whole content. Another open may cut the file meanwhile: what is gone reads as
// zeros, and its own close writes back again.
int CachedFile::ReadContent(uint64_t size, uint64_t offset, void* buffer, size_t want,
                            size_t* got) {
  const Extent extent = store_.At(offset, size);
  const size_t count = std::min<uint64_t>(want, extent.end - offset);
  const bool local = extent.source == Source::kLocal;
  const int err = local ? local_.Read(offset, buffer, count, got)
                        : env_.cloud.Read(path_, offset, buffer, count, got);
  if (err != 0 || (!local && *got != count)) {
    return err != 0 ? err : OX_EIO;
  }
  std::memset(static_cast<char*>(buffer) + *got, 0, count - *got);
  *got = count;
  return 0;
}

// ------------------------------------------------------------------ names

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

int CachedFile::Rename(const std::string& to) {
  Guard guard(lock_);
  CloudEntry before;
  const bool current =
      env_.cloud.Status(path_, &before) == 0 && filled_ && SameContent(before, base_);
  if (const int err = env_.cloud.Rename(path_, to, false)) {
    return err;
  }
  path_ = to;
  CloudEntry after;
  if (current && env_.cloud.Status(path_, &after) == 0) {
    base_ = after;
  }
  RenewJournal();
  return 0;
}

int CachedFile::Delete(bool in_use) {
  Guard guard(lock_);
  if (in_use) {
    int err = LookUpSize();
    err = err != 0 ? err : FetchAll(store_.Regions(0, size_));
    if (err != 0) {
      return err;
    }
  }
  if (const int err = env_.cloud.Delete(path_)) {
    return err;
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

// ------------------------------------------------------------------ without an open

bool CachedFile::HasUnsaved() {
  Guard guard(lock_);
  return unsaved_ || writers_ > 0;
}

int CachedFile::Save() {
  Guard guard(lock_);
  if (!unsaved_) {
    return 0;
  }
  int err = local_.IsOpen() ? LookUpSize() : OpenLocal();
  if (err == 0) {
    err = WriteBack();
  }
  CloseUnused();
  shown_ = attached_ > 0 || unsaved_;
  return err;
}

void CachedFile::Discard() {
  Guard guard(lock_);
  DiscardLocked();
}

void CachedFile::DiscardLocked() {
  local_.Remove();
  journal_.Remove();
  // A deleted file's name is not free before its last handle is closed.
  local_ = LocalFile(NewLocalPath(env_));
  journal_ = Journal(local_.path() + L".journal");
  filled_ = false;
}

bool CachedFile::SameAsCloud() {
  Guard guard(lock_);
  bool same = false;
  const int err = OpenLocal();
  const bool compared = err == 0 && CompareWithCloud(&same) == 0;
  CloseUnused();
  return compared && same;
}

int CachedFile::CompareWithCloud(bool* same) {
  CloudEntry entry;
  int err = env_.cloud.Status(path_, &entry);
  *same = err == 0 && entry.size == size_;
  std::vector<char> here(kTransfer);
  std::vector<char> there(kTransfer);
  for (uint64_t offset = 0; err == 0 && *same && offset < size_;) {
    const Extent extent = store_.At(offset, size_);
    const size_t want = std::min<uint64_t>(kTransfer, extent.end - offset);
    size_t got_here = 0;
    size_t got_there = 0;
    if (extent.source == Source::kLocal) {
      err = local_.Read(offset, here.data(), want, &got_here);
      err = err != 0 ? err : env_.cloud.Read(path_, offset, there.data(), want, &got_there);
      *same = got_here == got_there && std::memcmp(here.data(), there.data(), got_here) == 0;
    }
    offset += want;
  }
  return err;
}

}  // namespace tarnd
