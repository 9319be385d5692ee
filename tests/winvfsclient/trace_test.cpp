#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "line_mask.h"
#include "log_capture.h"
#include "ox_time.h"
#include "tnv_log.h"
#include "tnw_log.h"

namespace {

using Texts = std::vector<std::string>;

/* ------------------------------------------------------------------- what is traced */

void set_id(cfs_id_t& id, int byte) { memset(id.id, byte, sizeof(id.id)); }

tnvfso some_fso() {
  tnvfso fso = {};
  set_id(fso.fso_handle, 0x1A);
  set_id(fso.fso_phandle, 0x2B);
  set_id(fso.fso_version, 0x3C);
  set_id(fso.fso_pversion, 0x4D);
  fso.fso_isdir = 1;
  fso.fso_state = 7;
  fso.fso_pstate = 8;
  fso.fso_seqno = 1ull << 40;
  return fso;
}

/* Ids as texts, and what some_fso renders as. */
// clang-format off
#define ID(x) x x x x "-" x x "-" x x "-" x x "-" x x x x x x
#define FSO                                                                              \
  ", \"fso\":{\"id\":\"" ID("1a") "\", \"pfid\":\"" ID("2b") "\", \"eid\":\"" ID("3c")   \
  "\", \"peid\": \"" ID("4d") "\", \"fsostate\":7, \"pfsostate\":8, \"isdir\":1, "           \
  "\"fsoseqno\":1099511627776}"
#define FROM "drive_id " ID("dd") ", proc_name notepad.exe)"
// clang-format on

/* A request in a block of exactly its size, so that a sanitizer sees every byte read behind it. */
class Request {
 public:
  explicit Request(ox_u32 opcode, const std::string& trailing = "")
      : bytes_(TNV_MSG_FIXED + trailing.size()) {
    memcpy(bytes_.data() + TNV_MSG_FIXED, trailing.data(), trailing.size());
    msg()->hdr.hdr_opcode = opcode;
    msg()->hdr.hdr_len = static_cast<ox_u32>(bytes_.size());
    set_id(msg()->hdr.hdr_id, 0xAA);
    set_id(msg()->hdr.hdr_drvid, 0xDD);
    strcpy(msg()->hdr.hdr_procname, "notepad.exe");
  }
  tnv_msg* msg() { return reinterpret_cast<tnv_msg*>(bytes_.data()); }

 private:
  std::vector<char> bytes_;
};

tnv_resp response(ox_u32 opcode, ox_u32 err = 0) {
  tnv_resp resp = {};
  set_id(resp.rhdr.rhdr_id, 0xAA);
  resp.rhdr.rhdr_opcode = opcode;
  resp.rhdr.rhdr_errno = err;
  resp.rhdr.rhdr_len = 11;
  return resp;
}

std::string nul(const char* text) { return std::string(text) + '\0'; }
std::string pointer(ox_u64 value) {
  char text[32];
  snprintf(text, sizeof(text), "%p", reinterpret_cast<void*>(value));
  return text;
}

class Trace : public testing::Test {
 protected:
  Trace() {
    vh_.vfs_fd = 7;
    strcpy(vh_.vfs_rhost, "PC");
    strcpy(vh_.vfs_user, "joe");
    strcpy(vh_.vfs_da_devid, "device");
    vh_.vfs_share_path = share_;
    vh_.vfs_peer_handle = reinterpret_cast<void*>(0xBEEF);
    vh_.vfs_peer_tid = 99;
    tnw_note_utxid(&vh_, 5);
    ox_clock_gettime(0, &vh_.vfs_curmsg_ts);
  }
  ~Trace() override {
    ox_debug = 1;
    ox_logfunc = nullptr;
  }

