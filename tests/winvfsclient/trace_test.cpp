/*
 * The pieces of traces, prefixes and events: what golden_test of the whole client cannot see, since
 * it masks what differs from run to run, and what no sound service sends.
 */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "line_mask.h"
#include "log_capture.h"
#include "ox_time.h"
#include "tnv_log.h"
#include "tnw_log.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/* A request in a block of exactly its size, so that a sanitizer sees every byte read behind it. */
class Request {
 public:
  explicit Request(ox_u32 opcode, const std::string& trailing = "")
      : bytes_(TNV_MSG_FIXED + trailing.size()) {
    memcpy(bytes_.data() + TNV_MSG_FIXED, trailing.data(), trailing.size());
    msg()->hdr.hdr_opcode = opcode;
    msg()->hdr.hdr_len = static_cast<ox_u32>(bytes_.size());
    strcpy(msg()->hdr.hdr_procname, "notepad.exe");
  }
  tnv_msg* msg() { return reinterpret_cast<tnv_msg*>(bytes_.data()); }

 private:
  std::vector<char> bytes_;
};

tnv_resp response(ox_u32 opcode) {
  tnv_resp resp = {};
  resp.rhdr.rhdr_opcode = opcode;
  resp.rhdr.rhdr_len = 11;
  return resp;
}

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
  void trace(tnv_msg* msg, const tnv_resp& resp) {
    tnv_log_msg(&vh_, msg);
    tnv_log_resp(&vh_, msg, &resp);
  }

  char share_[8] = "/share";
  vfs_handle vh_ = {};
  const LogCapture log_;
};

/* ------------------------------------------------------------------- traces */

/* Where the session of golden_test has zeros or equal values. */
TEST_F(Trace, EveryFieldIsInItsPlace) {
  tnv_resp opened = response(TNV_OP_WIN_OPEN);
  opened.u.wopen.wopen_resp_rmap_size = 1ull << 33;
  opened.u.wopen.wopen_resp_dmap_size = 5;
  tnvfso& fso = opened.u.wopen.wopen_resp_fso;
  fso.fso_state = 7;
  fso.fso_pstate = 8;
  fso.fso_seqno = 1ull << 40;
  trace(Request(TNV_OP_WIN_OPEN).msg(), opened);
  tnv_resp status = response(TNV_OP_WIN_STAT);
  tnw_fileinfo& fi = status.u.wstat.wstat_fi;
  fi.fi_ctime = 1;
  fi.fi_mtime = 2;
  fi.fi_atime = 3;
  fi.fi_locked = 0xFF;
  fi.fi_lockowner.lk_uid = 9;
  memset(fi.fi_lockowner.lk_uname, 'o', sizeof(fi.fi_lockowner.lk_uname));
  trace(Request(TNV_OP_WIN_STAT).msg(), status);
  EXPECT_THAT(log_.lines(),
              ElementsAre(AllOf(HasSubstr("\"rmap_size\":8589934592, \"dmap_size\":5, "),
                                HasSubstr("\"fsostate\":7, \"pfsostate\":8, \"isdir\":0, "
                                          "\"fsoseqno\":1099511627776}")),
                          HasSubstr(R"("fi_ctime":1, "fi_mtime":2, "fi_atime":3, "fi_size":0, )"
                                    R"("fi_locked":1, "fi_ownid":9, "fi_owner":")" +
                                    std::string(64, 'o') + "\"")));
}

TEST_F(Trace, LevelsTransactionIdsAndCallbacksDecide) {
  vh_.vfs_target_path = "C:\\cache\\file";
  Request close(TNV_OP_WIN_CLOSE);
  for (const ox_u64 utxid : {5, 0}) {
    tnw_note_utxid(&vh_, utxid);
    trace(close.msg(), response(TNV_OP_WIN_CLOSE)); /* an event, and none */
  }
  ox_debug = 2;
  for (const ox_u32 opcode : {ox_u32{TNV_OP_WIN_DISCONNECT}, ox_u32{TNV_OP_MAX}, 0xFFFFFFFF}) {
    trace(Request(opcode).msg(), response(opcode)); /* nothing, for these are no operations */
  }
  trace(close.msg(), response(TNV_OP_WIN_CLOSE));
  trace(Request(TNV_OP_WIN_CLEANUP).msg(), response(TNV_OP_WIN_CLEANUP));
  ox_debug = 3;
  tnw_note_utxid(&vh_, 5);
  ox_logfunc = [](const char* file, const char* level, ox_s32, ox_s32, const ox_alert_t*) {
    static thread_local std::string prefix;
    prefix = std::string(level) + " " + file + " ";
    return prefix.c_str();
  };
  trace(Request(TNV_OP_SHUTDOWN).msg(), response(TNV_OP_SHUTDOWN));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(HasSubstr(R"("filename":"C:\cache\file"})"), HasSubstr(" DEBU-02 tnv_log_win.:"),
                  HasSubstr("cleanup(path C:\\cache\\file, "),
                  R"({DEBUG tnv_log_win.cpp "Message: shutdown"})",
                  R"({DEBUG tnv_log.cpp "id 00000000-0000-0000-0000-000000000000, )"
                  R"(opcode 17, len 11, errno 0"})",
                  StartsWith("{\"asctime\"")));
  EXPECT_EQ(log_.count(" Message: close(path C:\\cache\\file, "), 1u);
}

