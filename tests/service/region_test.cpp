/*
 * Regions: the set of runs against a plain one, and the arithmetic of the store at its edges. What
 * the store decides in between is seen in cached_file_test.
 */
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "region_set.h"
#include "region_store.h"

namespace {

using tarnd::RegionSet;
using tarnd::RegionStore;
using Span = tarnd::Run;

TEST(RegionSet, AgreesWithAPlainSet) {
  constexpr uint64_t kSpace = 40;
  std::mt19937 random(1);
  RegionSet set;
  std::set<uint64_t> plain;
  for (int step = 0; step < 4000; step++) {
    const uint64_t first = random() % kSpace;
    const Span run{first, first + random() % (kSpace - first + 1)};
    const bool add = random() % 2 == 0;
    add ? set.Add(run) : set.Remove(run);
    for (uint64_t n = run.first; n < run.end; n++) {
      add ? (void)plain.insert(n) : (void)plain.erase(n);
    }
    for (uint64_t from = 0; from < kSpace; from++) {
      uint64_t missing = from;
      while (missing < kSpace && plain.contains(missing)) {
        missing++;
      }
      uint64_t present = from;
      while (present < kSpace && !plain.contains(present)) {
        present++;
      }
      const Span gap = set.NextMissing({from, kSpace});
      const Span held = set.NextPresent({from, kSpace});
      ASSERT_EQ(gap.empty() ? kSpace : gap.first, missing) << "step " << step;
      ASSERT_EQ(held.empty() ? kSpace : held.first, present) << "step " << step;
      ASSERT_TRUE(gap.empty() || gap.end == kSpace || plain.contains(gap.end));
      ASSERT_TRUE(held.empty() || held.end == kSpace || !plain.contains(held.end));
    }
  }
}

TEST(RegionStore, WhatWasCutIsNotDirtyAndMapsHaveRoom) {
  RegionStore store(4);
  store.Fill(64);
  store.MarkDirty({3, 4});
  store.Truncate(20);
  EXPECT_TRUE(store.dirty().empty());
  EXPECT_GE(store.MapBytes(20) * 8, 2u + 512u);
}

TEST(RegionStore, HoldsAtTheEndsOfTheNumbers) {
  for (const int shift : {0, 1, 12, 31, 32, 33, 62}) {
    RegionStore store(shift);
    const uint64_t max = store.MaxFileSize();
    const Span last = store.Regions(max - 1, UINT64_MAX);
    EXPECT_EQ(last.end - last.first, 1u) << shift;
    EXPECT_EQ(store.Start(last.end), max) << shift;
    EXPECT_LE(store.Start(last.first), max - 1) << shift;
    EXPECT_LE(last.end, uint64_t{1} << 31) << shift;
    EXPECT_TRUE(store.Regions(max, 1).empty()) << shift;
    store.Fill(max);
    EXPECT_EQ(store.CloudBytes(last).end, max) << shift;
    EXPECT_LE(store.MapBytes(max), size_t{1} << 28) << shift;
  }
}

}  // namespace
