#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../oxley/captured_log.h"
#include "ox_util.h"
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
  Request(ox_u32 opcode, const std::string& trailing = "")
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

/* One operation: how its records are filled, and what they leave in the log. */
struct Operation {
  const char* name;
  ox_u32 opcode;
  std::string trailing;
  std::function<void(tnv_msg&, tnv_resp&)> fill;
  std::string request; /* empty: no line */
  std::string event;   /* everything from the name of the event on */
};

void fill_end(tnv_wclose_msg& m) {
  m = {};
  m.wclose_fd = 3;
  m.wclose_fso = some_fso();
  m.wclose_oamode = 0x1F;
  m.wclose_oshmode = 7;
  m.wclose_oflags = 0x40;
  m.wclose_tnflags = 0xE;
  set_id(m.wclose_omsgid, 0x5E);
}

void fill_version(ox_get_version_t& v) {
  strcpy(v.gv_version, "1.2.3");
  strcpy(v.gv_git_hash, "abc");
  strcpy(v.gv_host, "pc");
  strcpy(v.gv_mode, "vfs");
  strcpy(v.gv_state, "up");
  strcpy(v.gv_status, "ok");
  strcpy(v.gv_build_date, "today");
  strcpy(v.gv_build_host, "farm");
  strcpy(v.gv_build_os, "nt");
  strcpy(v.gv_build_user, "me");
  memcpy(v.gv_build_type, "release!", 8); /* full: no NUL */
  strcpy(v.gv_device_id, "dev1");
  strcpy(v.gv_da_device_id, "dev2");
  v.gv_vfs_enabled = 1;
  v.gv_rest_enabled = 2; /* the lowest bit counts */
  v.gv_authorized = 3;
  v.gv_process_id = 4242;
  strcpy(v.gv_tn_args.sa_addr, "addr");
  strcpy(v.gv_tn_args.sa_user, "joe");
  strcpy(v.gv_tn_args.sa_cfs, "cfs");
  strcpy(v.gv_tn_args.sa_logfile, "log");
  v.gv_tn_args.sa_cfver = 1;
  v.gv_tn_args.sa_recovery = 2;
  v.gv_tn_args.sa_vfs = 3;
  v.gv_tn_args.sa_smb = 4;
  v.gv_tn_args.sa_pauseinit = 5;
}

std::string nul(const char* text) { return std::string(text) + '\0'; }
std::string pointer(ox_u64 value) {
  char text[32];
  snprintf(text, sizeof(text), "%p", reinterpret_cast<void*>(value));
  return text;
}

