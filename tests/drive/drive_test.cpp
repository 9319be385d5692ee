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
  void SetUp() override { ASSERT_TRUE(drive_.start()) << drive_.error; }

  RealDrive drive_;
};

class DriveScript : public testing::TestWithParam<ScriptCase> {};

TEST_P(DriveScript, Plays) { RealPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Drive, DriveScript, testing::ValuesIn(script_cases("drive")), case_name);

}  // namespace

TEST_F(Drive, ThreadsReadOneOpenFileAtOnce) {
  const std::string original = noise(100 * REGION, 7);
  drive_.put("file", original);
  DriveFile file(drive_, "file", {.access = TNW_ACC_READ});
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
