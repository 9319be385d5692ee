/* A cached file: what is to go back to the cloud, and how it goes. */
#include <algorithm>
#include <cstring>

#include "cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {

/* Something is to be written back: on record before the client is answered. */
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

/*
 * The journal of a file that stays open to silent writes follows its new base. Without it, a kill
 * of the service could only cost what is written from now on.
 */
void CachedFile::RenewJournal() {
  if (!journal_.Exists()) {
    return;
  }
  if (const int err = journal_.Start(StateForJournal())) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot write the journal of %s", path_.c_str());
  }
}

/*
 * The cloud's file is not the one that the cache was filled from: the last writer wins, if it has
 * a whole content to win with.
 */
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

/*
 * One piece of the whole content. Another open may cut the file meanwhile: what is gone reads as
 * zeros, and its own close writes back again.
 */
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
