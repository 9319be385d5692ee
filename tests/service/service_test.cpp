/* tarnd.exe from outside: its process, and every operation as bytes on the socket. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "ox_errno.h"
#include "raw_client.h"
#include "test_folder.h"

namespace {

namespace fs = std::filesystem;
using Payload = RawConnection::Payload;

constexpr RawOpen kCreateNew{.disposition = 1};
constexpr RawOpen kOpenAlways{.disposition = 4};
constexpr uint32_t kModified = TNV_FL_MODIFIED;

/* As the client does: cached, reported, written. */
void Change(RawConnection& connection, const RawFile& file, uint32_t offset,
            const std::string& data) {
  ASSERT_EQ(connection.CacheRegion(file, offset, data.size()).error(), 0);
  ASSERT_EQ(connection.DirtyRegion(file, offset, data.size()).error(), 0);
  OVERLAPPED position = {};
  position.Offset = offset;
  const DWORD size = static_cast<DWORD>(data.size());
  ASSERT_TRUE(WriteFile(file.handle(), data.data(), size, nullptr, &position));
}

class ServiceTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  }
  void SetUp() override { fs::create_directory(Cloud("")); }

  void StartAndConnect(const Variables& variables = {{"TARND_REGION_SHIFT", "4"}}) {
    ASSERT_TRUE(service_.Start(variables)) << Text(folder_.path() / "tarnd.log");
    connection_ = std::make_unique<RawConnection>(service_);
    ASSERT_EQ(connection_->Connect().error(), 0);
  }
  int Shutdown() {
    EXPECT_EQ(connection_->Ask(TNV_OP_SHUTDOWN).error(), 0);
    connection_.reset();
    return service_.Wait();
  }

  fs::path Cloud(const std::string& name) const { return folder_.path() / "cloud" / name; }
  void Put(const std::string& name, const std::string& content) const {
    std::ofstream(Cloud(name), std::ios::binary) << content;
  }
  std::string Get(const std::string& name) const { return Text(Cloud(name)); }
  static std::string Text(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }

  void Change(const RawFile& file, uint32_t offset, const std::string& data) {
    ::Change(*connection_, file, offset, data);
  }
  int CloseFile(const RawFile& file, uint32_t tnflags = 0) {
    CloseHandle(file.handle());
    return connection_->Close(file.id, tnflags);
  }

  TestFolder folder_;
  ServiceProcess service_{folder_.path().string()};
  std::unique_ptr<RawConnection> connection_;
};

/* ------------------------------------------------------------------ the process */

TEST_F(ServiceTest, StartsOnceAndEndsWhenAsked) {
  StartAndConnect();
  const fs::path pid_path = folder_.path() / "cache" / "tarnd_pid";
  EXPECT_EQ(Text(pid_path), std::to_string(service_.pid()));
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
  EXPECT_FALSE(second.Start());
  EXPECT_EQ(second.Wait(), 1);

  connection_->List("/");
  EXPECT_EQ(Shutdown(), 0);
  EXPECT_TRUE(lock());
  CloseHandle(pid_file);
  EXPECT_FALSE(fs::exists(service_.socket_path()));
  const auto counts = service_.Counts();
  EXPECT_EQ(counts.at("denum"), 1u);
  EXPECT_EQ(counts.at("requests"), 4u) << "connect, denum, close, shutdown";

  fs::remove(Cloud(""));
  EXPECT_FALSE(service_.Start());
  EXPECT_EQ(service_.Wait(), 1) << "without a cloud";
}

TEST_F(ServiceTest, SaysWhatItIsAndNumbersAndDelaysAnswersWhenTold) {
  StartAndConnect(
      {{"TARND_UTXID", "70"}, {"TARND_LATENCY_MS", "300"}, {"TARND_LATENCY_OPS", "stat"}});
  ULONGLONG start = GetTickCount64();
  const RawAnswer answer = connection_->Ask(TNV_OP_GET_VERSION);
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
  EXPECT_EQ(connection_->Stat("/").resp.rhdr.rhdr_utxid, 72u);
  EXPECT_GE(GetTickCount64() - start, 290u);
}

/* ------------------------------------------------------------------ malformed requests */

TEST_F(ServiceTest, LengthsThatCannotBeEndTheConnection) {
  StartAndConnect();
  for (const ox_u32 length : {0u, 72u, 503u, 0x7fffffffu, 0xffffffffu}) {
    RawConnection connection(service_);
    tnv_msghdr header = {};
    header.hdr_opcode = TNV_OP_GET_VERSION;
    header.hdr_len = length;
    ASSERT_TRUE(connection.Send(&header, sizeof header));
    EXPECT_EQ(connection.Receive().error(), OX_EINVAL) << length;
    EXPECT_FALSE(connection.Receive().came) << length;
  }
  EXPECT_EQ(connection_->Ask(TNV_OP_GET_VERSION).error(), 0) << "others go on";
}

