/*
 * Texts and records that fill their fields, and numbers at the edge. Buffers end where their page
 * does.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <functional>

#include "page_end.h"
#include "peer_drive.h"
#include "tnw_fd.h"

namespace {

class Limits : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive_.start(), nullptr); }

  /* A file of ten bytes without maps. */
  void* open(const char* opener) {
    tnv_wopen_resp answer = open_answer();
    answer.wopen_resp_handle = local_file(local_, "0123456789");
    drive_.answer_opens(answer);
    return tnw_create(drive_.drive, nullptr, "f", 3, 7, TNW_DISP_OPEN, 0, 0, opener, nullptr);
  }

  PeerDrive drive_;
  const std::string local_ = drive_.folder / "local";
};

}  // namespace

TEST_F(Limits, TextsOfAnyLengthGoOutWhole) {
  void* const d = drive_.drive;
  const AtPageEnd name = full_field(32);
  tnw_fileinfo entry;
  bool flag = false;
  int err = 0;
  using Text = char*;
  const struct {
    std::function<int(Text)> call;
    size_t texts; /* how often the text is in the request */
    size_t size;  /* of the rest of it */
  } calls[] = {
      {[&](Text t) { return tnw_getfileinfo(d, t, &entry, name.at); }, 1, 505},
      {[&](Text t) { return tnw_rename(d, t, t, name.at); }, 2, 506},
      {[&](Text t) { return tnw_delete(d, t, name.at); }, 1, 505},
      {[&](Text t) { return tnw_canfilebedeleted(d, t, &flag); }, 1, 505},
      {[&](Text t) { return tnw_updatetoken(d, t); }, 1, 505},
      {[&](Text t) { return tnw_set_http_proxy(d, "p", t, t); }, 2, 508},
      {[&](Text t) { return tnw_create(d, nullptr, t, 1, 7, 1, 0, 0, name.at, &err), err; }, 1,
       505},
      {[&](Text t) { return tnw_findfirst(d, t, &entry, name.at, &err), err; }, 1, 505},
  };
  for (const int answered : {0, 28}) { /* the lines of refusals show the texts, too */
    drive_.peer->on_request([=](PeerConnection& conn) {
      conn.answer(static_cast<ox_u32>(answered), Bytes(sizeof(tnw_fileinfo)));
    });
    for (const size_t length : {0u, 1u, 5000u}) {
      const AtPageEnd text = text_of(length);
      for (const auto& c : calls) {
        const int code = c.call(text.at);
        EXPECT_TRUE(code == (answered == 0 ? 0 : ERROR_DISK_FULL) || code == ERROR_NO_MORE_FILES);
        EXPECT_EQ(drive_.peer->requests().back().bytes.size(), c.size + c.texts * length);
      }
    }
  }
}

TEST_F(Limits, NothingIsWrittenPastAField) {
  const AtPageEnd opener = full_field(32);
  void* const file = open(opener.at);
  tnw_fileinfo full;
  memset(&full, 0xff, sizeof full); /* a name of 245 bytes, and all other texts as full */
  tnv_wdenum_resp listed = {};
  listed.wde_fi_len = 2;
  drive_.peer->on_request([=](PeerConnection& conn) {
    if (conn.opcode() != TNV_OP_WIN_DENUM) {
      return conn.answer(0, full);
    }
    conn.answer(0, listed);
    conn.send(bytes_of(full) + bytes_of(full));
  });
  const AtPageEnd out(std::string(sizeof full, '\0'));
  auto* const entry = out.as<tnw_fileinfo>();
  const auto expect_full = [&](int code) {
    EXPECT_EQ(code, 0);
    EXPECT_EQ(memcmp(entry, &full, sizeof full), 0);
    *entry = {};
  };
  expect_full(tnw_getfileinfo(drive_.drive, "f", entry, nullptr));
  int err = -1;
  void* const listing = tnw_findfirst(drive_.drive, "d", entry, nullptr, &err);
  expect_full(err);
  expect_full(tnw_findnext(listing, entry));
  const AtPageEnd flag(std::string(sizeof(bool), '\0'));
  EXPECT_EQ(tnw_canfilebedeleted(drive_.drive, "f", flag.as<bool>()), 0);
  EXPECT_EQ(*flag.at, 1) << "the byte 0xff is true";

  drive_.peer->on_request(ScriptedPeer::answer_success);
  const AtPageEnd buffer(std::string(10, '-'));
  const AtPageEnd count(std::string(sizeof(ox_s64), '-'));
  const AtPageEnd told(std::string(32, '-'));
  const auto expect_told = [&](int code) {
    EXPECT_EQ(code, 0);
    EXPECT_EQ(memcmp(told.at, opener.at, 32), 0);
    memset(told.at, 0, 32);
  };
  expect_told(tnw_read(file, buffer.at, 10, 0, count.as<ox_s64>(), told.at));
  EXPECT_EQ(std::string(buffer.at, 10), "0123456789");
  expect_told(tnw_write(file, buffer.at, 10, 0, count.as<ox_s64>(), told.at));
  expect_told(tnw_setfilesize(file, 10, 0, told.at));
  expect_told(tnw_close(file, told.at));
}