std::vector<Operation> operations() {
  return {
      {"connect", TNV_OP_WIN_CONNECT, nul("/share"),
       [](tnv_msg& m, tnv_resp&) {
         m.u.wconn.wconmsg_share_path_len = 7;
         m.u.wconn.wconmsg_pid = 4000000000;
         strcpy(m.u.wconn.wconmsg_user, "joe");
         strcpy(m.u.wconn.wconmsg_cache_dir, "C:\\cache");
         strcpy(m.u.wconn.wconmsg_rhost, "PC");
       },
       "Message: connect(share_path /share, user joe, cache_dir C:\\cache, remote_host PC, "
       "remote_pid 4000000000, drive_id " ID("dd") ")",
       R"("TNV_OP_WIN_CONNECT", "vfs_errno":0, "vfs_args":{"vfs_user":"joe", "vfs_rhost":"PC",)"
       R"("cache_dir":"C:\cache", "share_dir":"/share"}})"},
      {"disconnect", TNV_OP_WIN_DISCONNECT, "", [](tnv_msg&, tnv_resp&) {}, "", ""},
      {"open", TNV_OP_WIN_OPEN, nul("a\\b"),
       [](tnv_msg& m, tnv_resp& r) {
         m.u.wopen = {3, 4, 0, 7, 0x1F, 2, 0x40, 0};
         r.u.wopen.wopen_resp_region_shift = 20;
         r.u.wopen.wopen_resp_rmap_size = 1ull << 33;
         r.u.wopen.wopen_resp_dmap_size = 5;
         r.u.wopen.wopen_resp_tnflags = 6;
         r.u.wopen.wopen_resp_fso = some_fso();
         r.u.wopen.wopen_resp_handle = 0x1234;
         r.rhdr.rhdr_errno = 183;
       },
       "Message: open(clfd 3, fname a\\b, accmode 0x1f, shmode 0x7, cdisp = 0x2, flags 0x40, "
       "len 4, " FROM,
       R"("TNV_OP_WIN_OPEN", "vfs_errno":183, "vfs_args":{"fd":3, "file_fd":")" + pointer(0x1234) +
           R"(", "filename":"a\b", "region_shift":20, "rmap_size":8589934592, "dmap_size":5, )"
           R"("accmode":"0x1f", "shmode":"0x7", "cdisp":"0x2", "flags":"0x40", "tnflags":"0x6"})" FSO
           "}"},
      {"denum", TNV_OP_WIN_DENUM, nul("a/b"),
       [](tnv_msg& m, tnv_resp& r) {
         m.u.wdenum.wde_pathlen = 4;
         r.u.wdenum.wde_fso = some_fso();
       },
       "Message: direnum(path a/b, len 4, " FROM,
       R"("TNV_OP_WIN_DENUM", "vfs_errno":0, "vfs_args":{"path":"a/b"})" FSO "}"},
      {"stat", TNV_OP_WIN_STAT, nul("a"),
       [](tnv_msg& m, tnv_resp& r) {
         m.u.wstat.wstat_path_len = 2;
         tnw_fileinfo& fi = r.u.wstat.wstat_fi;
         fi.fi_attr = 0x10;
         fi.fi_ctime = 1;
         fi.fi_mtime = 2;
         fi.fi_atime = 3;
         fi.fi_size = 1ull << 63;
         fi.fi_locked = 0xFF;
         fi.fi_lockowner.lk_uid = 9;
         memset(fi.fi_lockowner.lk_uname, 'o', sizeof(fi.fi_lockowner.lk_uname));
         strcpy(fi.fi_name, "a");
       },
       "Message: stat(path a, len 2, " FROM,
       R"("TNV_OP_WIN_STAT", "vfs_errno":0, "vfs_args":{"path":"a"}, "finfo":{"fi_attr":"0x10", )"
       R"("fi_ctime":1, "fi_mtime":2, "fi_atime":3, "fi_size":9223372036854775808, )"
       R"("fi_locked":1, "fi_ownid":9, "fi_owner":")" +
           std::string(64, 'o') + R"(", "fi_name":"a"}})"},
      {"close", TNV_OP_WIN_CLOSE, "", [](tnv_msg& m, tnv_resp&) { fill_end(m.u.wclose); },
       "Message: close(path [unknown], fd 3, id " ID("1a") ", eid " ID("3c") ", pfid " ID(
           "2b") ", fsostate 7, accmode 0x1f, shmode 0x7, flags 0x40, tnflags 0xe, " FROM,
       R"("TNV_OP_WIN_CLOSE", "vfs_errno":0, "vfs_args":{"fd":3, "id":")" ID(
           "1a") R"(", "accmode":"0x1f", "shmode":"0x7", "flags":"0x40", "tnflags":"0xe", )"
                 R"("open_msgid":")" ID("5e") R"(", "filename":"[unknown]"})" FSO "}"},
      {"rename", TNV_OP_WIN_RENAME, nul("a") + nul("bc"),
       [](tnv_msg& m, tnv_resp&) {
         m.u.wrename = {1, 2};
       },
       "Message: rename(srcpath a, dstpath bc slen 2 dlen 3, " FROM,
       R"("TNV_OP_WIN_RENAME", "vfs_errno":0, "vfs_args":{"src_path":"a", "dst_path":"bc"}})"},
      {"candelete", TNV_OP_WIN_CANDELETE, nul("a"),
       [](tnv_msg& m, tnv_resp&) { m.u.wcandelete.wcandelete_msg_plen = 1; },
       "Message: candelete(path a, len 2, drive_id " ID("dd") ")",
       R"("TNV_OP_WIN_CANDELETE", "vfs_errno":0, "vfs_args":{"path":"a"}})"},
      {"delete", TNV_OP_WIN_DELETE, nul("a"),
       [](tnv_msg& m, tnv_resp&) { m.u.wdelete.wdelete_msg_plen = 1; },
       "Message: delete(path a, len 2, " FROM,
       R"("TNV_OP_WIN_DELETE", "vfs_errno":0, "vfs_args":{"filename":"a"}})"},
      {"brl", TNV_OP_WIN_BRL, "",
       [](tnv_msg& m, tnv_resp&) {
         m.u.wbrl = {3, 77, 5, 0, 1ull << 63, 2, some_fso(), {}};
         set_id(m.u.wbrl.wbrl_gid, 0x6F);
       },
       "Message: brl(id " ID("6f") ", type 3, off 9223372036854775808, len 2, pid 77, " FROM,
       R"("TNV_OP_WIN_BRL", "vfs_errno":0, "vfs_args":{"id":")" ID(
           "6f") R"(", "off":9223372036854775808, "type":"3", "len":2, "pid":77})" FSO "}"},
      {"cleanup", TNV_OP_WIN_CLEANUP, "", [](tnv_msg& m, tnv_resp&) { fill_end(m.u.wclose); },
       "Message: cleanup(path [unknown], fd 3, id " ID("1a") ", eid " ID("3c") ", pfid " ID(
           "2b") ", fsostate 7, accmode 0x1f, shmode 0x7, flags 0x40, tnflags 0xe, " FROM,
       R"("TNV_OP_WIN_CLEANUP", "vfs_errno":0, "vfs_args":{"fd":3, "id":")" ID(
           "1a") R"(", "accmode":"0x1f", "shmode":"0x7", "flags":"0x40", "tnflags":"0xe", )"
                 R"("open_msgid":")" ID("5e") R"(", "filename":"[unknown]"})" FSO "}"},
      {"setproxy", TNV_OP_WIN_SETPROXY, nul("proxy:1") + nul("joe") + nul("pass"),
       [](tnv_msg& m, tnv_resp&) {
         m.u.wsetproxy = {7, 3, 4};
       },
       "Message: setproxy(proxy_server proxy:1, username joe)",
       R"("TNV_OP_WIN_SETPROXY", "vfs_errno":0, "vfs_args":{"proxy_server":"proxy:1", )"
       R"("proxy_username":"joe"}})"},
      {"cache_region", TNV_OP_CACHE_REGION, "",
       [](tnv_msg& m, tnv_resp& r) {
         m.u.cache_region = {1, {}, 1ull << 40, 6, {}, some_fso()};
         set_id(m.u.cache_region.cache_read_omsgid, 0x5E);
         r.u.cache_region = {1, 2, 3, 0, {}};
       },
       "Message: TNV_OP_CACHE_REGION(id " ID("1a") ", eid " ID("3c") ", pfid " ID(
           "2b") " off 1099511627776 len 6 trunc 1)",
       R"("TNV_OP_CACHE_REGION", "vfs_errno":0, "vfs_args":{"req_coff":1099511627776, )"
       R"("req_clen":6, "resp_coff":1, "resp_clen":2, "resp_fsz":3, "id":")" ID(
           "1a") R"(", "open_msgid":")" ID("5e") R"(", "filename":"[unknown]"})" FSO "}"},
      {"dirty_region", TNV_OP_DIRTY_REGION, "",
       [](tnv_msg& m, tnv_resp&) {
         m.u.dirty_region = {5, 6, {}, some_fso()};
         set_id(m.u.dirty_region.cache_write_omsgid, 0x5E);
       },
       "Message: TNV_OP_DIRTY_REGION(id " ID("1a") ", eid " ID("3c") ", pfid " ID("2b") ")",
       R"("TNV_OP_DIRTY_REGION", "vfs_errno":0, "vfs_args":{"offset":5, "len":6, "id":")" ID(
           "1a") R"(", "open_msgid":")" ID("5e") R"(", "filename":"[unknown]"})" FSO "}"},
      {"ftruncate", TNV_OP_FTRUNCATE, "",
       [](tnv_msg& m, tnv_resp&) {
         m.u.ftruncate = {5, {}, some_fso()};
         set_id(m.u.ftruncate.cache_trunc_omsgid, 0x5E);
       },
       "Message: TNV_OP_FTRUNCATE(id " ID("1a") ", eid " ID("3c") ", pfid " ID("2b") ")",
       R"("TNV_OP_FTRUNCATE", "vfs_errno":0, "vfs_args":{"nfsz":5, "id":")" ID(
           "1a") R"(", "open_msgid":")" ID("5e") R"(", "filename":"[unknown]"})" FSO "}"},
      {"updatetoken", TNV_OP_UPDATETOKEN, nul("t0ken"),
       [](tnv_msg& m, tnv_resp&) { m.u.updatetoken.ut_len = 5; },
       "Token: t0ken of length 5 received for update",
       R"("TNV_OP_UPDATETOKEN", "vfs_errno":0, "vfs_args":{"enc_token":"t0ken"}})"},
      {"get_version", TNV_OP_GET_VERSION, "",
       [](tnv_msg&, tnv_resp& r) { fill_version(r.u.get_version.ver_fields); },
       "Message: get_version",
       R"("TNV_OP_GET_VERSION", "vfs_errno":0, "vfs_args":{"version":"1.2.3", "git_hash":"abc", )"
       R"("host":"pc", "mode":"vfs", "state":"up", "status":"ok", "build_date":"today", )"
       R"("build_host":"farm", "build_os":"nt", "build_user":"me", "build_type":"release!", )"
       R"("device_id":"dev1", "da_device_id":"dev2", "vfs_enabled":1, "rest_enabled":0, )"
       R"("authorized":1, "red_connected":0, "process_id":4242, "tn_args":{"addr":"addr", )"
       R"("user":"joe", "cfs":"cfs", "logfile":"log", "cfver":1, "recovery":2, "vfs":3, )"
       R"("smb":4, "pauseinit":5}}})"},
      {"shutdown", TNV_OP_SHUTDOWN, "", [](tnv_msg&, tnv_resp&) {}, "Message: shutdown",
       R"("TNV_OP_SHUTDOWN", "vfs_errno":0, "vfs_args":{}})"},
      {"unknown", 18, "", [](tnv_msg&, tnv_resp&) {}, "", ""},
      {"far_unknown", 0xFFFFFFFF, "", [](tnv_msg&, tnv_resp&) {}, "", ""},
  };
}

