// tarnd.exe from outside: its process, and every operation as bytes on the socket.
#include <gtest/gtest.h>

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

  // As the client does: cached, reported, written.
  void Change(const RawFile& file, uint32_t offset, const std::string& data) {
    ASSERT_EQ(connection_->CacheRegion(file, offset, data.size()).error(), 0);
    ASSERT_EQ(connection_->DirtyRegion(file, offset, data.size()).error(), 0);
    OVERLAPPED position = {};
    position.Offset = offset;
    const DWORD size = static_cast<DWORD>(data.size());
    ASSERT_TRUE(WriteFile(file.handle(), data.data(), size, nullptr, &position));
  }
  int CloseFile(const RawFile& file, uint32_t tnflags = 0) {
    CloseHandle(file.handle());
    return connection_->Close(file.id, tnflags);
  }

  TestFolder folder_;
  ServiceProcess service_{folder_.path().string()};
  std::unique_ptr<RawConnection> connection_;
};

// ------------------------------------------------------------------ the process

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

// ------------------------------------------------------------------ malformed requests

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
    if (opcode == TNV_OP_SHUTDOWN) continue;
    RawConnection connection(service_);
    connection.Connect();
    const auto fill = [&](Payload& u) {
      for (ox_u8& byte : u.bytes) byte = static_cast<ox_u8>(random());
    };
    connection.Ask(opcode, fill, {"some/path", 10});
  }
  EXPECT_EQ(connection_->Ask(TNV_OP_GET_VERSION).error(), 0);
}

// ------------------------------------------------------------------ files

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
  EXPECT_EQ(connection_->Lock(one, TN_SMBLK_EX_BRL, 0, 10), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_SH_BRL, 9, 1), OX_EACCES);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_UNLOCK_BRL, 0, 10), OX_EINVAL);
  EXPECT_EQ(connection_->Cleanup(one), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_EX_BRL, 0, 10), 0) << "released by the cleanup";
  EXPECT_EQ(connection_->Lock(two, TN_SMBLK_LEASE, 0, 10), OX_EINVAL);
  EXPECT_EQ(CloseFile(two) | CloseFile(one), 0);
  EXPECT_EQ(other.Lock(two, TN_SMBLK_SH_BRL, 0, 1), OX_EBADF);
}

TEST_F(ServiceTest, AClientThatLeavesLosesNothing) {
  Put("a.txt", "old");
  StartAndConnect();
  RawFile file = connection_->Open("a.txt", {.share = 0});
  Change(file, 0, "new");
  CloseHandle(file.handle());
  connection_.reset();
  // The opens end with the last connection; nothing tells a client when.
  for (int tries = 0; tries < 100; tries++) {
    RawConnection next(service_);
    ASSERT_EQ(next.Connect().error(), 0);
    file = next.Open("a.txt", {.share = 0});
    if (file.error == 0) break;
    Sleep(20);
  }
  EXPECT_EQ(file.error, 0);
  EXPECT_EQ(Get("a.txt"), "new");
  CloseHandle(file.handle());
}

// ------------------------------------------------------------------ names

TEST_F(ServiceTest, RenamesAndDeletes) {
  Put("a.txt", "content");
  Put("b.txt", "");
  fs::create_directory(Cloud("folder"));
  StartAndConnect();
  EXPECT_EQ(connection_->Rename("a.txt", "b.txt"), OX_EEXIST);
  EXPECT_EQ(connection_->Rename("/", "c"), OX_EPERM);
  EXPECT_EQ(connection_->Rename("a.txt", "../c"), OX_EPERM);
  const RawFile file = connection_->Open("a.txt");
  Change(file, 0, "CON");
  EXPECT_EQ(connection_->Rename("a.txt", "folder\\c.txt"), 0) << "it shares deletion";
  EXPECT_EQ(connection_->Rename("folder", "moved"), OX_EBUSY);
  EXPECT_EQ(connection_->Delete("folder"), OX_ENOTEMPTY);
  EXPECT_FALSE(connection_->CanDelete("folder"));
  EXPECT_EQ(CloseFile(file, kModified), 0);
  EXPECT_EQ(Get("folder/c.txt"), "CONtent");
  EXPECT_EQ(connection_->Rename("folder", "moved"), 0);

  const RawFile kept = connection_->Open("moved/c.txt", {.access = 1, .share = 1});
  EXPECT_FALSE(connection_->CanDelete("moved/c.txt")) << "it does not share deletion";
  EXPECT_EQ(connection_->Delete("moved/c.txt"), OX_EACCES);
  EXPECT_EQ(connection_->Rename("moved/c.txt", "d.txt"), OX_EACCES);
  EXPECT_EQ(connection_->Cleanup(kept), 0);
  EXPECT_TRUE(connection_->CanDelete("moved/c.txt"));
  EXPECT_EQ(connection_->Delete("moved/c.txt"), 0);
  const RawFile fresh = connection_->Open("moved/c.txt", kCreateNew);
  EXPECT_EQ(fresh.error, 0) << "another file of that name";
  EXPECT_EQ(CloseFile(kept, kModified), 0);
  EXPECT_EQ(Get("moved/c.txt"), "");
  EXPECT_EQ(CloseFile(fresh), 0);
  EXPECT_EQ(connection_->Delete("moved/c.txt"), 0);
  EXPECT_EQ(connection_->Delete("moved"), 0);
  EXPECT_EQ(connection_->Delete("moved"), OX_ENOENT);
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

// ------------------------------------------------------------------ credentials

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
