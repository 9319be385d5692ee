#include "files/region_set.h"

#include <algorithm>
#include <iterator>

namespace tarnd {

void RegionSet::add(Run run) {
  if (run.empty()) {
    return;
  }
  auto it = runs_.upper_bound(run.first);
  if (it != runs_.begin() && std::prev(it)->second >= run.first) {
    --it;
  }
  while (it != runs_.end() && it->first <= run.end) {
    run.first = std::min(run.first, it->first);
    run.end = std::max(run.end, it->second);
    it = runs_.erase(it);
  }
  runs_.emplace(run.first, run.end);
}

void RegionSet::remove(Run run) {
  if (run.empty()) {
    return;
  }
  auto it = runs_.upper_bound(run.first);
  if (it != runs_.begin() && std::prev(it)->second > run.first) {
    --it;
  }
  while (it != runs_.end() && it->first < run.end) {
    const Run old{it->first, it->second};
    it = runs_.erase(it);
    if (old.first < run.first) {
      runs_.emplace(old.first, run.first);
    }
    if (old.end > run.end) {
      runs_.emplace(run.end, old.end);
    }
  }
}

Run RegionSet::next_missing(Run within) const {
  auto it = runs_.upper_bound(within.first);
  if (it != runs_.begin() && std::prev(it)->second > within.first) {
    within.first = std::prev(it)->second;
  }
  if (within.empty()) {
    return {};
  }
  return {within.first, it == runs_.end() ? within.end : std::min(within.end, it->first)};
}

Run RegionSet::next_present(Run within) const {
  auto it = runs_.upper_bound(within.first);
  if (it != runs_.begin() && std::prev(it)->second > within.first) {
    --it;
  }
  if (it == runs_.end()) {
    return {};
  }
  const Run found{std::max(within.first, it->first), std::min(within.end, it->second)};
  return found.empty() ? Run{} : found;
}

}  // namespace tarnd
