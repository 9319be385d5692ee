#include "vfstnw_bits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "log_capture.h"
#include "ox_logging.h"

namespace {

constexpr ox_u64 REGIONS = 24; /* three bytes */

std::vector<ox_u8> packed(const std::vector<bool>& regions) {
  std::vector<ox_u8> map((regions.size() + 7) / 8);
  for (size_t r = 0; r < regions.size(); r++) {
    map[r / 8] = static_cast<ox_u8>(map[r / 8] | (regions[r] ? 1 << r % 8 : 0));
  }
  return map;
}

/*
 * The range of the regions `first` to `last`, less `before` bytes at its begin and `behind` at its
 * end: what one hole does to the test, and what a change leaves.
 */
void check_range(int rshift, ox_u64 first, ox_u64 last, ox_u64 before, ox_u64 behind) {
  const ox_s64 off = static_cast<ox_s64>((first << rshift) + before);
  const ox_u64 sz = ((last - first + 1) << rshift) - before - behind;
  for (ox_u64 hole = 0; hole < REGIONS; hole++) {
    std::vector<bool> with_hole(REGIONS, true);
    with_hole[hole] = false;
    ASSERT_EQ(vfstnw_is_region_set(packed(with_hole).data(), rshift, off, sz),
              hole < first || hole > last)
        << hole;
  }
  for (const bool clear : {false, true}) {
    std::vector<bool> expected(REGIONS, clear);
    std::vector<ox_u8> map = packed(expected);
    std::fill(expected.begin() + static_cast<ptrdiff_t>(first),
              expected.begin() + static_cast<ptrdiff_t>(last) + 1, !clear);
    vfstnw_set_region_bits(map.data(), rshift, off, sz, clear);
    ASSERT_EQ(map, packed(expected)) << clear;
  }
}

/* Ranges that begin and end with the first and with the last byte of a region, or in one byte. */
TEST(Bits, EveryRangeOfThreeBytesAtAnyShift) {
  for (const int rshift : {0, 1, 16, 31, 32, 58, 62}) {
    const ox_u64 others = (ox_u64{1} << rshift) - 1; /* of a region's bytes, but one */
    /* Offsets are signed: the largest shifts leave few regions that can be named. */
    const ox_u64 regions = std::min(REGIONS, ox_u64{1} << (63 - rshift));
    for (ox_u64 first = 0; first < regions; first++) {
      for (ox_u64 last = first; last < regions; last++) {
        SCOPED_TRACE(testing::Message() << rshift << ": " << first << " to " << last);
        check_range(rshift, first, last, 0, 0);
        check_range(rshift, first, last, others, 0);
        check_range(rshift, first, last, 0, others);
        check_range(rshift, first, last, others, first < last ? others : 0);
        if (testing::Test::HasFatalFailure()) {
          return;
        }
      }
    }
  }
}

/* Nothing guards against it: at offset 0 an empty range ends in region -1, before the map. */
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
  char at[32];
  snprintf(at, sizeof at, "%p", static_cast<void*>(map));
  const std::string range = std::string(" for off:7340032, len:2097152 in ") + at;
  const std::string values =
      "DEBUG: sbit 0x7, ebit 0x8, sbyte 0x0, ebyte 0x1, ssbit 0x7, eebit 0x0, sval 0x80, eval 0x1, "
      "bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x";
  EXPECT_EQ(log.brief_lines(),
            (std::vector<std::string>{"DEBUG: Setting bits" + range, values + "0",
                                      "DEBUG: bitmap[sbyte] = 0x80, bitmap[ebyte] = 0x1",
                                      "DEBUG: Checking bits" + range, values + "1",
                                      "DEBUG: bits are set" + range}));
}

}  // namespace
