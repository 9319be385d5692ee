/* Starting and stopping: names, files, events, retries, several drives on one service. */

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "log_capture.h"
#include "peer_drive.h"
#include "tnv_connio_win.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr int GAVE_UP = 31;
const char EXHAUSTED[] = "3 tarnd init attempts exhausted. Requesting for classic DA fallback";

/* What tnw_init gives for a record that cannot start. */
int failed_start(tnw_tninit* record) {
  int err = -1;
  EXPECT_EQ(tnw_init(record, &err), nullptr);
  return err;
}

std::string device_key(const tnw_tninit& record) {
  return std::string("SOFTWARE\\Oxley\\Oxley Drive\\") + record.tnw_domain + "\\" +
         record.tnw_username;
}

/*
 * Ends the process, which stops its other threads where they stand, while one is inside tnw_init:
 * the service's process has begun and will never say that it is ready.
 */
[[noreturn]] void end_process_during_a_start(tnw_tninit record, const std::string& begun) {
  SetEnvironmentVariableA("STAND_IN_READY", nullptr);
  SetEnvironmentVariableA("STAND_IN_COMMAND", begun.c_str());
  std::thread([record]() mutable { tnw_init(&record, nullptr); }).detach();
  while (!file_exists(begun)) {
    Sleep(10);
  }
  ExitProcess(3);
}

}  // namespace

TEST(StartDeathTest, DoesNotHoldUpTheEndOfTheProcess) {
  TestFolder folder;
  SetEnvironmentVariableA("TMP",
                          folder.path().string().c_str()); /* for the ending process's own folder */
  const tnw_tninit record = start_record(folder, beside_test("stand_in_service.exe"));
  EXPECT_EXIT(end_process_during_a_start(record, folder / "begun"), testing::ExitedWithCode(3), "");
  SetEnvironmentVariableA("TMP", nullptr);
}

TEST(Start, GivesUpOnAWrongBinaryAfterOneTryWithTheNoRetryBit) {
  LogCapture log;
  TestFolder folder;
  tnw_tninit record = start_record(folder, folder / "missing.exe");
  EXPECT_EQ(failed_start(&record), GAVE_UP);
  EXPECT_EQ(log.count("\"errno\":2, \"message\":\"Failed to start Tarn\""), 1u);
  EXPECT_EQ(log.count("Failed to start tarnd"), 1u);
  EXPECT_EQ(log.count(EXHAUSTED), 1u);
  EXPECT_EQ(log.count("Retrying"), 0u);
}

TEST(Start, TriesTwiceWithTwoPausesWithoutTheBit) {
  LogCapture log;
  TestFolder folder;
  tnw_tninit record = start_record(folder, folder / "missing.exe");
  record.tnw_flags = 0;
  const ULONGLONG begin = GetTickCount64();
  EXPECT_EQ(failed_start(&record), GAVE_UP);
  EXPECT_GE(GetTickCount64() - begin, 9900u);
  EXPECT_EQ(log.count("Failed to start Tarn"), 2u);
  EXPECT_EQ(log.count("tarnd init 1 of 3 failed. Retrying after 5 seconds."), 1u);
  EXPECT_EQ(log.count("tarnd init 2 of 3 failed. Retrying after 5 seconds."), 1u);
  EXPECT_EQ(log.count(EXHAUSTED), 1u);
}

TEST(Start, GoesOnWithoutNamesWhenTheDomainHasNoDot) {
  LogCapture log;
  TestFolder folder;
  tnw_tninit record = start_record(folder, folder / "missing.exe");
  set_field(record.tnw_domain, "nodot");
  EXPECT_EQ(failed_start(&record), GAVE_UP);
  EXPECT_GE(log.count("Failed to parse subdomain from domain nodot"), 1u);
  EXPECT_EQ(log.count(EXHAUSTED), 1u);
}

TEST(Start, RefusesASocketPathOf108AndTakesOneOf107) {
  LogCapture log;
  PeerDrive drive;
  const std::string name = "\\tnvfs.sock";
  std::string dir = drive.folder / "";
  ASSERT_LT(dir.size() + name.size(), 96u + name.size())
      << "the temporary folder's path is too long";
  dir.append(95 - dir.size(), 'd');
  set_field(drive.record.tnw_uds_workdir, dir);
  set_field(drive.record.tnw_workgroup_id, "g");
  drive.record.tnw_user_id = 10000; /* 95 + "\g" + "\10000.sock" is 108 */
  ASSERT_EQ(socket_path(drive.record).size(), 108u);
  const std::string program = drive.record.tnw_binpath;
  set_field(drive.record.tnw_binpath, "missing.exe"); /* the start goes on without a socket path */
  EXPECT_EQ(failed_start(&drive.record), GAVE_UP);
  EXPECT_GE(log.count("Socket path does not fit in char[108]. Partial path " +
                      socket_path(drive.record).substr(0, 107) + "\""),
            1u);
  set_field(drive.record.tnw_binpath, program);
  drive.record.tnw_user_id = 1000;
  EXPECT_NE(drive.start(), nullptr);
}

