/* A drive on a web server that goes away, is busy, refuses the token or is behind a proxy. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include "eventually.h"
#include "real_drive.h"
#include "web_front.h"

namespace {

constexpr OpenHow WRITING = {.disposition = TNW_DISP_OPEN_IF};
constexpr std::chrono::seconds BACK_IN_TIME{40};

class WebDrive : public testing::Test {
 protected:
  explicit WebDrive(const char* server = "FRONT") : drive(server) { tell_front("token="); }

  RealDrive drive;
};

}  // namespace

/* The server is killed, or answers 503 to everything. */
TEST_F(WebDrive, WhileTheServerIsAwayOpenFilesGoOnAndTheirChangesGoUpLater) {
  ASSERT_TRUE(drive.start()) << drive.error;
  for (const std::string fault : {"server=kill", "method=any&status=503&after=2&times=100000"}) {
    SCOPED_TRACE(fault);
    const std::string name = "file of " + fault.substr(0, 6);
    const std::string content = noise(20'000, 7);
    drive.put(name, content);
    DriveFile file(drive, "\\FILE" + name.substr(4), WRITING); /* in whatever case */
    ASSERT_EQ(file.read_all(), content);
    tell_front(fault);
    EXPECT_EQ(file.read_all(), content);
    EXPECT_EQ(file.write(5, "changed"), 0);
    EXPECT_EQ(file.close(), 0);
    EXPECT_EQ(drive.get(name), content);
    tell_front("server=start");
    EXPECT_TRUE(
        eventually([&] { return drive.get(name) == std::string(content).replace(5, 7, "changed"); },
                   BACK_IN_TIME));
  }
}

TEST_F(WebDrive, ARefusedTokenIsToldAndAnotherOneEndsItWithNoOpenFileLost) {
  ASSERT_TRUE(drive.start()) << drive.error;
  DriveFile file(drive, "\\file", WRITING);
  EXPECT_EQ(file.write(0, "before"), 0);
  tell_front("token=Bearer%20renewed");
  DriveFile refused(drive, "\\other", WRITING);
  EXPECT_NE(refused.error(), 0);
  EXPECT_EQ(DriveFile(drive, "\\other", WRITING).error(), ERROR_LOGON_FAILURE);
  char renewed[] = "renewed";
  EXPECT_EQ(tnw_updatetoken(drive.drive, renewed), 0);
  EXPECT_EQ(DriveFile(drive, "\\other", WRITING).error(), 0);
  EXPECT_EQ(file.write(6, " and after"), 0);
  EXPECT_EQ(file.close(), 0);
  EXPECT_TRUE(eventually([&] { return drive.get("file") == "before and after"; }, BACK_IN_TIME));
}

TEST_F(WebDrive, AllRequestsGoThroughTheProxyUntilAnotherOneIsSet) {
  const auto through_proxy = [] {
    const auto lines = lines_of(read_file(of_servers("TNW_PROXY_LOG")));
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.find("Request") != std::string::npos;
    });
  };
  RealDrive behind("RCLONE");
  set_field(behind.record.tnw_proxy_server, of_servers("TNW_PROXY"));
  set_field(behind.record.tnw_proxy_uname, "ada");
  set_field(behind.record.tnw_proxy_password, "secret");
  ASSERT_TRUE(behind.start()) << behind.error;
  behind.put("file", "content");
  const std::string large = noise(100'000, 3); /* leaves in pieces */
  const int past_it = tell_front("");
  EXPECT_EQ(DriveFile(behind, "\\file", {.access = TNW_ACC_READ}).read_all(), "content");
  DriveFile written(behind, "\\large", WRITING);
  EXPECT_EQ(written.write(0, large), 0);
  EXPECT_EQ(written.close(), 0);
  EXPECT_TRUE(eventually([&] { return behind.get("large") == large; }, BACK_IN_TIME));
  const auto seen = through_proxy();
  EXPECT_GT(seen, 0);
  EXPECT_EQ(tell_front(""), past_it);
  std::string front = of_servers("TNW_FRONT"); /* a server that hands on is a proxy, too */
  front = "localhost" + front.substr(front.rfind(':'));
  front.pop_back();
  EXPECT_EQ(tnw_set_http_proxy(behind.drive, front.c_str(), "", ""), 0);
  DriveFile fresh(behind, "\\new", WRITING);
  EXPECT_EQ(fresh.write(0, "new"), 0);
  EXPECT_EQ(fresh.close(), 0);
  EXPECT_TRUE(eventually([&] { return behind.get("new") == "new"; }, BACK_IN_TIME));
  EXPECT_GT(tell_front(""), past_it);
  EXPECT_EQ(through_proxy(), seen);
}