TEST_F(ServiceTest, RequestsThatMakeNoSenseAreRefused) {
  StartAndConnect();
  const auto stat = [this](ox_s32 length, const std::string& trailing) {
    const auto fill = [=](Payload& u) { u.wstat.wstat_path_len = length; };
    return connection_->Ask(TNV_OP_WIN_STAT, fill, trailing).error();
  };
  for (const ox_s32 length : {-1, 0, 1, 2, 4, 5, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(stat(length, {"ab", 3}), OX_EINVAL) << length;
  }
  EXPECT_EQ(stat(1, "a"), OX_EINVAL) << "without its NUL";
  const auto fill_rename = [](Payload& u) {
    u.wrename.wrename_msg_slen = 3;
    u.wrename.wrename_msg_dlen = -1;
  };
  EXPECT_EQ(connection_->Ask(TNV_OP_WIN_RENAME, fill_rename, {"a\0b", 4}).error(), OX_EINVAL);
  EXPECT_EQ(connection_->Open("x", {.disposition = 6}).error, OX_EINVAL);
  EXPECT_EQ(connection_->Open("x", {.flags = 0x41}).error, OX_EINVAL);
  EXPECT_EQ(connection_->Ask(99).error(), OX_ENOSYS);
  EXPECT_EQ(RawConnection(service_).Stat("/").error(), OX_EINVAL) << "before CONNECT";
  EXPECT_EQ(connection_->Ask(TNV_OP_WIN_DISCONNECT).error(), 0);
  EXPECT_FALSE(connection_->Receive().came);
}

TEST_F(ServiceTest, AnyBytesLeaveItAlive) {
  StartAndConnect();
  std::minstd_rand random;
  for (uint32_t round = 0; round < 100; round++) {
    const uint32_t opcode = round % (TNV_OP_SHUTDOWN + 3);
    if (opcode == TNV_OP_SHUTDOWN) {
      continue;
    }
    RawConnection connection(service_);
    connection.Connect();
    const auto fill = [&](Payload& u) {
      for (ox_u8& byte : u.bytes) {
        byte = static_cast<ox_u8>(random());
      }
    };
    connection.Ask(opcode, fill, {"some/path", 10});
  }
  EXPECT_EQ(connection_->Ask(TNV_OP_GET_VERSION).error(), 0);
}

/* ------------------------------------------------------------------ files */

TEST_F(ServiceTest, OpensCachesChangesCutsAndClosesAFile) {
  Put("a.txt", "0123456789abcdef0123456789ABCDEFxyz");
  StartAndConnect();
  const RawFile file = connection_->Open("\\a.txt", kOpenAlways);
  EXPECT_EQ(file.error, TNV_OPEN_EXISTED);
  EXPECT_EQ(file.answer.wopen_resp_stat.st_size, 35u);
  EXPECT_EQ(file.answer.wopen_resp_tnflags, uint32_t{TNV_FL_MAPPED});
  const tnv_cache_region_resp cached = connection_->CacheRegion(file, 20, 1).resp.u.cache_region;
  EXPECT_EQ(cached.cr_soff, 16u);
  EXPECT_EQ(cached.cr_sz, 12u) << "to the region's end";
  EXPECT_EQ(cached.cr_fsz, 35u);
  Change(file, 34, "Z and more than fits the last region");
  EXPECT_EQ(connection_->Truncate(file, 40), 0);
  EXPECT_EQ(connection_->Stat("A.TXT").resp.u.wstat.wstat_fi.fi_size, 40u) << "as it is locally";
  EXPECT_EQ(CloseFile(file, kModified), 0);
  EXPECT_EQ(connection_->Close(file.id), OX_EBADF);
  EXPECT_EQ(Get("a.txt"), "0123456789abcdef0123456789ABCDEFxyZ and ");
  EXPECT_EQ(Shutdown(), 0);
  const auto counts = service_.Counts();
  EXPECT_EQ(counts.at("bytes_fetched"), 19u) << "two regions, the last one 3 bytes long";
  EXPECT_EQ(counts.at("files_written_back"), 1u);
}

TEST_F(ServiceTest, RangeLocksBelongToOpens) {
  Put("a.txt", "x");
  StartAndConnect();
  const RawFile one = connection_->Open("a.txt");
  const RawFile two = connection_->Open("a.txt");
  RawConnection other(service_);
  ASSERT_EQ(other.Connect().error(), 0);
  Put("b.txt", "x");
  const RawFile elsewhere = connection_->Open("b.txt");
  EXPECT_EQ(connection_->Lock(one, TN_SMBLK_EX_BRL, 0, 10), 0);
  EXPECT_EQ(connection_->Lock(elsewhere, TN_SMBLK_EX_BRL, 0, 10), 0) << "another file";
  EXPECT_EQ(other.Lock(two, TN_SMBLK_SH_BRL, 9, 1), OX_EACCES);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_UNLOCK_BRL, 0, 10), OX_EINVAL);
  EXPECT_EQ(connection_->Cleanup(one), 0);
  EXPECT_EQ(connection_->Lock(one, TN_SMBLK_SH_BRL, 20, 1), OX_EBADF);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_EX_BRL, 0, 10), 0) << "released by the cleanup";
  EXPECT_EQ(connection_->Lock(two, TN_SMBLK_LEASE, 0, 10), OX_EINVAL);
  const RawFile three = connection_->Open("a.txt");
  EXPECT_EQ(connection_->Lock(three, TN_SMBLK_SH_BRL, 0, 1), OX_EACCES);
  EXPECT_EQ(CloseFile(two) | CloseFile(one) | CloseFile(elsewhere), 0);
  EXPECT_EQ(connection_->Lock(three, TN_SMBLK_EX_BRL, 0, 1), 0) << "released by the close";
  EXPECT_EQ(CloseFile(three), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_SH_BRL, 0, 1), OX_EBADF);
}

