#include <gtest/gtest.h>

#include <string>

#include "log_capture.h"
#include "tn_util.h"

namespace {

/* Both tables whole: what is in neither is logged, and goes through in one direction only. Windows'
 * 13 is in its table, too, as 22. */
TEST(ErrorCodes, AllOfBothDirections) {
  const LogCapture log;
  std::string to_windows, to_unix; /* those that become another one, and those that become known */
  for (ox_u32 code = 0; code < 1500; code++) {
    const ox_u32 windows = unixerr2winerr(code), unix_error = winerr2unixerr(code);
    const std::string begin = ' ' + std::to_string(code) + '=';
    to_windows += windows != code ? begin + std::to_string(windows) : "";
    to_unix += unix_error != 22 ? begin + std::to_string(unix_error) : "";
  }
  EXPECT_EQ(to_windows,
            " 1=5 5=1117 12=8 13=32 16=170 17=80 20=267 22=13 28=112 32=109 41=145 133=1467");
  EXPECT_EQ(to_unix, " 0=0 2=2 5=13 8=12 80=17 112=28 1117=5");
  EXPECT_EQ(unixerr2winerr(0xFFFFFFFF), 0xFFFFFFFFu);
  const auto lines = log.brief_lines();
  ASSERT_EQ(lines.size(), (1500 - 14) + (1500 - 8) + 1u) << "14 and 8 are known";
  EXPECT_EQ(lines[0], "INFO: Unidentified windows error 1");
  EXPECT_EQ(lines.back(), "INFO: Unidentified unix error -1");
  EXPECT_EQ(log.count("INFO    tn_util_win.:"), lines.size());
}

}  // namespace