  std::string connection() {
    return R"("vfs_server_handle":")" + pointer(reinterpret_cast<ox_u64>(&vh_)) +
           R"(", "vfs_socket_fd":7, "remote_host":"PC", "vfs_user":"joe", )"
           R"("vfs_share_path":"/share", "vfs_peer_handle":")" +
           pointer(0xBEEF) + R"(", "vfs_peer_thread":"0x99", "vfs_da_device_id":"device", )";
  }
  static std::string source(const std::string& level, const std::string& file) {
    return R"("asctime":"TIME", "level":")" + level + R"(", "filename":")" + file +
           R"(", "line":LINE, )";
  }
  Texts lines() const {
    Texts found;
    for (const std::string& line : log_.lines()) {
      found.push_back(masked(line));
    }
    return found;
  }
  void trace(tnv_msg* msg, const tnv_resp& resp) {
    tnv_log_msg(&vh_, msg);
    tnv_log_resp(&vh_, msg, &resp);
  }
  /* At level 3, the request's text and what the event says behind its name. */
  void expect_trace(Request& request, const tnv_resp& resp, const std::string& text,
                    const std::string& event) {
    const size_t before = lines().size();
    ox_debug = 3;
    trace(request.msg(), resp);
    const Texts found = lines();
    ASSERT_EQ(found.size(), before + 3);
    EXPECT_EQ(found[before], "[TIME] DEBU-03 tnv_log_win.:LINE " + text);
    EXPECT_EQ(found[before + 1], "[TIME] DEBU-03  tnv_log.cpp:LINE id " ID("aa") ", opcode " +
                                     std::to_string(resp.rhdr.rhdr_opcode) + ", len 11, errno " +
                                     std::to_string(resp.rhdr.rhdr_errno));
    const bool drive = resp.rhdr.rhdr_opcode != TNV_OP_WIN_SETPROXY;
    EXPECT_EQ(
        found[before + 2],
        "{" + source("DEBUG", "tnv_log_win.cpp") + connection() +
            R"("vfs_msg_id":")" ID("aa") R"(", )" +
            (drive ? R"("vfs_drive_id":")" ID("dd") R"(", "vfs_proc_name":"notepad.exe", )" : "") +
            R"("vfs_response_time":USECS, "utxid":5, "vfs_event_name":)" + event);
  }

  char share_[8] = "/share";
  vfs_handle vh_ = {};
  const LogCapture log_;
};

/* ------------------------------------------------------------------- operations */

TEST_F(Trace, OpenShowsWhatWasOpened) {
  Request request(TNV_OP_WIN_OPEN, nul("a\\b"));
  request.msg()->u.wopen = {3, 4, 0, 7, 0x1F, 2, 0x40, 0};
  tnv_resp resp = response(TNV_OP_WIN_OPEN, 183);
  resp.u.wopen.wopen_resp_region_shift = 20;
  resp.u.wopen.wopen_resp_rmap_size = 1ull << 33;
  resp.u.wopen.wopen_resp_dmap_size = 5;
  resp.u.wopen.wopen_resp_tnflags = 6;
  resp.u.wopen.wopen_resp_fso = some_fso();
  resp.u.wopen.wopen_resp_handle = 0x1234;
  expect_trace(
      request, resp,
      "Message: open(clfd 3, fname a\\b, accmode 0x1f, shmode 0x7, cdisp = 0x2, flags 0x40, "
      "len 4, " FROM,
      R"("TNV_OP_WIN_OPEN", "vfs_errno":183, "vfs_args":{"fd":3, "file_fd":")" + pointer(0x1234) +
          R"(", "filename":"a\b", "region_shift":20, "rmap_size":8589934592, "dmap_size":5, )"
          R"("accmode":"0x1f", "shmode":"0x7", "cdisp":"0x2", "flags":"0x40", "tnflags":"0x6"})" FSO
          "}");
}