/* Waits for what the service does on its own. */
bool Soon(const std::function<bool()>& happened) {
  for (int tries = 0; tries < 500; tries++) {
    if (happened()) {
      return true;
    }
    Sleep(20);
  }
  return false;
}

/* The part of another process, which the next test starts and kills. */
TEST(KilledClient, DISABLED_HoldsAFile) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
  const std::string folder = std::getenv("TARND_TEST_FOLDER");
  const ServiceProcess service(folder);
  RawConnection connection(service);
  ASSERT_EQ(connection.Connect().error(), 0);
  const RawFile file = connection.Open("a.txt");
  Change(connection, file, 0, "new");
  ASSERT_EQ(connection.Lock(file, TN_SMBLK_EX_BRL, 0, 10), 0);
  ASSERT_EQ(connection.Open("b.txt", {.share = 0}).error, 0);
  std::ofstream(folder + "/held") << "x";
  Sleep(INFINITE);
}

TEST_F(ServiceTest, AKilledClientHoldsNothingAndLosesNothing) {
  Put("a.txt", "old content");
  Put("b.txt", "");
  StartAndConnect();
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
  EXPECT_TRUE(Soon([&] { return fs::exists(folder_.path() / "held"); }));

  const RawFile file = connection_->Open("a.txt");
  EXPECT_EQ(connection_->Lock(file, TN_SMBLK_SH_BRL, 9, 1), OX_EACCES);
  EXPECT_EQ(connection_->Open("b.txt").error, OX_EACCES);
  TerminateProcess(client.hProcess, 1);
  WaitForSingleObject(client.hProcess, INFINITE);
  CloseHandle(client.hThread);
  CloseHandle(client.hProcess);
  EXPECT_TRUE(Soon([&] { return connection_->Lock(file, TN_SMBLK_EX_BRL, 9, 1) == 0; }));
  EXPECT_TRUE(Soon([&] { return Get("a.txt") == "new content"; }));
  const RawFile exclusive = connection_->Open("b.txt", {.share = 0});
  EXPECT_EQ(exclusive.error, 0);
  EXPECT_EQ(CloseFile(exclusive) | CloseFile(file), 0);
}

/* ------------------------------------------------------------------ names */