TEST(Start, AsksForTheFallbackThatAnotherPartyWants) {
  LogCapture log;
  TestFolder folder;
  tnw_tninit record = start_record(folder, folder / "missing.exe");
  record.tnw_flags = 0;
  std::filesystem::create_directories(cache_dir(record));
  write_file(cache_dir(record) + "/tarnd_pid", "1");
  std::string name = cache_dir(record) + "/tfi.force_fallback";
  for (char& c : name) {
    c = c == '\\' ? '/' : static_cast<char>(tolower(c));
  }
  HANDLE wish = CreateEventA(nullptr, FALSE, FALSE, ("Global\\" + name).c_str());
  EXPECT_EQ(failed_start(&record), GAVE_UP);
  EXPECT_EQ(WaitForSingleObject(wish, 0), WAIT_OBJECT_0);
  EXPECT_EQ(log.count("TFI: force fallback. Notifying event name Global\\" + name), 1u);
  EXPECT_EQ(log.count("Retrying"), 0u);
  CloseHandle(wish);
}

TEST(Start, FailsAnAttemptThatHadToWaitForAnOldService) {
  LogCapture log;
  PeerDrive drive;
  std::filesystem::create_directories(cache_dir(drive.record));
  const std::string pid_file = cache_dir(drive.record) + "/tarnd_pid";
  write_file(pid_file, "1");
  HANDLE held = CreateFileA(pid_file.c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr,
                            OPEN_EXISTING, 0, nullptr);
  ASSERT_TRUE(LockFile(held, 0, 0, MAXDWORD, MAXDWORD));
  std::thread old_service([&] {
    while (log.count("tarnd is still running at") == 0) {
      Sleep(50);
    }
    CloseHandle(held);
  });
  drive.start();
  old_service.join();
  EXPECT_EQ(drive.error, GAVE_UP);
  EXPECT_EQ(log.count("Sleeping for 5 secs."), 1u);
  EXPECT_EQ(log.count("Start tarnd with cmd"), 0u);
  EXPECT_NE(drive.start(), nullptr) << "the lock is gone: the next call starts";
}

TEST(Start, WritesItsPidOverTheOldOneWithoutTruncating) {
  LogCapture log;
  PeerDrive drive;
  std::filesystem::create_directories(cache_dir(drive.record));
  write_file(cache_dir(drive.record) + "/da_pid", "99999999999999");
  ASSERT_NE(drive.start(), nullptr);
  const std::string own = std::to_string(GetCurrentProcessId());
  const std::string expected = own + std::string(14 - own.size(), '9');
  EXPECT_EQ(read_file(cache_dir(drive.record) + "/da_pid"), expected);
  EXPECT_EQ(log.count("real DA PID: " + own + ", file DA PID: "), 1u);
}

TEST(Start, KeepsTheDeviceIdInTheRegistry) {
  LogCapture log;
  PeerDrive drive;
  set_field(drive.record.tnw_tn_device_id, "");
  RegDeleteTreeA(HKEY_CURRENT_USER, device_key(drive.record).c_str());
  ASSERT_NE(drive.start(), nullptr);
  const std::string made = drive.record.tnw_tn_device_id;
  EXPECT_EQ(made.size(), 36u);
  EXPECT_EQ(log.count("Tarn device id: " + made +
                      " is set for domain: drive.test and user: ada at "
                      "path: HKEY_CURRENT_USER\\" +
                      device_key(drive.record) + "\\TarnDeviceID"),
            1u);
  tnw_deinit_force(drive.drive);
  set_field(drive.record.tnw_tn_device_id, "");
  drive.peer.reset();
  ASSERT_NE(drive.start(), nullptr);
  EXPECT_EQ(drive.record.tnw_tn_device_id, made);
  EXPECT_EQ(log.count("Tarn device id: " + made + " already exist for domain"), 1u);
  RegDeleteTreeA(HKEY_CURRENT_USER, device_key(drive.record).c_str());
}