TEST_F(Trace, StatShowsTheEntry) {
  Request request(TNV_OP_WIN_STAT, nul("a"));
  request.msg()->u.wstat.wstat_path_len = 2;
  tnv_resp resp = response(TNV_OP_WIN_STAT);
  tnw_fileinfo& fi = resp.u.wstat.wstat_fi;
  fi.fi_attr = 0x10;
  fi.fi_ctime = 1;
  fi.fi_mtime = 2;
  fi.fi_atime = 3;
  fi.fi_size = 1ull << 63;
  fi.fi_locked = 0xFF;
  fi.fi_lockowner.lk_uid = 9;
  memset(fi.fi_lockowner.lk_uname, 'o', sizeof(fi.fi_lockowner.lk_uname));
  strcpy(fi.fi_name, "a");
  expect_trace(request, resp, "Message: stat(path a, len 2, " FROM,
               R"("TNV_OP_WIN_STAT", "vfs_errno":0, "vfs_args":{"path":"a"}, )"
               R"("finfo":{"fi_attr":"0x10", "fi_ctime":1, "fi_mtime":2, "fi_atime":3, )"
               R"("fi_size":9223372036854775808, "fi_locked":1, "fi_ownid":9, "fi_owner":")" +
                   std::string(64, 'o') + R"(", "fi_name":"a"}})");
}

/* Every operation's own lines: golden_test of the whole client. */
TEST_F(Trace, WhatIsNoOperationHasNoLines) {
  ox_debug = 2;
  for (const ox_u32 opcode : {ox_u32{TNV_OP_WIN_DISCONNECT}, ox_u32{TNV_OP_MAX}, 0xFFFFFFFF}) {
    trace(Request(opcode).msg(), response(opcode));
  }
  EXPECT_EQ(lines(), Texts());
}

TEST_F(Trace, CloseAndCleanupShowTheTargetPath) {
  vh_.vfs_target_path = "C:\\cache\\file";
  ox_debug = 2;
  for (const ox_u32 opcode : {TNV_OP_WIN_CLOSE, TNV_OP_WIN_CLEANUP}) {
    trace(Request(opcode).msg(), response(opcode));
  }
  EXPECT_NE(lines().at(0).find(" Message: close(path C:\\cache\\file, "), std::string::npos);
  EXPECT_NE(lines().at(2).find(" Message: cleanup(path C:\\cache\\file, "), std::string::npos);
}

TEST_F(Trace, LevelsAndTransactionIdsDecide) {
  Request request(TNV_OP_SHUTDOWN);
  const tnv_resp resp = response(TNV_OP_SHUTDOWN);
  trace(request.msg(), resp);
  ASSERT_EQ(lines().size(), 1u); /* the event alone */
  tnw_note_utxid(&vh_, 0);
  trace(request.msg(), resp);
  EXPECT_EQ(lines().size(), 1u);
  ox_debug = 2;
  trace(request.msg(), resp);
  ASSERT_EQ(lines().size(), 2u);
  EXPECT_EQ(lines()[1], "[TIME] DEBU-02 tnv_log_win.:LINE Message: shutdown");
}

TEST_F(Trace, ACallbackPrefixesTheRequestButNotTheEvent) {
  ox_debug = 3;
  ox_logfunc = [](const char* file, const char* level, ox_s32, ox_s32, const ox_alert_t*) {
    static thread_local std::string prefix;
    prefix = std::string(level) + " " + file + " ";
    return prefix.c_str();
  };
  trace(Request(TNV_OP_SHUTDOWN).msg(), response(TNV_OP_SHUTDOWN));
  const Texts found = lines();
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0], R"({DEBUG tnv_log_win.cpp "Message: shutdown"})");
  EXPECT_EQ(found[1], R"({DEBUG tnv_log.cpp "id )" ID("aa") R"(, opcode 17, len 11, errno 0"})");
  EXPECT_TRUE(found[2].starts_with("{\"asctime\"")) << found[2];
}

