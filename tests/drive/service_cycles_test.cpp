/*
 * Many (CYCLES) opens, writes, reads past the end, closes, refused opens and listings leave nothing
 * behind: no handle, no runtime descriptor, no thread, no memory, in the client and in the service;
 * nor do many (STARTS) starts and ends of the service.
 *
 * Each cycle is three requests and a write-back that the disk has confirmed. Under Wine that is
 * some 250 calls into its server: 3 ms on an idle machine and many times that on a busy one. So
 * the ordinary run makes some hundred cycles, which finds whatever each of them leaves, and the run
 * labelled slow the ten thousand.
 */

#include <gtest/gtest.h>
#include <windows.h>

#include "process_state.h"
#include "real_drive.h"

namespace {

constexpr int WARM_UP = 100;
constexpr int FILES = 8;

void put_files(const RealDrive& drive) {
  for (int i = 0; i < FILES; i++) {
    drive.put("folder/file" + std::to_string(i), "before");
  }
}

/* Truncates through the descriptor that stays with the handle until the close. */
void cycle(RealDrive& drive, int number) {
  const std::string content = "content " + std::to_string(number);
  DriveFile file(drive, "folder\\file" + std::to_string(number % FILES),
                 {.disposition = TNW_DISP_OVERWRITE_IF});
  ASSERT_EQ(file.error(), 0);
  ASSERT_EQ(file.write(0, content), 0);
  int code = -1;
  file.read(content.size() + REGION * static_cast<ox_u64>(number % 3), 10, &code);
  ASSERT_EQ(code, ERROR_HANDLE_EOF);
  ASSERT_EQ(file.close(), 0);
  if (number % 10 == 0) {
    ASSERT_EQ(DriveFile(drive, "missing").error(), ERROR_FILE_NOT_FOUND);
    ASSERT_EQ(drive.list("folder").size(), static_cast<size_t>(FILES));
  }
}

void cycles(RealDrive& drive, int from, int to) {
  for (int i = from; i < to && !testing::Test::HasFatalFailure(); i++) {
    cycle(drive, i);
  }
}

}  // namespace

TEST(ServiceCycles, LeaveNothingBehind) {
  RealDrive drive;
  ASSERT_TRUE(drive.start()) << drive.error;
  put_files(drive);
  cycles(drive, 0, WARM_UP);
  const Holding before = own_holding(8 * 1024);
  const Holding before_in_service = holding_of(drive.service());
  cycles(drive, WARM_UP, CYCLES);
  EXPECT_EQ(growth(before, own_holding(0)), "");
  EXPECT_EQ(growth(before_in_service, holding_of(drive.service())), "");
}

/* Every third service is killed. */
TEST(ServiceStarts, LeaveNothingBehind) {
  RealDrive drive;
  put_files(drive);
  Holding before;
  for (int i = 0; i < STARTS && !HasFatalFailure(); i++) {
    ASSERT_TRUE(drive.start()) << drive.error;
    cycle(drive, i);
    if (i % 3 == 0) {
      drive.kill_service();
    }
    drive.stop();
    if (i == 10) {
      before = own_holding(8 * 1024);
    }
  }
  EXPECT_EQ(growth(before, own_holding(0)), "");
}