/* Lengths lie and texts have no end: nothing is read outside the fields and hdr_len. */
TEST_F(Trace, NothingOutsideAMessageIsRead) {
  std::mt19937 random(1);
  ox_debug = 3;
  const ox_s32 lies[] = {-1, 0, 1, 3, 4, 5, 100, INT32_MAX, INT32_MIN};
  for (int i = 0; i < 2000; i++) {
    const size_t size = random() % 6;
    Request request(0, std::string(size, 'x') + (i % 2 != 0 ? "SECRET" : ""));
    tnv_resp resp;
    memset(&resp, 'r', sizeof(resp));
    memset(request.msg()->u.bytes, 'q', sizeof(request.msg()->u.bytes));
    for (int field = 0; field < 3; field++) {
      memcpy(request.msg()->u.bytes + 4 * field, &lies[random() % std::size(lies)], 4);
    }
    tnv_msghdr& hdr = request.msg()->hdr;
    hdr.hdr_opcode = static_cast<ox_u32>(random() % TNV_OP_MAX);
    hdr.hdr_len = static_cast<ox_u32>(random() % 8 == 0 ? random() % 504 : 504 + size);
    memset(hdr.hdr_procname, 'n', sizeof(hdr.hdr_procname));
    resp.rhdr.rhdr_opcode = static_cast<ox_u32>(random() % TNV_OP_MAX); /* as the peer likes */
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
            R"("asctime":"TIME", "level":"INFO", "filename":"tnw_init.cpp", "line":LINE, )"
            "\"message\":");
  const ox_alert_t alert = {"disk full", 3, true};
  EXPECT_EQ(masked(tnw_log_prefix(&vh_, "a.cpp", "ERROR", 12, 133, &alert)),
            R"("asctime":"TIME", "level":"ERROR", "filename":"a.cpp", "line":LINE, "errno":133, )"
            R"("alert_level":3, "alert_reason":"disk full", "alert_ticket":true, )"
            R"("vfs_server_handle":")" +
                pointer(reinterpret_cast<ox_u64>(&vh_)) +
                R"(", "vfs_socket_fd":7, "remote_host":"PC", "vfs_user":"joe", )"
                R"("vfs_share_path":"/share", "vfs_peer_handle":")" +
                pointer(0xBEEF) +
                R"(", "vfs_peer_thread":"0x99", "vfs_da_device_id":"device", "message":)");

  memset(vh_.vfs_rhost, 'h', sizeof(vh_.vfs_rhost));
  memset(vh_.vfs_user, 'u', sizeof(vh_.vfs_user));
  memset(vh_.vfs_da_devid, 'd', sizeof(vh_.vfs_da_devid));
  vh_.vfs_share_path = nullptr;
  EXPECT_THAT(tnw_log_prefix(&vh_, "f.cpp", "INFO", 1, 0, nullptr),
              AllOf(HasSubstr("\"remote_host\":\"" + std::string(128, 'h') + "\", \"vfs_user\":\"" +
                              std::string(128, 'u') + "\", "),
                    EndsWith("\"" + std::string(37, 'd') + "\", \"message\":")));
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

/* ------------------------------------------------------------------- threads */

/* One connection's requests with a long path; every line shows one thread's letter. */
void trace_as(char letter, vfs_handle vh) {
  vh.vfs_user[0] = letter;
  vh.vfs_user[1] = '\0';
  Request request(TNV_OP_WIN_STAT, std::string(3000, letter) + '\0');
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
  std::vector<std::jthread> threads;
  for (char letter = 'A'; letter <= 'H'; letter++) {
    threads.emplace_back(trace_as, letter, vh_);
  }
  threads.clear();
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

}  // namespace
