/* tarnd.exe from outside: its process, and every operation as bytes on the socket. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>

#include "eventually.h"
#include "ox_errno.h"
#include "raw_client.h"
#include "test_folder.h"
#include "tnv_connio_win.h"

namespace {

namespace fs = std::filesystem;
using Payload = RawConnection::Payload;

class ServiceTest : public testing::Test {
 protected:
  ServiceTest() {
    EXPECT_EQ(tnv_sock_init(), 0);
    fs::create_directory(cloud());
  }

  void start_and_connect(const Variables& variables = {{"TARND_REGION_SHIFT", "4"}}) {
    ASSERT_TRUE(service_.start(variables)) << read_file(folder_ / "tarnd.log");
    connection_ = std::make_unique<RawConnection>(service_);
    ASSERT_EQ(connection_->connect().error(), 0);
  }
  std::string cloud() const { return folder_ / "cloud"; }
  /* The content of a conflict copy. */
  std::string beside(const std::string& name) const {
    for (const auto& entry : fs::directory_iterator(cloud())) {
      if (entry.path().filename().string().starts_with(name + " (conflict of ")) {
        return read_file(entry);
      }
    }
    return "";
  }
  TestFolder folder_;
  ServiceProcess service_{folder_.path().string()};
  std::unique_ptr<RawConnection> connection_;
};

/* ------------------------------------------------------------------ the process */

