#include "vfstnw_bits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "../oxley/captured_log.h"
#include "ox_logging.h"

namespace {

using Regions = std::vector<bool>;

std::vector<ox_u8> packed(const Regions& regions) {
  std::vector<ox_u8> map((regions.size() + 7) / 8);
  for (size_t r = 0; r < regions.size(); r++) {
    if (regions[r]) map[r / 8] = static_cast<ox_u8>(map[r / 8] | 1 << r % 8);
  }
  return map;
}

/* A range in bytes, and the regions that it touches by plain division. */
struct Range {
  ox_u64 off;
  ox_u64 sz;
  ox_u64 first;
  ox_u64 last;
  Range(ox_u64 offset, ox_u64 size, int rshift)
      : off(offset), sz(size), first(offset >> rshift), last((offset + (size - 1)) >> rshift) {}
};

bool all_set(const Regions& regions, const Range& range) {
  for (ox_u64 r = range.first; r <= range.last; r++) {
    if (!regions[r]) return false;
  }
  return true;
}

bool is_set(const Regions& regions, int rshift, const Range& range) {
  return vfstnw_is_region_set(packed(regions).data(), rshift, static_cast<ox_s64>(range.off),
                              range.sz);
}

/* Every range of a small map: what one hole does to the test, and what a change leaves. */
TEST(Bits, EveryRangeOfThreeBytes) {
  constexpr int rshift = 1;
  constexpr ox_u64 regions = 24;
  for (ox_u64 off = 0; off < regions << rshift; off++) {
    for (ox_u64 sz = 1; off + sz <= regions << rshift; sz++) {
      const Range range(off, sz, rshift);
      for (ox_u64 hole = 0; hole < regions; hole++) {
        Regions with_hole(regions, true);
        with_hole[hole] = false;
        ASSERT_EQ(is_set(with_hole, rshift, range), hole < range.first || hole > range.last)
            << off << " " << sz << " " << hole;
      }
      for (bool clear : {false, true}) {
        Regions expected(regions, clear);
        for (ox_u64 r = range.first; r <= range.last; r++) expected[r] = !clear;
        std::vector<ox_u8> map = packed(Regions(regions, clear));
        vfstnw_set_region_bits(map.data(), rshift, static_cast<ox_s64>(off), sz, clear);
        ASSERT_EQ(map, packed(expected)) << off << " " << sz << " " << clear;
      }
    }
  }
}

class BitsAtShift : public testing::TestWithParam<int> {
 protected:
  static constexpr ox_u64 map_regions = 200;
  const int rshift_ = GetParam();
  /* Offsets are signed: the largest shifts leave few regions that can be named. */
  const ox_u64 regions_ = std::min<ox_u64>(map_regions, ox_u64{1} << (63 - rshift_));
  std::mt19937_64 random_{static_cast<ox_u64>(rshift_)};

  ox_u64 below(ox_u64 bound) { return random_() % bound; }
  Range any_range() {
    const ox_u64 end = regions_ << rshift_;
    const ox_u64 off = below(end);
    return Range(off, 1 + below(end - off), rshift_);
  }
  /* A short one, around the edge of a region. */
  Range edge_range() {
    const ox_u64 end = regions_ << rshift_;
    const ox_u64 edge = below(regions_) << rshift_;
    const ox_u64 off = edge - std::min<ox_u64>(edge, below(3));
    return Range(off, 1 + below(std::min<ox_u64>(4, end - off)), rshift_);
  }
};

TEST_P(BitsAtShift, AgreesWithAVectorOfRegions) {
  Regions regions(map_regions);
  std::vector<ox_u8> map = packed(regions);
  for (int i = 0; i < 400; i++) {
    const Range range = i % 2 ? any_range() : edge_range();
    const bool clear = below(3) == 0;
    ASSERT_EQ(is_set(regions, rshift_, range), all_set(regions, range));
    vfstnw_set_region_bits(map.data(), rshift_, static_cast<ox_s64>(range.off), range.sz, clear);
    for (ox_u64 r = range.first; r <= range.last; r++) regions[r] = !clear;
    ASSERT_EQ(map, packed(regions)) << range.off << " " << range.sz << " " << clear;
  }
}

INSTANTIATE_TEST_SUITE_P(All, BitsAtShift, testing::Range(0, 63));

/* Deliberately unguarded: at offset 0 an empty range ends in region -1, before the map. */
TEST(Bits, AnEmptyRangeReachesBeforeTheMap) {
  ox_u8 bytes[3] = {};
  vfstnw_set_region_bits(bytes + 1, 20, 0, 0, false);
  EXPECT_EQ(bytes[0], 0xFF);
  EXPECT_EQ(bytes[1], 0xFF);
  EXPECT_EQ(bytes[2], 0);
}

TEST(Bits, LogsItsValuesAtDebugLevelTwo) {
  const captured_log log;
  ox_u8 map[] = {0x80, 0x00};
  vfstnw_is_region_set(map, 20, 7 << 20, 1);
  ox_debug = 2;
  EXPECT_FALSE(vfstnw_is_region_set(map, 20, 7 << 20, 2 << 20));
  vfstnw_set_region_bits(map, 20, 7 << 20, 2 << 20, false);
  EXPECT_TRUE(vfstnw_is_region_set(map, 20, 7 << 20, 2 << 20));
  vfstnw_set_region_bits(map, 20, 0, 1, true);
  ox_debug = 1;

  char at[32];
  snprintf(at, sizeof(at), "%p", static_cast<void*>(map));
  const std::string range = std::string("bits for off:7340032, len:2097152 in ") + at;
  const std::string set = std::string("bits are set for off:7340032, len:2097152 in ") + at;
  const std::string not_set = std::string("bits not set for off:7340032, len:2097152 in ") + at;
  const std::string values =
      "sbit 0x7, ebit 0x8, sbyte 0x0, ebyte 0x1, ssbit 0x7, eebit 0x0, sval 0x80, eval 0x1, ";
  const std::vector<std::string> expected = {
      "Checking " + range,
      values + "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x0",
      not_set,
      "Setting " + range,
      values + "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x0",
      "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x1",
      "Checking " + range,
      values + "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x1",
      set,
      std::string("Clearing bits for off:0, len:1 in ") + at,
      "sbit 0x0, ebit 0x0, sbyte 0x0, ebyte 0x0, ssbit 0x0, eebit 0x0, sval 0x1, eval 0x0, "
      "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x80",
      "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x80"};
  std::vector<std::string> texts;
  for (const std::string& line : log.lines()) {
    const size_t source = line.find("DEBU-02 vfstnw_bits.:");
    ASSERT_NE(source, std::string::npos) << line;
    texts.push_back(line.substr(line.find(' ', source + strlen("DEBU-02 ")) + 1));
  }
  EXPECT_EQ(texts, expected);
}

}  // namespace
