/*
 * tnw_create, tnw_cleanup_file, tnw_close: handles, contexts, descriptors, what an answer carries.
 */

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <thread>

#include "peer_drive.h"
#include "process_state.h"

namespace {

constexpr int UNAUTHORIZED = 1326;

class Open : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive.start(), nullptr); }

  /* The last request of an operation that came to the peer. */
  PeerRequest last(ox_u32 opcode) {
    PeerRequest found;
    for (const PeerRequest& r : drive.peer->requests()) {
      if (r.opcode() == opcode) {
        found = r;
      }
    }
    return found;
  }

  /* An open whose answer carries the handle of a new local file. */
  void* open_local(const std::string& content, ox_u32 accmode = 3) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive.folder / "local", content);
    drive.answer_opens(answer);
    return drive.open("f", accmode);
  }

  static bool is_open(ox_u64 handle) { return is_open_handle(reinterpret_cast<void*>(handle)); }

  PeerDrive drive;
};

}  // namespace

TEST_F(Open, SendsWhatTheCallerGave) {
  drive.answer_opens(open_answer());
  void* slot = nullptr;
  int err = -1;
  void* file = tnw_create(drive.drive, &slot, "\\dir\\n\xc3\xa4me", 3, 5, 4, 0x40, 99,
                          "a-name-that-fills-the-whole-field", &err);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(err, 0);
  const PeerRequest open = last(TNV_OP_WIN_OPEN);
  EXPECT_EQ(open.text(), "\\dir\\n\xc3\xa4me");
  EXPECT_EQ(open.bytes.size(), 504u + 11);
  const tnv_wopen_msg& msg = open.msg().u.wopen;
  EXPECT_EQ(msg.wopen_pathlen, 11);
  EXPECT_EQ(msg.wopen_accmode, 3u);
  EXPECT_EQ(msg.wopen_shmode, 5u);
  EXPECT_EQ(msg.wopen_cdisp, 5u) << "overwrite is TRUNCATE_EXISTING";
  EXPECT_EQ(msg.wopen_flags, 0x40u);
  EXPECT_EQ(msg.wopen_origpid, 99);
  EXPECT_EQ(msg.wopen_clientid, GetCurrentProcessId());
  EXPECT_EQ(memcmp(open.msg().hdr.hdr_procname, "a-name-that-fills-the-whole-field", 32), 0);
  EXPECT_EQ(open.msg().hdr.hdr_drvid.id[0], 0x22);

  char procname[32];
  EXPECT_EQ(tnw_cleanup_file(file), 0);
  EXPECT_EQ(tnw_close(file, procname), 0);
  EXPECT_EQ(memcmp(procname, "a-name-that-fills-the-whole-field", 32), 0);
  const tnv_wclose_msg& close = last(TNV_OP_WIN_CLOSE).msg().u.wclose;
  EXPECT_EQ(memcmp(&close.wclose_omsgid, &open.msg().hdr.hdr_id, 16), 0)
      << "the id that went out, not one made before";
  EXPECT_EQ(close.wclose_id.id[0], 1);
  EXPECT_EQ(last(TNV_OP_WIN_CLEANUP).msg().u.wcleanup.wcl_id.id[0], 0);
}

TEST_F(Open, HandsTheLastDescriptorOutAgainFirst) {
  drive.answer_opens(open_answer());
  void* files[3];
  for (void*& file : files) {
    file = drive.open("f");
  }
  EXPECT_EQ(last(TNV_OP_WIN_OPEN).msg().u.wopen.wopen_newfd, 2);
  tnw_close(files[0], nullptr);
  tnw_close(files[1], nullptr);
  EXPECT_EQ(drive.open("f"), files[1]);
  EXPECT_EQ(last(TNV_OP_WIN_OPEN).msg().u.wopen.wopen_newfd, 1);
}

TEST_F(Open, TruncatesTheLocalFileOnSupersedeAndOverwriteIf) {
  for (ox_u32 disposition : {0u, 5u}) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive.folder / "local", "content");
    drive.answer_opens(answer, {}, TNV_OPEN_EXISTED);
    void* slot = nullptr;
    void* reader = tnw_create(drive.drive, &slot, "f", 1, 7, disposition, 0, 0, nullptr, nullptr);
    EXPECT_EQ(read_file(drive.folder / "local"), "content") << "no write access";
    tnw_close(reader, nullptr);
    answer.wopen_resp_handle = local_file(drive.folder / "local", "content");
    drive.answer_opens(answer, {}, TNV_OPEN_EXISTED);
    slot = nullptr;
    void* file = tnw_create(drive.drive, &slot, "f", 2, 7, disposition, 0, 0, nullptr, nullptr);
    EXPECT_EQ(GetLastError(), 183u);
    EXPECT_EQ(read_file(drive.folder / "local"), "");
    EXPECT_EQ(tnw_close(file, nullptr), 0);
    EXPECT_FALSE(is_open(answer.wopen_resp_handle));
  }
}

