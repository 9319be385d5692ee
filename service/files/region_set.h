/*
 * A set of numbers kept as runs: the regions of a file. Memory goes with the number of runs, not
 * with the size of the numbers. Not thread-safe: guarded by its owner.
 */
#ifndef SERVICE_REGION_SET_H
#define SERVICE_REGION_SET_H

#include <cstdint>
#include <map>

namespace tarnd {

/* Numbers from `first` up to and without `end`; empty when they are equal. */
struct Run {
  uint64_t first = 0;
  uint64_t end = 0;

  bool empty() const { return first >= end; }
};

class RegionSet {
 public:
  void add(Run run);
  void remove(Run run);
  void clear() { runs_.clear(); }

  bool empty() const { return runs_.empty(); }
  /* First to end of each run, in order. */
  const std::map<uint64_t, uint64_t>& runs() const { return runs_; }
  bool contains(Run run) const { return next_missing(run).empty(); }
  /* The lowest run within `within` of which no number is in the set; an empty one when all are. */
  Run next_missing(Run within) const;
  /* The lowest run within `within` of which every number is in the set. */
  Run next_present(Run within) const;

 private:
  std::map<uint64_t, uint64_t> runs_; /* first to end; never empty, touching or overlapping */
};

}  // namespace tarnd

#endif