TEST(Start, ComposesTheWholeCommandLine) {
  LogCapture log;
  PeerDrive drive;
  const std::string command_file = drive.folder / "command";
  SetEnvironmentVariableA("STAND_IN_COMMAND", command_file.c_str());
  set_field(drive.record.tnw_uds_workdir, drive.folder / "s");
  set_field(drive.record.tnw_workgroup_id, "wg");
  drive.record.tnw_user_id = 12345678901ull;
  set_field(drive.record.tnw_proxy_server, "proxy:1");
  set_field(drive.record.tnw_proxy_password, "secret");
  ASSERT_NE(drive.start(), nullptr);
  SetEnvironmentVariableA("STAND_IN_COMMAND", nullptr);
  const std::string expected =
      std::string(drive.record.tnw_binpath) + " --cfs https://drive.test --user ada --cache \"" +
      cache_dir(drive.record) + "\" --addr file:///nowhere --confaddr none --tn-devid " +
      drive.record.tnw_tn_device_id + " --da-devid " + drive.record.tnw_da_device_id +
      " --access-token token --logfile \"" + drive.record.tnw_logdir +
      "/tarnd.ada@drive.test.log\" --vfs --sockdir \"" + drive.record.tnw_uds_workdir +
      "\" --wgid \"wg\" --uid 12345678901 --proxy-server proxy:1 --proxy-user  "
      "--proxy-password secret";
  EXPECT_EQ(read_file(command_file), expected);
  EXPECT_EQ(log.count("Start tarnd with cmd: " + expected), 1u);
}

TEST(Start, CutsOptionsThatDoNotFitAndFailsOnACommandThatDoesNot) {
  LogCapture log;
  PeerDrive drive;
  set_field(drive.record.tnw_proxy_server, "p");
  set_field(drive.record.tnw_proxy_password, std::string(511, 'x'));
  ASSERT_NE(drive.start(), nullptr);
  EXPECT_EQ(log.count("Failed to construct cmd extra_args because 559 chars does not fit in 512"),
            1u);
  tnw_tninit record = start_record(drive.folder, std::string(4000, 'b'));
  set_field(record.tnw_username, "bob");
  EXPECT_EQ(failed_start(&record), GAVE_UP);
  EXPECT_EQ(log.count("\"errno\":122, \"message\":\"Failed to construct cmd because"), 1u);
}

TEST(Start, BindsEveryConnectionToTheShareAndUser) {
  PeerDrive drive;
  drive.record.tnw_max_threads = 5;
  set_field(drive.record.tnw_sharepath, "/share");
  ASSERT_NE(drive.start(), nullptr);
  EXPECT_EQ(drive.error, 0);
  EXPECT_EQ(drive.peer->count(TNV_OP_WIN_CONNECT), 5u);
  EXPECT_EQ(drive.peer->count(TNV_OP_GET_VERSION), 1u);
  const PeerRequest connect = drive.peer->requests().front();
  EXPECT_EQ(connect.text(), "/share");
  EXPECT_STREQ(connect.msg().u.wconn.wconmsg_user, "ada");
  EXPECT_EQ(connect.msg().u.wconn.wconmsg_pid, GetCurrentThreadId());
  EXPECT_STREQ(connect.msg().u.wconn.wconmsg_devid, drive.record.tnw_da_device_id);
}

TEST(Start, FailsWithAPoolThatCannotBe) {
  LogCapture log;
  PeerDrive drive;
  drive.record.tnw_max_threads = 0;
  EXPECT_EQ(drive.start(), nullptr);
  EXPECT_EQ(log.count("Cannot create thread pool"), 1u);
}

TEST(Start, UndoesAStartWhoseServiceRefusesTheConnection) {
  LogCapture log;
  PeerDrive drive;
  drive.peer = std::make_unique<ScriptedPeer>(
      [](PeerConnection& conn) { conn.answer(13); },
      (std::filesystem::create_directories(cache_dir(drive.record)), socket_path(drive.record)));
  EXPECT_EQ(drive.start(), nullptr);
  EXPECT_EQ(drive.error, GAVE_UP);
  EXPECT_EQ(log.count("Could not Connect to Tarn."), 1u);
  EXPECT_EQ(log.count("Cannot setup VFS handles"), 1u);
  EXPECT_TRUE(drive.peer->wait_for_ended(1)) << "the connection is closed";
  drive.peer->on_request(ScriptedPeer::answer_success);
  EXPECT_NE(drive.start(), nullptr) << "nothing of the failed start is in the way";
}

