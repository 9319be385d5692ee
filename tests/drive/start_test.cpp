/*
 * Starting and stopping through the DLL: files, names and what the service is told; several drives
 * on one service. Starts that fail are in faults_test.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "eventually.h"
#include "peer_drive.h"
#include "tnv_connio_win.h"

namespace {

class Start : public testing::Test {
 protected:
  /* A second drive of the same service. */
  void* second_drive() {
    set_field(other_.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
    return tnw_init(&other_, nullptr);
  }

  PeerDrive drive_;
  const LogCapture log_;
  tnw_tninit other_ = drive_.record;
};

/* A start whose service's process has begun, as `begun` shows, and does not say that it is ready.
 */
std::thread begin_a_start(tnw_tninit& record, const std::string& begun) {
  SetEnvironmentVariableA("STAND_IN_READY", nullptr);
  SetEnvironmentVariableA("STAND_IN_COMMAND", begun.c_str());
  std::thread start([&] { EXPECT_EQ(tnw_init(&record, nullptr), nullptr); });
  EXPECT_TRUE(eventually([&] { return file_exists(begun); }));
  SetEnvironmentVariableA("STAND_IN_COMMAND", nullptr);
  return start;
}

}  // namespace

/* The end of a process stops its other threads where they stand. */
TEST(StartDeathTest, DoesNotHoldUpTheEndOfTheProcess) {
  const TestFolder folder;
  SetEnvironmentVariableA("TMP", folder.path().string().c_str()); /* for the other process's own */
  tnw_tninit record = start_record(folder, beside_test("stand_in_service.exe"));
  EXPECT_EXIT((begin_a_start(record, folder / "begun").detach(), ExitProcess(3)),
              testing::ExitedWithCode(3), "");
  SetEnvironmentVariableA("TMP", nullptr);
}

TEST_F(Start, TakesASocketPathOf107) {
  std::string dir = drive_.folder / "";
  ASSERT_LT(dir.size(), 95u) << "the temporary folder's path is too long";
  dir.append(95 - dir.size(), 'd');
  set_field(drive_.record.tnw_uds_workdir, dir);
  drive_.record.tnw_user_id = 100000;
  ASSERT_EQ(socket_path(drive_.record).size(), 107u);
  EXPECT_NE(drive_.start(), nullptr);
}

TEST_F(Start, WritesItsPidOverTheOldOneWithoutTruncating) {
  const std::string pid_file = cache_dir(drive_.record) + "/da_pid";
  std::filesystem::create_directories(cache_dir(drive_.record));
  write_file(pid_file, "99999999999999");
  ASSERT_NE(drive_.start(), nullptr);
  const std::string own = std::to_string(GetCurrentProcessId());
  EXPECT_EQ(read_file(pid_file), own + std::string(14 - own.size(), '9'));
  EXPECT_EQ(log_.count("real DA PID: " + own + ", file DA PID: "), 1u);
}

TEST_F(Start, KeepsTheDeviceIdInTheRegistry) {
  const std::string key = "SOFTWARE\\Oxley\\Oxley Drive\\drive.test\\ada";
  set_field(drive_.record.tnw_tn_device_id, "");
  RegDeleteTreeA(HKEY_CURRENT_USER, key.c_str());
  ASSERT_NE(drive_.start(), nullptr);
  const std::string made = drive_.record.tnw_tn_device_id;
  EXPECT_EQ(made.size(), 36u);
  const std::string place = "for domain: drive.test and user: ada at path: HKEY_CURRENT_USER\\" +
                            key + "\\TarnDeviceID\"}";
  EXPECT_EQ(log_.count("\"Tarn device id: " + made + " is set " + place), 1u);
  tnw_deinit_force(drive_.drive);
  set_field(drive_.record.tnw_tn_device_id, "");
  drive_.peer.reset();
  ASSERT_NE(drive_.start(), nullptr);
  EXPECT_EQ(drive_.record.tnw_tn_device_id, made);
  EXPECT_EQ(log_.count("\"Tarn device id: " + made + " already exist " + place), 1u);
  RegDeleteTreeA(HKEY_CURRENT_USER, key.c_str());
}

TEST_F(Start, ComposesEveryOption) {
  const std::string command_file = drive_.folder / "command";
  SetEnvironmentVariableA("STAND_IN_COMMAND", command_file.c_str());
  set_field(drive_.record.tnw_uds_workdir, drive_.folder / "s");
  set_field(drive_.record.tnw_workgroup_id, "wg");
  drive_.record.tnw_user_id = 12345678901ull;
  set_field(drive_.record.tnw_proxy_server, "proxy:1");
  set_field(drive_.record.tnw_proxy_password, "secret");
  ASSERT_NE(drive_.start(), nullptr);
  SetEnvironmentVariableA("STAND_IN_COMMAND", nullptr);
  const std::string command = read_file(command_file);
  EXPECT_TRUE(command.ends_with(
      "ada@drive.test.log\" --vfs --sockdir \"" + drive_.folder.path().string() +
      "\\s\" --wgid \"wg\" --uid 12345678901 --proxy-server proxy:1 --proxy-user  "
      "--proxy-password secret"))
      << command;
  EXPECT_EQ(log_.count("\"Start tarnd with cmd: " + command + "\"}"), 1u);
}

