/* The local cache file behind an open file, for every kind of handle that an answer may carry. */
#include <gtest/gtest.h>
#include <windows.h>

#include <future>
#include <regex>

#include "log_capture.h"
#include "peer_drive.h"
#include "process_state.h"
#include "tnw_fd.h"

namespace {

constexpr DWORD BOTH = GENERIC_READ | GENERIC_WRITE;

class LocalFile : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(drive.start(), nullptr);
    write_file(local, "0123456789");
  }
  HANDLE open_local(DWORD access, DWORD flags = 0) {
    return CreateFileA(local.c_str(), access, 7, nullptr, OPEN_EXISTING, flags, nullptr);
  }
  /* Opens "f" on the drive with a carried handle, for reading and writing. */
  tnvfd* open(HANDLE carried, ox_u32 disposition = TNW_DISP_OPEN) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = reinterpret_cast<ox_u64>(carried);
    drive.answer_opens(answer);
    return static_cast<tnvfd*>(tnw_create(drive.drive, &slot, "f", TNW_ACC_READ | TNW_ACC_WRITE, 7,
                                          disposition, 0, 0, nullptr, &err));
  }

  PeerDrive drive;
  const std::string local = drive.folder / "local";
  void* slot = nullptr;
  int err = -1;
};

}  // namespace

TEST_F(LocalFile, ThatCannotBeEmptiedFailsTheOpenAndIsClosedEverywhere) {
  const HANDLE probe = open_local(GENERIC_READ);
  FILE_END_OF_FILE_INFO end = {};
  ASSERT_FALSE(SetFileInformationByHandle(probe, FileEndOfFileInfo, &end, sizeof end));
  const int code = static_cast<int>(GetLastError()); /* 5, but Wine has another opinion */
  CloseHandle(probe);
  for (const ox_u32 disposition : {TNW_DISP_SUPERSEDE, TNW_DISP_OVERWRITE_IF}) {
    for (const bool carries : {true, false}) {
      const LogCapture log;
      const HANDLE carried = carries ? open_local(GENERIC_READ) : nullptr;
      const int expected = carries ? code : ERROR_INVALID_HANDLE;
      EXPECT_EQ(open(carried, disposition), nullptr);
      EXPECT_EQ(err, expected);
      EXPECT_EQ(slot, nullptr);
      EXPECT_EQ(log.count(expected, "Failed to empty the local file of fd 0"), 1u)
          << "the entry is used again";
      EXPECT_FALSE(is_open_handle(carried));
      const auto requests = drive.peer->requests();
      const PeerRequest opened = requests[requests.size() - 2], close = requests.back();
      EXPECT_EQ(close.opcode(), TNV_OP_WIN_CLOSE);
      EXPECT_EQ(memcmp(&close.msg().u.wclose.wclose_omsgid, &opened.msg().hdr.hdr_id, 16), 0);
      EXPECT_EQ(close.msg().u.wclose.wclose_id.id[0], 1);
      EXPECT_EQ(close.msg().hdr.hdr_drvid.id[0], opened.msg().hdr.hdr_drvid.id[0]);
    }
  }
  EXPECT_EQ(read_file(local), "0123456789");
}

TEST_F(LocalFile, IsNoneWhereTheAnswerCarriesNoHandle) {
  for (const HANDLE none : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
    tnvfd* const file = open(none);
    const LogCapture log;
    char byte;
    EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(tnw_write(file, &byte, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(tnw_setfilesize(file, 1, 0, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(log.brief_lines(),
              (std::vector<std::string>{
                  "ERROR 6: Read from invalid handle.", "ERROR 6: Write to invalid handle.",
                  "INFO: Unidentified windows error 6", "ERROR 22: Invalid handle specified"}));
    EXPECT_EQ(tnw_close(file, nullptr), 0);
    slot = nullptr;
  }
}

TEST_F(LocalFile, WithAnOverlappedHandleIsReadAndWrittenToTheEnd) {
  tnvfd* const file = open(open_local(BOTH, FILE_FLAG_OVERLAPPED));
  char bytes[10];
  ox_s64 count = -1;
  EXPECT_EQ(tnw_read(file, bytes, 4, 8, &count, nullptr), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(tnw_read(file, bytes, 1, 10, &count, nullptr), ERROR_HANDLE_EOF);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(tnw_write(file, bytes, 2, 0, &count, nullptr), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(read_file(local), "8923456789");
  EXPECT_EQ(tnw_close(file, nullptr), 0);

  /* A pipe has nothing to give until the other side writes. */
  const char* const name = "\\\\.\\pipe\\local_file_test";
  const HANDLE pipe =
      CreateNamedPipeA(name, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 64, 64, 0, nullptr);
  const HANDLE other = CreateFileA(name, BOTH, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  slot = nullptr;
  tnvfd* const waiting = open(pipe);
  auto read = std::async(std::launch::async,
                         [&] { return tnw_read(waiting, bytes, 4, 0, &count, nullptr); });
  EXPECT_EQ(read.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
      << "the system still owns the buffer";
  DWORD written;
  WriteFile(other, "late", 4, &written, nullptr);
  EXPECT_EQ(read.get(), 0);
  EXPECT_EQ(std::string(bytes, 4), "late");
  EXPECT_EQ(count, 4);
  EXPECT_EQ(tnw_close(waiting, nullptr), 0);
  CloseHandle(other);
}

/* The event of a resize measures the change of the local file, and not the requests before it. */
TEST_F(LocalFile, IsAllThatTheEventOfAResizeMeasures) {
  tnv_wopen_resp answer = open_answer();
  answer.wopen_resp_handle = reinterpret_cast<ox_u64>(open_local(BOTH));
  answer.wopen_resp_tnflags = TNV_FL_MAPPED;
  drive.answer_opens(answer);
  void* const file = drive.open("f");
  drive.peer->on_request([](PeerConnection& conn) {
    Sleep(conn.opcode() == TNV_OP_FTRUNCATE ? 700 : 0);
    tnv_resphdr header = conn.header();
    header.rhdr_utxid = 7;
    conn.send(bytes_of(header));
  });
  const LogCapture log;
  EXPECT_EQ(tnw_setfilesize(file, 5, 0, nullptr), 0);
  std::smatch time;
  const std::string event = log.lines().back();
  ASSERT_TRUE(
      std::regex_search(event, time, std::regex(R"("vfs_response_time":(\d+), .*SETFSIZE)")));
  EXPECT_LT(std::stoi(time[1]), 700'000);
  EXPECT_EQ(read_file(local), "01234");
}
