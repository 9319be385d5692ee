/*
 * tnw_create, tnw_cleanup_file, tnw_close: handles, contexts, descriptors, what an answer carries.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "peer_drive.h"
#include "process_state.h"

namespace {

class Open : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive_.start(), nullptr); }

  /* Opens are answered with the handle of a new local file, which this gives. */
  void* carry(const char* name, const std::string& content, ox_u32 err = 0) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive_.folder / name, content);
    drive_.answer_opens(answer, {}, err);
    return reinterpret_cast<void*>(answer.wopen_resp_handle);
  }
  void* create(void** slot, ox_u32 access, ox_u32 disposition = TNW_DISP_OPEN) {
    return tnw_create(drive_.drive, slot, "f", access, 7, disposition, 0, 0, nullptr, &err_);
  }

  PeerDrive drive_;
  int err_ = -1;
  char byte_ = 0;
};

}  // namespace

TEST_F(Open, HandsTheLastDescriptorOutAgainFirst) {
  drive_.answer_opens(open_answer());
  void* files[3];
  for (void*& file : files) {
    file = drive_.open("f");
  }
  EXPECT_EQ(drive_.peer->requests().back().msg().u.wopen.wopen_newfd, 2);
  tnw_close(files[0], nullptr);
  tnw_close(files[1], nullptr);
  EXPECT_EQ(drive_.open("f"), files[1]);
  EXPECT_EQ(drive_.peer->requests().back().msg().u.wopen.wopen_newfd, 1);
}

TEST_F(Open, TruncatesTheLocalFileOnSupersedeAndOverwriteIf) {
  for (const ox_u32 disposition : {TNW_DISP_SUPERSEDE, TNW_DISP_OVERWRITE_IF}) {
    for (const ox_u32 access : {TNW_ACC_READ, TNW_ACC_WRITE}) {
      const void* const local = carry("local", "content", TNV_OPEN_EXISTED);
      void* const file = create(nullptr, access, disposition);
      EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
      EXPECT_EQ(read_file(drive_.folder / "local"), access == TNW_ACC_READ ? "content" : "");
      EXPECT_EQ(tnw_close(file, nullptr), 0);
      EXPECT_FALSE(is_open_handle(local));
    }
  }
}

TEST_F(Open, FillsTheSlotAndEmptiesItAfterAFailedFirstOpen) {
  void* slot = nullptr;
  drive_.answer_opens({}, {}, 2);
  EXPECT_EQ(create(&slot, TNW_ACC_READ), nullptr);
  EXPECT_EQ(err_, ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(slot, nullptr);
  drive_.answer_opens(open_answer());
  void* const first = create(&slot, TNW_ACC_READ);
  void* const context = slot;
  ASSERT_NE(context, nullptr);
  drive_.answer_opens({}, {}, 2);
  EXPECT_EQ(create(&slot, TNW_ACC_READ), nullptr);
  EXPECT_EQ(slot, context) << "the first open still uses it";
  EXPECT_EQ(tnw_close(first, nullptr), 0);
}

TEST_F(Open, KeepsARefusedCloseWithoutItsLocalFile) {
  const void* const local = carry("local", "y");
  void* const refused = drive_.open("g");
  drive_.peer->on_request([](PeerConnection& conn) { conn.answer(28); });
  EXPECT_EQ(tnw_close(refused, nullptr), ERROR_DISK_FULL);
  EXPECT_FALSE(is_open_handle(local));
  void* const stranger = carry("stranger", "z");
  ASSERT_EQ(stranger, local) << "it has the number that is free now";
  EXPECT_EQ(tnw_read(refused, &byte_, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_close(refused, nullptr), 0);
  EXPECT_TRUE(is_open_handle(stranger)) << "the second close closes nothing of others";
  CloseHandle(stranger);
}

TEST_F(Open, ClosesAFolderWithoutCleanupOrLocalFile) {
  tnv_wopen_resp folder = open_answer();
  folder.wopen_resp_fso.fso_isdir = 1;
  folder.wopen_resp_handle = local_file(drive_.folder / "not-ours", "x");
  drive_.answer_opens(folder);
  void* const dir = drive_.open("d");
  EXPECT_EQ(tnw_read(dir, &byte_, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_cleanup_file(dir), 0);
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CLEANUP), 0u);
  EXPECT_EQ(tnw_close(dir, nullptr), 0);
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CLOSE), 1u);
  EXPECT_TRUE(CloseHandle(reinterpret_cast<HANDLE>(folder.wopen_resp_handle)));
}

TEST_F(Open, ReleasesWhatAnUnauthorizedAnswerCarries) {
  tnv_wopen_resp carried = open_answer();
  carried.wopen_resp_rmap_size = 8;
  carried.wopen_resp_handle = local_file(drive_.folder / "carried", "y");
  drive_.peer->on_request([=](PeerConnection& conn) {
    tnv_resphdr header = conn.header(0, sizeof carried);
    header.rhdr_tn_unauthd = 1;
    conn.send(bytes_of(header) + bytes_of(carried) + Bytes(16));
  });
  EXPECT_EQ(create(nullptr, TNW_ACC_READ), nullptr);
  EXPECT_EQ(err_, ERROR_LOGON_FAILURE);
  EXPECT_FALSE(is_open_handle(reinterpret_cast<void*>(carried.wopen_resp_handle)));
}

TEST_F(Open, GivesTheLastFreeDescriptorToOneOfTwoThreads) {
  drive_.answer_opens(open_answer());
  std::vector<void*> files;
  while (void* const file = drive_.open("f")) {
    files.push_back(file);
  }
  ASSERT_GE(files.size(), 100u);
  for (int round = 0; round < 50; round++) {
    tnw_close(files.back(), nullptr);
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