TEST_F(Start, CutsOptionsThatDoNotFit) {
  set_field(drive_.record.tnw_proxy_server, "p");
  set_field(drive_.record.tnw_proxy_password, std::string(511, 'x'));
  ASSERT_NE(drive_.start(), nullptr);
  EXPECT_EQ(log_.count(122,
                       "Failed to construct cmd extra_args because 559 chars does not fit in "
                       "512 buffer"),
            1u);
}

TEST_F(Start, BindsEveryConnectionToTheShareAndUser) {
  drive_.record.tnw_max_threads = 5;
  set_field(drive_.record.tnw_sharepath, "/share");
  ASSERT_NE(drive_.start(), nullptr);
  EXPECT_EQ(drive_.error, 0);
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CONNECT), 5u);
  EXPECT_EQ(drive_.peer->count(TNV_OP_GET_VERSION), 1u);
  const PeerRequest connect = drive_.peer->requests().front();
  EXPECT_EQ(connect.text(), "/share");
  EXPECT_STREQ(connect.msg().u.wconn.wconmsg_user, "ada");
  EXPECT_EQ(connect.msg().u.wconn.wconmsg_pid, GetCurrentThreadId());
  EXPECT_STREQ(connect.msg().u.wconn.wconmsg_devid, drive_.record.tnw_da_device_id);
}

/* ------------------------------------------------------------------- several drives */

TEST_F(Start, OfASecondDriveSharesTheServiceWhichStopsWithTheLast) {
  void* const first = drive_.start();
  ASSERT_NE(first, nullptr);
  int err = -1;
  EXPECT_EQ(tnw_init(&drive_.record, &err), first) << "the same drive id gives the same handle";
  EXPECT_EQ(err, 0);
  void* const second = second_drive();
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(drive_.peer->count(TNV_OP_WIN_CONNECT), 1u) << "no second service";
  EXPECT_EQ(std::string(tnw_get_tninstance_id(first)).size(), 36u);
  EXPECT_STREQ(tnw_get_tninstance_id(first), tnw_get_tninstance_id(second));

  EXPECT_EQ(tnw_deinit(first, true), 0) << "force has no effect";
  EXPECT_EQ(drive_.peer->count(TNV_OP_SHUTDOWN), 0u);
  EXPECT_STREQ(tnw_get_tninstance_id(first), "");
  EXPECT_EQ(tnw_deinit(first, false), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit(second, false), 0);
  EXPECT_EQ(drive_.peer->count(TNV_OP_SHUTDOWN), 1u);
  EXPECT_FALSE(file_exists(socket_path(drive_.record)));
  EXPECT_TRUE(drive_.peer->wait_for_ended(1));
  drive_.drive = nullptr;
}

TEST_F(Start, OfADriveThatGoesTakesAlongWhatItLeftOpen) {
  void* const first = drive_.start();
  void* const second = second_drive();
  tnv_wopen_resp opened = open_answer();
  opened.wopen_resp_handle = local_file(drive_.folder / "local", "x");
  drive_.answer_opens(opened);
  drive_.drive = second;
  void* const file = drive_.open("f");
  const size_t sent = drive_.peer->requests().size();
  EXPECT_EQ(tnw_deinit(second, false), 0);
  EXPECT_EQ(drive_.peer->requests().size(), sent) << "the service is not told";
  HANDLE alone = CreateFileA((drive_.folder / "local").c_str(), GENERIC_READ, 0, nullptr,
                             OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(alone, INVALID_HANDLE_VALUE) << "the local file is closed";
  CloseHandle(alone);
  drive_.drive = second_drive(); /* at the same address, or not */
  EXPECT_EQ(tnw_close(file, nullptr), TNW_ERROR_NO_SERVICE);
  EXPECT_NE(drive_.open("g"), file) << "a late call must not reach a later file";
  EXPECT_EQ(tnw_deinit(drive_.drive, false), 0);
  drive_.drive = first;
}

TEST_F(Start, OfAnotherUserHoldsUpNoRefusal) {
  std::thread start = begin_a_start(other_, drive_.folder / "begun");
  EXPECT_EQ(tnw_deinit(this, false), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit_force(this), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(log_.count("Waited for"), 0u);
  std::string ready = socket_path(other_);
  EXPECT_EQ(tnv_signal_start(ready.data()), 0) << "nothing listens there, so the start fails";
  start.join();
}

TEST_F(Start, OfDrivesIsUndoneForAllOfThemByForce) {
  void* const first = drive_.start();
  void* const second = second_drive();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(tnw_deinit_force(second), 0);
  EXPECT_EQ(tnw_deinit_force(first), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit(second, false), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(drive_.peer->count(TNV_OP_SHUTDOWN), 1u);
  drive_.drive = nullptr;
}

TEST_F(Start, IsUndoneByOneOfTwoDeinitsAtOnce) {
  ASSERT_NE(drive_.start(), nullptr);
  int codes[2];
  std::thread other([&] { codes[0] = tnw_deinit(drive_.drive, false); });
  codes[1] = tnw_deinit(drive_.drive, false);
  other.join();
  EXPECT_EQ(codes[0] + codes[1], ERROR_INVALID_PARAMETER);
  drive_.drive = nullptr;
}