TEST_F(Open, FillsTheSlotAndEmptiesItAfterAFailedFirstOpen) {
  drive.answer_opens({}, {}, 2);
  void* slot = nullptr;
  int err = -1;
  EXPECT_EQ(tnw_create(drive.drive, &slot, "f", 1, 7, 1, 0, 0, nullptr, &err), nullptr);
  EXPECT_EQ(err, ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(slot, nullptr);
  drive.answer_opens(open_answer());
  void* first = tnw_create(drive.drive, &slot, "f", 1, 7, 1, 0, 0, nullptr, &err);
  ASSERT_NE(slot, nullptr);
  void* const context = slot;
  drive.answer_opens({}, {}, 13);
  EXPECT_EQ(tnw_create(drive.drive, &slot, "f", 3, 7, 1, 0, 0, nullptr, &err), nullptr);
  EXPECT_EQ(err, ERROR_SHARING_VIOLATION);
  EXPECT_EQ(slot, context) << "the first open still uses it";
  EXPECT_EQ(tnw_close(first, nullptr), 0);
}

TEST_F(Open, KeepsARefusedCloseWithoutItsLocalFile) {
  void* file = open_local("x");
  const ox_u64 local = [&] {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(drive.folder / "other", "y");
    drive.answer_opens(answer);
    return answer.wopen_resp_handle;
  }();
  void* refused = drive.open("g");
  drive.peer->on_request([](PeerConnection& conn) { conn.answer(28); });
  EXPECT_EQ(tnw_close(refused, nullptr), ERROR_DISK_FULL);
  EXPECT_FALSE(is_open(local));
  const ox_u64 stranger = local_file(drive.folder / "stranger", "z");
  drive.peer->on_request(ScriptedPeer::answer_success);
  char byte;
  EXPECT_EQ(tnw_read(refused, &byte, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_close(refused, nullptr), 0);
  EXPECT_TRUE(is_open(stranger)) << "the second close closes nothing of others";
  CloseHandle(reinterpret_cast<HANDLE>(stranger));
  EXPECT_EQ(tnw_close(file, nullptr), 0);
}

TEST_F(Open, ClosesAFolderWithoutCleanupOrLocalFile) {
  tnv_wopen_resp folder = open_answer();
  folder.wopen_resp_fso.fso_isdir = 1;
  folder.wopen_resp_handle = local_file(drive.folder / "not-ours", "x");
  drive.answer_opens(folder);
  void* dir = drive.open("d");
  char byte;
  EXPECT_EQ(tnw_read(dir, &byte, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_cleanup_file(dir), 0);
  EXPECT_EQ(drive.peer->count(TNV_OP_WIN_CLEANUP), 0u);
  EXPECT_EQ(tnw_close(dir, nullptr), 0);
  EXPECT_EQ(drive.peer->count(TNV_OP_WIN_CLOSE), 1u);
  EXPECT_TRUE(is_open(folder.wopen_resp_handle));
  CloseHandle(reinterpret_cast<HANDLE>(folder.wopen_resp_handle));
}

TEST_F(Open, ReleasesWhatAnUnauthorizedAnswerCarries) {
  tnv_wopen_resp carried = open_answer();
  carried.wopen_resp_rmap_size = 8;
  carried.wopen_resp_handle = local_file(drive.folder / "carried", "y");
  drive.peer->on_request([=](PeerConnection& conn) {
    if (conn.opcode() != TNV_OP_WIN_OPEN) {
      return conn.answer();
    }
    tnv_resphdr header = conn.header(0, sizeof carried);
    header.rhdr_tn_unauthd = 1;
    conn.send(bytes_of(header) + bytes_of(carried) + Bytes(16));
  });
  int err = -1;
  EXPECT_EQ(drive.open("g", 3, &err), nullptr);
  EXPECT_EQ(err, UNAUTHORIZED);
  EXPECT_FALSE(is_open(carried.wopen_resp_handle));
}

TEST_F(Open, GivesTheLastFreeDescriptorToOneOfTwoThreads) {
  drive.answer_opens(open_answer());
  std::vector<void*> files;
  for (;;) {
    void* file = drive.open("f");
    if (file == nullptr) {
      break;
    }
    files.push_back(file);
  }
  ASSERT_GE(files.size(), 100u);
  for (int round = 0; round < 50; round++) {
    tnw_close(files.back(), nullptr);
    files.pop_back();
    void* got[2];
    int errs[2];
    std::thread other([&] { got[0] = drive.open("f", 3, &errs[0]); });
    got[1] = drive.open("f", 3, &errs[1]);
    other.join();
    ASSERT_NE(got[0] == nullptr, got[1] == nullptr);
    EXPECT_EQ(errs[0] + errs[1], 24);
    files.push_back(got[0] != nullptr ? got[0] : got[1]);
  }
}
