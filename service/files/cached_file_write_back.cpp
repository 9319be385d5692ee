/* A cached file: what is to go back to the cloud, and how it goes. */
#include <algorithm>
#include <cstring>

#include "files/cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {

/* Something is to be written back: on record before the client is answered. */
int CachedFile::note_unsaved(Run dirty) {
  unsaved_ = true;
  shown_ = true;
  if (deleted_) {
    return 0;
  }
  if (!journal_.exists()) {
    return journal_.start(state_for_journal());
  }
  return journal_.add(store_.limit(), dirty);
}

JournalState CachedFile::state_for_journal() const {
  return {path_, base_.version, base_.size, store_};
}

int CachedFile::write_back() {
  int err = 0;
  if (!deleted_) {
    err = check_conflict();
    err = err != 0 ? err : write_to_cloud();
  }
  if (err != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot write %s back to the cloud", path_.c_str());
    return err;
  }
  unsaved_ = false;
  forget_dirty();
  renew_journal();
  return 0;
}

/*
 * The journal of a file that stays open to silent writes follows its new base. Without it, a kill
 * of the service could only cost what is written from now on.
 */
void CachedFile::renew_journal() {
  if (!journal_.exists()) {
    return;
  }
  if (const int err = journal_.start(state_for_journal())) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot write the journal of %s", path_.c_str());
  }
}

/*
 * The cloud's file is not the one that the cache was filled from: the last writer wins, if it has
 * a whole content to win with.
 */
int CachedFile::check_conflict() {
  CloudEntry entry;
  const int err = env_.cloud.status(path_, &entry);
  if (err == 0 && same_content(entry, base_)) {
    return 0;
  }
  if (err != 0 && err != OX_ENOENT) {
    return err;
  }
  if (!store_.is_local(size_)) {
    OX_LOG(OX_ERROR_LEVEL, OX_EIO, "%s was %s in the cloud, and is not wholly cached",
           path_.c_str(), err == 0 ? "changed" : "deleted");
    return OX_EIO;
  }
  OX_LOG(OX_WARN_LEVEL, 0, "%s was %s in the cloud; the local content replaces it", path_.c_str(),
         err == 0 ? "changed" : "deleted");
  return 0;
}

int CachedFile::write_to_cloud() {
  const uint64_t size = size_;
  int err =
      env_.cloud.write(path_, size, [&](uint64_t offset, void* buffer, size_t want, size_t* got) {
        return read_content(size, offset, buffer, want, got);
      });
  CloudEntry entry;
  if (err == 0) {
    err = env_.cloud.status(path_, &entry);
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
int CachedFile::read_content(uint64_t size, uint64_t offset, void* buffer, size_t want,
                             size_t* got) {
  const Extent extent = store_.at(offset, size);
  const size_t count = std::min<uint64_t>(want, extent.end - offset);
  const bool local = extent.source == Source::LOCAL;
  const int err = local ? local_.read(offset, buffer, count, got)
                        : env_.cloud.read(path_, offset, buffer, count, got);
  if (err != 0 || (!local && *got != count)) {
    return err != 0 ? err : OX_EIO;
  }
  std::memset(static_cast<char*>(buffer) + *got, 0, count - *got);
  *got = count;
  return 0;
}

int CachedFile::save() {
  Guard guard(lock_);
  if (!unsaved_) {
    return 0;
  }
  int err = local_.is_open() ? look_up_size() : open_local();
  if (err == 0) {
    err = write_back();
  }
  close_unused();
  shown_ = attached_ > 0 || unsaved_;
  return err;
}

bool CachedFile::same_as_cloud() {
  Guard guard(lock_);
  bool same = false;
  const int err = open_local();
  const bool compared = err == 0 && compare_with_cloud(&same) == 0;
  close_unused();
  return compared && same;
}

int CachedFile::compare_with_cloud(bool* same) {
  CloudEntry entry;
  int err = env_.cloud.status(path_, &entry);
  *same = err == 0 && entry.size == size_;
  std::vector<char> here(TRANSFER);
  std::vector<char> there(TRANSFER);
  for (uint64_t offset = 0; err == 0 && *same && offset < size_;) {
    const Extent extent = store_.at(offset, size_);
    const size_t want = std::min<uint64_t>(TRANSFER, extent.end - offset);
    size_t got_here = 0;
    size_t got_there = 0;
    if (extent.source == Source::LOCAL) {
      err = local_.read(offset, here.data(), want, &got_here);
      err = err != 0 ? err : env_.cloud.read(path_, offset, there.data(), want, &got_there);
      *same = got_here == got_there && std::memcmp(here.data(), there.data(), got_here) == 0;
    }
    offset += want;
  }
  return err;
}

}  // namespace tarnd
