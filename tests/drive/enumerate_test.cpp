/* tnw_findfirst, tnw_findnext, tnw_findclose, tnw_checkfolderempty. */

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "log_capture.h"
#include "peer_drive.h"

namespace {

class Enumerate : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive.start(), nullptr); }

  /* Enumerations are answered with `count` entries, of which `sent` follow. */
  void list(ox_u64 count, size_t sent) {
    tnv_wdenum_resp answer = {};
    answer.wde_fi_len = count;
    answer.wde_fso.fso_isdir = 1;
    answer.wde_fso.fso_handle.id[15] = 9;
    Bytes entries;
    for (size_t i = 0; i < sent; i++) {
      tnw_fileinfo entry = {};
      entry.fi_size = i;
      snprintf(entry.fi_name, sizeof entry.fi_name, "name-%zu", i);
      entries = entries + bytes_of(entry);
    }
    drive.peer->on_request([=](PeerConnection& conn) {
      if (conn.opcode() != TNV_OP_WIN_DENUM) {
        return conn.answer();
      }
      conn.answer(0, answer);
      conn.send(entries);
    });
  }

  void* first(int* err) { return tnw_findfirst(drive.drive, "\\d", &entry, "lister", err); }

  PeerDrive drive;
  tnw_fileinfo entry = {};
};

}  // namespace

TEST_F(Enumerate, HandsOutEveryEntryOnceInOneExchange) {
  list(300, 300);
  int err = -1;
  void* handle = first(&err);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(err, 0);
  EXPECT_STREQ(entry.fi_name, "name-0");
  for (ox_u64 i = 1; i < 300; i++) {
    ASSERT_EQ(tnw_findnext(handle, &entry), 0);
    ASSERT_EQ(entry.fi_size, i);
  }
  EXPECT_EQ(tnw_findnext(handle, &entry), ERROR_NO_MORE_FILES);
  EXPECT_EQ(entry.fi_name[0], '\0') << "cleared before the end is tested";
  EXPECT_EQ(drive.peer->count(TNV_OP_WIN_DENUM), 1u);
  bool empty = true;
  EXPECT_EQ(tnw_checkfolderempty(handle, &empty), 0);
  EXPECT_FALSE(empty);
  const PeerRequest denum = drive.peer->requests().back();
  EXPECT_EQ(denum.text(), "\\d");
  EXPECT_EQ(denum.msg().u.wdenum.wde_pathlen, 3);
  EXPECT_EQ(tnw_findclose(handle), 0);
  const PeerRequest close = drive.peer->requests().back();
  EXPECT_EQ(close.opcode(), TNV_OP_WIN_CLOSE);
  EXPECT_EQ(close.msg().u.wclose.wclose_oamode, 1u);
  EXPECT_EQ(close.msg().u.wclose.wclose_id.id[15], 9);
  EXPECT_EQ(memcmp(&close.msg().u.wclose.wclose_omsgid, &denum.msg().hdr.hdr_id, 16), 0);
}

TEST_F(Enumerate, ReportsTheServicesRefusal) {
  LogCapture log;
  drive.peer->on_request([](PeerConnection& conn) { conn.answer(20); });
  int err = -1;
  EXPECT_EQ(first(&err), nullptr);
  EXPECT_EQ(err, ERROR_DIRECTORY);
  EXPECT_EQ(log.count("\"errno\":20, "), 1u);
  EXPECT_EQ(log.count("Failed to send directory enumeration message for path \\d."), 1u);
}

TEST_F(Enumerate, GivesTheEntryBackAlsoAfterARefusedClose) {
  LogCapture log;
  list(1, 1);
  int err = -1;
  void* handle = first(&err);
  drive.peer->on_request([](PeerConnection& conn) { conn.answer(5); });
  EXPECT_EQ(tnw_findclose(handle), ERROR_IO_DEVICE);
  EXPECT_EQ(log.count("Failed to close diretory enumeration context."), 1u);
  list(1, 1);
  EXPECT_EQ(first(&err), handle);
}

TEST_F(Enumerate, TakesNoCountThatCannotBe) {
  for (ox_u64 count : {(1ull << 32) + 3, 1ull << 31, ~0ull}) {
    drive.peer.reset();
    if (drive.drive != nullptr) {
      tnw_deinit_force(drive.drive);
    }
    ASSERT_NE(drive.start(), nullptr);
    list(count, 3);
    int err = -1;
    EXPECT_EQ(first(&err), nullptr);
    EXPECT_EQ(err, 8) << count;
  }
}
