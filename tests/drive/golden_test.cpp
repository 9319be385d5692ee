/*
 * What a support person finds in the log: the whole trace lines of one session with every
 * operation, against golden_lines.txt beside this file, which holds those of debug level 3. The
 * lower levels have the same lines but for those that they leave out.
 *
 * One worker and one calling thread, since an event line depends on its connection's last
 * transaction id. After a wanted change of the lines, take over what a failure leaves in
 * golden_lines.new beside the program.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <map>
#include <regex>
#include <sstream>

#include "line_mask.h"
#include "log_capture.h"
#include "ox_logging.h"
#include "real_drive.h"

namespace {

/* A masked line without what else differs from run to run or from machine to machine: addresses,
 * the file's times, and what the machine and the build are called. */
std::string without_variables(const std::string& line) {
  static const Masks masks = {
      {std::regex(R"(("fi_[cma]time":)\d+)"), "$1TIME"},
      {std::regex(R"((handle":"|file_fd":")(0x)?[0-9A-Fa-f]+)"), "$1ADDRESS"},
      {std::regex(R"(("vfs_socket_fd":|"vfs_peer_thread":"0x|"process_id":|remote_pid )\d+)"),
       "$1NUMBER"},
      {std::regex(R"(("remote_host":"|"vfs_rhost":"|"host":"|remote_host )[^",]+)"), "$1HOST"},
      {std::regex(R"-(("(git_hash|build_[a-z]+|version)":")[^"]*)-"), "$1BUILD"},
      {std::regex(R"-([A-Za-z]:[^ ",]*\\(work|logs|my cloud))-"), "FOLDER\\$1"},
      {std::regex(R"-(("addr":"|"logfile":")[^"]*)-"), "$1PATH"},
  };
  return masked(masked(line), masks);
}

constexpr char ID[] = "[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}";

/* Each id becomes a number by its first appearance, so that the lines still show what belongs
 * together. */
class IdNumbers {
 public:
  std::string numbered(const std::string& line) {
    static const std::regex id(ID);
    std::string text;
    auto from = line.begin();
    for (std::sregex_iterator at(line.begin(), line.end(), id), end; at != end; ++at) {
      text.append(from, (*at)[0].first);
      const auto number = numbers_.try_emplace(at->str(), numbers_.size() + 1).first->second;
      text += "ID" + std::to_string(number);
      from = (*at)[0].second;
    }
    return text.append(from, line.end());
  }

 private:
  std::map<std::string, size_t> numbers_;
};

void use_a_file(RealDrive& drive) {
  DriveFile file(drive, "/golden/new", {TNW_DISP_CREATE, ACC_BOTH});
  ASSERT_EQ(file.error(), 0);
  EXPECT_EQ(file.write(10, "0123456789"), 0);
  EXPECT_EQ(file.read(15, 10), "56789");
  EXPECT_EQ(tnw_lockfile(file.handle(), 2, 1, 0, 2, 0, 77), 0);
  EXPECT_EQ(tnw_unlockfile(file.handle(), 1, 0, 2, 0, 77), 0);
  EXPECT_EQ(tnw_setfilesize(file.handle(), 5000, 0, nullptr), 0);
  EXPECT_EQ(tnw_cleanup_file(file.handle()), 0);
  EXPECT_EQ(file.close(), 0);
  DriveFile old(drive, "/golden/old", {TNW_DISP_OPEN, TNW_ACC_READ});
  EXPECT_EQ(old.read(0, 3), "old");
}

void use_a_folder(RealDrive& drive) {
  tnw_fileinfo entry = {};
  int err = -1;
  void* listing = tnw_findfirst(drive.drive, "/golden", &entry, "test", &err);
  ASSERT_EQ(err, 0);
  bool empty = true;
  EXPECT_EQ(tnw_checkfolderempty(listing, &empty), 0);
  EXPECT_EQ(tnw_findnext(listing, &entry), 0);
  EXPECT_EQ(tnw_findclose(listing), 0);
}

void use_paths(RealDrive& drive) {
  tnw_fileinfo entry = {};
  bool can = false;
  EXPECT_EQ(tnw_getfileinfo(drive.drive, "/golden/old", &entry, "test"), 0);
  EXPECT_EQ(tnw_getfileinfo(drive.drive, "/golden/none", &entry, "test"), 2);
  EXPECT_EQ(tnw_rename(drive.drive, "/golden/new", "/golden/a \"quoted\" name", "test"), 13);
  EXPECT_EQ(tnw_rename(drive.drive, "/golden/new", "/golden/renamed", "test"), 0);
  EXPECT_EQ(tnw_canfilebedeleted(drive.drive, "/golden/renamed", &can), 0);
  EXPECT_EQ(tnw_delete(drive.drive, "/golden/renamed", "test"), 0);
}

void session(RealDrive& drive) {
  ASSERT_TRUE(drive.start());
  use_a_file(drive);
  use_a_folder(drive);
  use_paths(drive);
  char token[] = "token";
  EXPECT_EQ(tnw_set_http_proxy(drive.drive, "proxy:8080", "joe", "secret"), 0);
  EXPECT_EQ(tnw_updatetoken(drive.drive, token), 0);
  EXPECT_EQ(drive.stop(), 0);
}

using Lines = std::vector<std::string>;

bool is_trace(const std::string& line) {
  return line.find("tnv_log") != std::string::npos || line.find("tnw_log") != std::string::npos;
}

Lines trace_lines(int level) {
  RealDrive drive;
  SetEnvironmentVariableA("TARND_UTXID", "1000");
  drive.record.tnw_min_threads = drive.record.tnw_max_threads = 1;
  drive.put("golden/old", "old");
  const LogCapture log;
  ox_debug = level;
  session(drive);
  ox_debug = 1;
  Lines found;
  for (const std::string& line : log.lines()) {
    if (is_trace(line)) {
      found.push_back(without_variables(line));
    }
  }
  return found;
}

/* What is left of the lines of level 3 at another one. The numbers of ids go too. */
Lines at_level(int level, const Lines& of_level_3) {
  Lines left;
  for (std::string line : of_level_3) {
    const bool header = line.find(" tnv_log.cpp:") != std::string::npos;
    const bool request = line.find(" tnv_log_win.:") != std::string::npos;
    if ((header && level < 3) || (request && level < 2)) {
      continue;
    }
    line = std::regex_replace(line, std::regex("DEBU-03"), "DEBU-0" + std::to_string(level));
    left.push_back(std::regex_replace(line, std::regex(ID), "ID"));
  }
  return left;
}

Lines golden() {
  Lines lines;
  std::istringstream text(read_file(beside_test("golden_lines.txt")));
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace

TEST(GoldenLines, EveryOperationAtEachLevel) {
  const Lines found = trace_lines(3);
  IdNumbers ids;
  Lines numbered;
  std::string text;
  for (const std::string& line : found) {
    numbered.push_back(ids.numbered(line));
    text += numbered.back() + "\n";
  }
  EXPECT_EQ(text.find("secret"), std::string::npos) << "the proxy's password";
  if (numbered != golden()) {
    write_file(beside_test("golden_lines.new"), text);
  }
  EXPECT_EQ(numbered, golden());
  for (const int level : {1, 2}) {
    EXPECT_EQ(at_level(level, trace_lines(level)), at_level(level, found));
  }
}
