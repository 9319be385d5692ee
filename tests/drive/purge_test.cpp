/*
 * tnw_purge_cache: what it removes, what it leaves alone, and what it says.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include "eventually.h"
#include "ox_logging.h"
#include "peer_drive.h"

namespace fs = std::filesystem;

namespace {

class Purge : public testing::Test {
 protected:
  Purge() {
    for (const std::string& folder : {dir_, neighbour_, target_}) {
      fs::create_directories(folder);
      write_file(folder + "\\file", "x");
    }
  }
  ~Purge() override { SetEnvironmentVariableA("TMP", nullptr); }

  int purge(const std::string& domain = "drive.test", const std::string& user = "ada") {
    tnw_purge_opt_t po = {};
    set_field(po.po_workdir, drive_.folder.path().string());
    set_field(po.po_domain, domain);
    set_field(po.po_username, user);
    return tnw_purge_cache(&po);
  }
  /* Runs a program of the host that Wine runs on, in `folder`. */
  void run_on_host(std::string command, const std::string& folder) {
    STARTUPINFOA start = {};
    PROCESS_INFORMATION run = {};
    const std::string program = "Z:\\bin\\" + command.substr(0, command.find(' '));
    EXPECT_TRUE(CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               folder.c_str(), &start, &run));
  }

  PeerDrive drive_;
  const std::string dir_ = cache_dir(drive_.record);
  const std::string neighbour_ = drive_.folder / "drive.test\\bob";
  const std::string target_ = drive_.folder / "target";
  const LogCapture log_;
};

const std::string FAILED = "ERROR 2: Failed to purge cachedir FOLDER\\drive.test\\ada";

}  // namespace

TEST_F(Purge, RemovesWhateverIsThereAndNothingElse) {
  std::string deep = "\\\\?\\" + dir_;
  for (int i = 0; i < 200; i++) {
    CreateDirectoryA((deep += "\\deeper").c_str(), nullptr);
  }
  write_file(deep + "\\file", "x");
  write_file(fs::path(dir_) / L"\u65e5\u0416\U0001f600", "x");
  write_file(dir_ + "\\read-only", "x");
  SetFileAttributesA((dir_ + "\\read-only").c_str(), FILE_ATTRIBUTE_READONLY);
  SetEnvironmentVariableA("TMP", target_.c_str());
  const LogCapture moved;
  ox_debug = 2;
  EXPECT_EQ(purge(), 0);
  ox_debug = 1;
  EXPECT_FALSE(file_exists(dir_));
  EXPECT_TRUE(file_exists(neighbour_ + "\\file"));
  EXPECT_EQ(drive_.said(moved),
            "DEBUG: Folder moved successfully from FOLDER\\drive.test\\ada to "
            "FOLDER\\target\\\\ada_N");
  const LogCapture missing;
  EXPECT_EQ(purge(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(drive_.said(missing),
            "ERROR 2: Unable to move folder from FOLDER\\drive.test\\ada to "
            "FOLDER\\target\\\\ada_N\n" +
                FAILED + "\n" + FAILED)
      << "the move, then the removal in place";
}

/* Wine's own kind of link, which it lists but cannot remove; a relative one, so that the moved one
 * leads to the same target. */
TEST_F(Purge, DoesNotFollowALink) {
  const std::string all = drive_.folder / "drive.test";
  SetEnvironmentVariableA("TMP", all.c_str());
  run_on_host("ln -s ../../target link", dir_);
  ASSERT_TRUE(eventually([&] { return file_exists(dir_ + "\\link\\file"); }));
  EXPECT_NE(purge(), 0);
  EXPECT_TRUE(file_exists(target_ + "\\file"));
  EXPECT_FALSE(file_exists(dir_));
  EXPECT_EQ(log_.count("Failed to purge tmp/cachedir "), 1u);
  run_on_host("rm -r drive.test", drive_.folder.path().string());
  EXPECT_TRUE(eventually([&] { return !file_exists(all); }));
}

TEST_F(Purge, DeletesInPlaceWhatItCannotMove) {
  SetEnvironmentVariableA("TMP", (drive_.folder / "missing").c_str());
  EXPECT_EQ(purge(), ERROR_FILE_NOT_FOUND) << "the move's failure, deliberately";
  EXPECT_FALSE(file_exists(dir_));
  EXPECT_TRUE(drive_.said(log_).ends_with("missing\\\\ada_N\n" + FAILED)) << drive_.said(log_);
}

TEST_F(Purge, TouchesNothingOfARunningService) {
  ASSERT_NE(drive_.start(), nullptr);
  const LogCapture log;
  EXPECT_EQ(purge(), ERROR_BUSY);
  EXPECT_EQ(drive_.said(log),
            "ERROR 16: Cannot purge cachedir FOLDER\\drive.test\\ada because tarnd is still "
            "running for ada@drive.test");
  EXPECT_EQ(purge("Drive.test", "Ada"), ERROR_BUSY) << "the same folder";
  EXPECT_EQ(purge("drive.test", "ada. "), ERROR_BUSY) << "the same folder by another name";
  EXPECT_EQ(purge("drive.test", "ada\\logs"), ERROR_BUSY) << "a part of it";
  EXPECT_TRUE(file_exists(dir_ + "\\file"));
  EXPECT_EQ(purge("drive.test", "bob"), 0) << "another user's service is in nobody's way";
  EXPECT_FALSE(file_exists(neighbour_));
}

/* And a folder that holds a running service's cache is as busy as that. */
TEST_F(Purge, TakesTheNamesThatAStartTakes) {
  for (const std::string user : {"CORP\\ada", "ada."}) {
    set_field(drive_.record.tnw_username, user);
    ASSERT_NE(drive_.start(), nullptr) << user;
    EXPECT_EQ(purge("drive.test", user), ERROR_BUSY);
    EXPECT_EQ(purge("drive.test", user.substr(0, user.find('\\'))), ERROR_BUSY);
    EXPECT_EQ(tnw_deinit_force(std::exchange(drive_.drive, nullptr)), 0);
    drive_.peer.reset();
    write_file(cache_dir(drive_.record) + "\\file", "x");
    EXPECT_EQ(purge("drive.test", user), 0);
    EXPECT_FALSE(file_exists(cache_dir(drive_.record)));
    EXPECT_TRUE(file_exists(neighbour_ + "\\file"));
  }
}

TEST_F(Purge, RefusesNamesThatLeadElsewhere) {
  for (const std::string name : {"", ".", "..", ".. ", "...", "a\\..", "a\\..\\..", "..\\bob",
                                 "/../bob", "c:", "ada::$INDEX_ALLOCATION"}) {
    const LogCapture log;
    EXPECT_EQ(purge("drive.test", name), ERROR_INVALID_DATA) << name;
    EXPECT_EQ(purge(name, "ada"), ERROR_INVALID_DATA) << name;
    const std::string line = "ERROR 22: Cannot purge a cache of ";
    const std::string in = " in work directory FOLDER";
    EXPECT_EQ(drive_.said(log),
              line + name + "@drive.test" + in + "\n" + line + "ada@" + name + in);
  }
  const LogCapture log;
  EXPECT_EQ(tnw_purge_cache(nullptr), ERROR_INVALID_DATA);
  EXPECT_EQ(drive_.said(log), "ERROR 22: tnw_purge_opt_t param is NULL");
  EXPECT_TRUE(file_exists(dir_ + "\\file"));
  EXPECT_TRUE(file_exists(neighbour_ + "\\file"));
}
