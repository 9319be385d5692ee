/*
 * What the tests of this folder have in common.
 */
#ifndef OXLEY_TEST_H
#define OXLEY_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "eventually.h"
#include "log_capture.h"
#include "ox_assert.h"
#include "ox_errno.h"
#include "ox_file.h"
#include "ox_lock.h"
#include "ox_logging.h"
#include "ox_time.h"
#include "test_folder.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/* Windows lock flags: exclusive, and a lock that cannot be had at once fails. */
constexpr ox_u32 FAIL_AT_ONCE_EXCLUSIVE = 3;

/* That a call failed: its result is -1, errno the number that is expected. */
#define EXPECT_REFUSED(error, call)                     \
  do {                                                  \
    errno = 0;                                          \
    EXPECT_EQ(-1, call);                                \
    EXPECT_EQ(error, static_cast<int>(errno)) << #call; \
  } while (false)

#endif
