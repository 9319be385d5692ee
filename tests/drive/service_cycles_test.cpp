/*
 * Many (CYCLES) opens, writes, reads past the end, closes, refused opens and listings leave nothing
 * behind: no handle, no runtime descriptor, no memory, in the client and in the service.
 *
 * What is counted. Handles: GetProcessHandleCount answers 0 under Wine, so the number of a fresh
 * handle stands for them: the lowest free one, which climbs with every handle that stays. So does
 * the number of a fresh runtime descriptor. Memory: the bytes in use on all heaps, which is exact
 * to a block (PrivateUsage is 0 under Wine), and with a wide margin PagefileUsage, which also sees
 * threads' stacks and whatever else is not on a heap. The service's handles: the number that a
 * handle gets when it is duplicated into the service.
 *
 * Each cycle is three requests and a write-back that the disk has confirmed. Under Wine that is
 * some 250 calls into its server: 3 ms on an idle machine and many times that on a busy one. So
 * the ordinary run makes some hundred cycles, which finds whatever each of them leaves, and the run
 * labelled slow the ten thousand.
 */

#include <gtest/gtest.h>
#include <windows.h>
/* after windows.h */
#include <psapi.h>

#include "process_state.h"
#include "real_drive.h"

namespace {

constexpr int WARM_UP = 100;
constexpr int FILES = 8;

struct Standing {
  size_t handles;
  int descriptor;
  size_t heap_bytes;
  size_t committed;
  size_t service_handles;
};

HANDLE duplicate(HANDLE from_process, HANDLE handle, HANDLE to_process, DWORD close_source) {
  HANDLE copy = nullptr;
  DuplicateHandle(from_process, handle, to_process, &copy, 0, FALSE,
                  DUPLICATE_SAME_ACCESS | close_source);
  return copy;
}

/* There and back: a handle of another process is closed by taking it. */
size_t fresh_handle_in(HANDLE process) {
  const HANDLE self = GetCurrentProcess();
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  const HANDLE theirs = duplicate(self, event, process, 0);
  CloseHandle(duplicate(process, theirs, self, DUPLICATE_CLOSE_SOURCE));
  CloseHandle(event);
  return reinterpret_cast<size_t>(theirs);
}

size_t committed() {
  PROCESS_MEMORY_COUNTERS memory = {};
  GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
  return memory.PagefileUsage;
}

Standing standing(const RealDrive& drive) {
  return {fresh_handle(), fresh_descriptor(), heap_bytes(), committed(),
          fresh_handle_in(drive.service())};
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
  for (int i = 0; i < FILES; i++) {
    drive.put("folder/file" + std::to_string(i), "before");
  }
  cycles(drive, 0, WARM_UP);
  const Standing before = standing(drive);
  cycles(drive, WARM_UP, CYCLES);
  const Standing after = standing(drive);
  ASSERT_NE(before.service_handles, 0u);
  ASSERT_GT(before.heap_bytes, 0u);

  /* Room for a worker thread that came or went meanwhile, and its connection. */
  EXPECT_LE(after.handles, before.handles + 16 * 4);
  EXPECT_LE(after.service_handles, before.service_handles + 16 * 4);
  EXPECT_EQ(after.descriptor, before.descriptor);
  EXPECT_LE(after.heap_bytes, before.heap_bytes + 8 * 1024);
  EXPECT_LE(after.committed, before.committed + 2 * 1024 * 1024);
}
