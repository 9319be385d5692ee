/* A cached file: its regions, and how they are fetched. */
#include <algorithm>

#include "cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {

/* The start of every request of an open: it may be closed already, the file may have a new size. */
int CachedFile::Check(const FileOpen& open) { return open.attached ? LookUpSize() : OX_EBADF; }

/*
 * The client may have changed the size, without a word when its truncate request failed: what is
 * past its end is gone, also when it is the cloud's, and the cloud is to get the new size.
 */
int CachedFile::LookUpSize() {
  if (const int err = local_.Size(&size_)) {
    return err;
  }
  shown_size_ = size_;
  const bool cut = size_ < store_.limit();
  if (cut) {
    store_.Truncate(size_);
  }
  return cut || (size_ != base_.size && !unsaved_) ? NoteUnsaved({}) : 0;
}

/* An open whose maps speak of a content that is gone altogether drops them. */
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
  /* Pieces of about a transfer: what was fetched counts, also when a later piece fails. */
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

/* A region of another content must not come between the fetched ones. */
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

}  // namespace tarnd
