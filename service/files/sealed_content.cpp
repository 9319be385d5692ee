#include "files/sealed_content.h"

#include <algorithm>
#include <cstring>

namespace tarnd {
namespace {

/* Adds a range behind the others; touching ones become one. */
void append(std::vector<ByteRange>* ranges, uint64_t offset, uint64_t end) {
  if (!ranges->empty() && ranges->back().end() >= offset) {
    ranges->back().length = std::max(ranges->back().end(), end) - ranges->back().offset;
  } else if (offset < end) {
    ranges->push_back({offset, end - offset});
  }
}

uint64_t end_of(const std::vector<ByteRange>& ranges) {
  return ranges.empty() ? 0 : ranges.back().end();
}

}  // namespace

SealedContent::SealedContent(Cloud& cloud, CloudContext context, CloudBase base,
                             SealedChange change)
    : cloud_(cloud),
      context_(std::move(context)),
      base_(std::move(base)),
      change_(std::move(change)),
      changed_end_(end_of(changed())),
      was_read_(changed_end_ == 0) {}

int SealedContent::open(const std::wstring& path) {
  const std::lock_guard guard(lock_);
  file_ = LocalFile(path);
  uint64_t size = 0;
  int err = file_.open_existing();
  err = err != 0 ? err : file_.size(&size);
  is_lost_ = err == OX_ENOENT || (err == 0 && size < change_.size);
  return is_lost_ ? OX_EIO : err;
}

int SealedContent::move_to(const std::wstring& path) { return open(path); }

int SealedContent::read(uint64_t offset, void* buffer, size_t size) {
  char* to = static_cast<char*>(buffer);
  while (size > 0) {
    const Extent extent = change_.store.at(offset, change_.size);
    const size_t count = static_cast<size_t>(std::min<uint64_t>(size, extent.end - offset));
    const int err = extent.source == Source::LOCAL ? read_local(offset, to, count)
                                                   : read_cloud(offset, to, count);
    if (err != 0) {
      return err;
    }
    offset += count;
    to += count;
    size -= count;
  }
  was_read_ = was_read_ || offset >= changed_end_;
  return 0;
}

int SealedContent::read_local(uint64_t offset, char* buffer, size_t size) {
  const std::lock_guard guard(lock_);
  size_t got = 0;
  const int err = file_.read(offset, buffer, size, &got);
  is_lost_ = is_lost_ || (err == 0 && got < size);
  return is_lost_ ? OX_EIO : err;
}

int SealedContent::read_cloud(uint64_t offset, char* buffer, size_t size) {
  const CloudResult result = cloud_.read(context_, base_.path, base_.version, {offset, size},
                                         [&buffer](const char* data, size_t count) {
                                           std::memcpy(buffer, data, count);
                                           buffer += count;
                                           return 0;
                                         });
  is_lost_ = is_lost_ || result.code == CloudCode::CHANGED || result.code == CloudCode::NOT_FOUND;
  return result.error;
}

std::vector<ByteRange> SealedContent::held() const {
  std::vector<ByteRange> ranges;
  for (uint64_t offset = 0; offset < change_.size;) {
    const Extent extent = change_.store.at(offset, change_.size);
    if (composes_ || extent.source == Source::LOCAL) {
      append(&ranges, offset, extent.end);
    }
    offset = extent.end;
  }
  return ranges;
}

std::vector<ByteRange> SealedContent::changed() const {
  const RegionStore& store = change_.store;
  const uint64_t local_from = std::min(store.limit(), change_.size);
  std::vector<ByteRange> ranges;
  for (const auto& [first, end] : store.dirty().runs()) {
    append(&ranges, std::min(store.start(first), local_from),
           std::min(store.start(end), local_from));
  }
  append(&ranges, local_from, change_.size);
  return ranges;
}

}  // namespace tarnd