TEST_F(Limits, OffsetsAndLengthsAtTheEdge) {
  void* const file = open("");
  constexpr ox_off FAR_OFF = (1ll << 32) + 5;
  constexpr ox_s64 UNTOUCHED = -77;
  ox_s64 count = UNTOUCHED;
  char byte = 0;
  const struct {
    bool write;
    ox_u64 len;
    ox_off off;
    int code;
    ox_s64 count;
  } steps[] = {
      {false, 0, 0, 0, 0},
      {false, 0, 5000, 0, 0}, /* no byte is at the end of nothing */
      {false, 1, FAR_OFF, ERROR_HANDLE_EOF, 0},
      {false, (1ull << 32) + 1, 3, 0, 1}, /* the length is cut to 32 bits */
      {true, 1, FAR_OFF, 0, 1},
      {false, 1, FAR_OFF, 0, 1},
      {false, 1, FAR_OFF + 1, ERROR_HANDLE_EOF, 0},
      {true, 1, -1, ERROR_INVALID_PARAMETER, UNTOUCHED}, /* would append */
      {true, 1, -2, ERROR_INVALID_PARAMETER, UNTOUCHED}, /* would go to the handle's position */
      {true, 1, INT64_MIN, ERROR_INVALID_PARAMETER, UNTOUCHED},
      {false, 1, -1, ERROR_INVALID_PARAMETER, UNTOUCHED},
      {false, 1, -2, ERROR_INVALID_PARAMETER, UNTOUCHED},
  };
  for (const auto& s : steps) {
    count = UNTOUCHED;
    EXPECT_EQ((s.write ? tnw_write : tnw_read)(file, &byte, s.len, s.off, &count, nullptr), s.code)
        << &s - steps;
    EXPECT_EQ(count, s.count) << &s - steps;
  }
  EXPECT_EQ(byte, '3') << "as it was read at 3, written and read again";
  EXPECT_EQ(std::filesystem::file_size(local_), static_cast<ox_u64>(FAR_OFF) + 1);
  EXPECT_EQ(tnw_setfilesize(file, 7, 1, nullptr), 0);
  EXPECT_EQ(std::filesystem::file_size(local_), (1ull << 32) + 7);
  EXPECT_NE(tnw_setfilesize(file, 0, 0x80000000, nullptr), 0) << "a file's size is positive";
  EXPECT_EQ(static_cast<tnvfd*>(file)->fdt_stat.st_size, (1ull << 32) + 7);
  EXPECT_EQ(tnw_lockfile(file, ~0u, ~0u, ~0u, 0, 0, -1), 0);
  EXPECT_EQ(drive_.peer->requests().back().msg().u.wbrl.wbrl_off, 0xffffffffu);
}

TEST(Records, AStartWithEveryFieldFullGivesUp) {
  tnw_tninit record;
  memset(&record, 'x', sizeof record);
  record.tnw_flags = TNW_INIT_NO_RETRY;
  const TestFolder folder;
  set_field(record.tnw_logdir, folder.path().string());
  const AtPageEnd full(&record, sizeof record);
  int err = 0;
  EXPECT_EQ(tnw_init(full.as<tnw_tninit>(), &err), nullptr);
  EXPECT_EQ(err, ERROR_GEN_FAILURE);
  EXPECT_EQ(memcmp(full.at, &record, sizeof record), 0);
}

TEST(Records, AStartWithFullNamesWorks) {
  const LogCapture log;
  PeerDrive drive;
  const auto fill = [](auto& field, char c) { memset(field, c, sizeof field); };
  const std::string domain = "d." + std::string(49, 'd');
  set_field(drive.record.tnw_uds_workdir, drive.folder / "s");
  set_field(drive.record.tnw_domain, domain);
  fill(drive.record.tnw_username, 'u');
  fill(drive.record.tnw_authtoken, 't');
  fill(drive.record.tnw_api_addr, 'a');
  fill(drive.record.tnw_config_addr, 'c');
  fill(drive.record.tnw_da_device_id, 'i');
  fill(drive.record.tnw_tn_device_id, 'j');
  fill(drive.record.tnw_da_drive_id, 'k');
  ASSERT_NE(drive.start(), nullptr);
  const tnv_wconn_msg connect = drive.peer->requests().front().msg().u.wconn;
  EXPECT_EQ(std::string(connect.wconmsg_user), std::string(64, 'u'));
  EXPECT_EQ(std::string(connect.wconmsg_devid, 37), std::string(37, 'i'));
  EXPECT_EQ(
      log.count(" --addr " + std::string(128, 'a') + " --confaddr " + std::string(128, 'c') +
                " --tn-devid " + std::string(37, 'j') + " --da-devid " + std::string(37, 'i') +
                " --access-token " + std::string(512, 't') + " --logfile "),
      1u);

  const AtPageEnd same(&drive.record, sizeof drive.record);
  EXPECT_EQ(tnw_init(same.as<tnw_tninit>(), nullptr), drive.drive) << "the same names and id";
  tnw_purge_opt_t po;
  fill(po.po_username, 'u');
  set_field(po.po_domain, domain);
  set_field(po.po_workdir, drive.folder.path().string());
  const AtPageEnd options(&po, sizeof po);
  EXPECT_EQ(tnw_purge_cache(options.as<tnw_purge_opt_t>()), ERROR_BUSY);
  memset(options.at, 'w', sizeof po);
  EXPECT_EQ(tnw_purge_cache(options.as<tnw_purge_opt_t>()), 38) << "a path that does not fit";
}