/* ------------------------------------------------------------------- lines */

/* Puts `letter` between the first `lead` at or behind `from`, if there is one, and an `end`. */
void mask(std::string& line, size_t from, const std::string& lead, char end, const char* letter) {
  const size_t found = line.find(lead, from);
  if (found == std::string::npos) return;
  const size_t first = found + lead.size();
  line.replace(first, line.find(end, first) - first, letter);
}

/* What changes from run to run, or with an edit of the source, becomes a letter. */
std::string masked(std::string line) {
  if (line.starts_with('[')) {
    mask(line, 0, "[", ']', "T");
    mask(line, line.find("DEBU-"), ":", ' ', "N");
  }
  mask(line, 0, "\"asctime\":\"", '"', "T");
  mask(line, 0, "\"line\":", ',', "N");
  mask(line, 0, "\"vfs_response_time\":", ',', "T");
  return line;
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
    vh_.vfs_utxid = 5;
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
    return R"("asctime":"T", "level":")" + level + R"(", "filename":")" + file + R"(", "line":N, )";
  }
  Texts lines() const {
    Texts found;
    for (const std::string& line : log_.lines()) found.push_back(masked(line));
    return found;
  }
  void trace(tnv_msg* msg, const tnv_resp& resp) {
    tnv_log_msg(&vh_, msg);
    tnv_log_resp(&vh_, msg, &resp);
  }

  char share_[8] = "/share";
  vfs_handle vh_ = {};
  const captured_log log_;
};

