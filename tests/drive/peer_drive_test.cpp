/*
 * What the scripts cannot say of a drive whose service is a scripted peer: races, and the end of a
 * process.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "eventually.h"
#include "peer_drive.h"

namespace fs = std::filesystem;

namespace {

class Start : public testing::Test {
 protected:
  PeerDrive drive_;
  const LogCapture log_;
};

/* Ends while a start waits: its service's process has begun and does not say that it is ready. */
[[noreturn]] void end_during_a_start(const TestFolder& folder) {
  tnw_tninit record = start_record(folder, beside_test("stand_in_service.exe"));
  SetEnvironmentVariableA("STAND_IN_COMMAND", (folder / "begun").c_str());
  std::thread([&] { tnw_init(&record, nullptr); }).detach();
  const bool begun = eventually([&] { return file_exists(folder / "begun"); });
  ExitProcess(begun ? 3 : 4);
}

}  // namespace

/* The end of a process stops its other threads where they stand. */
TEST(StartDeathTest, DoesNotHoldUpTheEndOfTheProcess) {
  const TestFolder folder;
  SetEnvironmentVariableA("TMP", folder.path().string().c_str()); /* for the other process's own */
  EXPECT_EXIT(end_during_a_start(folder), testing::ExitedWithCode(3), "");
  SetEnvironmentVariableA("TMP", nullptr);
}

TEST_F(Start, WritesItsPidOverTheOldOneWithoutTruncating) {
  const std::string pid_file = cache_dir(drive_.record) + "/da_pid";
  fs::create_directories(cache_dir(drive_.record));
  write_file(pid_file, "99999999999999");
  ASSERT_NE(drive_.start(), nullptr);
  const std::string own = std::to_string(GetCurrentProcessId());
  EXPECT_EQ(read_file(pid_file), own + std::string(14 - own.size(), '9'));
  EXPECT_EQ(log_.count("real DA PID: " + own + ", file DA PID: "), 1u);
}

TEST_F(Start, IsUndoneByOneOfTwoDeinitsAtOnce) {
  ASSERT_NE(drive_.start(), nullptr);
  int codes[2];
  std::thread other([&] { codes[0] = tnw_deinit(drive_.drive, false); });
  codes[1] = tnw_deinit(drive_.drive, false);
  other.join();
  EXPECT_EQ(codes[0] + codes[1], ERROR_INVALID_PARAMETER);
}
