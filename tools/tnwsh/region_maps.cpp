#include "region_maps.h"

#include <windows.h>

#include <algorithm>

#include "common.h"
#include "vfstnw_bmap.h"

namespace tnwsh {
namespace {

using Test = bool (*)(tnvfd* file, ox_off offset, ox_u64 size);

std::vector<RegionRun> runs_of(tnvfd* file, Test is_set, uint64_t regions) {
  std::vector<RegionRun> runs;
  for (uint64_t region = 0; region < regions; region++) {
    if (!is_set(file, static_cast<ox_off>(region << file->fdt_rshift), 1)) {
      continue;
    }
    if (runs.empty() || runs.back().first + runs.back().second != region) {
      runs.emplace_back(region, 0);
    }
    runs.back().second++;
  }
  return runs;
}

}  // namespace

/* No other thread uses the file, so its entry is read without a lock. */
RegionMaps::RegionMaps(void* open_file) {
  tnvfd* file = static_cast<tnvfd*>(open_file);
  LARGE_INTEGER size;
  if (GetFileSizeEx(file->fdt_ofd, &size) == 0) {
    throw Failure("The local cache file", "has no size", GetLastError());
  }
  file_size = static_cast<uint64_t>(size.QuadPart);
  there = file->fdt_rmap != nullptr;
  if (!there) {
    return;
  }
  region_size = uint64_t{1} << file->fdt_rshift;
  regions = (file_size >> file->fdt_rshift) + (file_size % region_size != 0 ? 1 : 0);
  cached = runs_of(file, vfstnw_is_cached, regions);
  dirty = runs_of(file, vfstnw_is_dirty, regions);
}

uint64_t count_of(const std::vector<RegionRun>& runs) {
  uint64_t count = 0;
  for (const RegionRun& run : runs) {
    count += run.second;
  }
  return count;
}

std::string strip(const std::vector<RegionRun>& runs, uint64_t regions, uint64_t cells) {
  std::string strip;
  auto run = runs.begin();
  for (uint64_t cell = 0; cell < cells; cell++) {
    const uint64_t begin = cell * regions / cells;
    const uint64_t end = (cell + 1) * regions / cells;
    while (run != runs.end() && run->first + run->second <= begin) {
      ++run;
    }
    uint64_t set = 0;
    for (auto it = run; it != runs.end() && it->first < end; ++it) {
      set += std::min(end, it->first + it->second) - std::max(begin, it->first);
    }
    strip += set == 0 ? '.' : set == end - begin ? '#' : '+';
  }
  return strip;
}

}  // namespace tnwsh