TEST_F(Trace, EveryOperationLeavesItsLines) {
  Texts expected;
  for (const Operation& op : operations()) {
    Request request(op.opcode, op.trailing);
    tnv_resp resp = {};
    op.fill(*request.msg(), resp);
    resp.rhdr.rhdr_opcode = op.opcode;
    resp.rhdr.rhdr_len = 11;
    set_id(resp.rhdr.rhdr_id, 0xAA);
    ox_debug = 3;
    trace(request.msg(), resp);

    if (!op.request.empty()) expected.push_back("[T] DEBU-03 tnv_log_win.:N " + op.request);
    expected.push_back("[T] DEBU-03  tnv_log.cpp:N id " ID("aa") ", opcode " +
                       std::to_string(static_cast<int>(op.opcode)) + ", len 11, errno " +
                       std::to_string(resp.rhdr.rhdr_errno));
    const bool drive = op.opcode != TNV_OP_WIN_SETPROXY;
    if (!op.event.empty()) {
      expected.push_back(
          "{" + source("DEBUG", "tnv_log_win.cpp") + connection() +
          R"("vfs_msg_id":")" ID("aa") R"(", )" +
          (drive ? R"("vfs_drive_id":")" ID("dd") R"(", "vfs_proc_name":"notepad.exe", )" : "") +
          R"("vfs_response_time":T, "utxid":5, "vfs_event_name":)" + op.event);
    }
  }
  const Texts found = lines();
  ASSERT_EQ(found.size(), expected.size());
  for (size_t i = 0; i < found.size(); i++) EXPECT_EQ(found[i], expected[i]);
}