/* Lengths lie and texts have no end: nothing is read outside the fields and hdr_len. */
TEST_F(Trace, NothingOutsideAMessageIsRead) {
  std::mt19937 random(1);
  ox_debug = 3;
  const auto lie = [&] {
    const ox_s32 lies[] = {-1, 0, 1, 3, 4, 5, 100, INT32_MAX, INT32_MIN};
    return lies[random() % std::size(lies)];
  };
  const auto any_opcode = [&] { return static_cast<ox_u32>(random() % TNV_OP_MAX); };
  for (int i = 0; i < 2000; i++) {
    const size_t size = random() % 6;
    Request request(0, std::string(size, 'x') + ((i % 2) != 0 ? std::string("SECRET") : ""));
    tnv_resp resp;
    memset(&resp, 'r', sizeof(resp));
    memset(request.msg()->u.bytes, 'q', sizeof(request.msg()->u.bytes));
    for (int field = 0; field < 3; field++) {
      const ox_s32 value = lie();
      memcpy(request.msg()->u.bytes + 4 * field, &value, sizeof(value));
    }
    tnv_msghdr& hdr = request.msg()->hdr;
    hdr.hdr_opcode = any_opcode();
    hdr.hdr_len = static_cast<ox_u32>(random() % 8 == 0 ? random() % 504 : 504 + size);
    memset(hdr.hdr_procname, 'n', sizeof(hdr.hdr_procname));
    resp.rhdr.rhdr_opcode = any_opcode(); /* as the peer likes */
    trace(request.msg(), resp);
  }
  const std::string content = log_.content();
  EXPECT_EQ(content.find("SECRET"), std::string::npos);
  EXPECT_NE(content.find("proc_name " + std::string(32, 'n') + ")"), std::string::npos);
  EXPECT_EQ(content.find(std::string(33, 'n')), std::string::npos);
}

/* ------------------------------------------------------------------- prefixes */

TEST_F(Trace, ClientPrefix) {
  EXPECT_EQ(masked(tnw_log_prefix(nullptr, "tnw_init.cpp", "INFO", 12, 0, nullptr)),
            source("INFO", "tnw_init.cpp") + "\"message\":");
  const ox_alert_t alert = {"disk full", 3, true};
  EXPECT_EQ(
      masked(tnw_log_prefix(&vh_, "a.cpp", "ERROR", 12, 133, &alert)),
      source("ERROR", "a.cpp") +
          R"("errno":133, "alert_level":3, "alert_reason":"disk full", "alert_ticket":true, )" +
          connection() + "\"message\":");

  memset(vh_.vfs_rhost, 'h', sizeof(vh_.vfs_rhost));
  memset(vh_.vfs_user, 'u', sizeof(vh_.vfs_user));
  memset(vh_.vfs_da_devid, 'd', sizeof(vh_.vfs_da_devid));
  vh_.vfs_share_path = nullptr;
  const std::string full = tnw_log_prefix(&vh_, "f.cpp", "INFO", 1, 0, nullptr);
  EXPECT_NE(full.find("\"remote_host\":\"" + std::string(128, 'h') + "\", "), std::string::npos);
  EXPECT_NE(full.find("\"vfs_user\":\"" + std::string(128, 'u') + "\", "), std::string::npos);
  EXPECT_NE(full.find("\"" + std::string(37, 'd') + "\", \"message\":"), std::string::npos);
}

TEST_F(Trace, PiecesOfAPrefixAreCutToWhatIsLeft) {
  const tnv_msghdr hdr = Request(TNV_OP_WIN_STAT).msg()->hdr;
  const std::function<int(char*, int*)> pieces[] = {
      [&](char* at, int* left) {
        return tn_common_log_prefix(at, left, "f.cpp", "INFO", 1, 2, nullptr);
      },
      [&](char* at, int* left) { return tnv_log_prefix(&vh_, left, at); },
      [&](char* at, int* left) { return tnv_log_msg_hdr(&hdr, left, at); }};
  for (const auto& piece : pieces) {
    char whole[600];
    int left = sizeof(whole);
    const int length = piece(whole, &left);
    EXPECT_EQ(static_cast<size_t>(length), strlen(whole));
    for (int capacity = 0; capacity <= length + 1; capacity++) {
      std::vector<char> cut(static_cast<size_t>(capacity) + 1, '#');
      left = capacity;
      const int written = piece(cut.data(), &left);
      ASSERT_EQ(written, std::max(capacity - 1, 0));
      ASSERT_EQ(left, capacity - written);
      ASSERT_EQ(cut.back(), '#');
      ASSERT_TRUE(capacity == 0 || strlen(cut.data()) == static_cast<size_t>(written));
    }
  }
}

