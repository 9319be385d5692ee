/*
 * What each call sends, and what the service's answers let it do.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <future>
#include <utility>

#include "peer_drive.h"
#include "tn_util.h"
#include "tnw_fd.h"

namespace {

constexpr DWORD BOTH = GENERIC_READ | GENERIC_WRITE;

class Calls : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(drive_.start(), nullptr); }

  /* A file with maps of 16 regions of 16 bytes, which have these bits. */
  void* open(const std::string& content, const Bytes& maps, DWORD access = BOTH) {
    tnv_wopen_resp opened = open_answer();
    opened.wopen_resp_handle = local_file(local_, content, access);
    opened.wopen_resp_rmap_size = maps.size() / 2;
    opened.wopen_resp_tnflags = TNV_FL_MAPPED;
    opened.wopen_resp_stat.st_size = content.size();
    drive_.answer_opens(opened, maps);
    return drive_.open("f");
  }

  tnv_msgid_t last_id() const { return drive_.peer->requests().back().msg().hdr.hdr_id; }
  /* A call has succeeded, and this was its last request. Without a `procname` there is neither a
   * name nor a drive in it. */
  void expect_sent(int code, vfs_op opcode, Bytes body, const std::string& texts,
                   const char* procname) const {
    SCOPED_TRACE(opcode);
    EXPECT_EQ(code, 0);
    const PeerRequest sent = drive_.peer->requests().back();
    EXPECT_EQ(sent.opcode(), static_cast<ox_u32>(opcode));
    char name[33] = {};
    memcpy(name, sent.msg().hdr.hdr_procname, 32);
    EXPECT_STREQ(name, procname != nullptr ? procname : "");
    EXPECT_EQ(sent.msg().hdr.hdr_drvid.id[0], procname != nullptr ? 0x22 : 0);
    body.resize(sizeof(tnv_msg) - sizeof(tnv_msghdr));
    body.insert(body.end(), texts.begin(), texts.end());
    EXPECT_EQ(Bytes(sent.bytes.begin() + sizeof(tnv_msghdr), sent.bytes.end()), body);
  }

  PeerDrive drive_;
  const std::string local_ = drive_.folder / "local";
};

/* An answer with a transaction id, so that the client's own events are written, too. */
void answer_with_id(PeerConnection& conn, ox_u32 err, const Bytes& payload = {}) {
  tnv_resphdr header = conn.header(err, static_cast<ox_u32>(payload.size()));
  header.rhdr_utxid = 5;
  conn.send(bytes_of(header) + payload);
}

/* A text with NULs inside. */
template <size_t N>
std::string raw(const char (&text)[N]) {
  return std::string(text, N - 1);
}

}  // namespace