TEST(Drives, ShareOneServiceAndStopItWithTheLast) {
  LogCapture log;
  PeerDrive drive;
  void* first = drive.start();
  ASSERT_NE(first, nullptr);
  int err = -1;
  EXPECT_EQ(tnw_init(&drive.record, &err), first) << "the same drive id gives the same handle";
  EXPECT_EQ(err, 0);
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  void* second = tnw_init(&other, &err);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(drive.peer->count(TNV_OP_WIN_CONNECT), 2u) << "no second service";
  EXPECT_EQ(std::string(tnw_get_tninstance_id(first)).size(), 36u);
  EXPECT_STREQ(tnw_get_tninstance_id(first), tnw_get_tninstance_id(second));
  EXPECT_EQ(log.count("Created new handle for ada@drive.test, drive handle count 2, drive uuid "
                      "44444444-4444-4444-4444-444444444444"),
            1u);

  EXPECT_EQ(tnw_deinit(first, true), 0) << "force has no effect";
  EXPECT_EQ(drive.peer->count(TNV_OP_SHUTDOWN), 0u);
  EXPECT_STREQ(tnw_get_tninstance_id(first), "");
  EXPECT_EQ(tnw_deinit(first, false), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit(second, false), 0);
  EXPECT_EQ(drive.peer->count(TNV_OP_SHUTDOWN), 1u);
  EXPECT_FALSE(file_exists(socket_path(drive.record)));
  EXPECT_TRUE(drive.peer->wait_for_ended(2));
  drive.drive = nullptr;
}

TEST(Drives, ThatGoTakeAlongWhatTheyLeftOpen) {
  PeerDrive drive;
  void* first = drive.start();
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  void* second = tnw_init(&other, nullptr);
  tnv_wopen_resp opened = open_answer();
  opened.wopen_resp_handle = local_file(drive.folder / "local", "x");
  drive.answer_opens(opened);
  drive.drive = second;
  void* file = drive.open("f");
  const size_t sent = drive.peer->requests().size();
  EXPECT_EQ(tnw_deinit(second, false), 0);
  EXPECT_EQ(drive.peer->requests().size(), sent) << "the service is not told";
  HANDLE alone = CreateFileA((drive.folder / "local").c_str(), GENERIC_READ, 0, nullptr,
                             OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(alone, INVALID_HANDLE_VALUE) << "the local file is closed";
  CloseHandle(alone);
  drive.drive = tnw_init(&other, nullptr); /* at the second's address, or not */
  EXPECT_EQ(tnw_close(file, nullptr), TNW_ERROR_NO_SERVICE);
  EXPECT_EQ(drive.open("g"), file) << "the entry given back last is taken first";
  EXPECT_EQ(tnw_deinit(drive.drive, false), 0);
  drive.drive = first;
}

TEST(Drives, ThatAreUnknownAreRefusedWhileAnotherUsersStartTakesItsTime) {
  TestFolder folder;
  tnw_tninit record = start_record(folder, beside_test("stand_in_service.exe"));
  const std::string begun = folder / "begun";
  SetEnvironmentVariableA("STAND_IN_READY", nullptr);
  SetEnvironmentVariableA("STAND_IN_COMMAND", begun.c_str());
  std::atomic<bool> ended = false;
  std::thread start([&] {
    EXPECT_EQ(failed_start(&record), GAVE_UP);
    ended = true;
  });
  while (!file_exists(begun)) {
    Sleep(10);
  }
  EXPECT_EQ(tnw_deinit(&folder, false), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit_force(&folder), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(ended);
  std::string ready = socket_path(record);
  EXPECT_EQ(tnv_signal_start(ready.data()), 0) << "nothing listens there, so the start fails";
  start.join();
  SetEnvironmentVariableA("STAND_IN_COMMAND", nullptr);
}

TEST(Drives, AreAllGoneAfterAForcedDeinit) {
  PeerDrive drive;
  void* first = drive.start();
  tnw_tninit other = drive.record;
  set_field(other.tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  void* second = tnw_init(&other, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(tnw_deinit_force(second), 0);
  EXPECT_EQ(tnw_deinit_force(first), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit(second, false), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(tnw_deinit_force(nullptr), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(drive.peer->count(TNV_OP_SHUTDOWN), 1u);
  drive.drive = nullptr;
}

TEST(Drives, AreFoundUnknownByTheSecondOfTwoDeinitsAtOnce) {
  PeerDrive drive;
  ASSERT_NE(drive.start(), nullptr);
  int codes[2];
  std::thread other([&] { codes[0] = tnw_deinit(drive.drive, false); });
  codes[1] = tnw_deinit(drive.drive, false);
  other.join();
  EXPECT_EQ(codes[0] + codes[1], ERROR_INVALID_PARAMETER);
  drive.drive = nullptr;
}
