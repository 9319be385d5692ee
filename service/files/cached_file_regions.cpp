/* A cached file: its regions, how they are fetched, and how the content changes. */
#include <algorithm>
#include <numeric>
#include <utility>

#include "files/cached_file.h"
#include "ox_errno.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

constexpr int PATH_CHANGED = -1; /* a fetch is to begin anew */

}  // namespace

/* ------------------------------------------------------------------ fetching */

FetchTarget::Source CachedFile::source() {
  const std::lock_guard guard(lock_);
  return {record_.base.path, record_.base.version};
}

std::vector<ByteRange> CachedFile::missing(ByteRange range) {
  const std::lock_guard guard(lock_);
  return missing_of(record_.store.regions(range.offset, range.length));
}

/* With lock_ held. */
std::vector<ByteRange> CachedFile::missing_of(Run regions) const {
  std::vector<ByteRange> missing;
  for (Run run = record_.store.next_to_fetch(regions); !run.empty();
       run = record_.store.next_to_fetch({run.end, regions.end})) {
    const Extent bytes = record_.store.cloud_bytes(run);
    missing.push_back({bytes.offset, bytes.end - bytes.offset});
  }
  return missing;
}

int CachedFile::write(uint64_t offset, const char* data, size_t size) {
  return local_.write(offset, data, size);
}

void CachedFile::arrived(ByteRange range) {
  const std::lock_guard guard(lock_);
  const Run regions = record_.store.regions(range.offset, range.length);
  record_.store.mark_present(regions);
  env_.counters.regions_fetched += regions.end - regions.first;
  env_.counters.bytes_fetched += range.length;
  env_.grow(record_.store.bytes(regions));
}

CachedFile::NoFetches::NoFetches(CachedFile& file) : file_(file) {
  Lock lock(file_.lock_);
  file_.fetches_stop_ = true;
  file_.moved_on_.notify_all(); /* fetches that wait for an upload end, too */
  do {
    lock.unlock();
    file_.fetches_.stop();
    lock.lock();
  } while (!file_.moved_on_.wait_for(lock, std::chrono::milliseconds(10),
                                     [&] { return file_.fetching_ == 0; }));
}

CachedFile::NoFetches::~NoFetches() {
  const std::lock_guard guard(file_.lock_);
  file_.fetches_stop_ = false;
  file_.moved_on_.notify_all();
}

/*
 * A fetch that a truncation ended begins anew: there may be nothing to fetch any more. `ahead` is
 * fetched behind it, and not waited for.
 */
int CachedFile::fetch_all(Run regions, ByteRange ahead) {
  Lock lock(lock_);
  for (;;) {
    moved_on_.wait(lock, [&] { return !fetches_stop_; });
    const std::vector<ByteRange> missing = missing_of(regions);
    if (missing.empty() && ahead.empty()) {
      return 0;
    }
    fetching_++;
    lock.unlock();
    const int err = fetch_ranges(missing, std::exchange(ahead, {}));
    lock.lock();
    fetching_--;
    moved_on_.notify_all();
    if (err != 0 && err != PATH_CHANGED && !(err == OX_EAGAIN && fetches_stop_)) {
      OX_LOG(OX_ERROR_LEVEL, err, "Cannot fetch %s", record_.path.c_str());
      return err == OX_EAGAIN ? OX_EIO : err;
    }
  }
}

/*
 * Whether the file has another path or base than when its fetch began, or is being cut: then the
 * fetch is to begin anew. A rename may be under way, or an upload that is in the cloud already, so
 * their end is awaited; not that of a truncation, which itself waits for the fetch.
 */
bool CachedFile::moved_from(const FetchTarget::Source& before) {
  Lock lock(lock_);
  moved_on_.wait(
      lock, [&] { return fetches_stop_ || (!turn_taken_ && !is_uploading(record_.state.change)); });
  return fetches_stop_ || record_.base.path != before.path ||
         record_.base.version != before.version;
}