TEST_F(Calls, SendTheirRequests) {
  tnw_fileinfo info = {};
  bool flag = false;
  char token[] = "t";
  char byte = 0;
  void* const d = drive_.drive;
  void* const file = open("", Bytes(4));
  const tnv_msgid_t opened = last_id();
  const tnvfso fso = open_answer().wopen_resp_fso;
  const auto lock = [&](int kind) {
    return bytes_of(tnv_wbrl_msg{kind, 77, 0, 0, 10, 5, fso, fso.fso_handle});
  };
  expect_sent(tnw_getfileinfo(d, "\\p", &info, "me.exe"), TNV_OP_WIN_STAT,
              bytes_of(tnv_wstat_msg{3}), raw("\\p\0"), "me.exe");
  expect_sent(tnw_rename(d, "a", "bc", "me.exe"), TNV_OP_WIN_RENAME,
              bytes_of(tnv_wrename_msg{1, 2}), raw("a\0bc\0"), "me.exe");
  expect_sent(tnw_delete(d, "abc", "a-name-that-fills-the-whole-field"), TNV_OP_WIN_DELETE,
              bytes_of(tnv_wdelete_msg{3}), raw("abc\0"), "a-name-that-fills-the-whole-fiel");
  expect_sent(tnw_canfilebedeleted(d, "abc", &flag), TNV_OP_WIN_CANDELETE,
              bytes_of(tnv_wcandelete_msg{3}), raw("abc\0"), "");
  expect_sent(tnw_updatetoken(d, token), TNV_OP_UPDATETOKEN, bytes_of(tnv_updatetoken_msg{1}),
              raw("t\0"), nullptr);
  expect_sent(tnw_set_http_proxy(d, "p:1", "", "pw"), TNV_OP_WIN_SETPROXY,
              bytes_of(tnv_wsetproxy_msg{3, 0, 2}), raw("p:1\0\0pw\0"), nullptr);
  expect_sent(tnw_lockfile(file, TNW_LOCK_FAIL_AT_ONCE, 10, 1, 5, 1, 77), TNV_OP_WIN_BRL,
              lock(TN_SMBLK_SH_BRL), "", "writer.exe");
  expect_sent(tnw_lockfile(file, TNW_LOCK_EXCLUSIVE | 1, 10, 0, 5, 0, 77), TNV_OP_WIN_BRL,
              lock(TN_SMBLK_EX_BRL), "", "writer.exe");
  expect_sent(tnw_unlockfile(file, 10, 1, 5, 1, 77), TNV_OP_WIN_BRL, lock(TN_SMBLK_UNLOCK_BRL), "",
              "writer.exe");
  expect_sent(tnw_read(file, &byte, 1, 20, nullptr, nullptr) - ERROR_HANDLE_EOF,
              TNV_OP_CACHE_REGION, bytes_of(tnv_cache_region_msg{0, {}, 20, 1, opened, fso}), "",
              nullptr);
  expect_sent(tnw_write(file, &byte, 1, 20, nullptr, nullptr), TNV_OP_DIRTY_REGION,
              bytes_of(tnv_dirty_region_msg{20, 1, opened, fso}), "", nullptr);
  expect_sent(tnw_setfilesize(file, 40, 0, nullptr), TNV_OP_FTRUNCATE,
              bytes_of(tnv_ftruncate_msg{40, opened, fso}), "", nullptr);
  tnv_wclose_msg close = {0, 4711, {}, fso, 3, 7, 0, TNV_FL_MAPPED | TNV_FL_MODIFIED, opened};
  expect_sent(tnw_cleanup_file(file), TNV_OP_WIN_CLEANUP, bytes_of(close), "", "writer.exe");
  close.wclose_id = fso.fso_handle;
  expect_sent(tnw_close(file, nullptr), TNV_OP_WIN_CLOSE, bytes_of(close), "", "writer.exe");

  int code = -1;
  drive_.peer->on_request(ScriptedPeer::answer_success);
  void* const listing = tnw_findfirst(d, "\\d", &info, "me.exe", &code);
  expect_sent(code - ERROR_NO_MORE_FILES, TNV_OP_WIN_DENUM, bytes_of(tnv_wdenum_msg{3}),
              raw("\\d\0"), "me.exe");
  close = {0, 0, {}, {}, TNW_ACC_READ, 0, 0, 0, last_id()};
  expect_sent(tnw_findclose(listing), TNV_OP_WIN_CLOSE, bytes_of(close), "", "me.exe");
  const ox_u32 sent_for[] = {CREATE_ALWAYS, OPEN_EXISTING,     CREATE_NEW,
                             OPEN_ALWAYS,   TRUNCATE_EXISTING, CREATE_ALWAYS};
  for (ox_u32 disposition = 0; disposition < 6; disposition++) {
    tnw_create(d, nullptr, "\\n\xc3\xa4me", 0x11, 5, disposition, 0x40, 99, "me.exe", &code);
    const auto fd = static_cast<ox_s32>(disposition);
    const tnv_wopen_msg open = {
        fd, 7, 99, 5, 0x11, sent_for[disposition], 0x40, GetCurrentProcessId()};
    expect_sent(code, TNV_OP_WIN_OPEN, bytes_of(open), raw("\\n\xc3\xa4me\0"), "me.exe");
  }
}

/* ------------------------------------------------------------------- reads and writes */

namespace {

constexpr ox_s64 UNTOUCHED = -77;
const std::string CONTENT = "0123456789";
const std::string ID = "00000001-0000-0000-0000-000000000000";
const std::string FETCHED = "EVENT TNV_OP_CACHE_REGION 0\n";
const std::string REPORTED = "EVENT TNV_OP_DIRTY_REGION 0\n";

/* The lines of a region request that the service does not grant. */
std::string not_fetched(int err, const std::string& range) {
  const std::string error = "ERROR " + std::to_string(err) + " ada: ";
  return "EVENT TNV_OP_CACHE_REGION " + std::to_string(err) + "\n" + error + "cache_region(FD, " +
         range + " : " + ID + ") failed\n" + error + "Failed to cache regions off:" +
         std::string(range).replace(range.find(", "), 2, ", len:") + ", trunc: 0\n";
}

}  // namespace