TEST_F(Trace, LevelsAndTransactionIdsDecide) {
  Request request(TNV_OP_SHUTDOWN);
  tnv_resp resp = {};
  resp.rhdr.rhdr_opcode = TNV_OP_SHUTDOWN;
  trace(request.msg(), resp);
  ASSERT_EQ(lines().size(), 1u); /* the event alone */
  vh_.vfs_utxid = 0;
  trace(request.msg(), resp);
  EXPECT_EQ(lines().size(), 1u);
  ox_debug = 2;
  trace(request.msg(), resp);
  ASSERT_EQ(lines().size(), 2u);
  EXPECT_EQ(lines()[1], "[T] DEBU-02 tnv_log_win.:N Message: shutdown");
}

TEST_F(Trace, ACallbackPrefixesTheRequestButNotTheEvent) {
  ox_debug = 3;
  ox_logfunc = [](const char* file, const char* level, ox_s32, ox_s32, const ox_alert_t*) {
    static thread_local std::string prefix;
    prefix = std::string(level) + " " + file + " ";
    return prefix.c_str();
  };
  Request request(TNV_OP_SHUTDOWN);
  tnv_resp resp = {};
  resp.rhdr.rhdr_opcode = TNV_OP_SHUTDOWN;
  trace(request.msg(), resp);
  const Texts found = lines();
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0], R"({DEBUG tnv_log_win.cpp "Message: shutdown"})");
  EXPECT_EQ(found[1], R"({DEBUG tnv_log.cpp "id )" ID("00") R"(, opcode 17, len 0, errno 0"})");
  EXPECT_TRUE(found[2].starts_with("{\"asctime\"")) << found[2];
}