TEST_F(ServiceTest, MakesFoldersAndKeepsThemApartFromFiles) {
  Put("file", "x");
  StartAndConnect();
  const struct {
    const char* path;
    uint32_t disposition, flags;
    int error;
  } cases[] = {
      {"new", 3, 0x1, OX_ENOENT},
      {"new", 1, 0x1, 0},
      {"NEW", 1, 0x1, OX_EEXIST},
      {"new", 4, 0x1, TNV_OPEN_EXISTED},
      {"new", 3, 0x1, 0},
      {"new", 3, 0, 0},
      {"new", 3, 0x40, OX_EPERM},
      {"new", 4, 0x40, OX_EPERM},
      {"new", 2, 0x1, OX_EPERM},
      {"new/below", 4, 0x1, 0},
      {"file", 3, 0x1, OX_ENOTDIR},
      {"file", 4, 0x1, OX_ENOTDIR},
      {"file", 1, 0x1, OX_EEXIST},
      {"none/folder", 1, 0x1, OX_ENOENT},
      {"none/file", 1, 0, OX_ENOENT},
      {"file/folder", 1, 0x1, OX_ENOTDIR},
      {"a?", 1, 0x1, OX_EINVAL},
      {"/", 4, 0x1, TNV_OPEN_EXISTED},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.path << ' ' << c.disposition << ' ' << c.flags);
    const RawFile open =
        connection_->Open(c.path, {.disposition = c.disposition, .flags = c.flags});
    EXPECT_EQ(open.error, c.error);
    if (open.error == 0 || open.error == TNV_OPEN_EXISTED) {
      EXPECT_EQ(open.answer.wopen_resp_fso.fso_isdir, 1u);
      EXPECT_TRUE(open.maps.empty());
      EXPECT_EQ(connection_->Close(open.id), 0);
    }
  }
  EXPECT_TRUE(fs::is_directory(Cloud("new/below")));
  EXPECT_EQ(connection_->Open(std::string(245, 'n'), kCreateNew).error, OX_EINVAL);
  EXPECT_EQ(CloseFile(connection_->Open(std::string(244, 'n'), kCreateNew)), 0);
}

