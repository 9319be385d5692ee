/*
 * Regions: the set of runs against a plain one, and the arithmetic of the store at its edges. What
 * the store decides in between is seen in cached_file_test.
 */
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "files/region_set.h"
#include "files/region_store.h"

namespace {

using tarnd::RegionSet;
using tarnd::RegionStore;
using Span = tarnd::Run;

TEST(RegionSet, AgreesWithAPlainSet) {
  constexpr uint64_t SPACE = 40;
  std::mt19937 random(1);
  RegionSet set;
  std::set<uint64_t> plain;
  for (int step = 0; step < 4000; step++) {
    const uint64_t first = random() % SPACE;
    const Span run{first, first + random() % (SPACE - first + 1)};
    const bool add = random() % 2 == 0;
    add ? set.add(run) : set.remove(run);
    for (uint64_t n = run.first; n < run.end; n++) {
      add ? (void)plain.insert(n) : (void)plain.erase(n);
    }
    for (uint64_t from = 0; from < SPACE; from++) {
      uint64_t missing = from;
      while (missing < SPACE && plain.contains(missing)) {
        missing++;
      }
      uint64_t present = from;
      while (present < SPACE && !plain.contains(present)) {
        present++;
      }
      const Span gap = set.next_missing({from, SPACE});
      const Span held = set.next_present({from, SPACE});
      ASSERT_EQ(gap.empty() ? SPACE : gap.first, missing) << "step " << step;
      ASSERT_EQ(held.empty() ? SPACE : held.first, present) << "step " << step;
      ASSERT_TRUE(gap.empty() || gap.end == SPACE || plain.contains(gap.end));
      ASSERT_TRUE(held.empty() || held.end == SPACE || !plain.contains(held.end));
    }
  }
}

TEST(RegionStore, WhatWasCutIsNotDirtyAndMapsHaveRoom) {
  RegionStore store(4);
  store.fill(64);
  store.mark_dirty({3, 4});
  store.truncate(20);
  EXPECT_TRUE(store.dirty().empty());
  EXPECT_GE(store.map_bytes(20) * 8, 2u + 512u);
}

TEST(RegionStore, HoldsAtTheEndsOfTheNumbers) {
  for (const int shift : {0, 1, 12, 31, 32, 33, 62}) {
    RegionStore store(shift);
    const uint64_t max = store.max_file_size();
    const Span last = store.regions(max - 1, UINT64_MAX);
    EXPECT_EQ(last.end - last.first, 1u) << shift;
    EXPECT_EQ(store.start(last.end), max) << shift;
    EXPECT_LE(store.start(last.first), max - 1) << shift;
    EXPECT_LE(last.end, uint64_t{1} << 31) << shift;
    EXPECT_TRUE(store.regions(max, 1).empty()) << shift;
    store.fill(max);
    EXPECT_EQ(store.cloud_bytes(last).end, max) << shift;
    EXPECT_LE(store.map_bytes(max), size_t{1} << 28) << shift;
  }
}

}  // namespace
