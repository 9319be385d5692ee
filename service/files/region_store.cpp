#include "files/region_store.h"

#include <algorithm>

#include "vfstnw_bits.h"

namespace tarnd {
namespace {

constexpr uint64_t MAX_REGIONS = uint64_t{1} << 31;
constexpr uint64_t MAX_OFFSET = INT64_MAX;
constexpr size_t MAX_MAP_BYTES = MAX_REGIONS / 8;
constexpr size_t ROOM_BYTES = 64;

void set_bits(uint8_t* map, Run regions) {
  vfstnw_set_region_bits(map, 0, static_cast<ox_s64>(regions.first), regions.end - regions.first,
                         false);
}

void set_bits(uint8_t* map, const RegionSet& set, uint64_t bits) {
  for (Run run = set.next_present({0, bits}); !run.empty();
       run = set.next_present({run.end, bits})) {
    set_bits(map, run);
  }
}

}  // namespace

uint64_t RegionStore::max_file_size() const {
  return shift_ >= 32 ? MAX_OFFSET : MAX_REGIONS << shift_;
}

uint64_t RegionStore::start(uint64_t region) const {
  const uint64_t max = max_file_size();
  return region > (max >> shift_) ? max : std::min(region << shift_, max);
}

uint64_t RegionStore::regions_up_to(uint64_t size) const {
  return size == 0 ? 0 : ((size - 1) >> shift_) + 1;
}

Run RegionStore::regions(uint64_t offset, uint64_t length) const {
  const uint64_t max = max_file_size();
  if (length == 0 || offset >= max) {
    return {};
  }
  const uint64_t last = offset + std::min(length, max - offset) - 1;
  return {offset >> shift_, (last >> shift_) + 1};
}

void RegionStore::fill(uint64_t size) {
  limit_ = size;
  present_.clear();
  dirty_.clear();
}

void RegionStore::truncate(uint64_t size) {
  const Run cut{regions_up_to(size), MAX_REGIONS};
  limit_ = std::min(limit_, size);
  cut_ = std::min(cut_, size);
  present_.remove(cut);
  dirty_.remove(cut);
}

void RegionStore::rebase(uint64_t size) {
  const uint64_t limit = std::max(limit_, std::min(size, cut_));
  /* The region with the old limit in it may lack what lay before. */
  present_.add({regions_up_to(limit_), regions_up_to(limit)});
  limit_ = limit;
}

void RegionStore::mark_dirty(Run regions) {
  present_.add(regions);
  dirty_.add(regions);
}

Run RegionStore::next_to_fetch(Run regions) const {
  regions.end = std::min(regions.end, regions_up_to(limit_));
  return regions.empty() ? Run{} : present_.next_missing(regions);
}

Extent RegionStore::cloud_bytes(Run regions) const {
  return {start(regions.first), std::min(start(regions.end), limit_), Source::CLOUD};
}

Extent RegionStore::at(uint64_t offset, uint64_t size) const {
  const Run missing = next_to_fetch({offset >> shift_, MAX_REGIONS});
  if (missing.empty()) {
    return {offset, size, Source::LOCAL};
  }
  const Extent cloud = cloud_bytes(missing);
  if (cloud.offset > offset) {
    return {offset, std::min(cloud.offset, size), Source::LOCAL};
  }
  if (cloud.end <= offset) {
    return {offset, size, Source::LOCAL};
  }
  return {offset, std::min(cloud.end, size), Source::CLOUD};
}

size_t RegionStore::map_bytes(uint64_t size) const {
  const uint64_t bytes = regions_up_to(size) / 8 + 1;
  return static_cast<size_t>(std::min<uint64_t>(2 * bytes + ROOM_BYTES, MAX_MAP_BYTES));
}

std::vector<uint8_t> RegionStore::maps(size_t bytes, bool with_dirty) const {
  std::vector<uint8_t> maps(2 * bytes);
  const uint64_t bits = uint64_t{bytes} * 8;
  set_bits(maps.data(), present_, bits);
  const Run past_limit{regions_up_to(limit_), bits};
  if (!past_limit.empty()) {
    set_bits(maps.data(), past_limit);
  }
  if (with_dirty) {
    set_bits(maps.data() + bytes, dirty_, bits);
  }
  return maps;
}

}  // namespace tarnd
