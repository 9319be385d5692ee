#include "vfstnw_bits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "log_capture.h"
#include "ox_logging.h"

namespace {

using Regions = std::vector<bool>;

std::vector<ox_u8> packed(const Regions& regions) {
  std::vector<ox_u8> map((regions.size() + 7) / 8);
  for (size_t r = 0; r < regions.size(); r++) {
    if (regions[r]) {
      map[r / 8] = static_cast<ox_u8>(map[r / 8] | 1 << r % 8);
    }
  }
  return map;
}

/* The range of the regions `first` to `last`, less `before` bytes at its begin and `behind` at its
 * end: what one hole does to the test, and what a change leaves. */
void check_range(int rshift, ox_u64 first, ox_u64 last, ox_u64 before, ox_u64 behind) {
  constexpr ox_u64 regions = 24;
  const ox_s64 off = static_cast<ox_s64>((first << rshift) + before);
  const ox_u64 sz = ((last - first + 1) << rshift) - before - behind;
  for (ox_u64 hole = 0; hole < regions; hole++) {
    Regions with_hole(regions, true);
    with_hole[hole] = false;
    ASSERT_EQ(vfstnw_is_region_set(packed(with_hole).data(), rshift, off, sz),
              hole < first || hole > last)
        << hole;
  }
  for (bool clear : {false, true}) {
    Regions expected(regions, clear);
    for (ox_u64 r = first; r <= last; r++) {
      expected[r] = !clear;
    }
    std::vector<ox_u8> map = packed(Regions(regions, clear));
    vfstnw_set_region_bits(map.data(), rshift, off, sz, clear);
    ASSERT_EQ(map, packed(expected)) << clear;
  }
}

/* Ranges that begin and end with the first and with the last byte of a region, or in one byte. */
TEST(Bits, EveryRangeOfThreeBytesAtAnyShift) {
  for (const int rshift : {0, 1, 16, 31, 32, 58, 62}) {
    const ox_u64 others = (ox_u64{1} << rshift) - 1; /* of a region's bytes, but one */
    /* Offsets are signed: the largest shifts leave few regions that can be named. */
    const ox_u64 regions = std::min<ox_u64>(24, ox_u64{1} << (63 - rshift));
    for (ox_u64 first = 0; first < regions; first++) {
      for (ox_u64 last = first; last < regions; last++) {
        SCOPED_TRACE(testing::Message() << rshift << ": " << first << " to " << last);
        check_range(rshift, first, last, 0, 0);
        check_range(rshift, first, last, others, 0);
        check_range(rshift, first, last, 0, others);
        if (first < last) {
          check_range(rshift, first, last, others, others);
        }
        if (testing::Test::HasFatalFailure()) {
          return;
        }
      }
    }
  }
}

/* Deliberately unguarded: at offset 0 an empty range ends in region -1, before the map. */
TEST(Bits, AnEmptyRangeReachesBeforeTheMap) {
  ox_u8 bytes[3] = {};
  vfstnw_set_region_bits(bytes + 1, 20, 0, 0, false);
  EXPECT_EQ(bytes[0], 0xFF);
  EXPECT_EQ(bytes[1], 0xFF);
  EXPECT_EQ(bytes[2], 0);
}

TEST(Bits, LogsItsValuesAtDebugLevelTwo) {
  const LogCapture log;
  ox_u8 map[] = {0x80, 0x00};
  vfstnw_is_region_set(map, 20, 7 << 20, 1);
  ox_debug = 2;
  vfstnw_set_region_bits(map, 20, 7 << 20, 2 << 20, false);
  EXPECT_TRUE(vfstnw_is_region_set(map, 20, 7 << 20, 2 << 20));
  ox_debug = 1;

  const std::string values =
      " sbit 0x7, ebit 0x8, sbyte 0x0, ebyte 0x1, ssbit 0x7, eebit 0x0, sval 0x80, eval 0x1, "
      "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x";
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_NE(lines[0].find(" Setting bits for off:7340032, len:2097152 in "), std::string::npos);
  EXPECT_TRUE(lines[1].ends_with(values + "0")) << lines[1];
  EXPECT_TRUE(lines[2].ends_with(" bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x1")) << lines[2];
  EXPECT_TRUE(lines[4].ends_with(values + "1")) << lines[4];
  EXPECT_NE(lines[5].find(" bits are set for off:7340032, len:2097152 in "), std::string::npos);
}

}  // namespace
