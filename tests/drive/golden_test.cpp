/*
 * What a support person finds in the log: the whole trace lines of one session with every
 * operation, against golden_lines.txt beside this file, which holds those of debug level 3. Which
 * of them the lower levels leave out is in traces.txt.
 *
 * One worker and one calling thread, since an event line depends on its connection's last
 * transaction id.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <regex>

#include "golden_text.h"
#include "line_mask.h"
#include "log_capture.h"
#include "ox_logging.h"
#include "real_player.h"

namespace {

/* A masked line without what else differs from run to run or from machine to machine: addresses,
 * the file's times, and what the machine and the build are called. */
std::string without_variables(const std::string& line) {
  static const Masks MASKS = {
      {std::regex(R"(("fi_[cma]time":)\d+)"), "$1TIME"},
      {std::regex(R"((handle":"|file_fd":")(0x)?[0-9A-Fa-f]+)"), "$1ADDRESS"},
      {std::regex(R"(("vfs_socket_fd":|"vfs_peer_thread":"0x|"process_id":|remote_pid )\d+)"),
       "$1NUMBER"},
      {std::regex(R"(("remote_host":"|"vfs_rhost":"|"host":"|remote_host )[^",]+)"), "$1HOST"},
      {std::regex(R"-(("(git_hash|build_[a-z]+|version)":")[^"]*)-"), "$1BUILD"},
      {std::regex(R"-([A-Za-z]:[^ ",]*\\(work|logs|my cloud))-"), "FOLDER\\$1"},
      {std::regex(R"-(("addr":"|"logfile":")[^"]*)-"), "$1PATH"},
  };
  return masked(masked(line), MASKS);
}

using Lines = std::vector<std::string>;

bool is_trace(const std::string& line) {
  return line.find("tnv_log") != std::string::npos || line.find("tnw_log") != std::string::npos;
}

Lines trace_lines() {
  SetEnvironmentVariableA("TARND_UTXID", "1000");
  const LogCapture log;
  ox_debug = 3;
  RealPlayer().play_case(script_cases("session")[0]);
  ox_debug = 1;
  Lines found;
  for (const std::string& line : log.lines()) {
    if (is_trace(line)) {
      found.push_back(without_variables(line));
    }
  }
  return found;
}

}  // namespace

TEST(GoldenLines, EveryOperation) {
  IdNumbers ids;
  std::string text;
  for (const std::string& line : trace_lines()) {
    text += ids.numbered(line) + "\n";
  }
  EXPECT_EQ(text.find("secret"), std::string::npos) << "the proxy's password";
  expect_text_of("golden_lines", text);
}
