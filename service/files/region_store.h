/*
 * What the local cache file of one file holds, by regions of 2^shift bytes. Arithmetic only: no
 * I/O.
 *
 * The truth about a byte at `offset` is in
 *   - the local file, when its region is present or begins at or past the limit;
 *   - the cloud's content, when its region is not present and offset < limit;
 *   - the local file again (a zero, or written), when its region is not present and offset >=
 *   limit.
 * The limit begins as the size of the cloud's file and only falls, with truncations: what was cut
 * off never comes back from the cloud, and whatever the file grows by later is local from birth.
 * So an append, the gap before it, and a file that was emptied need nothing from the cloud.
 *
 * A dirty region is always present. Not thread-safe: guarded by its CachedFile.
 */
#ifndef SERVICE_REGION_STORE_H
#define SERVICE_REGION_STORE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "files/region_set.h"

namespace tarnd {

enum class Source { LOCAL, CLOUD };

/* Bytes from `offset` up to and without `end` that come from one place. */
struct Extent {
  uint64_t offset = 0;
  uint64_t end = 0;
  Source source = Source::LOCAL;
};

class RegionStore {
 public:
  explicit RegionStore(int shift) : shift_(shift) {}

  int shift() const { return shift_; }
  uint64_t limit() const { return limit_; }
  const RegionSet& present() const { return present_; }
  const RegionSet& dirty() const { return dirty_; }

  /* The largest size that a file may have: its regions count in 31 bits, its offsets in 63. */
  uint64_t max_file_size() const;
  /* The regions that a byte range overlaps, cut at the largest file size. */
  Run regions(uint64_t offset, uint64_t length) const;
  /* Where region `region` begins; the largest file size for those that lie past it. */
  uint64_t start(uint64_t region) const;
  /* How many bytes the regions have room for. */
  uint64_t bytes(Run regions) const { return (regions.end - regions.first) << shift_; }

  /* Nothing is held; the cloud has `size` bytes. */
  void fill(uint64_t size);
  /* The file was cut to `size`. */
  void truncate(uint64_t size);
  /* From here on truncations count as later than a content that is to go to the cloud. */
  void begin_seal() { cut_ = UINT64_MAX; }
  /* That content, of `size` bytes, is what the cloud has now. */
  void rebase(uint64_t size);
  void mark_present(Run regions) { present_.add(regions); }
  void mark_dirty(Run regions);
  void clear_dirty() { dirty_.clear(); }

  /* The next regions of `regions` that must be fetched; empty when all are in the local file. */
  Run next_to_fetch(Run regions) const;
  /* The bytes of a region run that the cloud has. */
  Extent cloud_bytes(Run regions) const;
  /* Where the content comes from at `offset`, for at most up to `size`. */
  Extent at(uint64_t offset, uint64_t size) const;

  /*
   * The length of each map for a file of `size` bytes: with room for the file to double and 512
   * regions more, so that an ordinary append stays within the map.
   */
  size_t map_bytes(uint64_t size) const;
  /* Both maps, the cached one first, of `bytes` bytes each. */
  std::vector<uint8_t> maps(size_t bytes, bool with_dirty) const;

 private:
  uint64_t regions_up_to(uint64_t size) const; /* regions of a file of `size` bytes */

  int shift_;
  uint64_t limit_ = 0;
  RegionSet present_; /* regions below the limit only count; the others are local anyway */
  RegionSet dirty_;
  uint64_t cut_ = UINT64_MAX; /* the smallest size since begin_seal() */
};

}  // namespace tarnd

#endif