TEST_F(Trace, ALongSharePathCutsThePrefixAndTheEvent) {
  std::string share(4000, 's');
  vh_.vfs_share_path = share.data();
  EXPECT_EQ(strlen(tnw_log_prefix(&vh_, "f.cpp", "INFO", 1, 0, nullptr)), 2047u);
  trace(Request(TNV_OP_SHUTDOWN).msg(), response(TNV_OP_SHUTDOWN));
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(log_.lines()[0].size(), 1 + 1023 + strlen(", \"vfs_args\":{}}"));
}

/* One connection's requests with a long path; every line shows one thread's letter. */
void trace_as(char letter, vfs_handle vh) {
  vh.vfs_user[0] = letter;
  vh.vfs_user[1] = '\0';
  Request request(TNV_OP_WIN_STAT, nul(std::string(3000, letter).c_str()));
  request.msg()->u.wstat.wstat_path_len = 3001;
  tnv_resp resp = response(TNV_OP_WIN_STAT);
  memset(resp.u.wstat.wstat_fi.fi_name, letter, sizeof(resp.u.wstat.wstat_fi.fi_name));
  for (int i = 0; i < 100; i++) {
    tnv_log_msg(&vh, request.msg());
    tnv_log_resp(&vh, request.msg(), &resp);
  }
}

TEST_F(Trace, NoLineOfEightThreadsIsTornOrMixed) {
  ox_debug = 2;
  std::vector<std::thread> threads;
  for (char letter = 'A'; letter <= 'H'; letter++) {
    threads.emplace_back(trace_as, letter, vh_);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::map<std::string, int> found;
  for (const std::string& line : log_.lines()) {
    const size_t at = line.find(R"("vfs_user":")");
    const bool event = at != std::string::npos;
    const char letter = event ? line[at + 12] : line[line.find("path ") + 5];
    const std::string path = (event ? "\"path\":\"" : "path ") + std::string(3000, letter);
    const bool whole = line.find(path) != std::string::npos &&
                       line.ends_with(event ? std::string(245, letter) + "\"}}" : "notepad.exe)");
    found[whole ? std::string(1, letter) + (event ? " event" : " request") : line]++;
  }
  EXPECT_EQ(found.size(), 16u) << testing::PrintToString(found);
  for (const auto& [line, count] : found) {
    EXPECT_EQ(count, 100) << line;
  }
}

/* ------------------------------------------------------------------- events */

TEST_F(Trace, CallsThatTheClientAnswers) {
  tnvfd fde = {};
  fde.fdt_fd = 3;
  fde.fdt_fso = some_fso();
  timespec start;
  ox_clock_gettime(0, &start);
  for (const ox_u64 utxid : {0, 5}) {
    tnw_note_utxid(&vh_, utxid);
    vh_.vfs_utxid = 0; /* a send clears it, and its answer is still to come */
    errno = 41;
    tnw_log_read_client_resp(&vh_, &fde, -1, 4096, 0, &start);
    tnw_log_write_client_resp(&vh_, &fde, 80, 50, -1, &start);
    tnw_log_client_response(&vh_, "E", nullptr, 0, nullptr, &start);
  }
  const auto event = [&](const char* file, const char* name, const char* result) {
    return "{" + source("DEBUG", file) + connection() +
           R"("vfs_response_time":USECS, "vfs_event_name":")" + name + R"(", "retval":)" + result;
  };
  const std::string ids = R"(, "vfs_args":{"fd":3, "id":")" ID("1a") R"(", "eid":")" ID("3c") "\"";
  const Texts expected = {
      event("tnw_log.cpp", "TNV_OP_WIN_READ", R"(0, "vfs_errno":0)") + FSO + ids +
          R"(, "offset":-1, "size":4096}})",
      event("tnw_log.cpp", "TNV_OP_WIN_WRITE", R"(18446744073709551615, "vfs_errno":41)") + FSO +
          ids + R"(, "offset":80, "size":50}})",
      event("trace_test.cpp", "E", R"(0, "vfs_errno":0)") + "}"};
  EXPECT_EQ(lines(), expected);
}

}  // namespace
