/*
 * The pieces of traces, prefixes and events: what golden_test of the whole client cannot see, since
 * it masks what differs from run to run, and what no sound service sends.
 */
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <regex>
#include <vector>

#include "line_mask.h"
#include "log_capture.h"
#include "ox_logging.h"
#include "ox_time.h"
#include "script.h"
#include "tnv_log.h"
#include "tnw_log.h"
#include "wire_text.h"

namespace {

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

/* As a pattern, however the runtime shows it. */
std::string pointer_text(const void* pointer) {
  char text[32];
  snprintf(text, sizeof(text), "%p", pointer);
  return pointer == nullptr ? "(0+|[(]nil[)])" : text;
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

/* ------------------------------------------------------------------- scripts */

/*
 * Traces and prefixes as a script asks for them, where the session of golden_test has zeros or
 * equal values. Each command is answered with the lines that it left.
 */
class Traces : public Trace, public testing::WithParamInterface<ScriptCase> {
 protected:
  Traces() {
    commands_["trace"] = [this](auto& a) { return traced(wire_opcode(a[0]), a), ""; };
    commands_["trace_opcode"] = [this](auto& a) {
      return traced(static_cast<ox_u32>(a.number(0)), {}), "";
    };
    commands_["utxid"] = [this](auto& a) { return tnw_note_utxid(&vh_, a.number(0)), ""; };
    commands_["debug"] = [](auto& a) { return ox_debug = static_cast<int>(a.number(0)), ""; };
    commands_["target"] = [this](auto& a) {
      return vh_.vfs_target_path = (path_ = a[0]).c_str(), "";
    };
    commands_["own_prefix"] = [](auto&) { return ox_logfunc = own_prefix, ""; };
    commands_["fill_connection"] = [this](auto&) {
      memset(vh_.vfs_rhost, 'h', sizeof vh_.vfs_rhost);
      memset(vh_.vfs_user, 'u', sizeof vh_.vfs_user);
      memset(vh_.vfs_da_devid, 'd', sizeof vh_.vfs_da_devid);
      return vh_.vfs_share_path = nullptr, "";
    };
    /* prefix [connection] [errno=N] [alert] */
    commands_["prefix"] = [this](auto& a) -> std::string {
      static const ox_alert_t ALERT = {"disk full", 3, true};
      return tnw_log_prefix(a.has("connection") ? &vh_ : nullptr, "a.cpp", "ERROR", 12,
                            static_cast<int>(a.option("errno", 0)),
                            a.has("alert") ? &ALERT : nullptr);
    };
  }
  void traced(ox_u32 opcode, const Arguments& a) {
    tnv_resp resp = response(opcode);
    if (opcode < TNV_OP_MAX) {
      put_fields(wire_operation(opcode).response, a.options, resp.u.bytes);
    }
    trace(Request(opcode).msg(), resp);
  }
  static const char* own_prefix(const char* file, const char* level, ox_s32, ox_s32,
                                const ox_alert_t*) {
    static thread_local std::string prefix;
    prefix = std::string(level) + " " + file + " ";
    return prefix.c_str();
  }
  std::string shown(const std::string& answer, const LogCapture& log) const {
    std::string text = answer;
    for (const std::string& line : log.lines()) {
      text += (text.empty() ? "" : "\n") + line;
    }
    const std::pair<const void*, const char*> pointers[] = {
        {&vh_, "CONNECTION"}, {vh_.vfs_peer_handle, "PEER"}, {nullptr, "NOTHING"}};
    for (const auto& [pointer, name] : pointers) {
      text = std::regex_replace(text, std::regex('"' + pointer_text(pointer) + '"'), name);
    }
    return masked(text);
  }

  std::string path_;
  Commands commands_;
};

TEST_P(Traces, Play) {
  Commands all;
  for (const auto& [name, command] : commands_) {
    all[name] = [this, command = command](const Arguments& a) {
      const LogCapture log;
      return shown(command(a), log);
    };
  }
  play(GetParam(), all);
}

INSTANTIATE_TEST_SUITE_P(Traces, Traces, testing::ValuesIn(script_cases("traces")), case_name);

/* ------------------------------------------------------------------- prefixes */

TEST_F(Trace, PiecesOfAPrefixAreCutToWhatIsLeft) {
  const tnv_msghdr hdr = Request(TNV_OP_WIN_STAT).msg()->hdr;
  const std::function<int(char*, int*)> pieces[] = {
      [](char* at, int* left) { return ox_log_prefix(at, OX_INFO_LEVEL, 82, "f.c", 0, left); },
      [](char* at, int* left) {
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

}  // namespace
