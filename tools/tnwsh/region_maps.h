/*
 * What the client knows of an open file's regions: which are in the local cache file, and which the
 * cache service knows to be dirty. The only part of the shell that looks behind the library's
 * public calls.
 */
#ifndef TNWSH_REGION_MAPS_H
#define TNWSH_REGION_MAPS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tnwsh {

/* First region and count. */
using RegionRun = std::pair<uint64_t, uint64_t>;

/* The maps at the time of the construction, as runs of set bits. */
struct RegionMaps {
  /* `open_file` is a handle of tnw_create. */
  explicit RegionMaps(void* open_file);

  uint64_t file_size = 0; /* of the local cache file */
  /* Without maps all of the file counts as cached and dirty, and the members below are empty. */
  bool there = false;
  uint64_t region_size = 0;
  uint64_t regions = 0;
  std::vector<RegionRun> cached;
  std::vector<RegionRun> dirty;
};

uint64_t count_of(const std::vector<RegionRun>& runs);

/*
 * One character for each region, or for as many as it takes: '#' all are set, '+' some, '.' none.
 */
std::string strip(const std::vector<RegionRun>& runs, uint64_t regions, uint64_t cells);

}  // namespace tnwsh

#endif