/* OX_EAGAIN: it was ended before its time. */
int CachedFile::fetch_ranges(const std::vector<ByteRange>& ranges, ByteRange ahead) {
  const FetchTarget::Source before = source();
  const uint64_t bytes =
      std::accumulate(ranges.begin(), ranges.end(), uint64_t{0},
                      [](uint64_t sum, const ByteRange& range) { return sum + range.length; });
  if (!ranges.empty() && !env_.may_fetch(bytes)) {
    return OX_ENOSPC;
  }
  const bool room = !ahead.empty() && env_.may_fetch(bytes + ahead.length);
  const CloudResult result =
      fetches_.fetch(ranges, room ? ahead : ByteRange{}, env_.context().deadline);
  switch (result.code) {
    case CloudCode::CANCELLED:
      return OX_EAGAIN;
    case CloudCode::CHANGED:
    case CloudCode::NOT_FOUND:
      /* A region of another content must not come between the fetched ones. */
      return moved_from(before) ? PATH_CHANGED : OX_EIO;
    default:
      return result.error;
  }
}

/* What to fetch ahead of somebody who reads from front to back. */
ByteRange CachedFile::read_ahead(FileOpen* open, uint64_t offset, uint64_t length) {
  const std::lock_guard guard(lock_);
  const ByteRange ahead = open->reads.next({offset, length}, record_.store.limit());
  const Run regions = record_.store.regions(ahead.offset, ahead.length);
  const Run missing = record_.store.next_to_fetch(regions);
  if (missing.empty()) {
    return {};
  }
  const Extent bytes = record_.store.cloud_bytes({missing.first, regions.end});
  return {bytes.offset, bytes.end - bytes.offset};
}

/* ------------------------------------------------------------------ requests of an open */

/*
 * The start of every request. The client may have changed the size, without a word when its
 * truncate request failed: what is past its end is gone, also when it is the cloud's, and the cloud
 * is to get the new size.
 */
int CachedFile::look_up_size(const FileOpen& open, uint64_t* size) {
  {
    Lock lock(lock_);
    if (!open.attached) {
      return OX_EBADF;
    }
    const int err = local_.size(size);
    const bool clean = record_.state.content == Content::CLEAN;
    if (err != 0 || *size >= record_.store.limit()) {
      if (err != 0 || !clean || *size == clean_size_) {
        return err;
      }
    }
  }
  Turn turn(*this);
  return open.attached ? cut(turn, *size, false) : OX_EBADF;
}

/* An open whose maps speak of a content that is gone altogether drops them. */
bool CachedFile::tell_emptied(FileOpen* open, uint64_t size) {
  if (open->emptied == emptied_ || size != 0 || record_.store.limit() != 0) {
    return false;
  }
  open->emptied = emptied_;
  open->without_maps = open->may_write = open->writes_anywhere = true;
  return true;
}

bool CachedFile::has_stale_maps(const FileOpen& open) const {
  const std::lock_guard guard(lock_);
  return open.emptied != emptied_;
}

/* Up to where all is local behind the regions, as far as the open's maps reach. */
uint64_t CachedFile::cached_up_to(const FileOpen& open, Run regions) const {
  const uint64_t file_end = record_.store.regions(0, record_.size).end;
  const uint64_t last = std::max(regions.end, std::min(file_end, open.map_regions));
  const Run missing = record_.store.next_to_fetch({regions.first, last});
  return record_.store.start(missing.empty() ? last : std::max(missing.first, regions.end));
}

int CachedFile::cache_regions(FileOpen* open, uint64_t offset, uint64_t length, bool truncating,
                              RegionAnswer* answer) {
  if (const int err = look_up_size(*open, &answer->size)) {
    return err;
  }
  if (open->without_maps && !truncating) {
    return OX_ENOTTY;
  }
  if (!truncating && has_stale_maps(*open)) {
    Turn turn(*this);
    answer->clear = tell_emptied(open, answer->size);
    if (answer->clear) {
      return report(turn, open, {}, answer->size);
    }
  }
  const Run regions = record_.store.regions(offset, length);
  if (regions.empty()) {
    return length == 0 ? 0 : OX_E2BIG;
  }
  const ByteRange ahead = truncating ? ByteRange{} : read_ahead(open, offset, length);
  const int err = fetch_all(regions, ahead);
  const std::lock_guard guard(lock_);
  answer->start = record_.store.start(regions.first);
  if (err == 0) {
    const uint64_t until = std::max(record_.store.start(regions.end), open->reads.tell_until());
    const uint64_t told = std::min(cached_up_to(*open, regions), until);
    open->reads.told(told);
    answer->cached = told - offset;
  }
  return err;
}

