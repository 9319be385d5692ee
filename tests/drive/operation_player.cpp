#include "operation_player.h"

#include <gtest/gtest.h>

#include "ox_tpool.h"
#include "test_folder.h"
#include "tnw_dll/tnw_fdtable.h"
#include "tnw_dll/tnw_instance.h"
#include "tnw_fd.h"
#include "wire_text.h"

namespace {

const char OPENED[] = "create d p";
const char CACHED[] =
    "file=\"0123456789\" tnflags=4 rmap_size=2 dmap_size=2 then=\"\\xff\\xff\\0\\0\"";
const char NOT_CACHED[] =
    "file=\"0123456789\" tnflags=4 rmap_size=2 dmap_size=2 then=\"\\0\\0\\0\\0\"";
const Operation OPERATIONS[] = {
    {"CONNECT", "handle=1", "", "start"},
    {"GET_VERSION", "payload=\"v\"*256", "", "start"},
    {"OPEN", CACHED, "", "create d p as=g"},
    {"CACHE_REGION", "cached=16 size=10", OPENED, "read f 4"},
    {"DIRTY_REGION", "clear=1", OPENED, "write f \"w\""},
    {"FTRUNCATE", "", OPENED, "setfilesize f 20"},
    {"BRL", "", OPENED, "lockfile f", "BRL, lock"},
    {"BRL", "", OPENED, "unlockfile f", "BRL, unlock"},
    {"CLEANUP", "", OPENED, "cleanup_file f"},
    {"CLOSE", "", OPENED, "close f"},
    {"DENUM", "entries=3", "", "findfirst d p name_only as=listing"},
    {"STAT", "size=7", "", "getfileinfo d p"},
    {"RENAME", "", "", "rename d p q"},
    {"CANDELETE", "may=1", "", "canfilebedeleted d p"},
    {"DELETE", "", "", "delete d p"},
    {"SETPROXY", "", "", "set_http_proxy d proxy"},
    {"UPDATETOKEN", "", "", "updatetoken d token"},
    {"SHUTDOWN", "", "", "deinit d"},
};

/* A broken start has no instance. */
tnw_tninstance* instance() {
  return tnw_tninstances.tni_cnt == 0 ? nullptr : tnw_tninstances.tni_next;
}

int open_entries() {
  int count = 0, index = 0;
  while (instance() != nullptr &&
         tnw_next_in_use(&instance()->tni_files, nullptr, &index) != nullptr) {
    count++;
  }
  return count;
}

}  // namespace

std::span<const Operation> all_operations() { return OPERATIONS; }

OperationPlayer::OperationPlayer(const Operation& operation)
    : operation_(operation),
      opcode_(wire_opcode(operation.name)),
      starts_(std::string(operation.call) == "start") {
  for (const Operation& each : OPERATIONS) {
    play("peer " + std::string(each.name) + ' ' + each.answer);
  }
  if (opcode_ == TNV_OP_CACHE_REGION) {
    play("peer OPEN " + std::string(NOT_CACHED));
  }
}

OperationPlayer::Outcome OperationPlayer::run(const std::function<void()>& arm,
                                              const std::function<void()>& disarm) {
  make_ready();
  if (testing::Test::HasFatalFailure()) {
    return {};
  }
  const std::string state = is_open_ ? play("state f") : "";
  seen();
  arm();
  const std::string code = play(operation_.call);
  disarm();
  const std::string line = first_error();
  const std::string odd = code[0] == '0' ? "" : what_is_odd(state);
  return {code + odd, line, clean_up()};
}

std::string OperationPlayer::play(const std::string& line) {
  Arguments arguments = arguments_of(line);
  const std::string command = arguments[0];
  arguments.words.erase(arguments.words.begin());
  return answer_of(command, arguments);
}

void OperationPlayer::stop() {
  if (handles_["d"] != nullptr) {
    play("deinit_force d");
  }
  handles_["d"] = nullptr;
  play("new_peer");
}

void OperationPlayer::make_ready() {
  if (starts_) {
    stop();
    drive_.listen();
  } else if (handles_["d"] == nullptr) {
    ASSERT_EQ(play("start"), "0");
  }
  is_open_ = *operation_.before != 0;
  if (is_open_) {
    ASSERT_EQ(play(operation_.before), "0");
  }
}

/* After a call that failed: what is not as it was before. */
std::string OperationPlayer::what_is_odd(const std::string& state) {
  std::string odd = is_open_ && play("state f") != state ? ", the file's state has changed" : "";
  const int entries = open_entries();
  return entries == (is_open_ ? 1 : 0) ? odd : odd + ", " + std::to_string(entries) + " entries";
}

std::string OperationPlayer::first_error() {
  for (const std::string& line : lines_of(seen())) {
    if (line.starts_with("ERROR")) {
      return line;
    }
  }
  return "-";
}

/* Closes what is open, and tells what the next open gives. */
std::string OperationPlayer::clean_up() {
  if (instance() == nullptr) {
    stop();
    return "none: the drive is gone";
  }
  EXPECT_EQ(instance()->tni_tpool->tp_qlen, 0u);
  const std::string next = play("create d p as=next");
  if (next == "1326 null") {
    EXPECT_EQ(play("updatetoken d token"), "0");
    EXPECT_EQ(play("create d p as=next"), "0");
  }
  if (next == "1467 null") {
    stop();
  } else if (!starts_) {
    close_all();
  }
  return next.substr(0, next.find(' '));
}

void OperationPlayer::close_all() {
  if (opcode_ == TNV_OP_WIN_DENUM && handles_["listing"] != nullptr) {
    EXPECT_EQ(play("findclose listing"), "0");
  }
  int index = 0;
  while (tnvfd* const file = tnw_next_in_use(&instance()->tni_files, nullptr, &index)) {
    EXPECT_EQ(tnw_close(file, nullptr), 0);
  }
  EXPECT_EQ(open_entries(), 0);
}
