/*
 * The library with the real service on a folder of real files, from a script; and what scripts
 * cannot say. Sequences of calls on files are model_test's.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <random>
#include <thread>

#include "real_player.h"

namespace {

class Drive : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(drive.start()) << drive.error; }

  RealDrive drive;
};

class DriveScript : public testing::TestWithParam<ScriptCase> {};

TEST_P(DriveScript, Plays) { RealPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Drive, DriveScript, testing::ValuesIn(script_cases("drive")), case_name);

}  // namespace

TEST_F(Drive, ThreadsReadOneOpenFileAtOnce) {
  const std::string original = noise(100 * REGION, 7);
  drive.put("file", original);
  DriveFile file(drive, "file", {.access = TNW_ACC_READ});
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (unsigned t = 0; t < 6; t++) {
    threads.emplace_back([&, t] {
      std::minstd_rand random(t + 1);
      for (int i = 0; i < 60; i++) {
        const size_t off = random() % original.size();
        const size_t len = 1 + random() % (2 * REGION);
        if (file.read(off, len) != original.substr(off, len)) {
          wrong++;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(Drive, WarmReadsAndWritesSendNoMessage) {
  drive.put("file", noise(20 * REGION, 9));
  DriveFile file(drive, "file");
  ASSERT_EQ(file.read(0, 4 * REGION).size(), 4 * REGION); /* fetches four regions at once */
  ASSERT_EQ(file.write(2 * REGION + 1, "x"), 0);          /* reports one of them */
  ASSERT_EQ(file.write(30 * REGION, "x"), 0);             /* reports one that needs no fetch */
  for (ox_u64 i = 0; i < 500; i++) {
    ASSERT_EQ(file.read(i * 7, REGION + 1).size(), REGION + 1);
    ASSERT_EQ(file.write(2 * REGION + i * 8, "warm"), 0);
    ASSERT_EQ(file.write(30 * REGION + i * 8, "appended"), 0);
  }
  EXPECT_EQ(file.close(), 0);
  ASSERT_EQ(drive.stop(), 0);
  EXPECT_EQ(drive.count("cache_region"), 1u);
  EXPECT_EQ(drive.count("dirty_region"), 2u);
  EXPECT_EQ(drive.count("open"), 1u);
  EXPECT_EQ(drive.count("close"), 1u);
  EXPECT_EQ(drive.count("regions_fetched"), 4u);
  EXPECT_EQ(drive.count("bytes_fetched"), 4 * REGION);
  EXPECT_EQ(drive.count("files_written_back"), 1u);
  EXPECT_EQ(drive.count("malformed"), 0u);
}
