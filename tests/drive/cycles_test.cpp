/*
 * Thousands of open files (CYCLES) after one another: what the process holds stands where it stood.
 */

#include <gtest/gtest.h>
#include <windows.h>
/* after windows.h */
#include <psapi.h>

#include "peer_drive.h"
#include "process_state.h"

namespace {

SIZE_T private_bytes() {
  PROCESS_MEMORY_COUNTERS counters = {};
  EXPECT_TRUE(GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters));
  return counters.PagefileUsage;
}

class Cycles : public testing::Test {
 protected:
  /* One worker, so that threads that come and go with the load do not count. */
  void SetUp() override {
    drive.record.tnw_max_threads = 1;
    CloseHandle(reinterpret_cast<HANDLE>(local_file(local, "")));
    ASSERT_NE(drive.start(), nullptr);
    drive.peer->on_request([this](PeerConnection& conn) {
      if (conn.opcode() == TNV_OP_WIN_OPEN) {
        return answer_open(conn);
      }
      tnv_cache_region_resp fetched = {};
      fetched.cr_sz = 64;
      conn.answer(0, fetched);
    });
  }

  void answer_open(PeerConnection& conn) {
    tnv_wopen_resp opened = open_answer();
    opened.wopen_resp_rmap_size = 1 << 14;
    opened.wopen_resp_tnflags = TNV_FL_MAPPED;
    opened.wopen_resp_handle = reinterpret_cast<ox_u64>(CreateFileA(
        local.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    conn.answer(0, opened);
    conn.send(Bytes(2 << 14));
  }

  /*
   * Supersedes the file, which needs a runtime descriptor, writes, reads past its end and closes.
   */
  void cycle() {
    void* slot = nullptr;
    int err = -1;
    void* file = tnw_create(drive.drive, &slot, "f", 3, 7, 0, 0, 1, "p", &err);
    ASSERT_NE(file, nullptr) << err;
    char data[64] = "data";
    ox_s64 count = -1;
    ASSERT_EQ(tnw_write(file, data, 64, 0, &count, nullptr), 0);
    ASSERT_EQ(tnw_read(file, data, 64, 64, &count, nullptr), ERROR_HANDLE_EOF);
    ASSERT_EQ(tnw_close(file, nullptr), 0);
  }
  void cycles(int n) {
    for (int i = 0; i < n && !HasFatalFailure(); i++) {
      cycle();
    }
  }

  PeerDrive drive;
  const std::string local = drive.folder / "local";
};

}  // namespace

TEST_F(Cycles, LeaveNoHandleDescriptorOrMemory) {
  cycles(100);
  const size_t handle = fresh_handle();
  const int descriptor = fresh_descriptor();
  const SIZE_T memory = private_bytes();
  cycles(CYCLES - 100);
  EXPECT_EQ(fresh_handle(), handle);
  EXPECT_EQ(fresh_descriptor(), descriptor);
  /* Ten thousand files have maps of 330 MB, and requests of 30 MB, which the peer keeps. */
  EXPECT_LT(private_bytes(), memory + 100'000'000);
}
