/*
 * tnw_create, tnw_cleanup_file, tnw_close: handles, contexts, descriptors, and the local file
 * behind an open file, for every kind of handle that an answer may carry.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <future>
#include <regex>
#include <thread>

#include "peer_drive.h"
#include "process_state.h"
#include "tnw_fd.h"

namespace {

constexpr DWORD BOTH = GENERIC_READ | GENERIC_WRITE;
constexpr ox_u32 READ_AND_WRITE = TNW_ACC_READ | TNW_ACC_WRITE;

class Open : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive_.start(), nullptr); }

  HANDLE local(DWORD access = BOTH, DWORD flags = 0) {
    return CreateFileA(path_.c_str(), access, 7, nullptr, OPEN_EXISTING, flags, nullptr);
  }
  /* A new local file, whose handle the answers to opens carry from now on. */
  HANDLE carry(const std::string& content, DWORD access = BOTH, DWORD flags = 0, ox_u32 err = 0) {
    write_file(path_, content);
    return carry(local(access, flags), err);
  }
  HANDLE carry(HANDLE handle, ox_u32 err = 0) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = reinterpret_cast<ox_u64>(handle);
    answer.wopen_resp_tnflags = TNV_FL_MAPPED;
    drive_.answer_opens(answer, {}, err);
    return handle;
  }
  /* Opens with a context of its own, or with that of the slot. */
  tnvfd* create(ox_u32 disposition = TNW_DISP_OPEN, ox_u32 access = READ_AND_WRITE,
                void** slot = nullptr) {
    return static_cast<tnvfd*>(
        tnw_create(drive_.drive, slot, "f", access, 7, disposition, 0, 0, nullptr, &err_));
  }
  void close(void* file) { EXPECT_EQ(tnw_close(file, nullptr), 0); }

  PeerDrive drive_;
  const std::string path_ = drive_.folder / "local";
  int err_ = -1;
  char byte_ = 0;
};

}  // namespace

TEST_F(Open, HandsTheLastDescriptorOutAgainFirst) {
  drive_.answer_opens(open_answer());
  void* const files[] = {create(), create(), create()};
  EXPECT_EQ(drive_.peer->requests().back().msg().u.wopen.wopen_newfd, 2);
  close(files[0]);
  close(files[1]);
  EXPECT_EQ(create(), files[1]);
  EXPECT_EQ(drive_.peer->requests().back().msg().u.wopen.wopen_newfd, 1);
}

TEST_F(Open, FillsTheSlotAndEmptiesItAfterAFailedFirstOpen) {
  void* slot = nullptr;
  drive_.answer_opens({}, {}, 2);
  EXPECT_EQ(create(TNW_DISP_OPEN, TNW_ACC_READ, &slot), nullptr);
  EXPECT_EQ(err_, ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(slot, nullptr);
  drive_.answer_opens(open_answer());
  void* const first = create(TNW_DISP_OPEN, TNW_ACC_READ, &slot);
  void* const context = slot;
  ASSERT_NE(context, nullptr);
  drive_.answer_opens({}, {}, 2);
  EXPECT_EQ(create(TNW_DISP_OPEN, TNW_ACC_READ, &slot), nullptr);
  EXPECT_EQ(slot, context) << "the first open still uses it";
  close(first);
}

TEST_F(Open, KeepsARefusedCloseWithoutItsLocalFile) {
  const HANDLE carried = carry("y");
  void* const refused = create();
  drive_.peer->on_request([](PeerConnection& conn) { conn.answer(28); });
  EXPECT_EQ(tnw_close(refused, nullptr), ERROR_DISK_FULL);
  EXPECT_FALSE(is_open_handle(carried));
  const HANDLE stranger = carry("z");
  ASSERT_EQ(stranger, carried) << "it has the number that is free now";
  EXPECT_EQ(tnw_read(refused, &byte_, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  close(refused);
  EXPECT_TRUE(is_open_handle(stranger)) << "the second close closes nothing of others";
  CloseHandle(stranger);
}

TEST_F(Open, ClosesAFolderWithoutCleanupOrLocalFile) {
  tnv_wopen_resp folder = open_answer();
  folder.wopen_resp_fso.fso_isdir = 1;
  folder.wopen_resp_handle = local_file(path_, "x");
  drive_.answer_opens(folder);
  void* const dir = create();
  EXPECT_EQ(tnw_read(dir, &byte_, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_cleanup_file(dir), 0);
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CLEANUP), 0u);
  close(dir);
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CLOSE), 1u);
  EXPECT_TRUE(CloseHandle(reinterpret_cast<HANDLE>(folder.wopen_resp_handle)));
}

TEST_F(Open, ReleasesWhatAnUnauthorizedAnswerCarries) {
  tnv_wopen_resp carried = open_answer();
  carried.wopen_resp_rmap_size = 8;
  carried.wopen_resp_handle = local_file(path_, "y");
  drive_.peer->on_request([=](PeerConnection& conn) {
    tnv_resphdr header = conn.header(0, sizeof carried);
    header.rhdr_tn_unauthd = 1;
    conn.send(bytes_of(header) + bytes_of(carried) + Bytes(16));
  });
  EXPECT_EQ(create(), nullptr);
  EXPECT_EQ(err_, ERROR_LOGON_FAILURE);
  EXPECT_FALSE(is_open_handle(reinterpret_cast<void*>(carried.wopen_resp_handle)));
}