TEST_F(Calls, TransferWhatTheServicesAnswersLetThem) {
  const std::string not_reported =
      "EVENT TNV_OP_DIRTY_REGION 28\nERROR 28 ada: dirty_region(FD, 1, 2 : " + ID +
      ") failed\nERROR 28 ada: Failed to dirty off:len 1:2\n";
  const std::string uncached_read =
      "EVENT TNV_OP_CACHE_REGION 25\nINFO 25 ada: Uncached read(FD, 2, 4 : " + ID + ")\n";
  const std::string uncached_write =
      "EVENT TNV_OP_CACHE_REGION 25\nINFO 25 ada: Uncached read(FD, 1, 2 : " + ID + ")\n";
  const auto event = [](const char* name, const char* result) {
    return std::string("EVENT TNV_OP_WIN_") + name + " " + result;
  };
  const char* const failed_28 = "18446744073709551615, 28";
  const char* const failed_5 = "18446744073709551615, 5";
  const struct {
    const char* name;
    DWORD access; /* of the local file's handle */
    ox_u32 fetch_err, report_err;
    int read_code;
    ox_s64 read_count;
    std::string read_lines;
    int write_code;
    std::string write_lines;
  } cases[] = {
      {"granted", BOTH, 0, 0, 0, 4, FETCHED + event("READ", "4, 0"), 0,
       REPORTED + event("WRITE", "2, 0")},
      {"no fetch", BOTH, 28, 0, ERROR_DISK_FULL, UNTOUCHED,
       not_fetched(28, "2, 4") + event("READ", failed_28), ERROR_DISK_FULL,
       not_fetched(28, "1, 2") + event("WRITE", failed_28)},
      {"no report", BOTH, 0, 28, 0, 4, FETCHED + event("READ", "4, 0"), ERROR_DISK_FULL,
       not_reported + event("WRITE", failed_28)},
      {"nothing to fetch", BOTH, 7, 0, 0, UNTOUCHED, not_fetched(7, "2, 4") + event("READ", "0, 0"),
       0, not_fetched(7, "1, 2") + REPORTED + event("WRITE", "2, 0")},
      {"not to be cached", BOTH, 25, 0, 0, 4, uncached_read + event("READ", "4, 0"), 0,
       uncached_write + REPORTED + event("WRITE", "2, 0")},
      {"unreadable", GENERIC_WRITE | FILE_READ_ATTRIBUTES, 0, 0, ERROR_ACCESS_DENIED, UNTOUCHED,
       FETCHED + "ERROR 5 ada: Failed to read from the file \\\\?\\FOLDER\\local\n" +
           event("READ", failed_5),
       0, REPORTED + event("WRITE", "2, 0")},
      {"unwritable", GENERIC_READ, 0, 0, 0, 4, FETCHED + event("READ", "4, 0"), ERROR_ACCESS_DENIED,
       REPORTED + "ERROR 5 ada: Failed to write to the file \\\\?\\FOLDER\\local\n" +
           event("WRITE", failed_5)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    void* const file = open(CONTENT, Bytes(4), c.access);
    drive_.peer->on_request([&](PeerConnection& conn) {
      const tnv_cache_region_resp fetched = {0, 1, CONTENT.size(), 0, {}};
      const bool fetch = conn.opcode() == TNV_OP_CACHE_REGION;
      answer_with_id(conn, fetch ? c.fetch_err : c.report_err, bytes_of(fetched));
    });
    char data[] = "----";
    ox_s64 count = UNTOUCHED;
    const LogCapture read_log;
    EXPECT_EQ(tnw_read(file, data, 4, 2, &count, nullptr), c.read_code);
    EXPECT_EQ(drive_.said(read_log), c.read_lines);
    EXPECT_EQ(count, c.read_count);
    EXPECT_STREQ(data, count < 0 ? "----" : "2345");
    count = UNTOUCHED;
    const LogCapture write_log;
    EXPECT_EQ(tnw_write(file, data, 2, 1, &count, nullptr), c.write_code);
    EXPECT_EQ(drive_.said(write_log), c.write_lines);
    EXPECT_EQ(count, c.write_code != 0 ? UNTOUCHED : 2);
    const std::string written = std::string("0") + data[0] + data[1] + CONTENT.substr(3);
    EXPECT_EQ(read_file(local_), c.write_code != 0 ? CONTENT : written);
    const LogCapture end_log;
    if (c.read_count == 4) {
      EXPECT_EQ(tnw_read(file, data, 4, 10, &count, nullptr), ERROR_HANDLE_EOF);
      EXPECT_TRUE(drive_.said(end_log).ends_with(event("READ", "0, 0")));
    }
    drive_.peer->on_request(ScriptedPeer::answer_success);
    EXPECT_EQ(tnw_close(file, nullptr), 0);
  }
}

TEST_F(Calls, WriteOverTheEndAddsItsCountToTheOldSize) {
  void* const file = open(CONTENT, {0xff, 0xff, 0xff, 0xff});
  char data[] = "abcd";
  EXPECT_EQ(tnw_write(file, data, 4, 8, nullptr, nullptr), 0);
  EXPECT_EQ(read_file(local_), "01234567abcd");
  EXPECT_EQ(static_cast<tnvfd*>(file)->fdt_stat.st_size, 14u) << "deliberately not 12";
}

/* A handle that the system has closed meanwhile. */
TEST_F(Calls, SayThatALocalFileIsGone) {
  void* const file = open(CONTENT, {0xff, 0xff, 0xff, 0xff});
  auto* const entry = static_cast<tnvfd*>(file);
  CloseHandle(entry->fdt_ofd);
  char byte = 0;
  const LogCapture log;
  EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(tnw_write(file, &byte, 1, 0, nullptr, nullptr), ERROR_INVALID_HANDLE);
  EXPECT_EQ(drive_.said(log),
            "WARNING ada: Failed to get path from handle.\n"
            "ERROR 6 ada: Failed to read from the file \n"
            "INFO: Unidentified windows error 6\n"
            "ERROR 22 ada: Failed to get filesize for " +
                ID + ":00000000-0000-0000-0000-000000000000");
  entry->fdt_ofd = INVALID_HANDLE_VALUE;
}

/* All calls share the connection whose transaction ids decide. */
TEST_F(Calls, LeaveEventsAlsoWhileAnotherCallWaitsForItsAnswer) {
  void* const file = open(CONTENT, {0xff, 0xff, 0xff, 0xff});
  std::promise<void> asked;
  ox_u64 utxid = 5;
  drive_.peer->on_request([&](PeerConnection& conn) {
    if (conn.opcode() == TNV_OP_WIN_STAT) {
      asked.set_value();
      conn.stall();
    }
    tnv_resphdr header = conn.header();
    header.rhdr_utxid = std::exchange(utxid, 0);
    conn.send(bytes_of(header));
  });
  const auto events = [&] {
    const LogCapture log;
    char byte;
    EXPECT_EQ(tnw_read(file, &byte, 1, 0, nullptr, nullptr), 0);
    return log.count("TNV_OP_WIN_READ");
  };
  EXPECT_EQ(events(), 0u) << "no id came yet";
  EXPECT_EQ(tnw_delete(drive_.drive, "p", nullptr), 0);
  EXPECT_EQ(events(), 1u);
  tnw_fileinfo info;
  auto stat = std::async(std::launch::async,
                         [&] { return tnw_getfileinfo(drive_.drive, "p", &info, nullptr); });
  asked.get_future().wait();
  EXPECT_EQ(events(), 1u) << "the last answer had an id, the next is still to come";
  drive_.peer->resume();
  EXPECT_EQ(stat.get(), 0);
  EXPECT_EQ(events(), 0u) << "the last answer had none";
}

/* ------------------------------------------------------------------- size */

namespace {

struct Resize {
  const char* name;
  ox_u64 from; /* the size that the service reports */
  ox_u64 to;
  ox_u32 fetch_err;
  enum { SIZE, NO_SIZE, CLEAR } answer;
  ox_u32 truncate_err;
  int code;
  ox_s64 fetched; /* the offset of the region that is asked for, or -1 */
  bool truncates; /* the truncation is sent */
  int cached;     /* the maps' bits afterwards; -1: no maps. Before they are 0x7f and 0x0f */
  int dirty;
};

const Resize RESIZES[] = {
    {"grow from a byte", 1, 48, 0, Resize::SIZE, 0, 0, 32, true, 0x7f, 0x0f | 0x06},
    {"grow", 100, 150, 0, Resize::SIZE, 0, 0, 144, true, 0x3ff, 0x38f},
    {"within the region", 100, 101, 0, Resize::SIZE, 0, 0, 96, true, 0x7f, 0x0f},
    {"to a multiple", 100, 32, 0, Resize::SIZE, 0, 0, 16, true, 0x03, 0x03},
    {"shrink", 100, 33, 0, Resize::SIZE, 0, 0, 32, true, 0x07, 0x07},
    {"past 4 GiB", 100, 1ull << 32, 0, Resize::SIZE, 0, 0, (1ll << 32) - 16, true, 0xffff, 0xff8f},
    {"empty", 100, 0, 0, Resize::SIZE, 0, 0, -1, true, -1, -1},
    {"empty, refused", 100, 0, 0, Resize::SIZE, 28, 112, -1, true, 0x7f, 0x0f},
    {"nothing to fetch", 100, 33, 7, Resize::SIZE, 0, 0, 32, true, 0x07, 0x07},
    {"nothing to fetch, no size", 100, 33, 7, Resize::NO_SIZE, 0, 0, 32, true, 0x7f, 0x0f},
    {"will not cache", 100, 150, 25, Resize::SIZE, 0, 0, 144, true, 0x7f, 0x0f},
    {"clear mark", 100, 33, 0, Resize::CLEAR, 0, 0, 32, false, -1, -1},
    {"fetch failed", 100, 33, 5, Resize::SIZE, 0, 1117, 32, true, 0x07, 0x07},
    {"fetch failed, no size", 100, 33, 5, Resize::NO_SIZE, 0, 1117, 32, true, 0x7f, 0x0f},
    {"truncate failed", 100, 33, 0, Resize::SIZE, 28, 112, 32, true, 0x07, 0x07},
    {"both failed", 100, 33, 5, Resize::SIZE, 28, 112, 32, true, 0x07, 0x07},
};

int bits(const ox_u8* map) { return map != nullptr ? map[0] | map[1] << 8 : -1; }

}  // namespace

TEST_F(Calls, ResizeTheLocalFileAndItsMaps) {
  for (const Resize& r : RESIZES) {
    SCOPED_TRACE(r.name);
    void* const file = open(std::string(100, 'x'), {0x7f, 0, 0x0f, 0});
    drive_.peer->on_request([&](PeerConnection& conn) {
      const auto clear = static_cast<ox_u8>(r.answer == Resize::CLEAR);
      const tnv_cache_region_resp fetched = {0, 16, r.from, clear, {}};
      const bool fetch = conn.opcode() == TNV_OP_CACHE_REGION;
      const bool has_size = fetch && r.answer != Resize::NO_SIZE;
      answer_with_id(conn, fetch ? r.fetch_err : r.truncate_err,
                     has_size ? bytes_of(fetched) : Bytes());
    });
    const LogCapture log;
    const size_t before = drive_.peer->requests().size();
    const auto high = static_cast<ox_u32>(r.to >> 32);
    char procname[32] = "";
    EXPECT_EQ(tnw_setfilesize(file, static_cast<ox_u32>(r.to), high, procname), r.code);
    EXPECT_STREQ(procname, "writer.exe");
    const std::string line =
        "Failed to cache regions off:" + std::to_string(r.fetched) + ", len:16, trunc: 1";
    EXPECT_EQ(log.count(static_cast<int>(r.fetch_err), line),
              r.fetch_err == 0 || r.fetch_err == 25 ? 0u : 1u);
    EXPECT_EQ(log.brief_lines().back(),
              "EVENT TNV_OP_WIN_SETFSIZE " + std::to_string(r.code) + ", 0");
    EXPECT_EQ(std::filesystem::file_size(local_), r.to) << "whatever the service answered";

    const auto requests = drive_.peer->requests();
    size_t next = before;
    if (r.fetched >= 0) {
      const tnv_cache_region_msg fetch = requests.at(next++).msg().u.cache_region;
      EXPECT_EQ(fetch.cache_read_off, static_cast<ox_u64>(r.fetched));
      EXPECT_EQ(fetch.cache_read_len, 16u);
      EXPECT_EQ(fetch.cache_read_trunc, 1);
    }
    if (r.truncates) {
      EXPECT_EQ(requests.at(next++).msg().u.ftruncate.cache_trunc_nfsz, r.to);
    }
    EXPECT_EQ(requests.size(), next);
    const auto* const fde = static_cast<const tnvfd*>(file);
    EXPECT_EQ(bits(fde->fdt_rmap), r.cached);
    EXPECT_EQ(bits(fde->fdt_dmap), r.dirty);
    EXPECT_EQ(fde->fdt_stat.st_size, r.to);
    drive_.peer->on_request(ScriptedPeer::answer_success);
    EXPECT_EQ(tnw_close(file, nullptr), 0);
    EXPECT_EQ(drive_.peer->requests().back().msg().u.wclose.wclose_tnflags & TNV_FL_MODIFIED, 8u);
  }
}

TEST_F(Calls, ResizeAFileThatIsMarkedAsMappedButHasNoMaps) {
  void* const file = open("", {});
  drive_.peer->on_request(ScriptedPeer::answer_success);
  EXPECT_EQ(tnw_setfilesize(file, 20, 0, nullptr), 0);
  EXPECT_EQ(drive_.peer->count(TNV_OP_FTRUNCATE), 1u);
  EXPECT_EQ(std::filesystem::file_size(local_), 20u);
}

TEST_F(Calls, KeepTheSizeThatTheLocalFileKeeps) {
  auto* const file = static_cast<tnvfd*>(open(CONTENT, Bytes(4), GENERIC_READ));
  drive_.peer->on_request([](PeerConnection& conn) { answer_with_id(conn, 28); });
  FILE_END_OF_FILE_INFO end = {};
  end.EndOfFile.QuadPart = 20;
  ASSERT_FALSE(SetFileInformationByHandle(file->fdt_ofd, FileEndOfFileInfo, &end, sizeof end));
  const DWORD code = GetLastError(); /* 5, but Wine has another opinion */
  const LogCapture log;
  EXPECT_EQ(tnw_setfilesize(file, 20, 0, nullptr), static_cast<int>(code))
      << "not what the service answered";
  EXPECT_EQ(file->fdt_stat.st_size, CONTENT.size());
  EXPECT_TRUE(drive_.said(log).ends_with("\nERROR " + std::to_string(winerr2unixerr(code)) +
                                         " ada: Failed to set filesize for " + ID +
                                         ":00000000-0000-0000-0000-000000000000"))
      << "and leaves no event";
}

/* ------------------------------------------------------------------- listings */

TEST_F(Calls, HandOutEveryEntryOfAListingOnceInOneExchange) {
  constexpr ox_u64 COUNT = 300;
  drive_.peer->on_request([](PeerConnection& conn) {
    tnv_wdenum_resp answer = {};
    answer.wde_fi_len = conn.request().text() == "\\d" ? COUNT : 0;
    answer.wde_fso.fso_handle.id[15] = 9;
    answer_with_id(conn, 0, bytes_of(answer));
    for (tnw_fileinfo entry = {}; entry.fi_size < answer.wde_fi_len; entry.fi_size++) {
      conn.send(bytes_of(entry));
    }
  });
  const LogCapture log;
  tnw_fileinfo entry = {};
  int err = -1;
  bool empty = false;
  void* const nothing = tnw_findfirst(drive_.drive, "\\e", &entry, "lister", &err);
  EXPECT_EQ(tnw_checkfolderempty(nothing, &empty), 0);
  EXPECT_TRUE(empty);
  void* const listing = tnw_findfirst(drive_.drive, "\\d", &entry, "lister", &err);
  for (ox_u64 i = 0; i < COUNT; i++) {
    ASSERT_EQ(err, 0);
    ASSERT_EQ(entry.fi_size, i);
    err = tnw_findnext(listing, &entry);
  }
  EXPECT_EQ(err, ERROR_NO_MORE_FILES);
  EXPECT_EQ(entry.fi_size, 0u) << "cleared before the end is tested";
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_DENUM), 2u);
  EXPECT_EQ(tnw_checkfolderempty(listing, &empty), 0);
  EXPECT_FALSE(empty);
  EXPECT_EQ(log.count("TNV_OP_WIN_FINDNEXT"), COUNT - 1) << "none at the end";
  EXPECT_EQ(log.count("TNV_OP_WIN_FOLDEREMPTY"), 1u) << "none of an empty folder";
  drive_.peer->on_request(ScriptedPeer::answer_success);
  EXPECT_EQ(tnw_findclose(listing), 0);
  EXPECT_EQ(drive_.peer->requests().back().msg().u.wclose.wclose_id.id[15], 9);
}
