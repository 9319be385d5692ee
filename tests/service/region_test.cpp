// Regions: the set of runs against a plain one, and the arithmetic of the store at its edges.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "region_set.h"
#include "region_store.h"
#include "vfstnw_bits.h"

namespace {

using tarnd::RegionSet;
using tarnd::RegionStore;
using Span = tarnd::Run;
using tarnd::Source;

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
      while (missing < kSpace && plain.contains(missing)) missing++;
      uint64_t present = from;
      while (present < kSpace && !plain.contains(present)) present++;
      const Span gap = set.NextMissing({from, kSpace});
      const Span held = set.NextPresent({from, kSpace});
      ASSERT_EQ(gap.empty() ? kSpace : gap.first, missing) << "step " << step;
      ASSERT_EQ(held.empty() ? kSpace : held.first, present) << "step " << step;
      ASSERT_TRUE(gap.empty() || gap.end == kSpace || plain.contains(gap.end));
      ASSERT_TRUE(held.empty() || held.end == kSpace || !plain.contains(held.end));
    }
  }
}

TEST(RegionStore, FetchesOnlyWhatTheCloudHas) {
  RegionStore store(4);
  store.Fill(40);  // regions 0, 1 and half of 2
  const Span all = store.Regions(0, 1000);
  EXPECT_EQ(store.NextToFetch(all).end, 3u);
  EXPECT_EQ(store.CloudBytes({2, 3}).end, 40u);
  EXPECT_TRUE(store.NextToFetch({3, 60}).empty()) << "past the cloud's content";

  store.MarkPresent({1, 2});
  EXPECT_EQ(store.At(5, 40).source, Source::kCloud);
  EXPECT_EQ(store.At(5, 40).end, 16u);
  EXPECT_EQ(store.At(16, 40).source, Source::kLocal);
  EXPECT_EQ(store.At(16, 40).end, 32u);
  EXPECT_EQ(store.At(32, 100).end, 40u) << "what follows the cloud's end is local";
  EXPECT_EQ(store.At(40, 100).source, Source::kLocal);
  EXPECT_FALSE(store.IsLocal(40));
}

TEST(RegionStore, WhatWasCutNeverComesBackFromTheCloud) {
  RegionStore store(4);
  store.Fill(64);
  store.MarkDirty({3, 4});
  store.Truncate(20);
  EXPECT_TRUE(store.dirty().empty());
  EXPECT_EQ(store.CloudBytes({1, 2}).end, 20u);
  EXPECT_TRUE(store.NextToFetch({2, 4}).empty());
  store.Truncate(0);
  EXPECT_TRUE(store.IsLocal(1000));
}

TEST(RegionStore, MapsHaveRoomAndShowWhatNeedsNoFetch) {
  RegionStore store(4);
  store.Fill(40);
  store.MarkDirty({0, 1});
  const size_t bytes = store.MapBytes(40);
  EXPECT_GE(bytes * 8, 3u + 512u);
  std::vector<uint8_t> maps = store.Maps(bytes, true);
  ASSERT_EQ(maps.size(), 2 * bytes);
  EXPECT_TRUE(vfstnw_is_region_set(maps.data(), 4, 0, 16));
  EXPECT_FALSE(vfstnw_is_region_set(maps.data(), 4, 16, 1));
  EXPECT_FALSE(vfstnw_is_region_set(maps.data(), 4, 47, 1)) << "half of it is the cloud's";
  EXPECT_TRUE(vfstnw_is_region_set(maps.data(), 4, 48, (bytes * 8 - 3) * 16));
  EXPECT_TRUE(vfstnw_is_region_set(maps.data() + bytes, 4, 0, 16));
  EXPECT_FALSE(vfstnw_is_region_set(maps.data() + bytes, 4, 48, 1));
  EXPECT_FALSE(vfstnw_is_region_set(store.Maps(bytes, false).data() + bytes, 4, 0, 16));
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
