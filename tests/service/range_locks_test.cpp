/* Byte-range locks: who conflicts with whom. */
#include "files/range_locks.h"

#include <gtest/gtest.h>

#include "ox_errno.h"

namespace {

using tarnd::RangeLocks;
using Owner = RangeLocks::Owner;

constexpr Owner MINE{1, 100};
constexpr Owner OTHER_PROCESS{1, 200};
constexpr Owner OTHER_OPEN{2, 100};

TEST(RangeLocks, SharedOnesOverlapAndExclusiveOnesDoNot) {
  RangeLocks locks;
  EXPECT_EQ(locks.lock(MINE, 10, 10, false), 0);
  EXPECT_EQ(locks.lock(OTHER_OPEN, 15, 10, false), 0);
  EXPECT_EQ(locks.lock(OTHER_PROCESS, 24, 1, true), OX_EACCES);
  EXPECT_EQ(locks.lock(MINE, 10, 1, true), OX_EACCES) << "over its own shared one";
  EXPECT_EQ(locks.lock(OTHER_PROCESS, 25, 5, true), 0);
  EXPECT_EQ(locks.lock(MINE, 29, 1, false), OX_EACCES);
  EXPECT_EQ(locks.lock(OTHER_OPEN, 29, 1, false), OX_EACCES) << "another open of the same process";
  EXPECT_EQ(locks.lock(OTHER_PROCESS, 29, 1, false), 0) << "under its own exclusive one";
  EXPECT_EQ(locks.lock(OTHER_PROCESS, 29, 1, true), OX_EACCES);
}

TEST(RangeLocks, EndOneByOneOrWithTheirOpen) {
  RangeLocks locks;
  ASSERT_EQ(locks.lock(MINE, 0, 100, true), 0);
  ASSERT_EQ(locks.lock(MINE, 0, 100, false), 0);
  EXPECT_EQ(locks.unlock(MINE, 0, 50), OX_EINVAL) << "not what was locked";
  EXPECT_EQ(locks.unlock(OTHER_PROCESS, 0, 100), OX_EINVAL);
  EXPECT_EQ(locks.unlock(MINE, 0, 100), 0);
  EXPECT_EQ(locks.lock(OTHER_OPEN, 0, 1, false), 0) << "the exclusive one goes first";
  ASSERT_EQ(locks.lock(OTHER_PROCESS, 100, 10, true), 0);
  locks.release(MINE.open);
  EXPECT_EQ(locks.lock(OTHER_OPEN, 1, 109, true), 0);
  EXPECT_EQ(locks.lock(MINE, 0, 1, true), OX_EACCES) << "those of other opens stay";
}

TEST(RangeLocks, HoldAtTheEndsOfTheNumbers) {
  RangeLocks locks;
  EXPECT_EQ(locks.lock(MINE, UINT64_MAX, 2, true), OX_EINVAL);
  EXPECT_EQ(locks.lock(MINE, 2, UINT64_MAX, true), OX_EINVAL);
  EXPECT_EQ(locks.lock(OTHER_OPEN, UINT64_MAX, 1, true), 0) << "the last byte";
  EXPECT_EQ(locks.lock(MINE, UINT64_MAX - 1, 2, false), OX_EACCES);
  EXPECT_EQ(locks.lock(MINE, 0, UINT64_MAX, true), 0);
  EXPECT_EQ(locks.lock(OTHER_OPEN, UINT64_MAX - 1, 1, false), OX_EACCES);
  EXPECT_EQ(locks.lock(OTHER_OPEN, 5, 0, true), 0) << "no bytes, no conflict";
}

}  // namespace
