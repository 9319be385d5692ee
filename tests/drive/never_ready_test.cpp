/* A service that never says that it is ready: how long a start takes to give up. */

#include <gtest/gtest.h>
#include <windows.h>

#include "drive_files.h"
#include "log_capture.h"

namespace {

void expect_to_give_up(int flags, ULONGLONG seconds, size_t attempts) {
  LogCapture log;
  TestFolder folder;
  tnw_tninit record = start_record(folder, beside_test("stand_in_service.exe"));
  record.tnw_flags = flags;
  SetEnvironmentVariableA("STAND_IN_READY", nullptr);
  const ULONGLONG begin = GetTickCount64();
  int err = -1;
  EXPECT_EQ(tnw_init(&record, &err), nullptr);
  const ULONGLONG took = GetTickCount64() - begin;
  EXPECT_EQ(err, 31);
  EXPECT_GE(took, seconds * 1000 - 100);
  EXPECT_LT(took, seconds * 1000 + 15000);
  EXPECT_EQ(log.count("\"errno\":258, \"message\":\"Failed to wait for tarnd ready state\""),
            attempts);
  EXPECT_EQ(log.count("Waited for 60."), attempts);
  EXPECT_EQ(log.count("3 tarnd init attempts exhausted"), 1u);
}

}  // namespace

#ifdef TRY_TWICE
TEST(NeverReady, EndsAfterTwoMinutesAndTwoPausesWithoutTheNoRetryBit) {
  expect_to_give_up(0, 130, 2);
}
#else
TEST(NeverReady, EndsAfterOneMinuteWithTheNoRetryBit) {
  expect_to_give_up(TNW_INIT_NO_RETRY, 60, 1);
}
#endif