TEST_F(ServiceTest, StartsOnceAndEndsWhenAsked) {
  start_and_connect();
  const fs::path pid_path = folder_.path() / "cache" / "tarnd_pid";
  EXPECT_EQ(read_file(pid_path), std::to_string(service_.pid()));
  const HANDLE pid_file = CreateFileW(pid_path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
  const auto lock = [pid_file] {
    OVERLAPPED start = {};
    const DWORD at_once = LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY;
    return LockFileEx(pid_file, at_once, 0, MAXDWORD, MAXDWORD, &start);
  };
  EXPECT_FALSE(lock());
  ServiceProcess second(folder_.path().string());
  EXPECT_FALSE(second.start());
  EXPECT_EQ(second.wait(), 1);

  EXPECT_EQ(connection_->ask(TNV_OP_SHUTDOWN).error(), 0);
  EXPECT_EQ(service_.wait(), 0);
  EXPECT_TRUE(lock());
  CloseHandle(pid_file);
  EXPECT_FALSE(fs::exists(service_.socket_path()));

  fs::remove(cloud());
  EXPECT_FALSE(service_.start());
  EXPECT_EQ(service_.wait(), 1) << "without a cloud";
}

TEST_F(ServiceTest, SaysWhatItIsAndNumbersAndDelaysAnswersWhenTold) {
  start_and_connect(
      {{"TARND_UTXID", "70"}, {"TARND_LATENCY_MS", "300"}, {"TARND_LATENCY_OPS", "stat"}});
  ULONGLONG start = GetTickCount64();
  const RawAnswer answer = connection_->ask(TNV_OP_GET_VERSION);
  EXPECT_LT(GetTickCount64() - start, 290u);
  EXPECT_EQ(answer.resp.rhdr.rhdr_utxid, 71u);
  EXPECT_EQ(answer.resp.rhdr.rhdr_len, 536u);
  const ox_get_version_t& version = answer.resp.u.get_version.ver_fields;
  EXPECT_EQ(version.gv_process_id, static_cast<int>(service_.pid()));
  EXPECT_STREQ(version.gv_device_id, "t-dev");
  EXPECT_STREQ(version.gv_da_device_id, "d-dev");
  EXPECT_STREQ(version.gv_tn_args.sa_cfs, "https://acme.example.com");
  EXPECT_EQ(version.gv_authorized, 1);
  start = GetTickCount64();
  EXPECT_EQ(connection_->texts(TNV_OP_WIN_STAT, {"/"}).resp.rhdr.rhdr_utxid, 72u);
  EXPECT_GE(GetTickCount64() - start, 290u);
}

/* ------------------------------------------------------------------ malformed requests */

TEST_F(ServiceTest, AnyBytesLeaveItAlive) {
  start_and_connect();
  std::minstd_rand random;
  for (uint32_t round = 0; round < 100; round++) {
    const uint32_t opcode = round % (TNV_OP_SHUTDOWN + 3);
    if (opcode == TNV_OP_SHUTDOWN) {
      continue;
    }
    RawConnection connection(service_);
    connection.connect();
    const auto fill = [&](Payload& u) {
      for (ox_u8& byte : u.bytes) {
        byte = static_cast<ox_u8>(random());
      }
    };
    connection.ask(opcode, fill, {"some/path", 10});
  }
  EXPECT_EQ(connection_->ask(TNV_OP_GET_VERSION).error(), 0);
}

/* ------------------------------------------------------------------ files */

/* The part of another process, which the next test starts and kills. */
TEST(KilledClient, DISABLED_HoldsAFile) {
  ASSERT_EQ(tnv_sock_init(), 0);
  const std::string folder = std::getenv("TARND_TEST_FOLDER");
  const ServiceProcess service(folder);
  RawConnection connection(service);
  ASSERT_EQ(connection.connect().error(), 0);
  const RawFile file = connection.open("a.txt");
  ASSERT_EQ(connection.change(file, 0, "new"), 0);
  ASSERT_EQ(connection.lock(file, TN_SMBLK_EX_BRL, 0, 10), 0);
  ASSERT_EQ(connection.open("b.txt", {.share = 0}).error, 0);
  std::ofstream(folder + "/opening", std::ios::binary)
      .write(reinterpret_cast<const char*>(&file.id), sizeof file.id);
  fs::rename(folder + "/opening", folder + "/held");
  Sleep(INFINITE);
}

TEST_F(ServiceTest, AClientsOpensAreItsOwnAndEndWithItWithoutALoss) {
  write_file(cloud() + "/a.txt", "old content");
  write_file(cloud() + "/b.txt", "");
  start_and_connect();
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, sizeof program);
  const std::string line = '"' + std::string(program) +
                           "\" --gtest_also_run_disabled_tests --gtest_filter=KilledClient.*";
  SetEnvironmentVariableA("TARND_TEST_FOLDER", folder_.path().string().c_str());
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION client = {};
  ASSERT_TRUE(CreateProcessA(nullptr, std::string(line).data(), nullptr, nullptr, FALSE,
                             CREATE_NO_WINDOW, nullptr, nullptr, &startup, &client));
  EXPECT_TRUE(eventually([&] { return fs::exists(folder_.path() / "held"); }));

  const RawFile file = connection_->open("a.txt");
  EXPECT_EQ(connection_->lock(file, TN_SMBLK_SH_BRL, 9, 1), OX_EACCES);
  EXPECT_EQ(connection_->lock(file, TN_SMBLK_LEASE, 9, 1), OX_EINVAL);
  EXPECT_EQ(connection_->open("b.txt").error, OX_EACCES);
  RawFile theirs = file; /* what belongs to one process is nobody else's */
  read_file(folder_ / "held").copy(reinterpret_cast<char*>(&theirs.id), sizeof theirs.id);
  EXPECT_EQ(connection_->close(theirs.id, TNV_FL_MODIFIED), OX_EBADF);
  EXPECT_EQ(connection_->region(TNV_OP_CACHE_REGION, theirs, 0, 1).error(), OX_EBADF);
  EXPECT_EQ(connection_->region(TNV_OP_DIRTY_REGION, theirs, 0, 1).error(), OX_EBADF);
  const auto cut = [&](Payload& u) { u.ftruncate = {0, theirs.id, {}}; };
  EXPECT_EQ(connection_->ask(TNV_OP_FTRUNCATE, cut).error(), OX_EBADF);
  EXPECT_EQ(connection_->end(TNV_OP_WIN_CLEANUP, theirs.id), OX_EBADF);
  EXPECT_EQ(connection_->open("a.txt", {.client = service_.pid()}).error, OX_EPERM);
  TerminateProcess(client.hProcess, 1);
  WaitForSingleObject(client.hProcess, INFINITE);
  CloseHandle(client.hThread);
  CloseHandle(client.hProcess);
  EXPECT_TRUE(eventually([&] { return connection_->lock(file, TN_SMBLK_EX_BRL, 9, 1) == 0; }));
  const RawFile exclusive = connection_->open("b.txt", {.share = 0});
  EXPECT_EQ(exclusive.error, 0);
  CloseHandle(file.handle());
  EXPECT_EQ(connection_->close(exclusive.id) | connection_->close(file.id), 0);
  EXPECT_TRUE(eventually([&] { return beside("a") == "new content"; })) << "nobody closed it";
  EXPECT_EQ(read_file(cloud() + "/a.txt"), "old content");
}

}  // namespace
