#include "region_store.h"

#include <algorithm>

#include "vfstnw_bits.h"

namespace tarnd {
namespace {

constexpr uint64_t kMaxRegions = uint64_t{1} << 31;
constexpr uint64_t kMaxOffset = INT64_MAX;
constexpr size_t kMaxMapBytes = kMaxRegions / 8;
constexpr size_t kRoomBytes = 64;

void SetBits(uint8_t* map, Run regions) {
  vfstnw_set_region_bits(map, 0, static_cast<ox_s64>(regions.first), regions.end - regions.first,
                         false);
}

void SetBits(uint8_t* map, const RegionSet& set, uint64_t bits) {
  for (Run run = set.NextPresent({0, bits}); !run.empty(); run = set.NextPresent({run.end, bits})) {
    SetBits(map, run);
  }
}

}  // namespace

uint64_t RegionStore::MaxFileSize() const {
  return shift_ >= 32 ? kMaxOffset : kMaxRegions << shift_;
}

uint64_t RegionStore::Start(uint64_t region) const {
  const uint64_t max = MaxFileSize();
  return region > (max >> shift_) ? max : std::min(region << shift_, max);
}

uint64_t RegionStore::RegionsUpTo(uint64_t size) const {
  return size == 0 ? 0 : ((size - 1) >> shift_) + 1;
}

Run RegionStore::Regions(uint64_t offset, uint64_t length) const {
  const uint64_t max = MaxFileSize();
  if (length == 0 || offset >= max) {
    return {};
  }
  const uint64_t last = offset + std::min(length, max - offset) - 1;
  return {offset >> shift_, (last >> shift_) + 1};
}

void RegionStore::Fill(uint64_t size) {
  limit_ = size;
  present_.Clear();
  dirty_.Clear();
}

void RegionStore::Truncate(uint64_t size) {
  const Run cut{RegionsUpTo(size), kMaxRegions};
  limit_ = std::min(limit_, size);
  present_.Remove(cut);
  dirty_.Remove(cut);
}

void RegionStore::MarkDirty(Run regions) {
  present_.Add(regions);
  dirty_.Add(regions);
}

Run RegionStore::NextToFetch(Run regions) const {
  regions.end = std::min(regions.end, RegionsUpTo(limit_));
  return regions.empty() ? Run{} : present_.NextMissing(regions);
}

Extent RegionStore::CloudBytes(Run regions) const {
  return {Start(regions.first), std::min(Start(regions.end), limit_), Source::kCloud};
}

Extent RegionStore::At(uint64_t offset, uint64_t size) const {
  const Run missing = NextToFetch({offset >> shift_, kMaxRegions});
  if (missing.empty()) {
    return {offset, size, Source::kLocal};
  }
  const Extent cloud = CloudBytes(missing);
  if (cloud.offset > offset) {
    return {offset, std::min(cloud.offset, size), Source::kLocal};
  }
  if (cloud.end <= offset) {
    return {offset, size, Source::kLocal};
  }
  return {offset, std::min(cloud.end, size), Source::kCloud};
}

bool RegionStore::IsLocal(uint64_t size) const { return NextToFetch(Regions(0, size)).empty(); }

size_t RegionStore::MapBytes(uint64_t size) const {
  const uint64_t bytes = RegionsUpTo(size) / 8 + 1;
  return static_cast<size_t>(std::min<uint64_t>(2 * bytes + kRoomBytes, kMaxMapBytes));
}

std::vector<uint8_t> RegionStore::Maps(size_t bytes, bool with_dirty) const {
  std::vector<uint8_t> maps(2 * bytes);
  const uint64_t bits = uint64_t{bytes} * 8;
  SetBits(maps.data(), present_, bits);
  const Run past_limit{RegionsUpTo(limit_), bits};
  if (!past_limit.empty()) {
    SetBits(maps.data(), past_limit);
  }
  if (with_dirty) {
    SetBits(maps.data() + bytes, dirty_, bits);
  }
  return maps;
}

}  // namespace tarnd