int CachedFile::dirty_regions(FileOpen* open, uint64_t offset, uint64_t length,
                              RegionAnswer* answer) {
  if (const int err = look_up_size(*open, &answer->size)) {
    return err;
  }
  const uint64_t max = record_.store.max_file_size();
  if (offset > max || length > max - offset) {
    return OX_ENOSPC;
  }
  if (open->without_maps || length == 0) {
    return 0;
  }
  const Run regions = record_.store.regions(offset, length);
  if (const int err = fetch_all(regions)) {
    return err;
  }
  Turn turn(*this);
  if (!open->attached) {
    return OX_EBADF;
  }
  answer->clear = tell_emptied(open, answer->size);
  return report(turn, open, answer->clear ? Run{} : regions, answer->size);
}

/* The open may write to the regions from now on without a word. On record before it is told so. */
int CachedFile::report(Turn& turn, FileOpen* open, Run regions, uint64_t size) {
  if (record_.state.content != Content::GONE && open->may_write &&
      record_.state.content != Content::CLEAN && record_.store.dirty().contains(regions)) {
    return 0;
  }
  Work work;
  work.regions_only = true;
  work.regions = regions;
  work.edit = [=](FileRecord& record) {
    if (!regions.empty()) {
      record.store.mark_dirty(regions);
    }
    record.size = size;
  };
  const int err = carry_out(turn, Event::CHANGE, work);
  env_.grow(record_.store.bytes(regions));
  open->may_write = open->may_write || err == 0;
  return err;
}

int CachedFile::truncate(FileOpen* open, uint64_t size) {
  uint64_t before = 0;
  if (const int err = look_up_size(*open, &before)) {
    return err;
  }
  if (size > record_.store.max_file_size()) {
    return OX_ENOSPC;
  }
  Turn turn(*this);
  if (!open->attached) {
    return OX_EBADF;
  }
  if (const int err = cut(turn, size, true)) {
    return err;
  }
  open->may_write = open->writes_anywhere = true;
  if (size == 0) {
    open->emptied = emptied_;
    open->without_maps = true;
  }
  return 0;
}

/*
 * The file gets another size. `told`: it is still to be cut here; on record first, so that a killed
 * service does it at its next start. Otherwise the client did so already.
 */
int CachedFile::cut(Turn& turn, uint64_t size, bool told) {
  const NoFetches none(*this);
  uint64_t before = size;
  if (const int err = told ? local_.size(&before) : 0) {
    return err;
  }
  const FileRecord old = record_;
  Work work;
  work.edit = [=](FileRecord& record) {
    const Run grown = {record.store.regions(0, before).end, record.store.regions(0, size).end};
    record.store.truncate(size);
    if (!grown.empty()) {
      record.store.mark_dirty(grown);
    }
    record.has_cut = told;
    record.cut = size;
    record.size = size;
  };
  work.apply = [=, this] { return told ? local_.set_size(size) : 0; };
  const int err = carry_out(turn, Event::CHANGE, work);
  env_.grow(size > before ? record_.store.bytes(record_.store.regions(before, size - before)) : 0);
  const std::lock_guard guard(lock_);
  if (err != 0) {
    record_.store = old.store;
    record_.size = old.size;
  } else if (told && size == 0) {
    emptied_++;
  }
  for (FileOpen* open : opens_) { /* their maps may show regions dirty that are not so here */
    open->writes_anywhere = open->writes_anywhere || open->may_write;
  }
  if (record_.has_cut) {
    record_.has_cut = false;
    write_record(record_, Durability::PROCESS); /* failing that, the next report does it */
  }
  return err;
}

}  // namespace tarnd
