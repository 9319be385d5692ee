#include "cache_limits.h"

#include <gtest/gtest.h>

namespace {

TEST(CacheLimits, AreTheSizeAndTheFloorOfFreeSpace) {
  uint64_t free_space = 1000;
  const tarnd::CacheLimits sized(300, 200, [&] { return free_space; });
  const tarnd::CacheLimits tenth(0, 200, [&] { return free_space; });
  EXPECT_TRUE(sized.may_fetch(800));
  EXPECT_FALSE(sized.may_fetch(801));
  EXPECT_EQ(sized.over(300), 0u);
  EXPECT_EQ(sized.over(310), 10u);
  free_space = 150;
  EXPECT_EQ(tenth.over(100), 50u) << "a tenth of what was free at first, but for the floor";
  EXPECT_EQ(tenth.over(170), 70u);
  EXPECT_EQ(sized.over(30), 30u) << "no more than there is";
  EXPECT_FALSE(sized.may_fetch(1));
  EXPECT_TRUE(sized.may_fetch(0));
}

}  // namespace