TEST_F(Open, GivesTheLastFreeDescriptorToOneOfTwoThreads) {
  drive_.answer_opens(open_answer());
  std::vector<void*> files;
  while (void* const file = create()) {
    files.push_back(file);
  }
  ASSERT_GE(files.size(), 100u);
  for (int round = 0; round < 50; round++) {
    close(files.back());
    void* got[2];
    int errs[2];
    std::thread other([&] { got[0] = drive_.open("f", 3, &errs[0]); });
    got[1] = drive_.open("f", 3, &errs[1]);
    other.join();
    ASSERT_NE(got[0] == nullptr, got[1] == nullptr);
    EXPECT_EQ(errs[0] + errs[1], 24);
    files.back() = got[0] != nullptr ? got[0] : got[1];
  }
}

/* ------------------------------------------------------------------- the local file */

TEST_F(Open, EmptiesTheLocalFileOnSupersedeAndOverwriteIf) {
  for (const ox_u32 disposition : {TNW_DISP_SUPERSEDE, TNW_DISP_OVERWRITE_IF}) {
    for (const ox_u32 access : {TNW_ACC_READ, TNW_ACC_WRITE}) {
      const HANDLE carried = carry("content", BOTH, 0, TNV_OPEN_EXISTED);
      void* const file = create(disposition, access);
      EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
      EXPECT_EQ(read_file(path_), access == TNW_ACC_READ ? "content" : "");
      close(file);
      EXPECT_FALSE(is_open_handle(carried));
    }
  }
}

TEST_F(Open, OfALocalFileThatCannotBeEmptiedFailsAndIsClosedEverywhere) {
  write_file(path_, "0123456789");
  const HANDLE probe = local(GENERIC_READ);
  FILE_END_OF_FILE_INFO end = {};
  ASSERT_FALSE(SetFileInformationByHandle(probe, FileEndOfFileInfo, &end, sizeof end));
  const int refusal = static_cast<int>(GetLastError()); /* 5, but Wine has another opinion */
  CloseHandle(probe);
  for (const ox_u32 disposition : {TNW_DISP_SUPERSEDE, TNW_DISP_OVERWRITE_IF}) {
    for (const bool carries : {true, false}) {
      const LogCapture log;
      void* slot = nullptr;
      const HANDLE carried = carry(carries ? local(GENERIC_READ) : nullptr);
      const int code = carries ? refusal : ERROR_INVALID_HANDLE;
      EXPECT_EQ(create(disposition, READ_AND_WRITE, &slot), nullptr);
      EXPECT_EQ(err_, code);
      EXPECT_EQ(slot, nullptr);
      EXPECT_EQ(log.count(code, "Failed to empty the local file of fd 0"), 1u) << "used again";
      EXPECT_FALSE(is_open_handle(carried));
      const auto requests = drive_.peer->requests();
      const tnv_msg opened = requests[requests.size() - 2].msg(), closed = requests.back().msg();
      EXPECT_EQ(closed.hdr.hdr_opcode, static_cast<ox_u32>(TNV_OP_WIN_CLOSE));
      EXPECT_EQ(memcmp(&closed.u.wclose.wclose_omsgid, &opened.hdr.hdr_id, 16), 0);
      EXPECT_EQ(closed.u.wclose.wclose_id.id[0], 1);
      EXPECT_EQ(closed.hdr.hdr_drvid.id[0], opened.hdr.hdr_drvid.id[0]);
    }
  }
  EXPECT_EQ(read_file(path_), "0123456789");
}

TEST_F(Open, HasNoLocalFileWhereTheAnswerCarriesNoHandle) {
  for (const HANDLE none : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
    carry(none);
    void* const file = create();
    EXPECT_EQ(tnw_read(file, &byte_, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(tnw_write(file, &byte_, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(tnw_setfilesize(file, 1, 0, nullptr), ERROR_INVALID_HANDLE);
    close(file);
  }
}

TEST_F(Open, WithAnOverlappedHandleReadsAndWritesToTheEnd) {
  carry("0123456789", BOTH, FILE_FLAG_OVERLAPPED);
  void* const file = create();
  char bytes[10];
  ox_s64 count = -1;
  EXPECT_EQ(tnw_read(file, bytes, 4, 8, &count, nullptr), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(tnw_read(file, bytes, 1, 10, &count, nullptr), ERROR_HANDLE_EOF);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(tnw_write(file, bytes, 2, 0, &count, nullptr), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(read_file(path_), "8923456789");
  close(file);

  /* A pipe has nothing to give until the other side writes. */
  const std::string name = "\\\\.\\pipe\\" + drive_.folder.path().filename().string();
  carry(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 64, 64, 0,
                         nullptr));
  const HANDLE other = CreateFileA(name.c_str(), BOTH, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  void* const pipe = create();
  auto read =
      std::async(std::launch::async, [&] { return tnw_read(pipe, bytes, 4, 0, &count, nullptr); });
  EXPECT_EQ(read.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
      << "the system still owns the buffer";
  DWORD written;
  WriteFile(other, "late", 4, &written, nullptr);
  EXPECT_EQ(read.get(), 0);
  EXPECT_EQ(std::string(bytes, 4), "late");
  EXPECT_EQ(count, 4);
  close(pipe);
  CloseHandle(other);
}

/* The event of a resize measures the change of the local file, and not the requests before it. */
TEST_F(Open, LeavesTheRequestsOutOfTheTimeOfAResize) {
  carry("0123456789");
  void* const file = create();
  drive_.peer->on_request([](PeerConnection& conn) {
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
  EXPECT_EQ(read_file(path_), "01234");
}
