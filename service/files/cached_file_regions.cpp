/* A cached file: its regions, and how they are fetched. */
#include <algorithm>

#include "files/cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {

/* The start of every request of an open: it may be closed already, the file may have a new size. */
int CachedFile::check(const FileOpen& open) { return open.attached ? look_up_size() : OX_EBADF; }

/*
 * The client may have changed the size, without a word when its truncate request failed: what is
 * past its end is gone, also when it is the cloud's, and the cloud is to get the new size.
 */
int CachedFile::look_up_size() {
  if (const int err = local_.size(&size_)) {
    return err;
  }
  shown_size_ = size_;
  const bool cut = size_ < store_.limit();
  if (cut) {
    store_.truncate(size_);
  }
  return cut || (size_ != base_.size && !unsaved_) ? note_unsaved({}) : 0;
}

/* An open whose maps speak of a content that is gone altogether drops them. */
bool CachedFile::tell_emptied(FileOpen* open) {
  if (open->emptied == emptied_ || size_ != 0 || store_.limit() != 0) {
    return false;
  }
  open->emptied = emptied_;
  open->without_maps = true;
  become_writer(open);
  return true;
}

int CachedFile::cache_regions(FileOpen* open, uint64_t offset, uint64_t length, bool truncating,
                              RegionAnswer* answer) {
  Guard guard(lock_);
  if (const int err = check(*open)) {
    return err;
  }
  answer->size = size_;
  if (open->without_maps && !truncating) {
    return OX_ENOTTY;
  }
  if (!truncating && tell_emptied(open)) {
    answer->clear = true;
    return 0;
  }
  const Run regions = store_.regions(offset, length);
  if (regions.empty()) {
    return length == 0 ? 0 : OX_E2BIG;
  }
  const int err = fetch_all(regions);
  answer->start = store_.start(regions.first);
  answer->cached = err == 0 ? store_.start(regions.end) - offset : 0;
  return err;
}

int CachedFile::dirty_regions(FileOpen* open, uint64_t offset, uint64_t length,
                              RegionAnswer* answer) {
  Guard guard(lock_);
  if (const int err = check(*open)) {
    return err;
  }
  const uint64_t max = store_.max_file_size();
  if (offset > max || length > max - offset) {
    return OX_ENOSPC;
  }
  if (open->without_maps || length == 0) {
    return 0;
  }
  if (tell_emptied(open)) {
    answer->clear = true;
    return note_unsaved({});
  }
  const Run regions = store_.regions(offset, length);
  if (const int err = fetch_all(regions)) {
    return err;
  }
  const Run fresh = store_.dirty().contains(regions) ? Run{} : regions;
  store_.mark_dirty(regions);
  become_writer(open);
  return note_unsaved(fresh);
}

int CachedFile::truncate(FileOpen* open, uint64_t size) {
  Guard guard(lock_);
  int err = check(*open);
  if (err != 0 || size > store_.max_file_size()) {
    return err != 0 ? err : OX_ENOSPC;
  }
  const Run grown{store_.regions(0, size_).end, store_.regions(0, size).end};
  if (size == 0) {
    err = empty();
    open->emptied = emptied_;
    open->without_maps = true;
  } else {
    err = local_.set_size(size);
  }
  if (err != 0) {
    return err;
  }
  store_.truncate(size);
  store_.mark_dirty(grown);
  become_writer(open);
  err = look_up_size();
  const int noted = note_unsaved(grown);
  return err != 0 ? err : noted;
}

int CachedFile::fetch_all(Run regions) {
  Run missing = store_.next_to_fetch(regions);
  if (missing.empty()) {
    return 0;
  }
  if (const int err = check_base()) {
    return err;
  }
  /* Pieces of about a transfer: what was fetched counts, also when a later piece fails. */
  const uint64_t piece = std::max<uint64_t>(1, TRANSFER >> std::min(store_.shift(), 62));
  for (; !missing.empty(); missing = store_.next_to_fetch(regions)) {
    missing.end = std::min(missing.end, missing.first + piece);
    if (const int err = fetch_run(missing)) {
      OX_LOG(OX_ERROR_LEVEL, err, "Cannot fetch %s", path_.c_str());
      return err;
    }
  }
  return 0;
}

int CachedFile::fetch_run(Run regions) {
  const Extent bytes = store_.cloud_bytes(regions);
  if (const int err = fetch_bytes(bytes)) {
    return err;
  }
  store_.mark_present(regions);
  env_.counters.regions_fetched += regions.end - regions.first;
  env_.counters.bytes_fetched += bytes.end - bytes.offset;
  return 0;
}

int CachedFile::fetch_bytes(Extent bytes) {
  std::vector<char> buffer(std::min<uint64_t>(TRANSFER, bytes.end - bytes.offset));
  while (bytes.offset < bytes.end) {
    const size_t want = std::min<uint64_t>(buffer.size(), bytes.end - bytes.offset);
    size_t got = 0;
    int err = env_.cloud.read(path_, bytes.offset, buffer.data(), want, &got);
    if (err == 0) {
      err = got == want ? local_.write(bytes.offset, buffer.data(), want) : OX_EIO;
    }
    if (err != 0) {
      return err;
    }
    bytes.offset += want;
  }
  return 0;
}

/* A region of another content must not come between the fetched ones. */
int CachedFile::check_base() {
  CloudEntry entry;
  if (const int err = env_.cloud.status(path_, &entry)) {
    return err;
  }
  if (!same_content(entry, base_)) {
    OX_LOG(OX_ERROR_LEVEL, OX_EIO, "%s was changed in the cloud while it is open", path_.c_str());
    return OX_EIO;
  }
  return 0;
}

}  // namespace tarnd