TEST_F(ServiceTest, RenamesWhatItMay) {
  Put("A.txt", "content");
  Put("b.txt", "");
  fs::create_directories(Cloud("Folder/sub"));
  StartAndConnect();
  const struct {
    std::string from, to;
    int error;
  } cases[] = {
      {"a.txt", "B.TXT", OX_EEXIST},
      {"a.txt", "folder", OX_EEXIST},
      {"folder", "b.txt", OX_EEXIST},
      {"none", "c", OX_ENOENT},
      {"a.txt", "none/c", OX_ENOENT},
      {"a.txt", "b.txt/c", OX_ENOTDIR},
      {"folder", "FOLDER/sub/c", OX_EINVAL},
      {"a.txt", "a*", OX_EINVAL},
      {"a.txt", std::string(245, 'n'), OX_EINVAL},
      {"/", "c", OX_EPERM},
      {"a.txt", "/", OX_EEXIST},
      {"a.txt", "../c", OX_EPERM},
      {"a.txt", std::string(244, 'n'), 0},
      {std::string(244, 'n'), "a.txt", 0},
      {"a.txt", "a.txt", 0},
      {"a.txt", "A.TXT", 0},
      {"folder", "FOLDER", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(connection_->Rename(c.from, c.to), c.error) << c.from << " to " << c.to;
  }
  EXPECT_EQ(connection_->List("/").size(), 3u); /* not looked at closer: Wine keeps the old case */
  EXPECT_EQ(Get("A.TXT"), "content");
}

TEST_F(ServiceTest, WhatIsOpenFollowsItsName) {
  Put("a.txt", "content");
  fs::create_directory(Cloud("Folder"));
  StartAndConnect();
  const RawFile file = connection_->Open("A.TXT");
  Change(file, 0, "CON");
  EXPECT_EQ(connection_->Rename("a.txt", "A.txt"), 0) << "it shares deletion";
  EXPECT_EQ(connection_->Rename("a.txt", "folder\\c.txt"), 0);
  EXPECT_EQ(connection_->Open("a.txt").error, OX_ENOENT);
  EXPECT_EQ(connection_->Rename("FOLDER", "moved"), OX_EBUSY);
  EXPECT_EQ(connection_->Cleanup(file), 0);
  EXPECT_EQ(connection_->Rename("FOLDER", "moved"), 0);
  EXPECT_EQ(connection_->Stat("moved/c.txt").resp.u.wstat.wstat_fi.fi_size, 7u);
  Change(file, 7, " of a mapped file");
  const RawFile again = connection_->Open("moved/c.txt");
  EXPECT_EQ(again.answer.wopen_resp_stat.st_size, 24u) << "one file, not two";
  EXPECT_EQ(CloseFile(file, kModified), 0);
  EXPECT_EQ(CloseFile(again), 0);
  EXPECT_EQ(Get("moved/c.txt"), "CONtent of a mapped file");
}

TEST_F(ServiceTest, DeletesWhatItMay) {
  Put("a.txt", "content");
  Put("read-only", "x");
  fs::create_directory(Cloud("folder"));
  Put("folder/b.txt", "x");
  SetFileAttributesW(Cloud("read-only").c_str(), FILE_ATTRIBUTE_READONLY);
  StartAndConnect();
  const RawFile kept = connection_->Open("a.txt", {.access = 1, .share = 1});
  const struct {
    const char* path;
    int check, error;
  } cases[] = {
      {"folder", 0, OX_ENOTEMPTY},
      {"read-only", 0, OX_EPERM},
      {"/", 0, OX_EPERM},
      {"none", -OX_ENOENT, OX_ENOENT},
      {"a.txt", 0, OX_EACCES},
      {"folder/b.txt", 1, 0},
      {"folder", 1, 0},
      {"folder", -OX_ENOENT, OX_ENOENT},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(connection_->CanDelete(c.path), c.check) << c.path;
    EXPECT_EQ(connection_->Delete(c.path), c.error) << c.path;
  }
  EXPECT_EQ(connection_->Rename("a.txt", "d.txt"), OX_EACCES);
  EXPECT_EQ(connection_->Cleanup(kept), 0);
  EXPECT_EQ(connection_->CanDelete("a.txt"), 1);
  EXPECT_EQ(connection_->CacheRegion(kept, 0, 7).error(), 0);
  EXPECT_EQ(connection_->Delete("a.txt"), 0);
  const RawFile fresh = connection_->Open("a.txt", kCreateNew);
  EXPECT_EQ(fresh.error, 0) << "another file of that name";
  Change(fresh, 0, "fresh");
  char old[8] = {};
  ReadFile(kept.handle(), old, 7, nullptr, nullptr);
  EXPECT_STREQ(old, "content");
  EXPECT_EQ(CloseFile(fresh, kModified), 0);
  EXPECT_EQ(CloseFile(kept, kModified), 0);
  EXPECT_EQ(Get("a.txt"), "fresh");
  SetFileAttributesW(Cloud("read-only").c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(ServiceTest, TheShareIsARootThatListsByName) {
  fs::create_directories(Cloud("team/docs/folder"));
  Put("team/docs/b.txt", "x");
  Put("team/docs/a.txt", "xx");
  Put("secret.txt", "x");
  StartAndConnect();
  RawConnection share(service_);
  EXPECT_EQ(share.Connect("/none").error(), OX_ENOENT);
  EXPECT_EQ(share.Connect("/secret.txt").error(), OX_ENOTDIR);
  EXPECT_EQ(share.Connect("/team/docs").error(), 0);
  const auto list = share.List("\\");
  ASSERT_EQ(list.size(), 3u);
  EXPECT_STREQ(list[0].fi_name, "a.txt");
  EXPECT_EQ(list[0].fi_size, 2u);
  EXPECT_STREQ(list[1].fi_name, "b.txt");
  EXPECT_EQ(list[2].fi_attr & FILE_ATTRIBUTE_DIRECTORY, 16u);
  EXPECT_EQ(share.Stat("a.txt").error(), 0);
  EXPECT_EQ(share.Stat("../../secret.txt").error(), OX_EPERM);
  EXPECT_EQ(share.Delete("/"), OX_EPERM);
}

/* ------------------------------------------------------------------ credentials */

TEST_F(ServiceTest, AnExpiredTokenStopsFileRequestsUntilTheNextOne) {
  Put("a.txt", "old");
  StartAndConnect();
  const RawFile file = connection_->Open("a.txt");
  Change(file, 0, "new");
  EXPECT_EQ(connection_->UpdateToken("expired"), OX_EPERM);
  const RawAnswer refused = connection_->Stat("a.txt");
  EXPECT_EQ(refused.error(), OX_EPERM);
  EXPECT_EQ(refused.resp.rhdr.rhdr_tn_unauthd, 1);
  EXPECT_EQ(connection_->Close(file.id, kModified), OX_EPERM);
  EXPECT_EQ(connection_->Ask(TNV_OP_GET_VERSION).error(), 0);
  EXPECT_EQ(connection_->UpdateToken(""), 0);
  EXPECT_EQ(CloseFile(file, kModified), 0) << "the refused close can be repeated";
  EXPECT_EQ(Get("a.txt"), "new");
  const auto fill_proxy = [](Payload& u) { u.wsetproxy.wproxy_server_len = 8; };
  EXPECT_EQ(connection_->Ask(TNV_OP_WIN_SETPROXY, fill_proxy, {"proxy:80\0\0", 11}).error(), 0);
}

}  // namespace
