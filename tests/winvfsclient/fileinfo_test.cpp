#include <gtest/gtest.h>

#include <map>

#include "log_capture.h"
#include "tn_util.h"

namespace {

/* Both tables whole: what is in neither is logged, and goes through in one direction only. */
TEST(ErrorCodes, AllOfBothDirections) {
  const std::map<ox_u32, ox_u32> to_windows = {
      {0, 0},   {1, 5},    {2, 2},   {5, 1117}, {12, 8},   {13, 32},  {16, 170},
      {17, 80}, {20, 267}, {22, 13}, {28, 112}, {32, 109}, {41, 145}, {133, TNW_ERROR_NO_SERVICE}};
  const std::map<ox_u32, ox_u32> to_unix = {{0, 0},   {2, 2},   {5, 13},   {8, 12},
                                            {13, 22}, {80, 17}, {112, 28}, {1117, 5}};
  const LogCapture log;
  for (ox_u32 code = 0; code < 1500; code++) {
    const auto windows = to_windows.find(code), unix_error = to_unix.find(code);
    EXPECT_EQ(unixerr2winerr(code), windows == to_windows.end() ? code : windows->second) << code;
    EXPECT_EQ(winerr2unixerr(code), unix_error == to_unix.end() ? 22 : unix_error->second) << code;
  }
  EXPECT_EQ(unixerr2winerr(0xFFFFFFFF), 0xFFFFFFFFu);
  const auto lines = log.brief_lines();
  ASSERT_EQ(lines.size(), 1500 - to_windows.size() + 1500 - to_unix.size() + 1);
  EXPECT_EQ(lines[0], "INFO: Unidentified windows error 1");
  EXPECT_EQ(lines.back(), "INFO: Unidentified unix error -1");
  EXPECT_EQ(log.count("INFO    tn_util_win.:"), lines.size());
}

}  // namespace