TEST_F(Trace, TheFilesPathComesFromTheConnection) {
  const std::string path(6000, 'p');
  vh_.vfs_target_path = path.c_str();
  ox_debug = 2;
  Request request(TNV_OP_WIN_CLOSE);
  tnv_log_msg(&vh_, request.msg());
  EXPECT_NE(lines()[0].find("close(path ppp"), std::string::npos);

  vh_.vfs_target_path = "C:\\cache\\file";
  tnv_log_msg(&vh_, request.msg());
  EXPECT_NE(lines()[1].find("close(path C:\\cache\\file, fd 0"), std::string::npos);
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
    Request request(0, std::string(size, 'x') + (i % 2 ? std::string("SECRET") : ""));
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

TEST_F(Trace, FullFieldsOfAConnectionEndAtTheirWidth) {
  memset(vh_.vfs_rhost, 'h', sizeof(vh_.vfs_rhost));
  memset(vh_.vfs_user, 'u', sizeof(vh_.vfs_user));
  memset(vh_.vfs_da_devid, 'd', sizeof(vh_.vfs_da_devid));
  vh_.vfs_share_path = nullptr;
  const std::string prefix = masked(tnw_log_prefix(&vh_, "f.cpp", "INFO", 1, 0, nullptr));
  EXPECT_NE(prefix.find("\"remote_host\":\"" + std::string(128, 'h') + "\", "), std::string::npos);
  EXPECT_NE(prefix.find("\"vfs_user\":\"" + std::string(128, 'u') + "\", "), std::string::npos);
  EXPECT_NE(prefix.find("\"" + std::string(37, 'd') + "\", \"message\":"), std::string::npos);
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
  const ox_alert_t quiet = {"", -1, false};
  EXPECT_EQ(masked(tnw_log_prefix(nullptr, "a.cpp", "ALERT", 1, -1, &quiet)),
            source("ALERT", "a.cpp") +
                R"("errno":-1, "alert_level":-1, "alert_reason":"", "alert_ticket":false, )"
                "\"message\":");
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
    EXPECT_EQ(left, static_cast<int>(sizeof(whole)) - length);
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
  Request request(TNV_OP_SHUTDOWN);
  tnv_resp resp = {};
  resp.rhdr.rhdr_opcode = TNV_OP_SHUTDOWN;
  trace(request.msg(), resp);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(log_.lines()[0].size(), 1 + 1023 + strlen(", \"vfs_args\":{}}"));
}

TEST_F(Trace, EveryThreadHasItsOwnTexts) {
  const tnvfso mine = some_fso();
  const tnvfso other = {};
  const char* prefix = tnw_log_prefix(nullptr, "mine.cpp", "INFO", 1, 0, nullptr);
  const char* json = tnv_fso2json(&mine);
  const std::string prefix_before = prefix, json_before = json;
  std::thread([&] {
    tnw_log_prefix(nullptr, "other.cpp", "INFO", 1, 0, nullptr);
    tnv_fso2json(&other);
  }).join();
  EXPECT_EQ(prefix, prefix_before);
  EXPECT_EQ(json, json_before);
}

/* ------------------------------------------------------------------- events */

TEST_F(Trace, AnEventCarriesTheObjectsThatAreGiven) {
  Request request(TNV_OP_SHUTDOWN);
  tnvfso fso = {};
  tnw_fileinfo finfo = {};
  tnv_log_vfs_event(&vh_, request.msg(), nullptr, &fso, nullptr, &finfo, "E", "ARGS", "f.cpp", 1);
  tnv_log_vfs_event(&vh_, request.msg(), nullptr, nullptr, nullptr, nullptr, "E", "ARGS", "f.cpp",
                    1);
  const Texts found = lines();
  ASSERT_EQ(found.size(), 2u);
  const std::string no_response = R"("vfs_event_name":"E", , ARGS)";
  EXPECT_TRUE(found[0].ends_with(no_response + ", " + tnv_fso2json(&fso) + ", " +
                                 tnv_finfo2json(&finfo) + "}"))
      << found[0];
  EXPECT_TRUE(found[1].ends_with(no_response + "}")) << found[1];
}

TEST_F(Trace, CallsThatTheClientAnswers) {
  tnvfd fde = {};
  fde.fdt_fd = 3;
  fde.fdt_fso = some_fso();
  timespec start;
  ox_clock_gettime(0, &start);
  const auto log_all = [&] {
    errno = 41;
    tnw_log_read_client_resp(&vh_, &fde, -1, 4096, 0, &start);
    tnw_log_write_client_resp(&vh_, &fde, 80, 50, -1, &start);
    tnw_log_folderempty_client_resp(&vh_, &fde, true, 0, &start);
    tnw_log_findnext_client_resp(&vh_, &fde, 18, &start);
    tnw_log_setfsize_client_resp(&vh_, &fde, 1ull << 40, 0, &start);
    tnw_log_client_response(&vh_, "E", nullptr, 0, nullptr, &start);
  };
  vh_.vfs_utxid = 0;
  log_all();
  EXPECT_TRUE(lines().empty());
  vh_.vfs_utxid = 5;
  log_all();

  const auto event = [&](const char* file, const char* name, const char* result) {
    return "{" + source("DEBUG", file) + connection() +
           R"("vfs_response_time":T, "vfs_event_name":")" + name + R"(", "retval":)" + result;
  };
  const std::string ids = R"(, "vfs_args":{"fd":3, "id":")" ID("1a") R"(", "eid":")" ID("3c") "\"";
  const Texts expected = {
      event("tnw_log.cpp", "TNV_OP_WIN_READ", R"(0, "vfs_errno":0)") + FSO + ids +
          R"(, "offset":-1, "size":4096}})",
      event("tnw_log.cpp", "TNV_OP_WIN_WRITE", R"(18446744073709551615, "vfs_errno":41)") + FSO +
          ids + R"(, "offset":80, "size":50}})",
      event("tnw_log.cpp", "TNV_OP_WIN_FOLDEREMPTY", R"(0, "vfs_errno":0)") + FSO + ids +
          R"(,"isempty":1}})",
      event("tnw_log.cpp", "TNV_OP_WIN_FINDNEXT", R"(18, "vfs_errno":0)") + FSO + ids + "}}",
      event("tnw_log.cpp", "TNV_OP_WIN_SETFSIZE", R"(0, "vfs_errno":0)") + FSO + ids +
          R"(,"size":1099511627776}})",
      event("trace_test.cpp", "E", R"(0, "vfs_errno":0)") + "}"};
  EXPECT_EQ(lines(), expected);
}

TEST(TraceDeathTest, AStatusRecordHasNoRendering) {
  EXPECT_DEATH(tnv_st2json(nullptr), "\\(\\(0\\)\\)");
}

}  // namespace
